// Joining a directory and the suite library's file name, free of the Windows API so that it can be
// tested on any code page.
#pragma once

#include <cstddef>

constexpr size_t kSuitePathSize = 260;
constexpr char kSuiteLibraryName[] = "KVTSOCK2.DLL";
// A kept directory (at most 259 characters), one backslash, the file name and a terminator.
constexpr size_t kSuiteJoinedSize = kSuitePathSize + sizeof kSuiteLibraryName;

// Tells whether a byte opens a double-byte character of the code page in use.
using LeadBytePredicate = bool (*)(unsigned char byte);

// Writes `directory` with a backslash behind it (none behind an empty text or one that already ends
// in a backslash) and the suite library's name into `out`. A directory of 260 characters or more,
// or a null one, is dropped, which leaves the bare name. The scan for the last backslash skips the
// second byte of every double-byte character, so a trail byte of 0x5C is not taken for one.
void JoinSuitePath(const char* directory, LeadBytePredicate isLeadByte, char (&out)[kSuiteJoinedSize]);
