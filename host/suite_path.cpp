#include "suite_path.h"

#include <cstring>

void JoinSuitePath(const char* directory, LeadBytePredicate isLeadByte, char (&out)[kSuiteJoinedSize]) {
    size_t length = 0;
    if (directory != nullptr) {
        length = strnlen(directory, kSuitePathSize);
        if (length >= kSuitePathSize) length = 0;
    }
    if (length > 0) std::memcpy(out, directory, length);
    bool endsInBackslash = false;
    for (size_t i = 0; i < length; ++i) {
        unsigned char byte = static_cast<unsigned char>(out[i]);
        endsInBackslash = byte == '\\';
        if (isLeadByte(byte) && i + 1 < length) ++i;
    }
    if (length > 0 && !endsInBackslash) out[length++] = '\\';
    std::memcpy(out + length, kSuiteLibraryName, sizeof kSuiteLibraryName);
}
