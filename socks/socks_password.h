// The RFC 1929 username/password request.
#pragma once

#include <cstddef>
#include <cstdint>

// Room for the longest request: 3 bytes, a user id of 510 and a narrow password of 259.
constexpr size_t kPasswordRequestSize = 3 + 510 + 259;

// Writes the request into `out` (kPasswordRequestSize bytes, zeroed) and returns how many bytes go
// out: 3 + the low 8 bits of the user's length + the low 8 bits of `passwordCount`, the password's
// length in wide characters. The user id is copied whole, and the password's length byte written
// behind the low 8 bits of the user's length, so a user of over 255 characters is overwritten in
// part. The length byte counts wide characters, not narrow bytes.
size_t BuildPasswordRequest(const char* user, size_t userLength, const char* password, size_t passwordLength,
                            size_t passwordCount, uint8_t* out);
