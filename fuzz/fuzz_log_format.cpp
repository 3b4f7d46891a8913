// The log's second formatting pass on any text: it stays inside its buffer, always terminates, and
// a text without '%' comes out as it went in, cut to the count.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    size_t count = 1 + data[0] % 300;
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    text = text.c_str();  // up to the first zero byte, as a C string

    constexpr size_t kGuard = 64;
    char buffer[300 + kGuard];
    std::memset(buffer, 0x5a, sizeof buffer);
    size_t length = FormatWithoutArguments(text.c_str(), buffer, count);

    if (length > count - 1) std::abort();
    if (buffer[length] != '\0' || std::strlen(buffer) != length) std::abort();
    for (size_t i = count; i < sizeof buffer; ++i) {
        if (buffer[i] != 0x5a) std::abort();  // nothing written past the count
    }
    if (text.find('%') == std::string::npos && text.compare(0, length, buffer) != 0) std::abort();
    if (text.find('%') == std::string::npos && length != std::min(text.size(), count - 1)) std::abort();
    return 0;
}
