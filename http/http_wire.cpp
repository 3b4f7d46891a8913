#include "http_wire.h"

#include "result_codes.h"

#include <cstdint>
#include <cstring>


HttpStatus ParseHttpStatus(const char* text) {
    HttpStatus result = {};
    result.status = 500;
    const char* blank = std::strchr(text, ' ');
    if (blank == nullptr) return result;

    const char* first = blank + 1;
    // Read as atoi does on Windows: too many digits wrap around, with no undefined overflow here.
    uint32_t value = 0;
    size_t count = 0;
    while (first[count] >= '0' && first[count] <= '9') value = value * 10u + static_cast<uint32_t>(first[count++] - '0');
    result.status = static_cast<int>(value);

    // One character behind the digits is skipped, unless the text ends there.
    const char* p = first + count;
    if (*p != '\0') ++p;
    size_t length = 0;
    while (static_cast<size_t>(p - first) < kHttpReasonSize && length < kHttpReasonSize - 1) {
        auto c = static_cast<unsigned char>(*p);
        if (c < 0x20 || c >= 0x80) break;
        result.reason[length++] = static_cast<char>(c);
        ++p;
    }
    return result;
}

unsigned HttpStatusError(int status) {
    switch (status) {
        case 200: return 0;
        case 404: return dxcode::kHttpNotFound;
        case 407: return dxcode::kProxyAuthFailed;
        default: return dxcode::kConnectionRefused;
    }
}
