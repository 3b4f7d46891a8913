// The HTTP proxy's status line, as the first peek of at most 1024 bytes shows it: the reason stays
// printable and bounded, a text without a blank is 500, the digits behind the blank read as atoi reads
// them on Windows (held at 2147483647), and only 200 is success.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "http_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size < 1023 ? size : 1023);
    text = text.c_str();
    HttpStatus reply = ParseHttpStatus(text.c_str());

    size_t reasonLength = strnlen(reply.reason, sizeof reply.reason);
    if (reasonLength >= sizeof reply.reason) std::abort();
    for (size_t i = 0; i < reasonLength; ++i) {
        auto c = static_cast<unsigned char>(reply.reason[i]);
        if (c < 0x20 || c >= 0x80) std::abort();
    }
    size_t blank = text.find(' ');
    if (blank == std::string::npos && (reply.status != 500 || reasonLength != 0)) std::abort();
    if (blank != std::string::npos) {
        // The digits behind the blank, held at 2147483647: never negative, never wrapped round to 200.
        long long expected = 0;
        for (size_t i = blank + 1; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
            expected = std::min<long long>(expected * 10 + (text[i] - '0'), INT_MAX);
        }
        if (reply.status != expected) std::abort();
    }
    if ((HttpStatusError(reply.status) == 0) != (reply.status == 200)) std::abort();
    return 0;
}
