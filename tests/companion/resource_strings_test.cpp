// DXSOCKS_0409.DLL: every string that DXSOCKS.DLL loads is there, fits the buffer it is loaded into,
// and every report format takes exactly the arguments that the library passes.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "companion_support.h"

namespace {

using Conversions = std::vector<std::string>;

// The conversions of a printf format, each as its length modifier and letter ("s", "d", "ld"); a '*'
// width or precision counts as a conversion "*" of its own, and "%%" as "%".
Conversions ConversionsOf(const std::string& format) {
    Conversions found;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') continue;
        size_t j = i + 1;
        while (j < format.size() && std::strchr("-+ #0", format[j]) != nullptr) ++j;
        auto widthOrPrecision = [&]() {
            if (j < format.size() && format[j] == '*') {
                found.push_back("*");
                ++j;
            }
            while (j < format.size() && std::isdigit(static_cast<unsigned char>(format[j]))) ++j;
        };
        widthOrPrecision();
        if (j < format.size() && format[j] == '.') {
            ++j;
            widthOrPrecision();
        }
        std::string conversion;
        while (j < format.size() && std::strchr("hlLqjztI0123456789", format[j]) != nullptr) conversion += format[j++];
        if (j < format.size()) conversion += format[j];
        found.push_back(conversion);
        i = j;
    }
    return found;
}

TEST(ConversionsOfTest, ReadsFormatsAsPrintfDoes) {
    EXPECT_EQ(ConversionsOf("a %s b %d c %-5d %ld %%"), (Conversions{"s", "d", "d", "ld", "%"}));
    EXPECT_EQ(ConversionsOf("%*d %.*s"), (Conversions{"*", "d", "*", "s"}));
    EXPECT_EQ(ConversionsOf("no conversion"), Conversions{});
}

class ResourceStringsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { module = ctest::LoadBeside("DXSOCKS_0409.DLL"); }
    void SetUp() override { ASSERT_NE(module, nullptr) << "DXSOCKS_0409.DLL not beside the test program"; }

    // The string, or "<missing>" when it is not in the table.
    static std::string String(UINT id) {
        char text[1024] = {};
        int length = LoadStringA(module, id, text, sizeof text);
        return length > 0 ? std::string(text, static_cast<size_t>(length)) : "<missing>";
    }
    static bool Has(UINT id) {
        char text[8];
        return LoadStringA(module, id, text, sizeof text) > 0;
    }
    static int PortCount() { return std::atoi(String(100).c_str()); }

    static HMODULE module;
};

HMODULE ResourceStringsTest::module = nullptr;

// Each string with the size of the buffer the library reads it into (its text must be shorter).
const struct {
    UINT id;
    size_t buffer;
} kStrings[] = {
    {1, 64},    {2, 64},    {3, 64},    {4, 256},   {5, 256},   {100, 32},  {300, 64},  {301, 32},
    {302, 64},  {304, 256}, {500, 256}, {501, 256}, {502, 256}, {503, 256}, {504, 256}, {505, 256},
    {551, 64},  {552, 64},  {1001, 256}, {1002, 256}, {1003, 256}, {1005, 256}, {1006, 256}, {2000, 256},
    {2001, 256}, {2002, 256}, {2003, 256}, {2004, 256}, {2005, 256}, {2006, 256},
};

TEST_F(ResourceStringsTest, EveryStringLoadsAndFitsItsBuffer) {
    for (const auto& s : kStrings) {
        std::string text = String(s.id);
        EXPECT_NE(text, "<missing>") << s.id;
        EXPECT_FALSE(text.empty()) << s.id;
        EXPECT_LT(text.size(), s.buffer) << s.id << ": " << text;
    }
}

TEST_F(ResourceStringsTest, ColumnTitlesAndVersionEntries) {
    EXPECT_EQ(String(1), "Destination");
    EXPECT_EQ(String(2), "Proxy");
    EXPECT_EQ(String(3), "User");
    // The version combo box lists 551 for version 4 and 552 for version 5, in that order.
    EXPECT_NE(String(551).find('4'), std::string::npos) << String(551);
    EXPECT_NE(String(552).find('5'), std::string::npos) << String(552);
    EXPECT_NE(String(4), String(5));
}

// The library passes exactly these arguments, in this order, to each numbered report.
const struct {
    UINT id;
    Conversions conversions;
} kReports[] = {
    {1001, {"s"}},           {1002, {"s", "d", "d"}}, {1003, {"s", "d", "d"}}, {1005, {"s", "s"}},
    {1006, {"s", "s"}},      {2000, {"s", "d", "d"}}, {2001, {"s", "d", "d"}}, {2002, {"d"}},
    {2003, {"d"}},           {2004, {"d"}},           {2005, {"d"}},           {2006, {"d", "d"}},
};

TEST_F(ResourceStringsTest, EachReportTakesExactlyItsArguments) {
    for (const auto& report : kReports) {
        EXPECT_EQ(ConversionsOf(String(report.id)), report.conversions) << report.id << ": " << String(report.id);
    }
}

// A report formatted with arguments of the types its conversions ask for.
std::string Formatted(const std::string& format, const Conversions& conversions) {
    char out[512] = {};
    const char* host = "203.0.113.7";
    const char* path = "C:\\host.exe";
    if (conversions == Conversions{"s"}) std::snprintf(out, sizeof out, format.c_str(), host);
    if (conversions == Conversions{"s", "s"}) std::snprintf(out, sizeof out, format.c_str(), path, path);
    if (conversions == Conversions{"s", "d", "d"}) std::snprintf(out, sizeof out, format.c_str(), host, 1080, 352);
    if (conversions == Conversions{"d"}) std::snprintf(out, sizeof out, format.c_str(), 352);
    if (conversions == Conversions{"d", "d"}) std::snprintf(out, sizeof out, format.c_str(), 94, 352);
    return out;
}

// The log formats a report a second time with no arguments: its formatted text must hold no '%'.
TEST_F(ResourceStringsTest, AFormattedReportHoldsNoPercentSign) {
    for (const auto& report : kReports) {
        std::string format = String(report.id);
        ASSERT_EQ(ConversionsOf(format), report.conversions) << report.id;
        std::string text = Formatted(format, report.conversions);
        EXPECT_FALSE(text.empty()) << report.id;
        EXPECT_EQ(text.find('%'), std::string::npos) << report.id << ": " << text;
    }
}

TEST_F(ResourceStringsTest, HostAndPortFormatTakesTwoTexts) {
    EXPECT_EQ(ConversionsOf(String(302)), (Conversions{"s", "s"}));
    char out[64] = {};
    std::snprintf(out, sizeof out, String(302).c_str(), "proxy.example", "1080");
    std::string joined = out;
    EXPECT_LT(joined.find("proxy.example"), joined.find("1080")) << joined;
}

TEST_F(ResourceStringsTest, AnyHostFitsItsThirtyTwoBytes) {
    EXPECT_LE(String(301).size(), 31u);
    EXPECT_EQ(String(301).find('*'), std::string::npos);  // a leading '*' would read as the wildcard itself
}

TEST_F(ResourceStringsTest, PortEntriesMatchTheirCount) {
    int count = PortCount();
    ASSERT_GE(count, 2) << String(100);
    EXPECT_EQ(String(100), std::to_string(count));
    for (int i = 0; i < count; ++i) {
        UINT id = 101 + static_cast<UINT>(i);
        std::string entry = String(id);
        ASSERT_NE(entry, "<missing>") << id;
        bool digit = entry.find_first_of("0123456789") != std::string::npos;
        if (i == 0) {
            EXPECT_FALSE(digit) << "the word for any port holds a digit: " << entry;
        } else {
            EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(entry[0]))) << id << ": " << entry;
        }
    }
    EXPECT_FALSE(Has(101 + static_cast<UINT>(count))) << "an entry beyond the count";
}

TEST_F(ResourceStringsTest, NoStringOutsideTheKnownIds) {
    // Spot checks between the ranges: an id the library never asks for is not there.
    for (UINT id : {0u, 6u, 99u, 303u, 506u, 550u, 553u, 1000u, 1004u, 1007u, 2007u}) {
        EXPECT_FALSE(Has(id)) << id;
    }
}

}  // namespace
