#include "socks_password.h"

#include "bounded_text.h"

size_t BuildPasswordRequest(const char* user, size_t userLength, const char* password, size_t passwordLength,
                            size_t passwordCount, uint8_t* out) {
    constexpr size_t kUserLimit = 510;
    constexpr size_t kPasswordLimit = 259;
    if (userLength > kUserLimit) userLength = kUserLimit;
    if (passwordLength > kPasswordLimit) passwordLength = kPasswordLimit;
    size_t userByte = userLength & 0xff;
    ByteWriter request(out, kPasswordRequestSize);
    request.Put(1);
    request.Put(static_cast<uint8_t>(userByte));
    request.Put(user, userLength);
    // Kept: the password's length byte goes behind the low 8 bits of the user's length, over the user
    // id's own bytes when it is longer than 255, and it counts wide characters, not the bytes sent.
    request.Seek(2 + userByte);
    request.Put(static_cast<uint8_t>(passwordCount & 0xff));
    request.Put(password, passwordLength);
    return 3 + userByte + (passwordCount & 0xff);
}
