// The settings file's numbers against the rules of stoi in base 10: blanks, a sign, then digits; no
// digit raises invalid_argument with "invalid stoi argument", a value beyond 32 bits out_of_range with
// "stoi argument out of range", anything else gives the value of the digits read, the rest ignored.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "config_number.h"

namespace {

bool Blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }
bool Digit(char c) { return c >= '0' && c <= '9'; }

// What the rules expect: 0 a value, 1 invalid, 2 out of range.
int Expected(const std::string& text, long long& value) {
    size_t i = 0;
    while (i < text.size() && Blank(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    if (i >= text.size() || !Digit(text[i])) return 1;
    size_t first = i;
    while (i < text.size() && Digit(text[i])) ++i;
    // Leading zeros don't count towards the size.
    while (first + 1 < i && text[first] == '0') ++first;
    if (i - first > 10) return 2;
    value = std::strtoll(text.substr(first, i - first).c_str(), nullptr, 10);
    if (negative) value = -value;
    if (value > INT32_MAX || value < INT32_MIN) return 2;
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The reader stops at the terminator, as at the text of an attribute.
    std::string text(reinterpret_cast<const char*>(data), size);
    text = text.c_str();
    long long value = 0;
    int expected = Expected(text, value);
    try {
        int got = ConvertConfigNumber(text.c_str());
        if (expected != 0 || got != value) std::abort();
    } catch (const std::invalid_argument& e) {
        if (expected != 1 || std::strcmp(e.what(), "invalid stoi argument") != 0) std::abort();
    } catch (const std::out_of_range& e) {
        if (expected != 2 || std::strcmp(e.what(), "stoi argument out of range") != 0) std::abort();
    }
    return 0;
}
