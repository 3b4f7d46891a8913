// The older registry store's key names and the rule of its map count.
#include "registry_names.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

std::string MapPath(const char* family, int32_t index) {
    char path[kRegistryPathSize];
    std::memset(path, 'x', sizeof path);
    FormatMapPath(path, family, index);
    return path;
}

std::string KeyName(int32_t index) {
    char name[kRegistryPathSize];
    std::memset(name, 'x', sizeof name);
    FormatMapKeyName(name, index);
    return name;
}

TEST(RegistryNamesTest, MapKeysHaveAtLeastThreeDigits) {
    EXPECT_EQ(KeyName(1), "Map 001");
    EXPECT_EQ(KeyName(42), "Map 042");
    EXPECT_EQ(KeyName(999), "Map 999");
    EXPECT_EQ(KeyName(1000), "Map 1000");
    EXPECT_EQ(KeyName(INT32_MAX), "Map 2147483647");
    EXPECT_EQ(KeyName(0), "Map 000");
    EXPECT_EQ(KeyName(-1), "Map -01");  // as "%03d" prints it; no reader asks for it
    EXPECT_EQ(KeyName(INT32_MIN), "Map -2147483648");
}

TEST(RegistryNamesTest, PathsLieBelowNetworkProtocols) {
    EXPECT_EQ(MapPath(kSocksFamilyName, 7), "Network Protocols\\SOCKS\\Map 007");
    EXPECT_EQ(MapPath(kHttpFamilyName, 1234), "Network Protocols\\HTTP\\Map 1234");
    char path[kRegistryPathSize];
    FormatFamilyPath(path, kHttpFamilyName);
    EXPECT_STREQ(path, "Network Protocols\\HTTP");
    FormatDefaultMapPath(path, kSocksFamilyName);
    EXPECT_STREQ(path, "Network Protocols\\SOCKS\\Default Map");
    FormatFamilyPath(path, nullptr);
    EXPECT_STREQ(path, "Network Protocols\\");
}

TEST(RegistryNamesTest, AnOverlongFamilyNameIsCutWithinTheBuffer) {
    const std::string family(500, 'f');
    char guarded[kRegistryPathSize + 8];
    std::memset(guarded, '#', sizeof guarded);
    auto& path = *reinterpret_cast<char(*)[kRegistryPathSize]>(guarded);
    FormatMapPath(path, family.c_str(), 1);
    EXPECT_EQ(std::strlen(path), kRegistryPathSize - 1);
    for (size_t i = kRegistryPathSize; i < sizeof guarded; ++i) EXPECT_EQ(guarded[i], '#');
}

TEST(RegistryNamesTest, CountIsSignedAndPositiveCountsStandAsTheyAre) {
    EXPECT_EQ(NumberedMapCount(0), 0);
    EXPECT_EQ(NumberedMapCount(1), 1);
    EXPECT_EQ(NumberedMapCount(60), 60);
    EXPECT_EQ(NumberedMapCount(6513249), 6513249);  // the text "abc" read as a number
    EXPECT_EQ(NumberedMapCount(0x7FFFFFFF), INT32_MAX);
    EXPECT_EQ(NumberedMapCount(0x80000000u), 0);
    EXPECT_EQ(NumberedMapCount(0xFFFFFFFFu), 0);
}

}  // namespace
