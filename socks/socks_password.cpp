#include "socks_password.h"

#include <cstring>

size_t BuildPasswordRequest(const char* user, size_t userLength, const char* password, size_t passwordLength,
                            size_t passwordCount, uint8_t* out) {
    constexpr size_t kUserLimit = 510;
    constexpr size_t kPasswordLimit = 259;
    if (userLength > kUserLimit) userLength = kUserLimit;
    if (passwordLength > kPasswordLimit) passwordLength = kPasswordLimit;
    size_t userByte = userLength & 0xff;
    out[0] = 1;
    out[1] = static_cast<uint8_t>(userByte);
    std::memcpy(out + 2, user, userLength);
    out[2 + userByte] = static_cast<uint8_t>(passwordCount & 0xff);
    std::memcpy(out + 3 + userByte, password, passwordLength);
    return 3 + userByte + (passwordCount & 0xff);
}
