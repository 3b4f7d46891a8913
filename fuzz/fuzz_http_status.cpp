// The HTTP proxy's status line, as the first peek of at most 1024 bytes shows it: the reason stays
// printable and bounded, a text without a blank is 500, and only 200 is success.
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
    if (text.find(' ') == std::string::npos && (reply.status != 500 || reasonLength != 0)) std::abort();
    if ((HttpStatusError(reply.status) == 0) != (reply.status == 200)) std::abort();
    return 0;
}
