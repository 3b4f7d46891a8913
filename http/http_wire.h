// The HTTP proxy's reply: the status line judged as the stack reads it.
#pragma once

#include <cstddef>

constexpr size_t kHttpReasonSize = 256;

struct HttpStatus {
    int status;                     // 500 when the text has no blank at all; 0 without digits
    char reason[kHttpReasonSize];   // always terminated
};

// The digits straight behind the first blank give the status; the word before it plays no part.
// The reason runs from the second character behind the digits to a control byte, a byte with the
// high bit set, or 256 characters from the first digit.
HttpStatus ParseHttpStatus(const char* text);

// 0 for 200 only; 65532 for 404, 65533 for 407, 10061 for anything else.
unsigned HttpStatusError(int status);
