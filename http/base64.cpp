#include "base64.h"

#include <cstring>

namespace {
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kLongestText = 1024;
}  // namespace

int Base64Encode(char* text, size_t capacity) {
    size_t n = std::strlen(text);
    for (size_t i = 0; i < n; ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80) return 0;
    }
    size_t encodedLength = (n + 2) / 3 * 4;
    if (n > kLongestText || encodedLength + 1 > capacity) return 0;

    char block[kLongestText / 3 * 4 + 8] = {};
    std::memset(block, '=', encodedLength);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    size_t in = 0;
    size_t out = 0;
    for (; in + 3 <= n; in += 3) {
        unsigned group = bytes[in] << 16 | bytes[in + 1] << 8 | bytes[in + 2];
        block[out++] = kAlphabet[group >> 18 & 63];
        block[out++] = kAlphabet[group >> 12 & 63];
        block[out++] = kAlphabet[group >> 6 & 63];
        block[out++] = kAlphabet[group & 63];
    }
    if (n - in == 1) {
        block[out++] = kAlphabet[bytes[in] >> 2];
        block[out++] = kAlphabet[(bytes[in] & 3) << 4];
    } else if (n - in == 2) {
        block[out++] = kAlphabet[bytes[in] >> 2];
        block[out++] = kAlphabet[((bytes[in] & 3) << 4) | bytes[in + 1] >> 4];
        block[out++] = kAlphabet[(bytes[in + 1] & 15) << 2];
    }
    std::memcpy(text, block, encodedLength + 1);
    return 1;
}
