#include "http_wire.h"

#include "decimal_text.h"
#include "result_codes.h"

#include <cstring>

HttpStatus ParseHttpStatus(const char* text) {
    HttpStatus result = {};
    result.status = 500;
    const char* blank = std::strchr(text, ' ');
    if (blank == nullptr) return result;

    const char* first = blank + 1;
    // Only the digits themselves are read: a blank or a sign behind the first blank gives 0. Too many
    // digits give 2147483647, no known status, as atoi gives on Windows.
    size_t count = 0;
    while (first[count] >= '0' && first[count] <= '9') ++count;
    result.status = ReadDecimal(first, count);

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
