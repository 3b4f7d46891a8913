// The sets' one walk of the document against the selection of each value's path from the root:
// on seeded random sets, written and read back through the file, and on odd documents, every
// answer alike, raised ones too.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "settings_file.h"
#include "settings_maps.h"
#include "store_fixture.h"

namespace {

using dxtest::FieldsOf;
using dxtest::FullMap;
using dxtest::MapElement;
using dxtest::MapFields;
using dxtest::ProxyElement;
using dxtest::SettingsElement;
using dxtest::Value;

// DXTEST_SETS may ask for fewer or more sets, when a case is run by hand.
int SetsPerFamily() {
    const char* asked = std::getenv("DXTEST_SETS");
    return asked != nullptr && std::atoi(asked) > 0 ? std::atoi(asked) : 200;
}

class XmlStoreOracleTest : public dxtest::ProxyStoreTest {};

// Text of `length` characters drawn from printable ASCII, markup characters, tab and 0xA0 to 0xFF:
// the bytes of the code page that stand for themselves in the file.
std::string RandomText(std::mt19937& random, size_t length) {
    static const std::string kSpecial = "<>&\"'\t*";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        switch (random() % 4) {
            case 0: text += kSpecial[random() % kSpecial.size()]; break;
            case 1: text += static_cast<char>(0xA0 + random() % 0x60); break;
            default: text += static_cast<char>('!' + random() % 94); break;
        }
    }
    return text;
}

size_t RandomLength(std::mt19937& random, size_t longest) {
    // Mostly short, sometimes the longest the field keeps and beyond.
    switch (random() % 8) {
        case 0: return longest;
        case 1: return longest + 5;
        case 2: return 0;
        default: return 1 + random() % 20;
    }
}

std::string RandomPort(std::mt19937& random) {
    static const char* const kPorts[] = {"0", "8a", "*", "1080", "65535", "99999"};
    if (random() % 3 == 0) return RandomText(random, RandomLength(random, 30));
    return kPorts[random() % 6];
}

template <typename Set>
void FillRandom(Set& set, std::mt19937& random) {
    set.Clear();
    // Ten and more maps now and then, for ids of two digits.
    size_t count = random() % 4 == 0 ? 10 + random() % 31 : random() % 10;
    for (size_t i = 0; i <= count; ++i) {
        CProxyMap* map = Set::NewMap();
        if (i < count) {
            map->SetDestinationAddress(random() % 5 == 0 ? "*" : RandomText(random, RandomLength(random, 1023)).c_str());
            map->SetDestinationPort(RandomPort(random).c_str());
        } else {
            map->SetDestinationAddress("*");
            map->SetDestinationPort("*");
            map->IsDefaultMap = 1;
        }
        map->SetProxyAddress(random() % 5 == 0 ? "*" : RandomText(random, RandomLength(random, 1023)).c_str());
        map->SetProxyPort(RandomPort(random).c_str());
        map->SetProxyUser(RandomText(random, RandomLength(random, 510)).c_str());
        map->ProtocolVersion = random() % 3 == 0 ? static_cast<uint32_t>(random()) : 4 + random() % 2;
        map->BasicAuthentication = random() % 2;
        map->SetUseProxy(random() % 2);
        set.Append(map);
    }
}

std::string Text(const std::wstring& wide) {
    std::string narrow;
    for (wchar_t c : wide) narrow += c < 256 ? static_cast<char>(c) : '?';
    return narrow;
}

// The three ways a set reads the document: a selection from the root per value, the one walk of it,
// and the text kept from that walk for an unchanged document.
enum class ReadWay { Literal, Index, Snapshot };

// What reading `xml` gives a set of the family the `way`: its maps, and the text of what was raised.
template <typename Set>
std::pair<std::vector<MapFields>, std::string> ReadBy(const std::string& xml, ReadWay way) {
    SettingsDocument = CreateSettings(xml.c_str());
    Set set;
    set.Clear();
    std::string raised;
    const wchar_t* type = std::is_same<Set, CSocksConfig>::value ? L"SOCKS" : L"HTTP";
    try {
        if (way == ReadWay::Literal) {
            CLiteralMapStore store(SettingsDocument, type);
            set.ReadFromXml(store);
        } else if (way == ReadWay::Snapshot) {
            CMapIndex index(SettingsDocument, type);
            CMapSnapshot snapshot(index);
            set.ReadFromXml(snapshot);
        } else {
            set.ReadFromXml();
        }
    } catch (const std::exception& e) {
        raised = e.what();
    }
    return {FieldsOf(set), raised};
}

template <typename Set>
void ExpectSameReads(const std::string& xml) {
    auto literal = ReadBy<Set>(xml, ReadWay::Literal);
    auto walked = ReadBy<Set>(xml, ReadWay::Index);
    auto kept = ReadBy<Set>(xml, ReadWay::Snapshot);
    EXPECT_EQ(walked.first, literal.first) << xml;
    EXPECT_EQ(walked.second, literal.second) << xml;
    EXPECT_EQ(kept.first, literal.first) << xml;
    EXPECT_EQ(kept.second, literal.second) << xml;
}

// The text of `xml` after `set` was written into it through the literal store or the index.
template <typename Set>
std::string WriteBy(const std::string& xml, Set& set, bool literal) {
    SettingsDocument = CreateSettings(xml.empty() ? nullptr : xml.c_str());
    if (SettingsDocument == nullptr) return "(no document)";
    if (literal) {
        CLiteralMapStore store(SettingsDocument, std::is_same<Set, CSocksConfig>::value ? L"SOCKS" : L"HTTP");
        set.WriteToXml(store);
    } else {
        set.WriteToXml();
    }
    std::wstring text;
    SettingsDocument->GetXml(text);
    return Text(text);
}

template <typename Set>
void ExpectSameWrites(const std::string& xml, Set& set) {
    EXPECT_EQ(WriteBy(xml, set, false), WriteBy(xml, set, true)) << xml;
}

template <typename Set>
void RoundTrip(uint32_t seed) {
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    std::string previous;
    for (int i = 0, sets = SetsPerFamily(); i < sets; ++i) {
        Set written;
        FillRandom(written, random);
        const std::vector<MapFields> expected = FieldsOf(written);
        // Through the file, into a fresh set, which reads it at its construction.
        std::string xml = WriteBy(std::string(), written, false);
        std::wstring text;
        SettingsDocument->GetXml(text);
        ASSERT_EQ(WriteSettingsFile(text), 1);
        SettingsDocument = nullptr;
        Set read;
        ASSERT_EQ(read.MigrationState, 0) << "set " << i;
        std::vector<MapFields> got = FieldsOf(read);
        ASSERT_EQ(got.size(), expected.size()) << "set " << i;
        for (size_t m = 0; m < got.size(); ++m) {
            MapFields want = expected[m];
            // A non-zero flag reads as 1.
            want.useProxy = want.useProxy != 0 ? 1 : 0;
            want.basic = want.basic != 0 ? 1 : 0;
            EXPECT_EQ(got[m], want) << "set " << i << " map " << m;
        }
        // The same document read by the selection of every value gives the same set, and the set written
        // over the document of the set before (its maps beyond the new count left in place) gives the
        // same text either way.
        ExpectSameReads<Set>(xml);
        ExpectSameWrites(previous, written);
        previous = xml;
        if (::testing::Test::HasFailure()) return;
    }
}

uint32_t Seed() {
    std::random_device device;
    return device();
}

TEST_F(XmlStoreOracleTest, RandomSocksSetsRoundTripAndReadAlikeBothWays) { RoundTrip<CSocksConfig>(Seed()); }

TEST_F(XmlStoreOracleTest, RandomHttpSetsRoundTripAndReadAlikeBothWays) { RoundTrip<CHttpConfig>(Seed()); }

// Documents whose paths select more than one node, or none, or only in part.
std::vector<std::string> OddDocuments() {
    const std::string one = FullMap("1", "a", "1", "p", "1080", "u", "5", "0", "1");
    const std::string dflt = FullMap("Default", "", "", "d", "1081", "du", "4", "1", "1");
    const std::string onlyValue = MapElement("1", Value("DestinationAddress", "second") + Value("ProxyAddress", "sp"));
    return {
        // Two maps of one id, only the second holding values.
        SettingsElement(ProxyElement("SOCKS", "1", MapElement("1", "") + onlyValue + dflt) +
                        ProxyElement("HTTP", "1", MapElement("1", "") + onlyValue + dflt)),
        // Repeated Proxy of the family, the first without maps.
        SettingsElement(ProxyElement("SOCKS", "0", "") + ProxyElement("SOCKS", "1", one + dflt) +
                        "<Proxy type=\"HTTP\"/>" + ProxyElement("HTTP", "1", one + dflt)),
        // Repeated Maps in one Proxy, the first without count.
        SettingsElement("<Proxy type=\"SOCKS\"><Maps>" + one + "</Maps><Maps count=\"1\">" + dflt +
                        "</Maps></Proxy><Proxy type=\"HTTP\"><Maps>" + one + "</Maps><Maps count=\"2\">" + dflt +
                        "</Maps></Proxy>"),
        // Repeated Proxies and Settings nested in a map.
        "<Settings><Proxies/><Proxies>" + ProxyElement("SOCKS", "1", MapElement("1", SettingsElement(
            ProxyElement("SOCKS", "1", one) + ProxyElement("HTTP", "3", one + dflt)) + Value("ProxyAddress", "outer")) +
                                                             dflt) + "</Proxies></Settings>",
        // Settings below an unknown root, and a second one later.
        "<Root><Other/>" + SettingsElement(ProxyElement("HTTP", "1", dflt)) + SettingsElement(
            ProxyElement("SOCKS", "1", one + dflt) + ProxyElement("HTTP", "1", one)) + "</Root>",
        // Wrong types and no type, comments, unknown elements and text everywhere.
        SettingsElement("<!-- c --><Proxy type=\"socks\"><Maps count=\"1\">" + one + "</Maps></Proxy><Proxy>" +
                        "<Maps count=\"1\">" + one + "</Maps></Proxy><Unknown/>text" +
                        ProxyElement("SOCKS", "1", "<!--x-->" + MapElement("1", "<X/>" + Value("DestinationAddress", "d") +
                                                                            "t<!--y-->" + Value("ProxyAddress", "q") +
                                                                            Value("ProxyAddress", "second")) + dflt) +
                        ProxyElement("HTTP", "1", "<Map>" + one + "</Map>" + dflt)),
        // Values without value, in another order, twice, with content.
        SettingsElement(ProxyElement("SOCKS", "1", MapElement("1", "<UseProxy value=\"1\"/><ProxyUser/>"
                                                                   "<ProxyPort value=\"77\">content</ProxyPort>"
                                                                   "<ProxyAddress value=\"x\"/><ProxyAddress/>"
                                                                   "<ProtocolVersion/><BasicAuthentication value=\"3\"/>")) +
                        ProxyElement("HTTP", "1", MapElement("1", "<DestinationAddress/><DestinationPort value=\"9\"/>"))),
        // Elements in a namespace or with a prefix are not the schema's.
        "<Settings xmlns:n=\"urn:n\"><Proxies><n:Proxy type=\"SOCKS\"><Maps count=\"1\">" + one +
            "</Maps></n:Proxy>" + ProxyElement("SOCKS", "1", MapElement("1", "<n:ProxyAddress value=\"n\"/>" +
                                                                           Value("ProxyAddress", "plain")) + dflt) +
            "<Proxy type=\"HTTP\" xmlns=\"urn:d\"><Maps count=\"1\">" + one + "</Maps></Proxy></Proxies></Settings>",
        // Map ids written otherwise than the reader forms them.
        SettingsElement(ProxyElement("SOCKS", "2", MapElement("01", Value("ProxyAddress", "zero")) + MapElement(" 2", "") +
                                                       MapElement("default", "") + one) +
                        ProxyElement("HTTP", " 1", dflt)),
        // Bad numbers after good maps, in either family.
        SettingsElement(ProxyElement("SOCKS", "2", one + FullMap("2", "b", "2", "q", "1", "u", "x", "0", "1")) +
                        ProxyElement("HTTP", "99999999999", one)),
        // No Proxies at all; then a root that is not Settings.
        "<Settings version=\"1\"/>",
        "<Other><Proxies>" + ProxyElement("SOCKS", "1", one) + "</Proxies></Other>",
    };
}

TEST_F(XmlStoreOracleTest, OddDocumentsReadAlikeBothWays) {
    for (const std::string& xml : OddDocuments()) {
        ExpectSameReads<CSocksConfig>(xml);
        ExpectSameReads<CHttpConfig>(xml);
    }
}

TEST_F(XmlStoreOracleTest, OddDocumentsAreWrittenAlikeBothWays) {
    std::mt19937 random(20261124);
    for (const std::string& xml : OddDocuments()) {
        CSocksConfig socks;
        FillRandom(socks, random);
        ExpectSameWrites(xml, socks);
        CHttpConfig http;
        FillRandom(http, random);
        ExpectSameWrites(xml, http);
        // An empty set leaves every document alone either way.
        http.Clear();
        ExpectSameWrites(xml, http);
    }
}

TEST_F(XmlStoreOracleTest, TwoMapsOfOneIdWriteIntoTheFirstValueOfEither) {
    // The value of the second map is found by the path of the value, while the first map takes what
    // it lacks.
    const std::string xml = SettingsElement(ProxyElement(
        "SOCKS", "1", MapElement("1", Value("ProxyPort", "1")) + MapElement("1", Value("ProxyAddress", "old"))));
    CSocksConfig set;
    set.Clear();
    CProxyMap* map = CSocksConfig::NewMap();
    map->SetDestinationAddress("dest");
    map->SetProxyAddress("new");
    set.Append(map);
    std::string written = WriteBy(xml, set, false);
    EXPECT_EQ(written, WriteBy(xml, set, true));
    // The service may lay the text out with line breaks and tabs: compared without them.
    std::string bare;
    for (char c : written) {
        if (c != '\n' && c != '\r' && c != '\t') bare += c;
    }
    EXPECT_NE(bare.find("<Map id=\"1\"><ProxyAddress value=\"new\"/></Map>"), std::string::npos) << written;
    EXPECT_NE(bare.find("<Map id=\"1\"><ProxyPort value=\"1080\"/><DestinationAddress value=\"dest\"/>"),
              std::string::npos)
        << written;
}

}  // namespace
