// A fixed-size text field with guard bytes on both sides, for the tests and fuzzers of code that
// writes into arrays of a set size; and an ASCII comparison without regard to case, which stands in
// for the user locale's where the platform's is not at hand. Free of the Windows API.
#pragma once

#include <cctype>
#include <cstddef>
#include <cstring>
#include <string>

namespace dxtest {

constexpr unsigned char kGuardByte = 0xA5;

template <size_t Size>
struct GuardedField {
    unsigned char before[16];
    char field[Size];
    unsigned char after[16];

    explicit GuardedField(char fill = 'x') {
        std::memset(before, kGuardByte, sizeof before);
        std::memset(field, fill, sizeof field);
        std::memset(after, kGuardByte, sizeof after);
    }
    bool GuardsIntact() const {
        for (unsigned char b : before) {
            if (b != kGuardByte) return false;
        }
        for (unsigned char b : after) {
            if (b != kGuardByte) return false;
        }
        return true;
    }
    bool Terminated() const { return std::memchr(field, '\0', Size) != nullptr; }
    std::string Text() const { return std::string(field, strnlen(field, Size)); }
};

inline int AsciiCompareNoCase(const char* first, const char* second) {
    for (;; ++first, ++second) {
        int a = std::tolower(static_cast<unsigned char>(*first));
        int b = std::tolower(static_cast<unsigned char>(*second));
        if (a != b || a == 0) return a - b;
    }
}

}  // namespace dxtest
