// Base64 of the credential text: refused only for a byte at or above 0x80 or a text too long for its
// buffer, and otherwise a text of the alphabet that decodes back to the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base64.h"

namespace {
int Value(char c) {
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const char* found = std::strchr(alphabet, c);
    return found != nullptr && c != '\0' ? static_cast<int>(found - alphabet) : -1;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kCapacity = 1024;
    std::string input(reinterpret_cast<const char*>(data), size < kCapacity ? size : kCapacity - 1);
    input = input.c_str();
    char text[kCapacity + 16];
    std::memset(text, 0x5a, sizeof text);
    std::memcpy(text, input.c_str(), input.size() + 1);
    int result = Base64Encode(text, kCapacity);

    for (size_t i = kCapacity; i < sizeof text; ++i) {
        if (text[i] != 0x5a) std::abort();
    }
    bool high = false;
    for (unsigned char c : input) high = high || c >= 0x80;
    bool fits = (input.size() + 2) / 3 * 4 + 1 <= kCapacity;
    if (result != (!high && fits ? 1 : 0)) std::abort();
    if (result == 0) {
        if (input != text) std::abort();
        return 0;
    }
    std::string encoded = text;
    if (encoded.size() != (input.size() + 2) / 3 * 4) std::abort();
    std::string decoded;
    unsigned buffer = 0;
    int bits = 0;
    for (char c : encoded) {
        if (c == '=') break;
        int v = Value(c);
        if (v < 0) std::abort();
        buffer = buffer << 6 | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            decoded += static_cast<char>(buffer >> bits & 0xff);
        }
    }
    if (decoded != input) std::abort();
    return 0;
}
