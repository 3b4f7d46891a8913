// The older registry store of the proxy maps on the Wine registry: each family's reader, the
// dxapps.ini file behind a map without a proxy address, the writing twins and the deletion of a
// family's tree. Fixtures are written with the platform's own calls; each case starts and ends with
// a cleared store.
#include "registry_store.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "copied_program.h"
#include "http_config.h"
#include "log_capture.h"
#include "module_files.h"
#include "registry_fixture.h"
#include "socks_config.h"
#include "test_helpers.h"
#include "xml_registry.h"

namespace {

using dxtest::GetValue;
using dxtest::Hive;
using dxtest::KeyExists;
using dxtest::MakeKey;
using dxtest::PutNumber;
using dxtest::PutText;
using dxtest::PutValue;

constexpr char kSocksKey[] = "Network Protocols\\SOCKS";
constexpr char kHttpKey[] = "Network Protocols\\HTTP";
constexpr char kSocksDefault[] = "Network Protocols\\SOCKS\\Default Map";
constexpr char kHttpDefault[] = "Network Protocols\\HTTP\\Default Map";

std::string MapKey(const char* family, int index) {
    char name[16];
    snprintf(name, sizeof name, "Map %03d", index);
    return std::string(family) + "\\" + name;
}

// Writes dxapps.ini as the user's editor would have.
void PutIni(const std::string& bytes) {
    std::ofstream file(dxtest::IniFilePath(), std::ios::binary | std::ios::trunc);
    file << bytes;
}

std::vector<CProxyMap*> Maps(const CProxyMapSet& set) {
    std::vector<CProxyMap*> maps;
    for (CListNode* node = set.First(); node != nullptr; node = CLinkedList::Next(node)) maps.push_back(static_cast<CProxyMap*>(node));
    return maps;
}

// A map whose values stand in the registry, so that the ini file plays no part.
void PutRegistryMap(const std::string& path) {
    ASSERT_TRUE(PutValue(Hive::kUser, path, "Use Proxy", REG_BINARY, std::string(1, '\x01')));
    ASSERT_TRUE(PutText(Hive::kUser, path, "Proxy Address", "proxy.example"));
    ASSERT_TRUE(PutText(Hive::kUser, path, "Proxy Port", "3128"));
    ASSERT_TRUE(PutText(Hive::kUser, path, "Proxy User", "alice"));
    ASSERT_TRUE(PutNumber(Hive::kUser, path, "Protocol Version", 5));
    ASSERT_TRUE(PutValue(Hive::kUser, path, "Basic Authentication", REG_DWORD, std::string("\x01\0\0\0", 4)));
}

class RegistryStoreTest : public ::testing::Test {
protected:
    void SetUp() override { dxtest::ClearSettingsStore(); }
    void TearDown() override { dxtest::ClearSettingsStore(); }
};

TEST_F(RegistryStoreTest, WithoutAFamilyKeyThereIsNoConfiguration) {
    // Made before the capture: their constructors read the stores too.
    CSocksConfig socks;
    CHttpConfig http;
    dxtest::LogCapture capture;
    EXPECT_EQ(socks.ReadFromRegistry(), 0);
    EXPECT_EQ(http.ReadFromRegistry(), 0);
    EXPECT_EQ(capture.Lines(), (dxtest::Lines{dxtest::Line("Reading SOCKS proxy configuration from registry."),
                                              dxtest::Line("Reading HTTP proxy configuration from registry.")}));
}

TEST_F(RegistryStoreTest, SocksEmptiesItsListBeforeLookingForTheKeyHttpOnlyOnceItOpened) {
    CSocksConfig socks;
    CHttpConfig http;
    socks.Append(CSocksConfig::NewMap());
    http.Append(CHttpConfig::NewMap());
    EXPECT_EQ(socks.ReadFromRegistry(), 0);
    EXPECT_EQ(http.ReadFromRegistry(), 0);
    EXPECT_EQ(socks.Count(), 0u);
    EXPECT_EQ(http.Count(), 1u);
    ASSERT_TRUE(MakeKey(Hive::kUser, kHttpKey));
    EXPECT_EQ(http.ReadFromRegistry(), 1);
    EXPECT_EQ(http.Count(), 1u);  // the old map gone, the default map read
    EXPECT_EQ(Maps(http)[0]->IsDefaultMap, 1u);
}

// The handle table hands out the lowest free slot, so the key the reader opens first takes the slot
// a handle just closed left free.
TEST_F(RegistryStoreTest, EachReadLeavesTheFamilyKeyOpen) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 0));
    HKEY probe = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &probe), ERROR_SUCCESS);
    const HKEY freed = probe;
    RegCloseKey(probe);
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    // The slot holds the family key, opened for writing only: a value set through it lands there.
    const DWORD nine = 9;
    ASSERT_EQ(RegSetValueExA(freed, "Written", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&nine), sizeof nine),
              ERROR_SUCCESS);
    EXPECT_EQ(GetValue(Hive::kUser, kSocksKey, "Written").bytes, std::string("\x09\0\0\0", 4));
    DWORD marker = 0;
    DWORD size = sizeof marker;
    EXPECT_EQ(RegQueryValueExA(freed, "Marker", nullptr, nullptr, reinterpret_cast<BYTE*>(&marker), &size),
              ERROR_ACCESS_DENIED);
    RegCloseKey(freed);
    // A failed open leaves that slot empty.
    dxtest::ClearSettingsStore();
    ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &probe), ERROR_SUCCESS);
    const HKEY again = probe;
    RegCloseKey(probe);
    ASSERT_EQ(socks.ReadFromRegistry(), 0);
    EXPECT_EQ(RegSetValueExA(again, "Written", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&nine), sizeof nine),
              ERROR_INVALID_HANDLE);
}

TEST_F(RegistryStoreTest, AKeyOnlyUnderTheDefaultProfileIsNoConfiguration) {
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, kSocksKey, "Count", 1));
    ASSERT_TRUE(PutText(Hive::kDefaultProfile, MapKey(kSocksKey, 1), "Proxy Address", "proxy.example"));
    CSocksConfig socks;
    EXPECT_EQ(socks.ReadFromRegistry(), 0);
    EXPECT_EQ(socks.Count(), 0u);
}

TEST_F(RegistryStoreTest, AKeyTheUserMayOnlyReadIsNoConfiguration) {
    // Everyone may read the key and nobody may write it.
    SECURITY_DESCRIPTOR descriptor;
    ASSERT_TRUE(InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION));
    BYTE aclBuffer[256];
    auto* acl = reinterpret_cast<ACL*>(aclBuffer);
    ASSERT_TRUE(InitializeAcl(acl, sizeof aclBuffer, ACL_REVISION));
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    PSID everyone = nullptr;
    ASSERT_TRUE(AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everyone));
    ASSERT_TRUE(AddAccessDeniedAce(acl, ACL_REVISION, KEY_SET_VALUE | KEY_CREATE_SUB_KEY, everyone));
    ASSERT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, KEY_READ | DELETE, everyone));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&descriptor, TRUE, acl, FALSE));
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Verdane\\Network Protocols\\HTTP", 0, nullptr, 0,
                              KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, &descriptor), ERROR_SUCCESS);
    RegCloseKey(key);
    FreeSid(everyone);
    HKEY probe = nullptr;
    const LONG writable =
        RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Verdane\\Network Protocols\\HTTP", 0, KEY_WRITE, &probe);
    if (probe != nullptr) RegCloseKey(probe);
    ASSERT_EQ(writable, ERROR_ACCESS_DENIED) << "the registry grants write access against the key's DACL";
    ASSERT_TRUE(KeyExists(Hive::kUser, kHttpKey));
    CHttpConfig http;
    http.Append(CHttpConfig::NewMap());
    EXPECT_EQ(http.ReadFromRegistry(), 0);
    EXPECT_EQ(http.Count(), 1u);
}

TEST_F(RegistryStoreTest, CountZeroWithADefaultMapGivesTheDefaultMapAlone) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 0));
    PutRegistryMap(kSocksDefault);
    CSocksConfig socks;
    dxtest::LogCapture capture;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    EXPECT_EQ(capture.Lines(), dxtest::Lines{dxtest::Line("Reading SOCKS proxy configuration from registry.")});
    auto maps = Maps(socks);
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_EQ(maps[0]->IsDefaultMap, 1u);
    EXPECT_STREQ(maps[0]->GetDestinationAddress(), "*");
    EXPECT_STREQ(maps[0]->GetDestinationPort(), "*");
    EXPECT_EQ(maps[0]->UseProxy, 1u);
    EXPECT_STREQ(maps[0]->GetProxyAddress(), "proxy.example");
    EXPECT_STREQ(maps[0]->GetProxyPort(), "3128");
    EXPECT_STREQ(maps[0]->GetProxyUser(), "alice");
    EXPECT_EQ(maps[0]->ProtocolVersion, 5u);
    EXPECT_EQ(maps[0]->BasicAuthentication, 1u);
}

TEST_F(RegistryStoreTest, WithoutADefaultMapKeyTheDefaultMapComesFromTheDefaultsAndTheIniFile) {
    ASSERT_TRUE(MakeKey(Hive::kUser, kHttpKey));
    PutIni("[DXSOX16]\r\nProxy Address=ini.example\r\nProxy Port=8081\r\nProxy User=bob\r\n");
    CHttpConfig http;
    ASSERT_EQ(http.ReadFromRegistry(), 1);
    auto maps = Maps(http);
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_EQ(maps[0]->IsDefaultMap, 1u);
    EXPECT_EQ(maps[0]->UseProxy, 11u);
    EXPECT_STREQ(maps[0]->GetProxyAddress(), "ini.example");
    EXPECT_STREQ(maps[0]->GetProxyPort(), "8081");
    EXPECT_STREQ(maps[0]->GetProxyUser(), "bob");
    EXPECT_EQ(maps[0]->ProtocolVersion, 4u);
    EXPECT_EQ(maps[0]->BasicAuthentication, 0u);
}

TEST_F(RegistryStoreTest, AMissingNumberedMapTakesEveryDestinationAheadOfTheDefaultMap) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 2));
    const std::string first = MapKey(kSocksKey, 1);
    ASSERT_TRUE(PutText(Hive::kUser, first, "Destination Address", "intranet.example"));
    ASSERT_TRUE(PutText(Hive::kUser, first, "Destination Port", "443"));
    PutRegistryMap(first);
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    auto maps = Maps(socks);
    ASSERT_EQ(maps.size(), 3u);
    EXPECT_STREQ(maps[0]->GetDestinationAddress(), "intranet.example");
    EXPECT_STREQ(maps[0]->GetDestinationPort(), "443");
    EXPECT_EQ(maps[0]->IsDefaultMap, 0u);
    EXPECT_STREQ(maps[1]->GetDestinationAddress(), "*");
    EXPECT_STREQ(maps[1]->GetDestinationPort(), "*");
    EXPECT_EQ(maps[1]->IsDefaultMap, 0u);
    EXPECT_EQ(maps[2]->IsDefaultMap, 1u);
}

TEST_F(RegistryStoreTest, AFamilyKeyWithoutValuesAndNoIniFileGivesOneDefaultMapWithGuest) {
    ASSERT_TRUE(MakeKey(Hive::kUser, kSocksKey));
    ASSERT_TRUE(MakeKey(Hive::kUser, kHttpKey));
    // Made with no settings file, the sets read the registry and await their move into the file.
    CSocksConfig socks;
    CHttpConfig http;
    EXPECT_EQ(socks.MigrationState, 1);
    EXPECT_EQ(http.MigrationState, 1);
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    ASSERT_EQ(http.ReadFromRegistry(), 1);
    auto socksMaps = Maps(socks);
    auto httpMaps = Maps(http);
    ASSERT_EQ(socksMaps.size(), 1u);
    ASSERT_EQ(httpMaps.size(), 1u);
    EXPECT_EQ(socksMaps[0]->UseProxy, 0u);
    EXPECT_STREQ(socksMaps[0]->GetProxyPort(), "1080");
    EXPECT_STREQ(socksMaps[0]->GetProxyUser(), "Guest");
    EXPECT_EQ(httpMaps[0]->UseProxy, 0u);
    EXPECT_STREQ(httpMaps[0]->GetProxyPort(), "80");
    // Not the empty user one might expect of HTTP: the ini file's read has "Guest" as its default for
    // both families, and a map without a proxy address always reads the ini file.
    EXPECT_STREQ(httpMaps[0]->GetProxyUser(), "Guest");
}

TEST_F(RegistryStoreTest, AnIniAddressTurnsTheFlagIntoItsLengthAndGuestForBothFamilies) {
    ASSERT_TRUE(MakeKey(Hive::kUser, kSocksKey));
    ASSERT_TRUE(MakeKey(Hive::kUser, kHttpKey));
    // The registry's flag is overwritten.
    ASSERT_TRUE(PutValue(Hive::kUser, kHttpDefault, "Use Proxy", REG_BINARY, std::string(1, '\0')));
    PutIni("[DXSOX16]\r\nProxy Address=10.0.0.1\r\n");
    CSocksConfig socks;
    CHttpConfig http;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    ASSERT_EQ(http.ReadFromRegistry(), 1);
    for (CProxyMap* map : {Maps(socks)[0], Maps(http)[0]}) {
        EXPECT_EQ(map->UseProxy, 8u);
        EXPECT_STREQ(map->GetProxyAddress(), "10.0.0.1");
        EXPECT_STREQ(map->GetProxyUser(), "Guest");
    }
    EXPECT_STREQ(Maps(socks)[0]->GetProxyPort(), "1080");
    EXPECT_STREQ(Maps(http)[0]->GetProxyPort(), "80");
}

TEST_F(RegistryStoreTest, UseProxyAsTextTrueReadsTrueAndYesReadsTheDefault) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 1));
    const std::string first = MapKey(kSocksKey, 1);
    PutRegistryMap(first);
    PutRegistryMap(kSocksDefault);
    ASSERT_TRUE(PutText(Hive::kUser, first, "Use Proxy", "TRUE"));
    ASSERT_TRUE(PutText(Hive::kUser, kSocksDefault, "Use Proxy", "yes"));
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    auto maps = Maps(socks);
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_EQ(maps[0]->UseProxy, 1u);
    EXPECT_EQ(maps[1]->UseProxy, 0u);
}

TEST_F(RegistryStoreTest, ValuesOnlyUnderTheDefaultProfileAreRead) {
    ASSERT_TRUE(MakeKey(Hive::kUser, kHttpKey));
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, kHttpKey, "Count", 1));
    const std::string first = MapKey(kHttpKey, 1);
    ASSERT_TRUE(PutText(Hive::kDefaultProfile, first, "Destination Address", "lan.example"));
    ASSERT_TRUE(PutText(Hive::kDefaultProfile, first, "Proxy Address", "everyone.example"));
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, first, "Use Proxy", 1));
    CHttpConfig http;
    ASSERT_EQ(http.ReadFromRegistry(), 1);
    auto maps = Maps(http);
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_STREQ(maps[0]->GetDestinationAddress(), "lan.example");
    EXPECT_STREQ(maps[0]->GetProxyAddress(), "everyone.example");
    EXPECT_EQ(maps[0]->UseProxy, 1u);
    EXPECT_STREQ(maps[0]->GetProxyUser(), "");  // the registry's user: none
}

TEST_F(RegistryStoreTest, A511CharacterUserFitsTheFieldAndA512CharacterOneReadsEmpty) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 1));
    const std::string first = MapKey(kSocksKey, 1);
    PutRegistryMap(first);
    PutRegistryMap(kSocksDefault);
    ASSERT_TRUE(PutText(Hive::kUser, first, "Proxy User", std::string(511, 'u')));
    ASSERT_TRUE(PutText(Hive::kUser, kSocksDefault, "Proxy User", std::string(512, 'v')));
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    auto maps = Maps(socks);
    EXPECT_EQ(std::string(maps[0]->GetProxyUser()), std::string(511, 'u'));
    EXPECT_STREQ(maps[1]->GetProxyUser(), "");
}

TEST_F(RegistryStoreTest, AnOverlongProxyAddressLeadsToTheIniFileAndAnOverlongDestinationToAnyHost) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 2));
    const std::string first = MapKey(kSocksKey, 1);
    const std::string second = MapKey(kSocksKey, 2);
    PutRegistryMap(first);
    PutRegistryMap(second);
    ASSERT_TRUE(PutText(Hive::kUser, first, "Proxy Address", std::string(1025, 'p')));
    ASSERT_TRUE(PutText(Hive::kUser, first, "Destination Address", std::string(1025, 'd')));
    ASSERT_TRUE(PutText(Hive::kUser, second, "Proxy Address", std::string(1024, 'q')));
    ASSERT_TRUE(PutText(Hive::kUser, second, "Destination Address", std::string(1024, 'e')));
    PutIni("[DXSOX16]\r\nProxy Address=ini.example\r\n");
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    auto maps = Maps(socks);
    ASSERT_EQ(maps.size(), 3u);
    EXPECT_STREQ(maps[0]->GetProxyAddress(), "ini.example");
    EXPECT_EQ(maps[0]->UseProxy, 11u);
    EXPECT_STREQ(maps[0]->GetProxyUser(), "Guest");
    EXPECT_EQ(maps[0]->ProtocolVersion, 4u);  // not the registry's 5: the ini file has none
    // Kept: a destination too long for its buffer reads empty, which is any host.
    EXPECT_STREQ(maps[0]->GetDestinationAddress(), "*");
    // 1024 characters fit the buffer; the record keeps 1023.
    EXPECT_EQ(std::string(maps[1]->GetProxyAddress()), std::string(1023, 'q'));
    EXPECT_EQ(std::string(maps[1]->GetDestinationAddress()), std::string(1023, 'e'));
    EXPECT_STREQ(maps[1]->GetProxyUser(), "alice");
}

TEST_F(RegistryStoreTest, CountIsSigned) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 0xFFFFFFFF));
    ASSERT_TRUE(PutNumber(Hive::kUser, kHttpKey, "Count", 0x80000000));
    PutRegistryMap(MapKey(kSocksKey, 1));
    CSocksConfig socks;
    CHttpConfig http;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    ASSERT_EQ(http.ReadFromRegistry(), 1);
    EXPECT_EQ(socks.Count(), 1u);
    EXPECT_EQ(http.Count(), 1u);
    EXPECT_EQ(Maps(socks)[0]->IsDefaultMap, 1u);
}

TEST_F(RegistryStoreTest, ShortTextsReadAsNumbersAndLongerOnesGiveTheDefault) {
    // The layer does not look at the type: "2" is the bytes 0x32 0x00, 50 maps.
    ASSERT_TRUE(PutText(Hive::kUser, kSocksKey, "Count", "2"));
    ASSERT_TRUE(PutText(Hive::kUser, kHttpKey, "Count", "12345"));
    PutRegistryMap(kSocksDefault);
    PutRegistryMap(kHttpDefault);
    ASSERT_TRUE(PutText(Hive::kUser, kSocksDefault, "Protocol Version", "5"));
    ASSERT_TRUE(PutText(Hive::kUser, kHttpDefault, "Protocol Version", "12345"));
    CSocksConfig socks;
    CHttpConfig http;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    ASSERT_EQ(http.ReadFromRegistry(), 1);
    EXPECT_EQ(socks.Count(), 51u);
    EXPECT_EQ(Maps(socks).back()->ProtocolVersion, 0x35u);
    EXPECT_EQ(http.Count(), 1u);
    EXPECT_EQ(Maps(http).back()->ProtocolVersion, 4u);
}

TEST_F(RegistryStoreTest, TheThousandthMapHasAFourDigitKey) {
    ASSERT_TRUE(PutText(Hive::kUser, std::string(kHttpKey) + "\\Map 1000", "Destination Address", "last.example"));
    ASSERT_TRUE(PutText(Hive::kUser, std::string(kHttpKey) + "\\Map 999", "Destination Address", "nine.example"));
    ASSERT_TRUE(PutText(Hive::kUser, std::string(kHttpKey) + "\\Map 07", "Destination Address", "short.example"));
    ASSERT_TRUE(PutText(Hive::kUser, std::string(kHttpKey) + "\\Map 007", "Destination Address", "seven.example"));
    CHttpConfig http;
    CProxyMap* map = CHttpConfig::NewMap();
    ASSERT_EQ(http.ReadMapFromRegistry(map, 999), 1);
    EXPECT_STREQ(map->GetDestinationAddress(), "nine.example");
    ASSERT_EQ(http.ReadMapFromRegistry(map, 1000), 1);
    EXPECT_STREQ(map->GetDestinationAddress(), "last.example");
    ASSERT_EQ(http.ReadMapFromRegistry(map, 7), 1);
    EXPECT_STREQ(map->GetDestinationAddress(), "seven.example");
    delete map;
}

TEST_F(RegistryStoreTest, AnOverlongIniAddressIsCutAndABinaryIniFileReadsWithoutHarm) {
    ASSERT_TRUE(MakeKey(Hive::kUser, kSocksKey));
    PutIni("[DXSOX16]\r\nProxy Address=" + std::string(2000, 'a') + "\r\n");
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    EXPECT_EQ(std::string(Maps(socks)[0]->GetProxyAddress()), std::string(1023, 'a'));
    EXPECT_EQ(Maps(socks)[0]->UseProxy, 1024u);  // the buffer held 1024 characters

    std::string binary;
    for (int i = 0; i < 4096; ++i) binary += static_cast<char>((i * 7919) & 0xff);
    PutIni(binary);
    CSocksConfig again;
    ASSERT_EQ(again.ReadFromRegistry(), 1);
    ASSERT_EQ(again.Count(), 1u);
    EXPECT_LE(std::strlen(Maps(again)[0]->GetProxyAddress()), 1023u);
}

TEST_F(RegistryStoreTest, NoReadChangesTheRegistry) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 3));
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    EXPECT_FALSE(KeyExists(Hive::kUser, MapKey(kSocksKey, 1)));
    EXPECT_FALSE(KeyExists(Hive::kUser, kSocksDefault));
    EXPECT_FALSE(KeyExists(Hive::kUser, kHttpKey));
    EXPECT_FALSE(dxtest::FileExists(dxtest::IniFilePath()));
}

// The writing twins store each value with its type; the readers give the same record back.
TEST_F(RegistryStoreTest, WrittenMapsReadBackAlike) {
    CSocksConfig socks;
    CProxyMap* written = CSocksConfig::NewMap();
    written->SetDestinationAddress("*.example");
    written->SetDestinationPort("8a");
    written->SetProxyAddress("proxy.example");
    written->SetProxyPort("1081");
    written->SetProxyUser("\xe9t\xe9 <&>");
    written->SetUseProxy(7);
    written->ProtocolVersion = 5;
    written->BasicAuthentication = 3;
    ASSERT_EQ(socks.WriteMapToRegistry(written, 12), 1);
    const std::string path = MapKey(kSocksKey, 12);
    EXPECT_EQ(GetValue(Hive::kUser, path, "Use Proxy").type, static_cast<DWORD>(REG_BINARY));
    EXPECT_EQ(GetValue(Hive::kUser, path, "Use Proxy").bytes, std::string(1, '\x01'));
    EXPECT_EQ(GetValue(Hive::kUser, path, "Basic Authentication").bytes, std::string(1, '\x01'));
    EXPECT_EQ(GetValue(Hive::kUser, path, "Protocol Version").type, static_cast<DWORD>(REG_DWORD));
    EXPECT_EQ(GetValue(Hive::kUser, path, "Destination Port").bytes, std::string("8a", 3));
    EXPECT_EQ(GetValue(Hive::kUser, path, "Proxy Port").type, static_cast<DWORD>(REG_SZ));

    CProxyMap* read = CSocksConfig::NewMap();
    ASSERT_EQ(socks.ReadMapFromRegistry(read, 12), 1);
    EXPECT_EQ(read->IsDefaultMap, 0u);
    EXPECT_STREQ(read->GetDestinationAddress(), "*");  // a host beginning with '*' is stored as "*"
    EXPECT_STREQ(read->GetDestinationPort(), "8a");
    EXPECT_STREQ(read->GetProxyAddress(), "proxy.example");
    EXPECT_STREQ(read->GetProxyPort(), "1081");
    EXPECT_STREQ(read->GetProxyUser(), "\xe9t\xe9 <&>");
    EXPECT_EQ(read->UseProxy, 1u);  // a non-zero flag is written as 1
    EXPECT_EQ(read->ProtocolVersion, 5u);
    EXPECT_EQ(read->BasicAuthentication, 1u);
    delete written;
    delete read;
}

TEST_F(RegistryStoreTest, TheDefaultMapIsWrittenWithoutDestinationAndAWildcardProxyStaysAStar) {
    CHttpConfig http;
    CProxyMap* written = CHttpConfig::NewMap();
    written->IsDefaultMap = 1;
    written->SetDestinationAddress("host.example");
    written->SetProxyAddress("*");
    ASSERT_EQ(http.WriteMapToRegistry(written, 4), 1);
    EXPECT_STREQ(written->GetDestinationAddress(), "*");
    EXPECT_FALSE(KeyExists(Hive::kUser, MapKey(kHttpKey, 4)));
    EXPECT_FALSE(GetValue(Hive::kUser, kHttpDefault, "Destination Address").found);
    EXPECT_EQ(GetValue(Hive::kUser, kHttpDefault, "Proxy Address").bytes, std::string("*", 2));
    EXPECT_EQ(GetValue(Hive::kUser, kHttpDefault, "Proxy Port").bytes, std::string("80", 3));

    // Index -1 makes a numbered record the default map.
    CProxyMap* numbered = CHttpConfig::NewMap();
    numbered->SetProxyAddress("other.example");
    ASSERT_EQ(http.WriteMapToRegistry(numbered, -1), 1);
    EXPECT_EQ(numbered->IsDefaultMap, 1u);
    EXPECT_EQ(GetValue(Hive::kUser, kHttpDefault, "Proxy Address").bytes, std::string("other.example", 14));

    CProxyMap* read = CHttpConfig::NewMap();
    read->SetUseProxy(1);
    ASSERT_EQ(http.ReadMapFromRegistry(read, -1), 1);
    EXPECT_EQ(read->IsDefaultMap, 1u);
    EXPECT_STREQ(read->GetProxyAddress(), "other.example");
    EXPECT_EQ(read->UseProxy, 0u);
    delete written;
    delete numbered;
    delete read;
}

// Seeded random records of both families: what the writers store, the readers give back, but for a
// non-zero flag, which reads as 1.
std::string RandomText(std::mt19937& random, size_t most) {
    static const std::string kCharacters =
        "abcdefghijklmnopqrstuvwxyz0123456789.-*?<>&\"' \t\xa0\xc9\xe9\xff";
    std::string text(random() % (most + 1), ' ');
    for (char& c : text) c = kCharacters[random() % kCharacters.size()];
    return text;
}

template <typename Set>
void RoundTrip(Set& set, std::mt19937& random, int maps) {
    for (int index = 1; index <= maps + 1; ++index) {
        const bool isDefault = index == maps + 1;
        CProxyMap* written = Set::NewMap();
        written->SetDestinationAddress(RandomText(random, 1100).c_str());
        written->SetDestinationPort(RandomText(random, 40).c_str());
        written->SetProxyAddress(RandomText(random, 1100).c_str());
        written->SetProxyPort(RandomText(random, 40).c_str());
        written->SetProxyUser(RandomText(random, 600).c_str());
        written->SetUseProxy(random() % 3 == 0 ? 0 : static_cast<uint32_t>(random()));
        written->ProtocolVersion = static_cast<uint32_t>(random());
        written->BasicAuthentication = random() % 2 == 0 ? 0 : static_cast<uint32_t>(random() | 1);
        ASSERT_EQ(set.WriteMapToRegistry(written, isDefault ? -1 : index), 1);
        CProxyMap* read = Set::NewMap();
        ASSERT_EQ(set.ReadMapFromRegistry(read, isDefault ? -1 : index), 1);
        SCOPED_TRACE("map " + std::to_string(index));
        EXPECT_EQ(read->IsDefaultMap, written->IsDefaultMap);
        EXPECT_STREQ(read->GetDestinationAddress(), written->GetDestinationAddress());
        EXPECT_STREQ(read->GetDestinationPort(), written->GetDestinationPort());
        EXPECT_STREQ(read->Proxy.Host, written->Proxy.Host);
        EXPECT_STREQ(read->GetProxyPort(), written->GetProxyPort());
        EXPECT_STREQ(read->GetProxyUser(), written->GetProxyUser());
        EXPECT_EQ(read->UseProxy, written->UseProxy != 0 ? 1u : 0u);
        EXPECT_EQ(read->ProtocolVersion, written->ProtocolVersion);
        EXPECT_EQ(read->BasicAuthentication, written->BasicAuthentication != 0 ? 1u : 0u);
        delete written;
        delete read;
    }
}

TEST_F(RegistryStoreTest, SeededRandomMapsRoundTripThroughTheRegistry) {
    // DXTEST_REGISTRY_SEED replays a seed.
    const char* given = std::getenv("DXTEST_REGISTRY_SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                           : static_cast<unsigned>(GetTickCount());
    std::printf("[ registry ] round trip seed %u (DXTEST_REGISTRY_SEED replays it)\n", seed);
    std::mt19937 random(seed);
    CSocksConfig socks;
    CHttpConfig http;
    RoundTrip(socks, random, 20);
    RoundTrip(http, random, 20);
    EXPECT_FALSE(dxtest::FileExists(dxtest::IniFilePath()));
}

// The deletion of a family's tree and the export that runs it for both.

TEST_F(RegistryStoreTest, CleanupRegistryDeletesBothTreesAndTheEmptyKeysAbove) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 2));
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Detect", 0));
    PutRegistryMap(MapKey(kSocksKey, 1));
    PutRegistryMap(MapKey(kSocksKey, 2));
    PutRegistryMap(kSocksDefault);
    ASSERT_TRUE(PutNumber(Hive::kUser, kHttpKey, "Count", 1));
    PutRegistryMap(MapKey(kHttpKey, 1));
    PutRegistryMap(kHttpDefault);
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, kSocksKey, "Count", 1));
    PutRegistryMap(MapKey(kSocksKey, 1));
    ASSERT_TRUE(PutText(Hive::kDefaultProfile, kSocksDefault, "Proxy Address", "everyone.example"));
    dxtest::LogCapture capture;
    EXPECT_EQ(CleanupRegistry(), 0);
    EXPECT_EQ(capture.Lines(), dxtest::BareFrame("CleanupRegistry", {" result = 0"}));
    EXPECT_FALSE(KeyExists(Hive::kUser, ""));
    EXPECT_TRUE(KeyExists(Hive::kDefaultProfile, kSocksDefault));
    EXPECT_TRUE(GetValue(Hive::kDefaultProfile, kSocksKey, "Count").found);
}

TEST_F(RegistryStoreTest, CleanupRegistryLeavesAMapBeyondCountOtherKeysAndTheDefaultProfile) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 1));
    PutRegistryMap(MapKey(kSocksKey, 1));
    PutRegistryMap(MapKey(kSocksKey, 3));
    PutRegistryMap(kSocksDefault);
    PutRegistryMap(kHttpDefault);
    ASSERT_TRUE(MakeKey(Hive::kUser, "Network Protocols\\FTP"));
    ASSERT_TRUE(PutText(Hive::kUser, "Other Product", "Name", "kept"));
    ASSERT_TRUE(PutText(Hive::kDefaultProfile, kHttpDefault, "Proxy Address", "everyone.example"));
    EXPECT_EQ(CleanupRegistry(), 0);
    EXPECT_FALSE(KeyExists(Hive::kUser, MapKey(kSocksKey, 1)));
    EXPECT_FALSE(KeyExists(Hive::kUser, kSocksDefault));
    EXPECT_TRUE(KeyExists(Hive::kUser, MapKey(kSocksKey, 3)));
    EXPECT_TRUE(KeyExists(Hive::kUser, kSocksKey));
    EXPECT_TRUE(GetValue(Hive::kUser, kSocksKey, "Count").found);
    EXPECT_FALSE(KeyExists(Hive::kUser, kHttpKey));
    EXPECT_TRUE(KeyExists(Hive::kUser, "Network Protocols\\FTP"));
    EXPECT_TRUE(GetValue(Hive::kUser, "Other Product", "Name").found);
    EXPECT_TRUE(KeyExists(Hive::kDefaultProfile, kHttpDefault));
}

TEST_F(RegistryStoreTest, OtherSubkeysOfNetworkProtocolsKeepItAndVerdane) {
    PutRegistryMap(kHttpDefault);
    PutRegistryMap(kSocksDefault);
    ASSERT_TRUE(PutText(Hive::kUser, "Network Protocols\\FTP", "Proxy Address", "ftp.example"));
    EXPECT_EQ(CleanupRegistry(), 0);
    EXPECT_FALSE(KeyExists(Hive::kUser, kHttpKey));
    EXPECT_FALSE(KeyExists(Hive::kUser, kSocksKey));
    EXPECT_TRUE(KeyExists(Hive::kUser, "Network Protocols"));
    EXPECT_TRUE(GetValue(Hive::kUser, "Network Protocols\\FTP", "Proxy Address").found);
}

TEST_F(RegistryStoreTest, TheDeletionReadsCountThroughTheLayerWithItsDefaultProfile) {
    // The user's family key has no Count: the default profile's 2 names the maps to delete.
    PutRegistryMap(MapKey(kHttpKey, 1));
    PutRegistryMap(MapKey(kHttpKey, 2));
    PutRegistryMap(MapKey(kHttpKey, 3));
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, kHttpKey, "Count", 2));
    EXPECT_EQ(DeleteFamilyTree("HTTP"), 1);
    EXPECT_FALSE(KeyExists(Hive::kUser, MapKey(kHttpKey, 1)));
    EXPECT_FALSE(KeyExists(Hive::kUser, MapKey(kHttpKey, 2)));
    EXPECT_TRUE(KeyExists(Hive::kUser, MapKey(kHttpKey, 3)));
    EXPECT_TRUE(KeyExists(Hive::kDefaultProfile, kHttpKey));
}

TEST_F(RegistryStoreTest, ADeletionWithACountOfMinusOneDeletesTheDefaultMapAlone) {
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 0xFFFFFFFF));
    PutRegistryMap(MapKey(kSocksKey, 1));
    PutRegistryMap(kSocksDefault);
    EXPECT_EQ(DeleteFamilyTree("SOCKS"), 1);
    EXPECT_FALSE(KeyExists(Hive::kUser, kSocksDefault));
    EXPECT_TRUE(KeyExists(Hive::kUser, MapKey(kSocksKey, 1)));
}

TEST_F(RegistryStoreTest, CleanupRegistryWithoutAnyKeyDoesNothing) {
    dxtest::LogCapture capture;
    EXPECT_EQ(CleanupRegistry(), 0);
    EXPECT_EQ(capture.Lines(), dxtest::BareFrame("CleanupRegistry", {" result = 0"}));
    EXPECT_FALSE(KeyExists(Hive::kUser, ""));
}

// An in-memory registry serves the values, but the family key must stand in the real registry.

void RunChild(const std::string& name) {
    std::vector<std::pair<std::string, std::string>> beside = {
        {dxtest::BesideProgram("KVTSOCK2.DLL"), "KVTSOCK2.DLL"}};
    dxtest::ExpectCopiedCasePasses(beside, "RegistryStoreChild.DISABLED_" + name);
}

TEST_F(RegistryStoreTest, AnInMemoryRegistryAloneIsNoConfiguration) { RunChild("InMemoryAlone"); }
TEST_F(RegistryStoreTest, AnInMemoryRegistryGivesTheValuesWhileTheRealKeyExists) { RunChild("InMemoryValues"); }

constexpr char kInMemory[] =
    "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"Software\"><Key name=\"Verdane\">"
    "<Key name=\"Network Protocols\"><Key name=\"SOCKS\">"
    "<Value name=\"Count\" type=\"4\" hex=\"01000000\"/>"
    "<Key name=\"Map 001\">"
    "<Value name=\"Destination Address\" type=\"1\" hex=\"6d656d2e6578616d706c6500\"/>"
    "<Value name=\"Proxy Address\" type=\"1\" hex=\"6d656d70726f787900\"/>"
    "<Value name=\"Use Proxy\" type=\"3\" hex=\"01\"/>"
    "</Key></Key></Key></Key></Key></Key></Registry>";

TEST(RegistryStoreChild, DISABLED_InMemoryAlone) {
    ASSERT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, kInMemory), 1);
    CSocksConfig socks;
    EXPECT_EQ(socks.ReadFromRegistry(), 0);
    EXPECT_EQ(socks.Count(), 0u);
}

TEST(RegistryStoreChild, DISABLED_InMemoryValues) {
    // The real key, with a Count the in-memory registry hides.
    ASSERT_TRUE(PutNumber(Hive::kUser, kSocksKey, "Count", 5));
    ASSERT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, kInMemory), 1);
    CSocksConfig socks;
    ASSERT_EQ(socks.ReadFromRegistry(), 1);
    auto maps = Maps(socks);
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_STREQ(maps[0]->GetDestinationAddress(), "mem.example");
    EXPECT_STREQ(maps[0]->GetProxyAddress(), "memproxy");
    EXPECT_EQ(maps[0]->UseProxy, 1u);
    EXPECT_EQ(maps[1]->IsDefaultMap, 1u);
}

}  // namespace
