// The families' sets of proxy maps and the choice of a map for a destination, both twins, with our
// resource library's strings (DXTEST_OUR_STRINGS).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http_config.h"
#include "log_capture.h"
#include "our_strings.h"
#include "socks_config.h"
#include "test_helpers.h"

namespace {

using dxtest::Line;
using dxtest::Lines;

template <typename Set>
struct Twin;
template <>
struct Twin<CSocksConfig> {
    static constexpr const char* kClass = "CSocksConfig";
    static constexpr const char* kPort = "1080";
    static constexpr const char* kUser = "Guest";
};
template <>
struct Twin<CHttpConfig> {
    static constexpr const char* kClass = "CHttpConfig";
    static constexpr const char* kPort = "80";
    static constexpr const char* kUser = "";
};

// One map as the stores write it: host and port of the destination.
struct MapRow {
    const char* host;
    const char* port;
};

template <typename Set>
class ProxyMapSetTest : public dxtest::OurStringsTest {
protected:
    // Numbered maps in order, then the default map.
    void Build(const std::vector<MapRow>& numbered, bool withDefault = true) {
        for (const MapRow& row : numbered) Add(row.host, row.port, 0);
        if (withDefault) Add("*", "*", 1);
    }
    CProxyMap* Add(const char* host, const char* port, uint32_t isDefault) {
        CProxyMap* map = Set::NewMap();
        map->SetDestinationAddress(host);
        map->SetDestinationPort(port);
        map->SetUseProxy(1);
        map->IsDefaultMap = isDefault;
        set.Append(map);
        return map;
    }
    // The position of the map picked, or -1; the log lines of the walk in `lines`.
    int Pick(const char* host, uint32_t port, Lines* lines) {
        dxtest::LogCapture capture;
        CProxyMap* picked = set.PickProxy(host, port);
        *lines = capture.Lines();
        return picked == nullptr ? -1 : set.IndexOf(picked);
    }
    std::string Hosts(const std::string& asked, const std::string& stored) {
        return Line(std::string(Twin<Set>::kClass) + "::PickProxy - Comparing host name " + asked + " vs " + stored);
    }
    std::string Ports(const std::string& asked, const std::string& stored) {
        return Line(std::string(Twin<Set>::kClass) + "::PickProxy - Comparing ports " + asked + " vs " + stored);
    }
    std::string Match(int position) {
        return Line(std::string(Twin<Set>::kClass) + "::PickProxy - Ports match use configuration #" +
                    std::to_string(position));
    }

    Set set;
};

using Twins = ::testing::Types<CSocksConfig, CHttpConfig>;
TYPED_TEST_SUITE(ProxyMapSetTest, Twins);

TYPED_TEST(ProxyMapSetTest, NewSetIsEmptyWithMigrationStateMinusOne) {
    TypeParam fresh;
    EXPECT_EQ(fresh.First(), nullptr);
    EXPECT_EQ(fresh.Count(), 0u);
    EXPECT_EQ(fresh.MigrationState, -1);
}

TYPED_TEST(ProxyMapSetTest, NewMapCarriesTheFamilysDefaults) {
    CProxyMap* map = TypeParam::NewMap();
    EXPECT_STREQ(map->DefaultPort, Twin<TypeParam>::kPort);
    EXPECT_STREQ(map->GetProxyPort(), Twin<TypeParam>::kPort);
    EXPECT_STREQ(map->GetProxyUser(), Twin<TypeParam>::kUser);
    EXPECT_EQ(map->ProtocolVersion, 4u);
    EXPECT_EQ(map->BasicAuthentication, 0u);
    EXPECT_EQ(map->UseProxy, 0u);
    EXPECT_EQ(map->IsDefaultMap, 0u);
    EXPECT_STREQ(map->GetDestinationAddress(), "*");
    EXPECT_STREQ(map->GetDestinationPort(), "*");
    EXPECT_STREQ(map->GetProxyAddress(), "");
    EXPECT_EQ(map->next, nullptr);
    delete map;
}

TYPED_TEST(ProxyMapSetTest, ClearFreesEveryMapAndEmptiesTheList) {
    this->Build({{"a", "1"}, {"b", "2"}});
    ASSERT_EQ(this->set.Count(), 3u);
    this->set.Clear();
    EXPECT_EQ(this->set.First(), nullptr);
    EXPECT_EQ(this->set.Count(), 0u);
}

TYPED_TEST(ProxyMapSetTest, EmptySetPicksNothingAndLogsNothing) {
    Lines lines;
    EXPECT_EQ(this->Pick("a", 80, &lines), -1);
    EXPECT_TRUE(lines.empty());
}

TYPED_TEST(ProxyMapSetTest, HostWithoutRegardToCaseOnAnyPortPicksTheFirst) {
    this->Build({{"a", "*"}});
    Lines lines;
    EXPECT_EQ(this->Pick("A", 80, &lines), 0);
    EXPECT_EQ(lines, (Lines{this->Hosts("A", "a"), this->Ports("0050", "0000"), this->Match(0)}));
}

TYPED_TEST(ProxyMapSetTest, OtherPortFallsThroughToTheDefaultMap) {
    this->Build({{"a", "23"}});
    Lines lines;
    EXPECT_EQ(this->Pick("a", 80, &lines), 1);
    EXPECT_EQ(lines, (Lines{this->Hosts("a", "a"), this->Ports("0050", "0017"), this->Hosts("a", "*"),
                            this->Ports("0050", "0000"), this->Match(1)}));
}

TYPED_TEST(ProxyMapSetTest, ListOrderWinsOverAMoreSpecificHost) {
    this->Build({{"*", "22"}, {"a", "*"}});
    Lines lines;
    EXPECT_EQ(this->Pick("a", 22, &lines), 0);
    EXPECT_EQ(lines, (Lines{this->Hosts("a", "*"), this->Ports("0016", "0016"), this->Match(0)}));
}

TYPED_TEST(ProxyMapSetTest, StoredPortZeroBehavesAsTheWildcard) {
    this->Build({{"a", "0"}});
    Lines lines;
    EXPECT_EQ(this->Pick("a", 443, &lines), 0);
    EXPECT_EQ(lines, (Lines{this->Hosts("a", "a"), this->Ports("01bb", "0000"), this->Match(0)}));
}

TYPED_TEST(ProxyMapSetTest, StoredPortWithoutADigitIsTheWildcardAlready) {
    CProxyMap* map = this->Add("a", "abc", 0);
    EXPECT_STREQ(map->GetDestinationPort(), "*");
    Lines lines;
    EXPECT_EQ(this->Pick("a", 7, &lines), 0);
    EXPECT_EQ(lines, (Lines{this->Hosts("a", "a"), this->Ports("0007", "0000"), this->Match(0)}));
}

TYPED_TEST(ProxyMapSetTest, AskedStarMatchesOnlyStoredStar) {
    this->Build({{"a", "*"}, {"10.*.*.*", "*"}});
    Lines lines;
    EXPECT_EQ(this->Pick("*", 80, &lines), 2);
    EXPECT_EQ(lines, (Lines{this->Hosts("*", "a"), this->Hosts("*", "10.*.*.*"), this->Hosts("*", "*"),
                            this->Ports("0050", "0000"), this->Match(2)}));
    // No address is looked at: 10.1.2.3 is not 10.*.*.*; only the same text is.
    EXPECT_EQ(this->Pick("10.1.2.3", 80, &lines), 2);
    EXPECT_EQ(this->Pick("10.*.*.*", 80, &lines), 1);
}

TYPED_TEST(ProxyMapSetTest, DefaultMapAheadOfOthersTakesEverything) {
    this->Add("*", "*", 1);
    this->Add("a", "80", 0);
    Lines lines;
    EXPECT_EQ(this->Pick("a", 80, &lines), 0);
    EXPECT_EQ(lines, (Lines{this->Hosts("a", "*"), this->Ports("0050", "0000"), this->Match(0)}));
}

TYPED_TEST(ProxyMapSetTest, MapWithoutProxyIsPickedLikeAnyOther) {
    CProxyMap* direct = this->Add("intranet", "*", 0);
    direct->SetUseProxy(0);
    this->Add("*", "*", 1);
    Lines lines;
    EXPECT_EQ(this->Pick("INTRANET", 80, &lines), 0);
}

TYPED_TEST(ProxyMapSetTest, EmptyStoredHostIsSkippedSilentlyAndCounted) {
    CProxyMap* blank = this->Add("a", "*", 0);
    blank->Destination.Host[0] = '\0';
    this->Add("*", "*", 1);
    Lines lines;
    EXPECT_EQ(this->Pick("a", 80, &lines), 1);
    EXPECT_EQ(lines, (Lines{this->Hosts("a", "*"), this->Ports("0050", "0000"), this->Match(1)}));
}

TYPED_TEST(ProxyMapSetTest, NullHostCountsAsTheEmptyText) {
    this->Build({{"a", "*"}});
    Lines lines;
    EXPECT_EQ(this->Pick(nullptr, 80, &lines), 1);
    EXPECT_EQ(lines, (Lines{this->Hosts("", "a"), this->Hosts("", "*"), this->Ports("0050", "0000"), this->Match(1)}));
}

TYPED_TEST(ProxyMapSetTest, NoMatchWithoutADefaultMapPicksNothing) {
    this->Build({{"a", "23"}, {"b", "*"}}, false);
    Lines lines;
    EXPECT_EQ(this->Pick("a", 80, &lines), -1);
    EXPECT_EQ(lines, (Lines{this->Hosts("a", "a"), this->Ports("0050", "0017"), this->Hosts("a", "b")}));
}

TYPED_TEST(ProxyMapSetTest, HostsCompareByTheUsersLocale) {
    // Code page 1252: e acute in both cases, and sharp s against "ss".
    this->Build({{"caf\xc9.example", "*"}, {"stra\xdf" "e.example", "*"}});
    Lines lines;
    EXPECT_EQ(this->Pick("caf\xe9.example", 80, &lines), 0);
    EXPECT_EQ(this->Pick("STRASSE.EXAMPLE", 80, &lines), 1);
    EXPECT_EQ(this->Pick("strase.example", 80, &lines), 2);
}

TYPED_TEST(ProxyMapSetTest, ConversionsInTheAskedHostReachTheLogAsText) {
    this->Build({});
    Lines lines;
    EXPECT_EQ(this->Pick("%s%n%d", 80, &lines), 0);
    EXPECT_EQ(lines, (Lines{this->Hosts("(null)0", "*"), this->Ports("0050", "0000"), this->Match(0)}));
}

}  // namespace
