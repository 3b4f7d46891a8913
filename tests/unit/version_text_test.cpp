#include "version_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>

namespace {

TEST(VersionTextTest, RecordHoldsTheBuildNumbersAndSignature) {
    EXPECT_EQ(g_versionRecord.major, 25);
    EXPECT_EQ(g_versionRecord.minor, 2);
    EXPECT_EQ(g_versionRecord.build, 133);
    EXPECT_EQ(g_versionRecord.revision, 4);
    EXPECT_EQ(g_versionRecord.signature, 0xFACE);
    unsigned char bytes[sizeof g_versionRecord];
    std::memcpy(bytes, &g_versionRecord, sizeof bytes);
    EXPECT_EQ(bytes[0], 25);  // little-endian words
    EXPECT_EQ(bytes[8], 0xCE);
    EXPECT_EQ(bytes[9], 0xFA);
}

TEST(VersionTextTest, RecordCarriesBuildDateAndTimeZeroFilled) {
    std::string date(g_versionRecord.buildDate);
    std::string time(g_versionRecord.buildTime);
    EXPECT_TRUE(std::regex_match(date, std::regex("[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4}"))) << date;
    EXPECT_TRUE(std::regex_match(time, std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2}"))) << time;
    for (size_t i = date.size(); i < sizeof g_versionRecord.buildDate; ++i) EXPECT_EQ(g_versionRecord.buildDate[i], 0);
    for (size_t i = time.size(); i < sizeof g_versionRecord.buildTime; ++i) EXPECT_EQ(g_versionRecord.buildTime[i], 0);
}

TEST(VersionTextTest, ProductVersionGivesMajorMinorBuild) {
    OsVersionCache cache = {0, 0, 0};
    ParseProductVersion("10.0.22621.1", cache);
    EXPECT_EQ(cache.osMajor, 10u);
    EXPECT_EQ(cache.osMinor, 0u);
    EXPECT_EQ(cache.osBuild, 22621u);
    EXPECT_EQ(PackVersion(cache), (22621u << 16) | 10u);
}

TEST(VersionTextTest, MissingPiecesLeaveTheirFields) {
    OsVersionCache cache = {1, 2, 3};
    ParseProductVersion("7", cache);
    EXPECT_EQ(cache.osMajor, 7u);
    EXPECT_EQ(cache.osMinor, 2u);
    EXPECT_EQ(cache.osBuild, 3u);
    ParseProductVersion("", cache);
    EXPECT_EQ(cache.osMajor, 7u);
}

TEST(VersionTextTest, EmptyPiecesAreSkippedAsStrtokDoes) {
    OsVersionCache cache = {0, 0, 0};
    ParseProductVersion("..6..3.x9600", cache);
    EXPECT_EQ(cache.osMajor, 6u);
    EXPECT_EQ(cache.osMinor, 3u);
    EXPECT_EQ(cache.osBuild, 0u);  // atoi of "x9600"
}

TEST(VersionTextTest, PiecesBeyondTheRangeOfIntSaturate) {
    OsVersionCache cache = {0, 0, 0};
    // Wrapped, the first would read as 1215752191.
    ParseProductVersion("99999999999. -99999999999.2147483648", cache);
    EXPECT_EQ(cache.osMajor, 2147483647u);
    EXPECT_EQ(cache.osMinor, 0x80000000u);
    EXPECT_EQ(cache.osBuild, 2147483647u);
    ParseProductVersion(("0000000000000000000000000000000000000000006.-3." + std::string(100, '9')).c_str(), cache);
    EXPECT_EQ(cache.osMajor, 6u);
    EXPECT_EQ(cache.osMinor, static_cast<uint32_t>(-3));
    EXPECT_EQ(cache.osBuild, 2147483647u);
}

TEST(VersionTextTest, PackKeepsOnlyTheLowBytesOfMajorAndMinor) {
    OsVersionCache cache = {0x1FF, 0x102, 7};
    EXPECT_EQ(PackVersion(cache), (7u << 16) | (0x02u << 8) | 0xFFu);
}

}  // namespace
