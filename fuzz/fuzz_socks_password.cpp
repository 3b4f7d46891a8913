// The RFC 1929 request: whatever the user and password lengths, it is written inside its buffer (the
// buffer is allocated to the exact size, so the address sanitizer sees any overrun), and the bytes
// that go out number 3 + the low 8 bits of each length.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "socks_password.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    size_t userLength = (data[0] | data[1] << 8) % 600;
    size_t passwordCount = (data[2] | data[3] << 8) % 400;
    const char* text = reinterpret_cast<const char*>(data + 4);
    size_t available = size - 4;
    size_t userTaken = userLength < available ? userLength : available;
    size_t passwordTaken = available - userTaken;

    std::unique_ptr<uint8_t[]> request(new uint8_t[kPasswordRequestSize]());
    size_t sent = BuildPasswordRequest(text, userTaken, text + userTaken, passwordTaken, passwordCount,
                                       request.get());
    size_t userByte = (userTaken > 510 ? 510 : userTaken) & 0xff;
    if (sent != 3 + userByte + (passwordCount & 0xff)) std::abort();
    if (sent > kPasswordRequestSize) std::abort();
    if (request[0] != 1 || request[1] != userByte || request[2 + userByte] != (passwordCount & 0xff)) std::abort();
    return 0;
}
