// The proxy maps in the settings file: what a file gives each family's set, and what a set writes.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "log_capture.h"
#include "registry_fixture.h"
#include "settings_file.h"
#include "settings_maps.h"
#include "store_fixture.h"
#include "test_helpers.h"
#include "xml_store.h"

namespace {

using dxtest::FullMap;
using dxtest::MapElement;
using dxtest::ProxyElement;
using dxtest::SettingsElement;
using dxtest::Value;

class XmlStoreTest : public dxtest::ProxyStoreTest {
protected:
    // The file of `root` read into a new SOCKS set (its constructor: file first).
    static void WriteFile(const std::string& root) { ASSERT_TRUE(dxtest::WriteSettingsBytes(dxtest::kSettingsHead + root)); }
    static std::string SocksOnly(const std::string& count, const std::string& maps) {
        return SettingsElement(ProxyElement("SOCKS", count, maps));
    }
    static std::string DefaultSocks() { return FullMap("Default", "", "", "10.0.0.9", "1081", "Dflt", "5", "0", "1"); }
};

const CProxyMap& At(const CLinkedList& set, uint32_t index) { return *static_cast<const CProxyMap*>(set.At(index)); }

TEST_F(XmlStoreTest, CountZeroWithADefaultMapReadsTheDefaultMapAlone) {
    WriteFile(SocksOnly("0", DefaultSocks()));
    dxtest::LogCapture capture;
    CSocksConfig set;
    EXPECT_EQ(set.MigrationState, 0);
    ASSERT_EQ(set.Count(), 1u);
    const CProxyMap& map = At(set, 0);
    EXPECT_EQ(map.IsDefaultMap, 1u);
    EXPECT_STREQ(map.Destination.Host, "*");
    EXPECT_STREQ(map.Proxy.Host, "10.0.0.9");
    EXPECT_STREQ(map.Proxy.Port, "1081");
    EXPECT_STREQ(map.ProxyUser, "Dflt");
    EXPECT_EQ(map.ProtocolVersion, 5u);
    EXPECT_EQ(map.UseProxy, 1u);
    EXPECT_EQ(capture.Lines(), dxtest::Lines{dxtest::Line("Reading SOCKS proxy configuration from XML.")});
}

TEST_F(XmlStoreTest, MissingSecondMapIsAWildcardWithoutProxyAheadOfTheDefault) {
    WriteFile(SocksOnly("2", FullMap("1", "10.1.2.3", "*", "10.9.9.9", "1080", "Guest", "5", "0", "1") + DefaultSocks()));
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 3u);
    const CProxyMap& second = At(set, 1);
    EXPECT_EQ(second.IsDefaultMap, 0u);
    EXPECT_STREQ(second.Destination.Host, "*");
    EXPECT_STREQ(second.Destination.Port, "*");
    EXPECT_EQ(second.UseProxy, 0u);
    // It takes every destination the first map does not, for a direct connection.
    EXPECT_EQ(set.PickProxy("example.org", 80), set.At(1));
    EXPECT_EQ(set.PickProxy("10.1.2.3", 80), set.At(0));
}

TEST_F(XmlStoreTest, NoMapsOfTheFamilyReadsAnEmptySetFromTheFile) {
    WriteFile(SettingsElement(ProxyElement("HTTP", "0", FullMap("Default", "", "", "10.8.8.8", "8080", "", "4", "1", "1"))));
    dxtest::PutNumber(dxtest::Hive::kUser, "Network Protocols\\SOCKS", "Count", 0);
    CSocksConfig socks;
    EXPECT_EQ(socks.Count(), 0u);
    EXPECT_EQ(socks.MigrationState, 0);
    EXPECT_EQ(socks.ReadFromXml(), 1);
    EXPECT_EQ(socks.Count(), 0u);
    // The other family is configured from the same file.
    CHttpConfig http;
    ASSERT_EQ(http.Count(), 1u);
    EXPECT_STREQ(At(http, 0).Proxy.Host, "10.8.8.8");
    EXPECT_EQ(At(http, 0).BasicAuthentication, 1u);
    EXPECT_EQ(http.MigrationState, 0);
}

TEST_F(XmlStoreTest, NegativeCountReadsAnEmptySet) {
    WriteFile(SocksOnly("-3", DefaultSocks()));
    CSocksConfig set;
    EXPECT_EQ(set.Count(), 0u);
    EXPECT_EQ(set.MigrationState, 0);
}

TEST_F(XmlStoreTest, CountWithTrailingTextReadsItsDigits) {
    WriteFile(SocksOnly("2x", ""));
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 3u);
    EXPECT_EQ(At(set, 2).IsDefaultMap, 1u);
}

TEST_F(XmlStoreTest, MapWithoutProxyAddressKeepsTheRestAtItsDefaults) {
    WriteFile(SocksOnly("1", MapElement("1", Value("DestinationAddress", "a.example") + Value("DestinationPort", "21") +
                                                 Value("ProxyPort", "9999") + Value("ProxyUser", "someone") +
                                                 Value("ProtocolVersion", "5") + Value("UseProxy", "1"))));
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 2u);
    const CProxyMap& map = At(set, 0);
    EXPECT_STREQ(map.Destination.Host, "a.example");
    EXPECT_STREQ(map.Destination.Port, "21");
    EXPECT_STREQ(map.Proxy.Port, "1080");
    EXPECT_STREQ(map.ProxyUser, "Guest");
    EXPECT_EQ(map.ProtocolVersion, 4u);
    EXPECT_EQ(map.UseProxy, 0u);
}

TEST_F(XmlStoreTest, UserWithoutValueTakesTheProxyPortsText) {
    WriteFile(SocksOnly("0", MapElement("Default", Value("ProxyAddress", "p.example") + Value("ProxyPort", "3128") +
                                                       "<ProxyUser/>" + Value("ProtocolVersion", "5"))));
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 1u);
    EXPECT_STREQ(At(set, 0).ProxyUser, "3128");
    // The chain went on behind it.
    EXPECT_EQ(At(set, 0).ProtocolVersion, 5u);
}

TEST_F(XmlStoreTest, EmptyVersionKeepsFourAndGoesOn) {
    WriteFile(SocksOnly("0", FullMap("Default", "", "", "p.example", "1080", "u", "", "1", "1")));
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 1u);
    EXPECT_EQ(At(set, 0).ProtocolVersion, 4u);
    EXPECT_EQ(At(set, 0).BasicAuthentication, 1u);
    EXPECT_EQ(At(set, 0).UseProxy, 1u);
}

TEST_F(XmlStoreTest, EmptyFlagRaisesUnlikeTheVersion) {
    // Kept: the flags have no empty case of their own.
    WriteFile(SocksOnly("0", FullMap("Default", "", "", "p.example", "1080", "u", "5", "", "1")));
    EXPECT_THROW(CSocksConfig(), std::invalid_argument);
    WriteFile(SocksOnly("0", FullMap("Default", "", "", "p.example", "1080", "u", "5", "0", "")));
    EXPECT_THROW(CSocksConfig(), std::invalid_argument);
}

TEST_F(XmlStoreTest, WildcardProxyIsWrittenEmptyAndReadBackAsStar) {
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 0u);
    CProxyMap* map = CSocksConfig::NewMap();
    map->SetProxyAddress("*");
    map->IsDefaultMap = 1;
    set.Append(map);
    ASSERT_EQ(set.WriteToXml(), 1);
    std::wstring xml;
    SettingsDocument->GetXml(xml);
    EXPECT_NE(xml.find(L"<ProxyAddress value=\"\"/>"), std::wstring::npos) << std::string(xml.begin(), xml.end());
    ASSERT_EQ(set.ReadFromXml(), 1);
    ASSERT_EQ(set.Count(), 1u);
    EXPECT_STREQ(At(set, 0).Proxy.Host, "*");
}

TEST_F(XmlStoreTest, DeletingAllNumberedMapsWritesCountZeroAndLeavesTheOldMaps) {
    WriteFile(SocksOnly("2", FullMap("1", "a", "1", "p", "1080", "u", "4", "0", "1") +
                                 FullMap("2", "b", "2", "q", "1080", "u", "4", "0", "1") + DefaultSocks()));
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 3u);
    set.Remove(set.At(0));
    CListNode* second = set.At(0);
    set.Remove(second);
    delete static_cast<CProxyMap*>(second);
    ASSERT_EQ(set.WriteConfiguration(), 1);
    const std::string file = dxtest::ReadSettingsBytes();
    EXPECT_NE(file.find("<Maps count=\"0\">"), std::string::npos) << file;
    EXPECT_NE(file.find("<Map id=\"1\">"), std::string::npos) << file;
    EXPECT_NE(file.find("<Map id=\"2\">"), std::string::npos) << file;
    CSocksConfig again;
    ASSERT_EQ(again.Count(), 1u);
    EXPECT_EQ(At(again, 0).IsDefaultMap, 1u);
}

TEST_F(XmlStoreTest, WriteRenumbersFromOneInListOrder) {
    WriteFile(SocksOnly("3", FullMap("1", "a", "1", "p", "1080", "u", "4", "0", "1") +
                                 FullMap("2", "b", "2", "q", "1080", "u", "4", "0", "1") +
                                 FullMap("3", "c", "3", "r", "1080", "u", "4", "0", "1") + DefaultSocks()));
    CSocksConfig set;
    ASSERT_EQ(set.Count(), 4u);
    CListNode* second = set.At(1);
    set.Remove(second);
    delete static_cast<CProxyMap*>(second);
    ASSERT_EQ(set.WriteToXml(), 1);
    CPXMSettings* written = SettingsDocument;
    CSocksConfig reread;  // reads the file, which still holds three maps
    EXPECT_EQ(reread.Count(), 4u);
    SettingsDocument = written;
    ASSERT_EQ(reread.ReadFromXml(), 1);
    ASSERT_EQ(reread.Count(), 3u);
    EXPECT_STREQ(At(reread, 0).Destination.Host, "a");
    EXPECT_STREQ(At(reread, 1).Destination.Host, "c");
    std::string count;
    EXPECT_EQ(SettingsDocument->GetMapCountText(L"SOCKS", count), S_OK);
    EXPECT_EQ(count, "2");
}

TEST_F(XmlStoreTest, EmptySetWritesNothingAndKeepsTheCount) {
    WriteFile(SocksOnly("5", ""));
    CSocksConfig set;
    set.Clear();
    EXPECT_EQ(set.WriteToXml(), 1);
    std::string count;
    EXPECT_EQ(SettingsDocument->GetMapCountText(L"SOCKS", count), S_OK);
    EXPECT_EQ(count, "5");
}

TEST_F(XmlStoreTest, BadNumbersRaiseTheirTextsAndKeepTheMapsReadSoFar) {
    struct Case {
        std::string root;
        bool outOfRange;
        uint32_t kept;
    };
    const Case cases[] = {
        {SocksOnly("x", DefaultSocks()), false, 0},
        {SocksOnly("99999999999", DefaultSocks()), true, 0},
        {SocksOnly("2", FullMap("1", "a", "1", "p", "1080", "u", "4", "0", "1") +
                            FullMap("2", "b", "2", "q", "1080", "u", "4", "0", "yes")),
         false, 1},
        {SocksOnly("1", FullMap("1", "a", "1", "p", "1080", "u", "99999999999", "0", "1")), true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.root);
        CSocksConfig set;  // made before the file, which would raise out of its constructor
        WriteFile(c.root);
        ASSERT_EQ(ReadSettingsDocument(), 1);
        try {
            set.ReadFromXml();
            ADD_FAILURE() << "nothing raised";
        } catch (const std::out_of_range& e) {
            EXPECT_TRUE(c.outOfRange);
            EXPECT_STREQ(e.what(), "stoi argument out of range");
        } catch (const std::invalid_argument& e) {
            EXPECT_FALSE(c.outOfRange);
            EXPECT_STREQ(e.what(), "invalid stoi argument");
        }
        EXPECT_EQ(set.Count(), c.kept);
        dxtest::ClearSettingsStore();
    }
}

TEST_F(XmlStoreTest, NoDocumentReadsNothingAndGivesZero) {
    CSocksConfig set;
    set.Append(CSocksConfig::NewMap());
    dxtest::LogCapture capture;
    SettingsDocument = nullptr;
    EXPECT_EQ(set.ReadFromXml(), 0);
    EXPECT_EQ(set.Count(), 0u);
    EXPECT_EQ(capture.Lines(), dxtest::Lines{dxtest::Line("Reading SOCKS proxy configuration from XML.")});
}

TEST_F(XmlStoreTest, AnEmptyFileGivesZeroAndKeepsTheDocument) {
    WriteFile(SocksOnly("0", DefaultSocks()));
    ASSERT_EQ(ReadSettingsDocument(), 1);
    CPXMSettings* before = SettingsDocument;
    ASSERT_TRUE(dxtest::WriteSettingsBytes(""));
    CHttpConfig http;
    EXPECT_EQ(http.MigrationState, -1);
    EXPECT_EQ(SettingsDocument, before);
    EXPECT_EQ(http.ReadSettingsFile(), 0);
    EXPECT_EQ(SettingsDocument, before);
    EXPECT_EQ(dxtest::ReadSettingsBytes(), "");
}

TEST_F(XmlStoreTest, SettingsAloneHidesARegistryConfiguration) {
    WriteFile("<Settings/>");
    ASSERT_TRUE(dxtest::PutNumber(dxtest::Hive::kUser, "Network Protocols\\SOCKS", "Count", 0));
    ASSERT_TRUE(dxtest::PutText(dxtest::Hive::kUser, "Network Protocols\\SOCKS\\Default Map", "Proxy Address", "r.example"));
    dxtest::LogCapture capture;
    CSocksConfig set;
    EXPECT_EQ(set.MigrationState, 0);
    EXPECT_EQ(set.Count(), 0u);
    EXPECT_EQ(capture.Lines(), dxtest::Lines{dxtest::Line("Reading SOCKS proxy configuration from XML.")});
    // Without a file the registry counts, and is due to move.
    dxtest::ClearSettingsStore();
    ASSERT_TRUE(dxtest::PutNumber(dxtest::Hive::kUser, "Network Protocols\\SOCKS", "Count", 0));
    ASSERT_TRUE(dxtest::PutText(dxtest::Hive::kUser, "Network Protocols\\SOCKS\\Default Map", "Proxy Address", "r.example"));
    capture.Clear();
    CSocksConfig fromRegistry;
    EXPECT_EQ(fromRegistry.MigrationState, 1);
    ASSERT_EQ(fromRegistry.Count(), 1u);
    EXPECT_STREQ(At(fromRegistry, 0).Proxy.Host, "r.example");
    EXPECT_EQ(capture.Lines(), dxtest::Lines{dxtest::Line("Reading SOCKS proxy configuration from registry.")});
}

TEST_F(XmlStoreTest, FileWithoutSettingsRootTakesNoMaps) {
    WriteFile("<Other/>");
    CSocksConfig set;
    set.Append(CSocksConfig::NewMap());
    static_cast<CProxyMap*>(set.At(0))->IsDefaultMap = 1;
    EXPECT_EQ(set.WriteToXml(), 1);
    std::wstring xml;
    SettingsDocument->GetXml(xml);
    EXPECT_EQ(xml, L"<Other/>");
}

}  // namespace
