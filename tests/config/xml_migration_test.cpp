// The move of an older registry configuration into the settings file, the losses the file's bytes
// and the order of the writes bring, files cut short or corrupt, a write that fails, and GetRegConfig
// in fresh processes.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "config_api.h"
#include "config_sets.h"
#include "socks_api.h"
#include "copied_program.h"
#include "log_capture.h"
#include "module_files.h"
#include "registry_fixture.h"
#include "settings_file.h"
#include "store_fixture.h"
#include "test_helpers.h"

namespace {

using dxtest::FieldsOf;
using dxtest::FullMap;
using dxtest::Hive;
using dxtest::MapFields;
using dxtest::ProxyElement;
using dxtest::SettingsElement;

const std::string kFamilies = "Network Protocols\\";

std::string MapPath(const std::string& family, int index) {
    std::string number = std::to_string(index);
    if (number.size() < 3) number.insert(0, 3 - number.size(), '0');
    return kFamilies + family + "\\" + (index < 0 ? std::string("Default Map") : "Map " + number);
}

bool TreeExists(const std::string& family) { return dxtest::KeyExists(Hive::kUser, kFamilies + family); }

// A flag in one of the forms the registry layer reads: a number, a text or bytes.
void PutFlag(Hive hive, const std::string& path, const char* name, int form, DWORD value) {
    switch (form % 3) {
        case 0: ASSERT_TRUE(dxtest::PutNumber(hive, path, name, value)); break;
        case 1: ASSERT_TRUE(dxtest::PutText(hive, path, name, std::to_string(value))); break;
        default: ASSERT_TRUE(dxtest::PutValue(hive, path, name, REG_BINARY, std::string(reinterpret_cast<const char*>(&value), 4))); break;
    }
}

// A family's registry tree of `count` numbered maps and the default map, every field off its default:
// flags in each form and non-zero values other than 1; map 2 with its proxy port only under
// .Default; map 4 without a proxy address, so dxapps.ini stands in; map 5 with a user of 511
// characters.
void PutRegistryFamily(const std::string& family, int count) {
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kFamilies + family, "Count", static_cast<DWORD>(count)));
    for (int i = 1; i <= count + 1; ++i) {
        const int index = i <= count ? i : -1;
        const std::string path = MapPath(family, index);
        const std::string n = family + std::to_string(i);
        ASSERT_TRUE(dxtest::MakeKey(Hive::kUser, path));
        if (index > 0) {
            ASSERT_TRUE(dxtest::PutText(Hive::kUser, path, "Destination Address", "dest" + n + ".example"));
            ASSERT_TRUE(dxtest::PutText(Hive::kUser, path, "Destination Port", std::to_string(100 + i)));
        }
        PutFlag(Hive::kUser, path, "Use Proxy", i, i % 2 == 0 ? 1 : 5);
        if (i != 4 || index < 0) {
            ASSERT_TRUE(dxtest::PutText(Hive::kUser, path, "Proxy Address", "proxy" + n + ".example"));
        }
        const Hive portHive = i == 2 ? Hive::kDefaultProfile : Hive::kUser;
        ASSERT_TRUE(dxtest::PutText(portHive, path, "Proxy Port", std::to_string(2000 + i)));
        ASSERT_TRUE(dxtest::PutText(Hive::kUser, path, "Proxy User", i == 5 ? std::string(511, 'u') : "user" + n));
        ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, path, "Protocol Version", 5));
        PutFlag(Hive::kUser, path, "Basic Authentication", i + 1, 3);
    }
}

void PutIniFile() {
    std::ofstream ini(dxtest::IniFilePath(), std::ios::binary | std::ios::trunc);
    ini << "[DXSOX16]\r\nProxy Address=ini.example\r\nProxy Port=3128\r\nProxy User=iniuser\r\n";
}

// The changes the file brings: a non-zero flag reads as 1, a user keeps 510 characters.
std::vector<MapFields> AsTheFileKeepsThem(std::vector<MapFields> fields) {
    for (MapFields& f : fields) {
        f.useProxy = f.useProxy != 0 ? 1 : 0;
        f.basic = f.basic != 0 ? 1 : 0;
        if (f.user.size() > 510) f.user.resize(510);
    }
    return fields;
}

// One line per map, fields apart by 0x1F, for a child to hand its sets to the parent.
std::string Serialised(const std::vector<MapFields>& fields) {
    std::ostringstream out;
    for (const MapFields& f : fields) {
        out << "MAP\x1f" << f.destination << '\x1f' << f.destinationPort << '\x1f' << f.proxy << '\x1f' << f.proxyPort
            << '\x1f' << f.user << '\x1f' << f.useProxy << '\x1f' << f.isDefault << '\x1f' << f.version << '\x1f'
            << f.basic << "\n";
    }
    return out.str();
}

// The sets a fresh process reads, as its child case wrote them to the file DXTEST_SETS_OUT names.
struct ChildSets {
    bool ran = false;
    std::string socks, http;
    int socksState = -2, httpState = -2;
};

ChildSets ReadInFreshProcess() {
    char temp[MAX_PATH];
    GetTempPathA(MAX_PATH, temp);
    const std::string out = std::string(temp) + "dxxmlstore_sets.txt";
    DeleteFileA(out.c_str());
    SetEnvironmentVariableA("DXTEST_SETS_OUT", out.c_str());
    dxtest::CopiedRun run = dxtest::RunInCopiedProgram({{dxtest::BesideProgram("KVTSOCK2.DLL"), "KVTSOCK2.DLL"}},
                                                       "XmlMigrationChild.DISABLED_ReadBothSets");
    SetEnvironmentVariableA("DXTEST_SETS_OUT", nullptr);
    ChildSets sets;
    EXPECT_TRUE(run.ended) << run.output;
    EXPECT_NE(run.output.find("[  PASSED  ] 1 test."), std::string::npos) << run.output;
    std::ifstream file(out, std::ios::binary);
    std::string line, *target = nullptr;
    while (std::getline(file, line)) {
        if (line.rfind("SOCKS ", 0) == 0) {
            sets.socksState = std::atoi(line.c_str() + 6);
            target = &sets.socks;
        } else if (line.rfind("HTTP ", 0) == 0) {
            sets.httpState = std::atoi(line.c_str() + 5);
            target = &sets.http;
        } else if (target != nullptr) {
            *target += line + "\n";
        }
    }
    sets.ran = run.ended;
    DeleteFileA(out.c_str());
    return sets;
}

// A case of this program in a fresh process: what this one read before must not count.
void RunChild(const std::string& suite, const std::string& name) {
    dxtest::ExpectCopiedCasePasses({{dxtest::BesideProgram("KVTSOCK2.DLL"), "KVTSOCK2.DLL"}},
                                   suite + ".DISABLED_" + name);
}

class XmlMigrationTest : public dxtest::ProxyStoreTest {
protected:
    void TearDown() override {
        // The sets of the process this test made; a replaced one is not released, as the library leaves it.
        g_pSocksConfig = nullptr;
        g_pHttpConfig = nullptr;
        RemoveDirectoryA(dxtest::SettingsFilePath().c_str());
        dxtest::ProxyStoreTest::TearDown();
    }
    static void MakeSets() {
        g_pSocksConfig = nullptr;
        g_pHttpConfig = nullptr;
        CreateConfigSets();
    }
};

const dxtest::Lines kReadHttpFromRegistry = {dxtest::Line("Reading HTTP proxy configuration from registry.")};
const dxtest::Lines kReadSocksFromRegistry = {dxtest::Line("Reading SOCKS proxy configuration from registry.")};

template <bool kSocksWrites>
void Migrate(int count) {
    SCOPED_TRACE(std::string(kSocksWrites ? "SOCKS" : "HTTP") + " writes, maps a family: " + std::to_string(count));
    dxtest::ClearSettingsStore();
    SettingsDocument = nullptr;
    PutRegistryFamily("SOCKS", count);
    PutRegistryFamily("HTTP", count);
    PutIniFile();
    ASSERT_TRUE(dxtest::PutText(Hive::kDefaultProfile, kFamilies + "SOCKS", "Other", "kept"));
    g_pSocksConfig = nullptr;
    g_pHttpConfig = nullptr;
    CreateConfigSets();
    ASSERT_EQ(g_pSocksConfig->MigrationState, 1);
    ASSERT_EQ(g_pHttpConfig->MigrationState, 1);
    const std::vector<MapFields> socks = FieldsOf(*g_pSocksConfig), http = FieldsOf(*g_pHttpConfig);
    ASSERT_EQ(socks.size(), static_cast<size_t>(count + 1));
    if (count >= 4) {
        // The ini file's map: its address, and the address's length as the flag.
        EXPECT_EQ(socks[3].proxy, "ini.example");
        EXPECT_EQ(socks[3].useProxy, 11u);
        EXPECT_EQ(socks[3].user, "iniuser");
    }
    if (count >= 5) {
        EXPECT_EQ(http[4].user.size(), 511u);
    }
    if (count >= 2) {
        EXPECT_EQ(socks[1].proxyPort, "2002");
    }

    dxtest::LogCapture capture;
    const int result = kSocksWrites ? g_pSocksConfig->WriteConfiguration() : g_pHttpConfig->WriteConfiguration();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(capture.Lines(), dxtest::Joined({{dxtest::Line("Writing configuration to settings file.")},
                                               kSocksWrites ? kReadHttpFromRegistry : kReadSocksFromRegistry,
                                               kSocksWrites ? kReadHttpFromRegistry : kReadSocksFromRegistry}));
    const std::string file = dxtest::ReadSettingsBytes();
    const size_t socksAt = file.find("<Proxy type=\"SOCKS\">"), httpAt = file.find("<Proxy type=\"HTTP\">");
    ASSERT_NE(socksAt, std::string::npos) << file;
    ASSERT_NE(httpAt, std::string::npos) << file;
    EXPECT_EQ(socksAt < httpAt, kSocksWrites) << "the writer's family first";
    EXPECT_FALSE(TreeExists("SOCKS"));
    EXPECT_FALSE(TreeExists("HTTP"));
    EXPECT_FALSE(dxtest::KeyExists(Hive::kUser, ""));
    EXPECT_TRUE(dxtest::KeyExists(Hive::kDefaultProfile, MapPath("SOCKS", 2)) || count < 2);
    EXPECT_TRUE(dxtest::GetValue(Hive::kDefaultProfile, kFamilies + "SOCKS", "Other").found);
    EXPECT_EQ(g_pSocksConfig->MigrationState, 0);
    EXPECT_EQ(g_pHttpConfig->MigrationState, 0);

    ChildSets fresh = ReadInFreshProcess();
    ASSERT_TRUE(fresh.ran);
    EXPECT_EQ(fresh.socksState, 0);
    EXPECT_EQ(fresh.httpState, 0);
    EXPECT_EQ(fresh.socks, Serialised(AsTheFileKeepsThem(socks)));
    EXPECT_EQ(fresh.http, Serialised(AsTheFileKeepsThem(http)));
}

TEST_F(XmlMigrationTest, SocksWriteMovesBothFamiliesOfEverySize) {
    for (int count : {0, 1, 7, 60}) Migrate<true>(count);
}

TEST_F(XmlMigrationTest, HttpWriteMovesBothFamiliesOfEverySize) {
    for (int count : {0, 1, 7, 60}) Migrate<false>(count);
}

// Run only in a fresh process started by the cases above.
TEST(XmlMigrationChild, DISABLED_ReadBothSets) {
    CSocksConfig socks;
    CHttpConfig http;
    std::ofstream out(std::getenv("DXTEST_SETS_OUT"), std::ios::binary);
    out << "SOCKS " << socks.MigrationState << "\n" << Serialised(FieldsOf(socks));
    out << "HTTP " << http.MigrationState << "\n" << Serialised(FieldsOf(http));
}

TEST_F(XmlMigrationTest, FailedWriteKeepsTheRegistryAndTheStateUntilTheObstacleGoes) {
    PutRegistryFamily("SOCKS", 3);
    PutRegistryFamily("HTTP", 2);
    // A folder where the file should be: no one may open it for writing, root neither.
    dxtest::WriteSettingsBytes("");
    DeleteFileA(dxtest::SettingsFilePath().c_str());
    ASSERT_TRUE(CreateDirectoryA(dxtest::SettingsFilePath().c_str(), nullptr));
    MakeSets();
    ASSERT_EQ(g_pSocksConfig->MigrationState, 1);
    const std::vector<MapFields> socks = FieldsOf(*g_pSocksConfig);
    // The file's result is not the operation's.
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    EXPECT_EQ(g_pSocksConfig->MigrationState, 1);
    EXPECT_EQ(g_pHttpConfig->MigrationState, 1);
    EXPECT_TRUE(TreeExists("SOCKS"));
    EXPECT_TRUE(TreeExists("HTTP"));
    EXPECT_EQ(dxtest::GetValue(Hive::kUser, MapPath("SOCKS", 3), "Proxy User").bytes, std::string("userSOCKS3") + '\0');
    EXPECT_EQ(dxtest::GetValue(Hive::kUser, kFamilies + "HTTP", "Count").bytes, std::string("\2\0\0\0", 4));
    // The obstacle gone, the next write moves everything.
    ASSERT_TRUE(RemoveDirectoryA(dxtest::SettingsFilePath().c_str()));
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    EXPECT_EQ(g_pSocksConfig->MigrationState, 0);
    EXPECT_EQ(g_pHttpConfig->MigrationState, 0);
    EXPECT_FALSE(TreeExists("SOCKS"));
    EXPECT_FALSE(TreeExists("HTTP"));
    CSocksConfig reread;
    EXPECT_EQ(FieldsOf(reread), AsTheFileKeepsThem(socks));
    CHttpConfig http;
    EXPECT_EQ(http.Count(), 3u);
}

TEST_F(XmlMigrationTest, CharacterBeyondTheFilesBytesCutsItWhileBothTreesGo) {
    PutRegistryFamily("SOCKS", 1);
    PutRegistryFamily("HTTP", 1);
    // "\x80" is the euro sign in the ANSI code page, U+20AC, beyond the file's one byte a character.
    ASSERT_TRUE(dxtest::PutText(Hive::kUser, MapPath("SOCKS", 1), "Proxy User", "pay\x80user"));
    MakeSets();
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    EXPECT_FALSE(TreeExists("SOCKS"));
    EXPECT_FALSE(TreeExists("HTTP"));
    const std::string file = dxtest::ReadSettingsBytes();
    std::wstring xml;
    SettingsDocument->GetXml(xml);
    const bool raw = xml.find(L'\x20AC') != std::wstring::npos;
    if (raw) {
        // An XML service that gives the character as it is: the file ends before it.
        EXPECT_EQ(file.substr(file.size() - 3), "pay") << file;
        CSocksConfig socks;
        EXPECT_EQ(socks.Count(), 0u);
        EXPECT_EQ(socks.MigrationState, -1);
    } else {
        // Wine's service gives it as a character reference, which the file's bytes keep.
        EXPECT_NE(file.find("pay&#x20AC;user"), std::string::npos) << file;
        CSocksConfig socks;
        ASSERT_EQ(socks.Count(), 2u);
        EXPECT_STREQ(static_cast<CProxyMap*>(socks.At(0))->ProxyUser, "pay\x80user");
    }
    // The cut itself, for a text that holds the character: the write gives 1 and the rest is lost.
    const std::wstring text = L"<Settings><Proxies><Proxy type=\"SOCKS\"><Maps count=\"0\"><Map id=\"Default\">"
                              L"<ProxyUser value=\"pay\x20ACuser\"/></Map></Maps></Proxy></Proxies></Settings>";
    EXPECT_EQ(WriteSettingsFile(text), 1);
    const std::string cut = dxtest::ReadSettingsBytes();
    EXPECT_EQ(cut.substr(cut.size() - 3), "pay") << cut;
    SettingsDocument = nullptr;
    CSocksConfig socks;
    EXPECT_EQ(socks.Count(), 0u);
    EXPECT_EQ(socks.MigrationState, -1);
    EXPECT_EQ(SettingsDocument, nullptr);
}

TEST_F(XmlMigrationTest, FamilyNotFromTheRegistryWritingFirstHidesTheOthersTree) {
    PutRegistryFamily("HTTP", 2);
    MakeSets();
    ASSERT_EQ(g_pSocksConfig->MigrationState, -1);
    ASSERT_EQ(g_pHttpConfig->MigrationState, 1);
    CProxyMap* map = CSocksConfig::NewMap();
    map->IsDefaultMap = 1;
    g_pSocksConfig->Append(map);
    dxtest::LogCapture capture;
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    EXPECT_EQ(capture.Lines(), dxtest::Lines{dxtest::Line("Writing configuration to settings file.")});
    EXPECT_EQ(g_pHttpConfig->MigrationState, 0);
    EXPECT_EQ(g_pSocksConfig->MigrationState, -1);
    EXPECT_TRUE(TreeExists("HTTP"));
    CHttpConfig http;
    EXPECT_EQ(http.MigrationState, 0);
    EXPECT_EQ(http.Count(), 0u);
    // A set read from the file (state 0) does the same.
    g_pHttpConfig->MigrationState = 1;
    CSocksConfig fromFile;
    ASSERT_EQ(fromFile.MigrationState, 0);
    EXPECT_EQ(fromFile.WriteConfiguration(), 1);
    EXPECT_EQ(g_pHttpConfig->MigrationState, 0);
    EXPECT_TRUE(TreeExists("HTTP"));
}

TEST_F(XmlMigrationTest, CorruptFileWithBothTreesLeavesTheOtherFamilysMapsAlone) {
    PutRegistryFamily("SOCKS", 1);
    PutRegistryFamily("HTTP", 1);
    ASSERT_TRUE(dxtest::WriteSettingsBytes(std::string(dxtest::kSettingsHead) + "<Settings><Proxies>"));
    MakeSets();
    ASSERT_EQ(g_pSocksConfig->MigrationState, 1);
    ASSERT_EQ(SettingsDocument, nullptr);
    dxtest::LogCapture capture;
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    EXPECT_EQ(capture.Lines(), dxtest::Joined({{dxtest::Line("Writing configuration to settings file.")},
                                               kReadHttpFromRegistry, kReadHttpFromRegistry}));
    // The new HTTP set's constructor read the corrupt file again: the SOCKS maps went with the document.
    const std::string file = dxtest::ReadSettingsBytes();
    EXPECT_EQ(file.find("SOCKS"), std::string::npos) << file;
    EXPECT_NE(file.find("<Proxy type=\"HTTP\">"), std::string::npos) << file;
    EXPECT_FALSE(TreeExists("SOCKS"));
    EXPECT_FALSE(TreeExists("HTTP"));
    CSocksConfig socks;
    EXPECT_EQ(socks.MigrationState, 0);
    EXPECT_EQ(socks.Count(), 0u);
    CHttpConfig http;
    EXPECT_EQ(http.Count(), 2u);
}

TEST_F(XmlMigrationTest, CorruptFileWithOneTreeWritesNothingAndKeepsIt) {
    PutRegistryFamily("SOCKS", 1);
    const std::string corrupt = std::string(dxtest::kSettingsHead) + "<Settings><Proxies>";
    ASSERT_TRUE(dxtest::WriteSettingsBytes(corrupt));
    MakeSets();
    ASSERT_EQ(g_pSocksConfig->MigrationState, 1);
    ASSERT_EQ(g_pHttpConfig->MigrationState, -1);
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    EXPECT_EQ(dxtest::ReadSettingsBytes(), corrupt);
    EXPECT_TRUE(TreeExists("SOCKS"));
    EXPECT_EQ(g_pSocksConfig->MigrationState, 1);
    EXPECT_EQ(SettingsDocument, nullptr);
}

TEST_F(XmlMigrationTest, BadCountInTheHttpPartLeavesThatSetUnmadeAndSocksWritesAll) {
    const std::string one = FullMap("1", "a", "1", "p", "1080", "u", "5", "0", "1");
    ASSERT_TRUE(dxtest::WriteSettingsBytes(dxtest::kSettingsHead +
                                           SettingsElement(ProxyElement("SOCKS", "1", one) + ProxyElement("HTTP", "x", one))));
    g_pSocksConfig = nullptr;
    g_pHttpConfig = nullptr;
    // As the entry routine does: what the HTTP set raises is swallowed there.
    EXPECT_THROW(CreateConfigSets(), std::invalid_argument);
    ASSERT_NE(g_pSocksConfig, nullptr);
    EXPECT_EQ(g_pHttpConfig, nullptr);
    EXPECT_EQ(g_pSocksConfig->Count(), 2u);
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    const std::string file = dxtest::ReadSettingsBytes();
    EXPECT_NE(file.find("<Maps count=\"1\">"), std::string::npos) << file;
    EXPECT_NE(file.find("<Maps count=\"x\">"), std::string::npos) << file;
    EXPECT_NE(file.find("<Map id=\"Default\">"), std::string::npos) << file;
}

TEST_F(XmlMigrationTest, HostLoadsTheLibraryWhateverTheFileRaises) {
    for (const char* count : {"x", "99999999999"}) {
        ASSERT_TRUE(dxtest::WriteSettingsBytes(dxtest::kSettingsHead + SettingsElement(ProxyElement("SOCKS", count, ""))));
        HMODULE library = LoadLibraryA(dxtest::BesideProgram("DXSOCKS.DLL").c_str());
        EXPECT_NE(library, nullptr) << count;
        if (library != nullptr) FreeLibrary(library);
    }
}

// Bad values of the older stores, read at construction and moved into the file: the reader's results,
// no crash.
TEST_F(XmlMigrationTest, BadRegistryAndIniValuesMoveAsTheReaderTakesThem) {
    ASSERT_TRUE(dxtest::PutText(Hive::kUser, kFamilies + "SOCKS", "Count", "12345"));
    ASSERT_TRUE(dxtest::PutText(Hive::kUser, MapPath("SOCKS", -1), "Protocol Version", "12345"));
    ASSERT_TRUE(dxtest::PutText(Hive::kUser, MapPath("SOCKS", -1), "Proxy Address", "p.example"));
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kFamilies + "HTTP", "Count", 0xFFFFFFFFu));
    ASSERT_TRUE(dxtest::MakeKey(Hive::kUser, MapPath("HTTP", 1)));
    {
        std::ofstream ini(dxtest::IniFilePath(), std::ios::binary | std::ios::trunc);
        ini << "[DXSOX16]\r\nProxy Address=" << std::string(2000, 'a') << "\r\n";
    }
    MakeSets();
    ASSERT_EQ(g_pSocksConfig->Count(), 1u);
    EXPECT_EQ(static_cast<CProxyMap*>(g_pSocksConfig->At(0))->ProtocolVersion, 4u);
    ASSERT_EQ(g_pHttpConfig->Count(), 1u);
    EXPECT_EQ(std::string(static_cast<CProxyMap*>(g_pHttpConfig->At(0))->Proxy.Host), std::string(1023, 'a'));
    EXPECT_EQ(g_pHttpConfig->WriteConfiguration(), 1);
    CSocksConfig socks;
    CHttpConfig http;
    EXPECT_EQ(socks.MigrationState, 0);
    ASSERT_EQ(socks.Count(), 1u);
    EXPECT_STREQ(static_cast<CProxyMap*>(socks.At(0))->Proxy.Host, "p.example");
    ASSERT_EQ(http.Count(), 1u);
    EXPECT_EQ(std::string(static_cast<CProxyMap*>(http.At(0))->Proxy.Host), std::string(1023, 'a'));
    // An ini file of bytes that are no text.
    dxtest::ClearSettingsStore();
    SettingsDocument = nullptr;
    std::string bytes;
    for (int i = 0; i < 4096; ++i) bytes += static_cast<char>((i * 7919) & 0xFF);
    {
        std::ofstream ini(dxtest::IniFilePath(), std::ios::binary | std::ios::trunc);
        ini << "[DXSOX16]\r\n" << bytes;
    }
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kFamilies + "SOCKS", "Count", 1));
    MakeSets();
    ASSERT_EQ(g_pSocksConfig->Count(), 2u);
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    CSocksConfig again;
    EXPECT_EQ(again.MigrationState, 0);
    EXPECT_EQ(FieldsOf(again), AsTheFileKeepsThem(FieldsOf(*g_pSocksConfig)));
}

TEST_F(XmlMigrationTest, InMemoryRegistryGivesTheValuesWhileTheRealKeyExists) {
    RunChild("XmlMigrationChild", "InMemoryRegistry");
}

TEST(XmlMigrationChild, DISABLED_InMemoryRegistry) {
    const char text[] =
        "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"Software\"><Key name=\"Verdane\">"
        "<Key name=\"Network Protocols\"><Key name=\"SOCKS\"><Value name=\"Count\" type=\"4\" hex=\"01000000\"/>"
        "<Key name=\"Map 001\"><Value name=\"Proxy Address\" type=\"1\" hex=\"6d656d00\"/></Key>"
        "</Key></Key></Key></Key></Key></Registry>";
    ASSERT_EQ(SOCKS_SetXMLConfig(text), 1);
    {
        CSocksConfig none;
        EXPECT_EQ(none.MigrationState, -1);
        EXPECT_EQ(none.Count(), 0u);
    }
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, kFamilies + "SOCKS", "Count", 3));
    CSocksConfig socks;
    EXPECT_EQ(socks.MigrationState, 1);
    ASSERT_EQ(socks.Count(), 2u);
    EXPECT_STREQ(static_cast<CProxyMap*>(socks.At(0))->Proxy.Host, "mem");
    EXPECT_EQ(socks.WriteConfiguration(), 1);
    EXPECT_NE(dxtest::ReadSettingsBytes().find("<ProxyAddress value=\"mem\"/>"), std::string::npos);
    dxtest::ClearSettingsStore();
}

// Each valid file cut short, and followed by text that is not markup.
std::string ValidFile() {
    return dxtest::kSettingsHead +
           SettingsElement(ProxyElement("SOCKS", "1", FullMap("1", "10.1.2.3", "*", "10.9.9.9", "1080", "Guest", "5", "0", "1") +
                                                          FullMap("Default", "", "", "", "1080", "Guest", "4", "0", "0")));
}

TEST_F(XmlMigrationTest, HalfWrittenFilesGiveZeroAndNoDocumentAndChangeNothing) {
    PutRegistryFamily("SOCKS", 1);
    const std::string valid = ValidFile();
    CSocksConfig set;
    ASSERT_EQ(set.MigrationState, 1);
    const std::vector<MapFields> before = FieldsOf(set);
    for (size_t length = 1; length < valid.size(); ++length) {
        const std::string cut = valid.substr(0, length);
        ASSERT_TRUE(dxtest::WriteSettingsBytes(cut));
        SettingsDocument = CreateSettings(nullptr);
        ASSERT_EQ(set.ReadSettingsFile(), 0) << length;
        ASSERT_EQ(SettingsDocument, nullptr) << length;
        ASSERT_EQ(FieldsOf(set), before) << length;
        ASSERT_EQ(dxtest::ReadSettingsBytes(), cut);
    }
    for (const char* tail : {"x", "text after", "<", "</Settings>", "<Other/>"}) {
        ASSERT_TRUE(dxtest::WriteSettingsBytes(valid + tail));
        EXPECT_EQ(set.ReadSettingsFile(), 0) << tail;
        EXPECT_EQ(SettingsDocument, nullptr) << tail;
    }
    for (const char* tail : {"  \r\n\t", "<!-- a comment -->", "\r\n<!---->\r\n"}) {
        ASSERT_TRUE(dxtest::WriteSettingsBytes(valid + tail));
        EXPECT_EQ(set.ReadSettingsFile(), 1) << tail;
        EXPECT_NE(SettingsDocument, nullptr) << tail;
        EXPECT_EQ(set.Count(), 2u);
        EXPECT_EQ(dxtest::ReadSettingsBytes(), valid + tail);
    }
    // No read touched the registry.
    EXPECT_TRUE(TreeExists("SOCKS"));
    EXPECT_TRUE(dxtest::GetValue(Hive::kUser, MapPath("SOCKS", 1), "Proxy Address").found);
}

using GetRegConfigTest = dxtest::ProxyStoreTest;

TEST_F(GetRegConfigTest, NoVerdaneKeyGivesNullEvenWithAFile) {
    ASSERT_TRUE(dxtest::WriteSettingsBytes(ValidFile()));
    RunChild("GetRegConfigChild", "NoVerdaneKey");
}

TEST_F(GetRegConfigTest, RegistryAloneGivesHttpBeforeSocksAndMakesNoFile) {
    PutRegistryFamily("SOCKS", 2);
    PutRegistryFamily("HTTP", 1);
    RunChild("GetRegConfigChild", "RegistryAlone");
    EXPECT_FALSE(dxtest::SettingsFileExists());
    EXPECT_TRUE(dxtest::KeyExists(Hive::kUser, kFamilies + "SOCKS"));
}

TEST_F(GetRegConfigTest, EmptyVerdaneKeyWithoutFileFailsAndLeavesThePointer) {
    ASSERT_TRUE(dxtest::MakeKey(Hive::kUser, ""));
    RunChild("GetRegConfigChild", "EmptyVerdaneKey");
}

TEST_F(GetRegConfigTest, FileWinsOverTheRegistryAndABadNumberReachesTheCaller) {
    PutRegistryFamily("SOCKS", 2);
    ASSERT_TRUE(dxtest::WriteSettingsBytes(ValidFile()));
    RunChild("GetRegConfigChild", "FileWins");
    ASSERT_TRUE(dxtest::WriteSettingsBytes(dxtest::kSettingsHead + SettingsElement(ProxyElement("HTTP", "x", ""))));
    RunChild("GetRegConfigChild", "BadNumber");
}

const BSTR kUntouched = reinterpret_cast<BSTR>(static_cast<uintptr_t>(0x1234));

TEST(GetRegConfigChild, DISABLED_NoVerdaneKey) {
    dxtest::LogCapture capture;
    BSTR text = kUntouched;
    EXPECT_EQ(GetRegConfig(&text), 0xFFFFFFFFu);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(capture.Lines(), dxtest::BareFrame("GetRegConfig", {" result = -1"}));
}

TEST(GetRegConfigChild, DISABLED_RegistryAlone) {
    dxtest::LogCapture capture;
    BSTR text = kUntouched;
    const unsigned length = GetRegConfig(&text);
    ASSERT_NE(length, 0xFFFFFFFFu);
    ASSERT_NE(text, kUntouched);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(length, SysStringLen(text));
    const std::wstring xml(text, SysStringLen(text));
    SysFreeString(text);
    EXPECT_EQ(xml.rfind(L"<Settings", 0), 0u);
    const size_t http = xml.find(L"<Proxy type=\"HTTP\">"), socks = xml.find(L"<Proxy type=\"SOCKS\">");
    ASSERT_NE(http, std::wstring::npos);
    ASSERT_NE(socks, std::wstring::npos);
    EXPECT_LT(http, socks);
    EXPECT_NE(xml.find(L"<Maps count=\"2\">"), std::wstring::npos);
    EXPECT_NE(xml.find(L"value=\"proxySOCKS3.example\""), std::wstring::npos);
    EXPECT_EQ(capture.Lines(),
              dxtest::BareFrame("GetRegConfig", {"Reading HTTP proxy configuration from registry.",
                                                 "Reading SOCKS proxy configuration from registry.",
                                                 " result = " + std::to_string(length)}));
}

TEST(GetRegConfigChild, DISABLED_EmptyVerdaneKey) {
    BSTR text = kUntouched;
    EXPECT_EQ(GetRegConfig(&text), 0xFFFFFFFFu);
    EXPECT_EQ(text, kUntouched);
}

TEST(GetRegConfigChild, DISABLED_FileWins) {
    BSTR text = nullptr;
    const unsigned length = GetRegConfig(&text);
    ASSERT_NE(length, 0xFFFFFFFFu);
    const std::wstring xml(text, SysStringLen(text));
    SysFreeString(text);
    EXPECT_NE(xml.find(L"10.9.9.9"), std::wstring::npos);
    EXPECT_EQ(xml.find(L"proxySOCKS"), std::wstring::npos);
}

TEST(GetRegConfigChild, DISABLED_BadNumber) {
    BSTR text = kUntouched;
    EXPECT_THROW(GetRegConfig(&text), std::invalid_argument);
    EXPECT_EQ(text, kUntouched);
}

}  // namespace
