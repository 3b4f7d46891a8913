#include "map_rules.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "guarded_field.h"

namespace {

// The comparison the library hands in is the user locale's; ASCII text compares alike anywhere.
using dxtest::AsciiCompareNoCase;
template <size_t Size>
using Guarded = dxtest::GuardedField<Size>;

constexpr char kWord[] = "Any host";

std::string Host(const char* text, const char* word = kWord) {
    Guarded<kMapHostSize> host;
    ApplyHostRule(host.field, text, word, AsciiCompareNoCase);
    EXPECT_TRUE(host.GuardsIntact());
    EXPECT_EQ(host.field[kMapHostSize - 1], '\0');
    return host.Text();
}

std::string Port(const char* text) {
    Guarded<kMapPortSize> port;
    ApplyPortRule(port.field, text);
    EXPECT_TRUE(port.GuardsIntact());
    EXPECT_EQ(port.field[kMapPortSize - 1], '\0');
    return port.Text();
}

std::string Expand(const char* text, const char* wildcard, const char* other) {
    Guarded<kMapHostSize> out('\0');
    ExpandWildcard(out.field, text, wildcard, other);
    EXPECT_TRUE(out.GuardsIntact());
    return out.Text();
}

// ---- digits and ports ----

TEST(MapRulesTest, ContainsDigitLooksAnywhere) {
    EXPECT_TRUE(ContainsDigit("1080"));
    EXPECT_TRUE(ContainsDigit("abc1"));
    EXPECT_TRUE(ContainsDigit("8a"));
    EXPECT_FALSE(ContainsDigit("http"));
    EXPECT_FALSE(ContainsDigit("*"));
    EXPECT_FALSE(ContainsDigit(""));
    EXPECT_FALSE(ContainsDigit(nullptr));
}

TEST(MapRulesTest, PortNumberFromTheFirstDigitWithItsMask) {
    struct Case {
        const char* text;
        int number;
        uint32_t mask;
    };
    const Case cases[] = {
        {"*", 0, 0},         {"1080", 1080, 65535},  {"8a", 8, 65535},          {"abc1", 1, 65535},
        {"0", 0, 65535},     {"http", 0, 0},         {"", 0, 0},                {nullptr, 0, 0},
        {"-5", 5, 65535},    {"a+12b", 12, 65535},   {"70000", 70000, 65535},   {"99999999999", INT_MAX, 65535},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text != nullptr ? c.text : "(null)");
        uint32_t mask = 12345;
        EXPECT_EQ(ParsePortNumber(c.text, &mask), c.number);
        EXPECT_EQ(mask, c.mask);
        EXPECT_EQ(ParsePortNumber(c.text, nullptr), c.number);
    }
}

TEST(MapRulesTest, PortRuleKeepsTextWithADigitElseStoresTheWildcard) {
    EXPECT_EQ(Port(""), "*");
    EXPECT_EQ(Port(nullptr), "*");
    EXPECT_EQ(Port("http"), "*");
    EXPECT_EQ(Port("*"), "*");
    EXPECT_EQ(Port("8a"), "8a");
    EXPECT_EQ(Port("abc1"), "abc1");
    EXPECT_EQ(Port("0"), "0");
    EXPECT_EQ(Port("70000"), "70000");
}

TEST(MapRulesTest, PortRuleStoresThirtyCharactersAndADigitAmongThem) {
    std::string digitAt30 = std::string(29, 'p') + "7" + std::string(10, 'q');
    EXPECT_EQ(Port(digitAt30.c_str()), digitAt30.substr(0, 30));
    // Forty characters whose only digit is the 35th: cut to 30 it would hold none.
    std::string digitAt35 = std::string(34, 'p') + "7" + std::string(5, 'q');
    EXPECT_EQ(Port(digitAt35.c_str()), "*");
    std::string longNumber(2000, '1');
    EXPECT_EQ(Port(longNumber.c_str()), std::string(30, '1'));
}

// ---- hosts ----

TEST(MapRulesTest, HostRuleTurnsEmptyStarredAndTheWordForAnyHostIntoTheWildcard) {
    EXPECT_EQ(Host(nullptr), "*");
    EXPECT_EQ(Host(""), "*");
    EXPECT_EQ(Host("*"), "*");
    // Only the first character is looked at.
    EXPECT_EQ(Host("*.example"), "*");
    EXPECT_EQ(Host("Any host"), "*");
    EXPECT_EQ(Host("ANY HOST"), "*");
    EXPECT_EQ(Host("any HOST"), "*");
    EXPECT_EQ(Host("Any hosts"), "Any hosts");
    // A partly wildcarded address begins with a digit and stays as it is.
    EXPECT_EQ(Host("10.*.*.*"), "10.*.*.*");
    EXPECT_EQ(Host("proxy.example"), "proxy.example");
}

TEST(MapRulesTest, HostRuleWithoutAWordComparesWithTheEmptyText) {
    EXPECT_EQ(Host("Any host", ""), "Any host");
    EXPECT_EQ(Host("Any host", nullptr), "Any host");
    EXPECT_EQ(Host("", ""), "*");
}

TEST(MapRulesTest, HostRuleStoresAtMost1023Characters) {
    std::string host1024(1024, 'h');
    EXPECT_EQ(Host(host1024.c_str()), std::string(1023, 'h'));
    std::string host1023(1023, 'g');
    EXPECT_EQ(Host(host1023.c_str()), host1023);
    std::string host2000(2000, 'f');
    EXPECT_EQ(Host(host2000.c_str()), std::string(1023, 'f'));
}

// ---- ExpandWildcard ----

TEST(MapRulesTest, ExpandWildcardReplacesPartsThatBeginWithAStar) {
    EXPECT_EQ(Expand("*", "1", nullptr), "1.1.1.1");
    EXPECT_EQ(Expand("*.example", "1", nullptr), "1.1.1.1");
    EXPECT_EQ(Expand("10.*.*.*", "1", nullptr), "10.1.1.1");
    EXPECT_EQ(Expand("10.*.*.*", "0", "255"), "255.0.0.0");
    EXPECT_EQ(Expand("10.2*.3.x*", "0", "255"), "255.255.255.255");
    EXPECT_EQ(Expand("10.*x.3.4", "1", nullptr), "10.1.3.4");
    EXPECT_EQ(Expand("proxy.example", "1", nullptr), "proxy.example");
    EXPECT_EQ(Expand("proxy.example", "0", "255"), "255.255");
}

TEST(MapRulesTest, ExpandWildcardDropsEmptyPartsAsStrtokDoes) {
    EXPECT_EQ(Expand("10..*", "1", nullptr), "10.1");
    EXPECT_EQ(Expand(".10.*.", "1", nullptr), "10.1");
    EXPECT_EQ(Expand("...", "1", nullptr), "");
    EXPECT_EQ(Expand("", "1", nullptr), "");
}

TEST(MapRulesTest, ExpandWildcardGivesUpOnANullOrTooLongText) {
    Guarded<kMapHostSize> out('\0');
    std::strcpy(out.field, "as it was");
    ExpandWildcard(out.field, nullptr, "1", nullptr);
    EXPECT_EQ(out.Text(), "as it was");
    std::string over(1025, '5');
    ExpandWildcard(out.field, over.c_str(), "1", nullptr);
    EXPECT_EQ(out.Text(), "as it was");
    std::string limit(1024, '5');
    ExpandWildcard(out.field, limit.c_str(), "1", nullptr);
    EXPECT_EQ(out.Text(), limit);
    EXPECT_TRUE(out.GuardsIntact());
}

TEST(MapRulesTest, ExpandWildcardNeverWritesPastItsOutput) {
    // 512 one-character parts, each "255" behind a dot: 2047 characters that cannot fit.
    std::string parts;
    for (int i = 0; i < 512; ++i) parts += i == 0 ? "1" : ".1";
    ASSERT_EQ(parts.size(), 1023u);
    std::string expanded = Expand(parts.c_str(), "0", "255");
    EXPECT_EQ(expanded.size(), kMapHostSize - 1);
    EXPECT_EQ(expanded.substr(0, 8), "255.255.");
}

// ---- the choice of a map ----

struct FakeMap : CListNode {
    const char* host;
    const char* port;
};

MapDestination FakeDestination(const CListNode* node) {
    const auto* map = static_cast<const FakeMap*>(node);
    return {map->host, map->port};
}

std::vector<std::string> g_lines;

void CollectLine(const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    g_lines.emplace_back(text);
}

const PickLog kLog = {"hosts %s vs %s", "ports %04x vs %04x", "match #%d", CollectLine};

class PickFirstMapTest : public ::testing::Test {
protected:
    void SetUp() override { g_lines.clear(); }

    // Links `maps` in order and picks; the index of the map picked, or -1.
    int Pick(std::vector<FakeMap>& maps, const char* host, uint32_t port) {
        for (size_t i = 0; i < maps.size(); ++i) maps[i].next = i + 1 < maps.size() ? &maps[i + 1] : nullptr;
        const CListNode* picked =
            PickFirstMap(maps.empty() ? nullptr : &maps[0], host, port, FakeDestination, AsciiCompareNoCase, kLog);
        for (size_t i = 0; i < maps.size(); ++i) {
            if (picked == &maps[i]) return static_cast<int>(i);
        }
        EXPECT_EQ(picked, nullptr);
        return -1;
    }
};

TEST_F(PickFirstMapTest, EmptyListPicksNothingAndSaysNothing) {
    std::vector<FakeMap> maps;
    EXPECT_EQ(Pick(maps, "a", 80), -1);
    EXPECT_TRUE(g_lines.empty());
}

TEST_F(PickFirstMapTest, FirstInListOrderWinsAndTheCounterCountsFromZero) {
    std::vector<FakeMap> maps = {{{}, "*", "22"}, {{}, "a", "*"}, {{}, "*", "*"}};
    EXPECT_EQ(Pick(maps, "a", 22), 0);
    EXPECT_EQ(g_lines, (std::vector<std::string>{"hosts a vs *", "ports 0016 vs 0016", "match #0"}));
    g_lines.clear();
    EXPECT_EQ(Pick(maps, "A", 80), 1);
    EXPECT_EQ(g_lines, (std::vector<std::string>{"hosts A vs *", "ports 0050 vs 0016", "hosts A vs a",
                                                 "ports 0050 vs 0000", "match #1"}));
}

TEST_F(PickFirstMapTest, EmptyOrNullStoredHostIsPassedOverSilentlyButCounted) {
    std::vector<FakeMap> maps = {{{}, "", "80"}, {{}, nullptr, "80"}, {{}, "b", "0"}};
    EXPECT_EQ(Pick(maps, "B", 443), 2);
    EXPECT_EQ(g_lines, (std::vector<std::string>{"hosts B vs b", "ports 01bb vs 0000", "match #2"}));
}

TEST_F(PickFirstMapTest, NullHostCountsAsTheEmptyText) {
    std::vector<FakeMap> maps = {{{}, "a", "*"}, {{}, "*", "80"}};
    EXPECT_EQ(Pick(maps, nullptr, 80), 1);
    EXPECT_EQ(g_lines, (std::vector<std::string>{"hosts  vs a", "hosts  vs *", "ports 0050 vs 0050", "match #1"}));
}

TEST_F(PickFirstMapTest, NoMatchWalksToTheEnd) {
    std::vector<FakeMap> maps = {{{}, "a", "23"}, {{}, "b", "*"}};
    EXPECT_EQ(Pick(maps, "a", 80), -1);
    EXPECT_EQ(g_lines, (std::vector<std::string>{"hosts a vs a", "ports 0050 vs 0017", "hosts a vs b"}));
}

TEST_F(PickFirstMapTest, StarAskedMatchesOnlyAStarStored) {
    std::vector<FakeMap> maps = {{{}, "a", "*"}, {{}, "10.*.*.*", "*"}, {{}, "*", "*"}};
    EXPECT_EQ(Pick(maps, "*", 1), 2);
    // Neither names nor addresses are looked at: 10.1.2.3 is not 10.*.*.*.
    EXPECT_EQ(Pick(maps, "10.1.2.3", 1), 2);
    EXPECT_EQ(Pick(maps, "10.*.*.*", 1), 1);
}

TEST_F(PickFirstMapTest, PortsCompareAsNumbers) {
    std::vector<FakeMap> maps = {{{}, "a", "0080"}, {{}, "a", "8a"}, {{}, "a", "70000"}};
    EXPECT_EQ(Pick(maps, "a", 80), 0);
    EXPECT_EQ(Pick(maps, "a", 8), 1);
    EXPECT_EQ(Pick(maps, "a", 70000), 2);
    EXPECT_EQ(Pick(maps, "a", 70000 & 0xFFFF), -1);
}

}  // namespace
