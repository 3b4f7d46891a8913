#include "suite_path.h"

#include <gtest/gtest.h>

#include <string>

namespace {

bool SingleByte(unsigned char) { return false; }
// Lead bytes of code page 932 (Shift JIS).
bool ShiftJisLead(unsigned char byte) { return (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC); }

std::string Join(const char* directory, LeadBytePredicate isLeadByte = SingleByte) {
    char out[kSuiteJoinedSize];
    JoinSuitePath(directory, isLeadByte, out);
    return out;
}

TEST(SuitePathTest, DirectoryGetsOneBackslash) {
    EXPECT_EQ(Join("C:\\Suite"), "C:\\Suite\\KVTSOCK2.DLL");
    EXPECT_EQ(Join("C:\\Suite\\"), "C:\\Suite\\KVTSOCK2.DLL");
}

TEST(SuitePathTest, EmptyOrNullDirectoryGivesTheBareName) {
    EXPECT_EQ(Join(""), "KVTSOCK2.DLL");
    EXPECT_EQ(Join(nullptr), "KVTSOCK2.DLL");
}

TEST(SuitePathTest, TrailByteOfADoubleByteCharacterIsNoBackslash) {
    // 0x83 0x5C is one Shift JIS character whose second byte has the value of a backslash.
    EXPECT_EQ(Join("C:\\\x83\x5C", ShiftJisLead), "C:\\\x83\x5C\\KVTSOCK2.DLL");
    // A single-byte code page reads the same bytes as a character and a backslash.
    EXPECT_EQ(Join("C:\\\x83\x5C", SingleByte), "C:\\\x83\x5CKVTSOCK2.DLL");
    EXPECT_EQ(Join("C:\\\x83\x5C\\", ShiftJisLead), "C:\\\x83\x5C\\KVTSOCK2.DLL");
}

TEST(SuitePathTest, DirectoryOf260CharactersOrMoreIsDropped) {
    std::string longest(259, 'a');
    EXPECT_EQ(Join(longest.c_str()), longest + "\\KVTSOCK2.DLL");
    EXPECT_EQ(Join(std::string(260, 'a').c_str()), "KVTSOCK2.DLL");
    EXPECT_EQ(Join(std::string(4000, 'a').c_str()), "KVTSOCK2.DLL");
}

}  // namespace
