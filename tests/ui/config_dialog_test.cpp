// The SOCKS and HTTP configuration dialogs as a host opens them through DXSOCKS.DLL: real modal
// dialogs, driven from a second thread. The library reads the settings file once, as it loads, and the
// dialogs edit what it read; so each case runs in a fresh process of this program (ConfigDialogChild)
// after its ConfigDialogTest has written the file, and the file is looked at when the child is done.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "copied_program.h"
#include "dialog_driver.h"
#include "dxsocks_ids.h"
#include "http_api.h"
#include "module_files.h"
#include "prompt_window.h"
#include "recording_suite.h"
#include "registry_fixture.h"
#include "settings_files.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::Checked;
using dxtest::Click;
using dxtest::DriveDialog;
using dxtest::Enabled;
using dxtest::ItemText;
using dxtest::Press;
using dxtest::Row;
using dxtest::Rows;
using dxtest::SetText;
using dxtest::Visible;

// Texts of our resource library that the list shows.
const char kAnyDestination[] = "Any host:Any";
const char kDirect[] = "Direct (no proxy)";

// A map of the file: its id and its values by element name.
struct FileMap {
    std::string id;
    std::map<std::string, std::string> values;
};

// The text between `open` and the next `close` from `from` on; npos in `next` when there is none.
std::string Between(const std::string& text, const std::string& open, const std::string& close, size_t from,
                    size_t* next) {
    size_t start = text.find(open, from);
    size_t end = start == std::string::npos ? start : text.find(close, start + open.size());
    if (end == std::string::npos) {
        *next = std::string::npos;
        return "";
    }
    *next = end + close.size();
    return text.substr(start + open.size(), end - start - open.size());
}

// The <Proxy> element of `type` in the settings file; empty when there is none.
std::string ProxySection(const std::string& type) {
    size_t next = 0;
    return Between(dxtest::ReadSettingsBytes(), "<Proxy type=\"" + type + "\">", "</Proxy>", 0, &next);
}

// The family's count attribute, -1 without one.
int FileMapCount(const std::string& type) {
    size_t next = 0;
    const std::string count = Between(ProxySection(type), "<Maps count=\"", "\"", 0, &next);
    return next == std::string::npos ? -1 : std::atoi(count.c_str());
}

// The maps of `type` in the settings file as a reader takes them: ids 1 to count, then Default; those
// that stand in the file. (A writer updates the file's elements by id and leaves any above the count.)
std::vector<FileMap> FileMaps(const std::string& type) {
    const std::string body = ProxySection(type);
    std::map<std::string, FileMap> byId;
    for (size_t at = body.find("<Map id=\""); at != std::string::npos; at = body.find("<Map id=\"", at)) {
        size_t next = 0;
        FileMap found;
        found.id = Between(body, "<Map id=\"", "\"", at, &next);
        const std::string elements = Between(body, ">", "</Map>", next, &at);
        if (at == std::string::npos) break;
        for (size_t e = elements.find('<'); e != std::string::npos; e = elements.find('<', e + 1)) {
            const size_t space = elements.find(" value=\"", e);
            if (space == std::string::npos) break;
            const std::string name = elements.substr(e + 1, space - e - 1);
            size_t after = 0;
            found.values[name] = Between(elements, " value=\"", "\"", space, &after);
            e = after;
        }
        byId[found.id] = found;
    }
    std::vector<FileMap> maps;
    const int count = FileMapCount(type);
    for (int i = 1; i <= count; ++i) {
        auto it = byId.find(std::to_string(i));
        if (it != byId.end()) maps.push_back(it->second);
    }
    auto last = byId.find("Default");
    if (last != byId.end()) maps.push_back(last->second);
    return maps;
}

std::string Socks(const std::string& count, const std::string& maps) {
    return dxtest::ProxyElement("SOCKS", count, maps);
}
std::string Http(const std::string& count, const std::string& maps) { return dxtest::ProxyElement("HTTP", count, maps); }
std::string File(const std::string& proxies) { return dxtest::kSettingsHead + dxtest::SettingsElement(proxies); }
std::string Map(const std::string& id, const std::string& destination, const std::string& port,
                const std::string& proxy, const std::string& proxyPort, const std::string& user,
                const std::string& version = "4", const std::string& basic = "0", const std::string& use = "1") {
    return dxtest::FullMap(id, destination, port, proxy, proxyPort, user, version, basic, use);
}
// A default map without a proxy.
std::string SocksDefault() { return Map("Default", "*", "*", "", "1080", "Guest", "4", "0", "0"); }
std::string HttpDefault() { return Map("Default", "*", "*", "", "80", "", "4", "0", "0"); }

class ConfigDialogTest : public ::testing::Test {
protected:
    void SetUp() override { Clean(); }
    void TearDown() override { Clean(); }
    static void Clean() {
        RemoveDirectoryA(dxtest::SettingsFilePath().c_str());
        dxtest::ClearSettingsStore();
        dxtest::DeleteAtoms();
    }
    // Writes `settings` (none: no file), runs the child case, and keeps the file's bytes as they were.
    void Run(const std::string& child, const std::string& settings = "") {
        if (!settings.empty()) {
            ASSERT_TRUE(dxtest::WriteSettingsBytes(settings));
        }
        before = dxtest::ReadSettingsBytes();
        dxtest::ExpectFreshCasePasses("ConfigDialogChild.DISABLED_" + child, 90000);
    }
    std::string before;
};

// ----- The cases, each run by its child below -----

// In a copy that Wine shows as another Windows (DXTEST_WINDOWS_VERSION, "major.minor"), each child
// runs as that Windows too: it is a process of the same copy.
TEST_F(ConfigDialogTest, RunsAsTheWindowsMeant) {
    const char* expected = std::getenv("DXTEST_WINDOWS_VERSION");
    if (expected == nullptr) GTEST_SKIP() << "the program's own Windows";
    OSVERSIONINFOA version = {};
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(GetVersionExA(&version));
    EXPECT_EQ(std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion), expected);
}

TEST_F(ConfigDialogTest, AnEmptySetOpensSimpleAndOkStoresTheDefaultMap) {
    Run("EmptySimpleOk");
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 1u) << dxtest::ReadSettingsBytes();
    EXPECT_EQ(maps[0].id, "Default");
    EXPECT_EQ(maps[0].values["ProxyAddress"], "proxy.example");
    EXPECT_EQ(maps[0].values["ProtocolVersion"], "5");
    EXPECT_EQ(maps[0].values["ProxyPort"], "1080");
    EXPECT_EQ(maps[0].values["ProxyUser"], "Guest");
    EXPECT_EQ(maps[0].values["UseProxy"], "1");
    EXPECT_TRUE(FileMaps("HTTP").empty());
}

TEST_F(ConfigDialogTest, ACustomisedMapOpensTheFullViewWithTheSwitchDisabled) {
    const std::string files[] = {
        File(Socks("1", Map("1", "a.example", "*", "p.example", "1080", "Guest") + SocksDefault())),
        File(Socks("0", Map("Default", "*", "*", "p.example", "1081", "Guest"))),
        File(Socks("0", Map("Default", "*", "*", "p.example", "1080", "Ann"))),
        File(Socks("0", Map("Default", "*", "*", "p.example", "1080", "Guest", "4", "0", "0"))),
        // Two maps, both plain.
        File(Socks("1", Map("1", "*", "*", "p.example", "1080", "Guest") + SocksDefault())),
    };
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        Run("OpensFull", file);
        EXPECT_EQ(dxtest::ReadSettingsBytes(), before);
        Clean();
    }
}

TEST_F(ConfigDialogTest, AUserThatDiffersFromGuestOnlyInCaseIsPlain) {
    Run("OpensSimple", File(Socks("0", Map("Default", "*", "*", "p.example", "1080", "gUEST"))));
}

TEST_F(ConfigDialogTest, AnEmptyAddressInTheSimpleViewStoresADirectMap) {
    Run("SimpleEmptyAddress", File(Socks("0", Map("Default", "*", "*", "p.example", "1080", "Guest"))));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_EQ(maps[0].values["UseProxy"], "0");
}

TEST_F(ConfigDialogTest, DirectToggleEmptiesAndRestoresTheProxyFieldsAndCancelRestoresUseProxy) {
    Run("MapDirectToggle",
        File(Socks("1", Map("1", "a.example", "23", "p.example", "1081", "bob", "5") + SocksDefault())));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_EQ(maps[0].values["UseProxy"], "1");
    EXPECT_EQ(maps[0].values["ProxyUser"], "bob");
    EXPECT_EQ(maps[0].values["ProxyAddress"], "p.example");
}

TEST_F(ConfigDialogTest, AddWithoutSelectionPutsTheNewMapFirst) {
    Run("AddFirst", File(Socks("1", Map("1", "a.example", "*", "p.example", "1080", "Guest") + SocksDefault())));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 3u);
    EXPECT_EQ(maps[0].values["DestinationAddress"], "new.example");
    EXPECT_EQ(maps[0].values["DestinationPort"], "22 (SSH)");
    EXPECT_EQ(maps[0].values["ProxyAddress"], "p2.example");
    EXPECT_EQ(maps[1].values["DestinationAddress"], "a.example");
    EXPECT_EQ(maps[2].id, "Default");
}

TEST_F(ConfigDialogTest, RemovingTheOnlyMapLeavesADefaultMap) {
    Run("RemoveOnly", File(Socks("0", Map("Default", "*", "*", "p.example", "1081", "Guest"))));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_EQ(maps[0].id, "Default");
    EXPECT_EQ(maps[0].values["UseProxy"], "0");
}

TEST_F(ConfigDialogTest, RemovingTheLastRowLeavesNoSelection) {
    Run("RemoveLast", File(Socks("1", Map("1", "a.example", "*", "p.example", "1080", "Guest") + SocksDefault())));
    EXPECT_EQ(FileMapCount("SOCKS"), 1);
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_FALSE(maps.empty());
    EXPECT_EQ(maps[0].id, "1");
    EXPECT_EQ(maps[0].values["DestinationAddress"], "a.example");
}

TEST_F(ConfigDialogTest, TheMapDialogTrimsTheUserAndLimitsThePort) {
    Run("MapTrimAndPort", File(Socks("1", Map("1", "a.example", "*", "p.example", "1080", "Guest") + SocksDefault())));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_EQ(maps[0].values["ProxyUser"], "Jos");
    EXPECT_EQ(maps[0].values["ProxyPort"], "12345");
}

TEST_F(ConfigDialogTest, VersionSixSelectsNothingAndIsStoredAsThree) {
    Run("VersionSix", File(Socks("1", Map("1", "a.example", "*", "p.example", "1080", "Guest", "6") +
                                          Map("Default", "*", "*", "d.example", "1080", "Guest", "0"))));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_EQ(maps[0].values["ProtocolVersion"], "3");
}

TEST_F(ConfigDialogTest, MoveButtonsFollowTheSelectionAndMoveTheMap) {
    Run("Move", File(Socks("2", Map("1", "a.example", "*", "p.example", "1080", "Guest") +
                                    Map("2", "b.example", "*", "p.example", "1080", "Guest") + SocksDefault())));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 3u);
    EXPECT_EQ(maps[0].values["DestinationAddress"], "b.example");
    EXPECT_EQ(maps[1].values["DestinationAddress"], "a.example");
}

TEST_F(ConfigDialogTest, CancelLeavesTheFileAndTheRowsAsTheyWere) {
    Run("CancelKeeps", File(Socks("1", Map("1", "a.example", "*", "p.example", "1080", "Guest") + SocksDefault())));
    EXPECT_EQ(dxtest::ReadSettingsBytes(), before);
}

TEST_F(ConfigDialogTest, TheMapDialogsApplyDropsAnAddAndKeepsAnEdit) {
    Run("MapApply", File(Socks("1", Map("1", "a.example", "*", "p.example", "1080", "Guest") + SocksDefault())));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_EQ(maps[0].values["ProxyAddress"], "changed.example");
}

TEST_F(ConfigDialogTest, LongTextsAreBoundedAndManyMapsOpen) {
    std::string many;
    for (int i = 2; i <= 501; ++i) {
        many += Map(std::to_string(i), "h" + std::to_string(i) + ".example", "*", "p.example", "1080", "Guest");
    }
    Run("LongTexts",
        File(Socks("501", Map("1", std::string(1023, 'h'), "*", "p.example", "1080", "Guest") + many + SocksDefault())));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 502u);
    EXPECT_EQ(maps[0].values["ProxyAddress"], std::string(1023, 'x'));
    EXPECT_EQ(maps[0].values["ProxyUser"], std::string(510, 'u'));
}

TEST_F(ConfigDialogTest, ACorruptFileWithoutRegistryKeysOpensWithOneDefaultMap) {
    Run("Corrupt", dxtest::kSettingsHead + std::string("<Settings><Proxies>"));
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 1u) << dxtest::ReadSettingsBytes();
    EXPECT_EQ(maps[0].id, "Default");
    EXPECT_EQ(maps[0].values["ProxyAddress"], "fresh.example");
}

// A map of the older registry store, with a proxy.
void PutRegistryMap(const std::string& key, const std::string& destination, const std::string& proxy) {
    using dxtest::Hive;
    if (!destination.empty()) {
        ASSERT_TRUE(dxtest::PutText(Hive::kUser, key, "Destination Address", destination));
    }
    ASSERT_TRUE(dxtest::PutText(Hive::kUser, key, "Proxy Address", proxy));
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, key, "Use Proxy", 1));
}

TEST_F(ConfigDialogTest, ACorruptFileWithBothFamiliesKeysKeepsOnlyTheHttpMapsOnOk) {
    using dxtest::Hive;
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, "Network Protocols\\SOCKS", "Count", 1));
    PutRegistryMap("Network Protocols\\SOCKS\\Map 001", "sock.example", "sp.example");
    PutRegistryMap("Network Protocols\\SOCKS\\Default Map", "", "sdef.example");
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, "Network Protocols\\HTTP", "Count", 1));
    PutRegistryMap("Network Protocols\\HTTP\\Map 001", "http.example", "hp.example");
    PutRegistryMap("Network Protocols\\HTTP\\Default Map", "", "hdef.example");
    Run("CorruptWithKeys", dxtest::kSettingsHead + std::string("<Settings><Proxies>"));
    // The other family's set, made anew for the move, read the corrupt file and dropped the document
    // that held the SOCKS maps: only the HTTP maps reach the file.
    EXPECT_TRUE(FileMaps("SOCKS").empty()) << dxtest::ReadSettingsBytes();
    std::vector<FileMap> http = FileMaps("HTTP");
    ASSERT_EQ(http.size(), 2u) << dxtest::ReadSettingsBytes();
    EXPECT_EQ(http[0].values["DestinationAddress"], "http.example");
    EXPECT_EQ(http[1].values["ProxyAddress"], "hdef.example");
    EXPECT_FALSE(dxtest::KeyExists(Hive::kUser, "Network Protocols\\SOCKS"));
    EXPECT_FALSE(dxtest::KeyExists(Hive::kUser, "Network Protocols\\HTTP"));
}

TEST_F(ConfigDialogTest, AFolderAtTheFilesPathGivesOkAndWritesNothing) {
    const std::string path = dxtest::SettingsFilePath();
    for (size_t slash = path.find('\\', 3); slash != std::string::npos; slash = path.find('\\', slash + 1)) {
        CreateDirectoryA(path.substr(0, slash).c_str(), nullptr);
    }
    ASSERT_TRUE(CreateDirectoryA(path.c_str(), nullptr));
    Run("FolderAtPath");
    const DWORD attributes = GetFileAttributesA(path.c_str());
    EXPECT_NE(attributes, INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(attributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
}

TEST_F(ConfigDialogTest, ABogusOwnerLeavesTheDialogUnowned) { Run("BogusOwner"); }

TEST_F(ConfigDialogTest, TheGuardShowsTheFamilysBusyMessage) {
    dxtest::AddAtomElsewhere("KVT_Verdane_SOCKS_Configuration");
    Run("SocksBusy");
    dxtest::DeleteAtoms();
    dxtest::AddAtomElsewhere("KVT_Verdane_HTTP_Configuration");
    Run("HttpBusy");
}

TEST_F(ConfigDialogTest, TheAtomStandsWhileADialogIsOpen) {
    Run("AtomWhileOpen");
    EXPECT_EQ(GlobalFindAtomA("KVT_Verdane_SOCKS_Configuration"), 0);
}

TEST_F(ConfigDialogTest, ContextHelpOpensTheFamilysPage) {
    const std::string record = dxtest::MakeTempDirectory("help") + "record.txt";
    SetEnvironmentVariableA("DXSOCKS_HELP_VIEWER", dxtest::BesideProgram("help_viewer_recorder.exe").c_str());
    SetEnvironmentVariableA("DXTEST_HELP_RECORD", record.c_str());
    Run("SocksHelp");
    Run("HttpHelp");
    SetEnvironmentVariableA("DXSOCKS_HELP_VIEWER", nullptr);
    SetEnvironmentVariableA("DXTEST_HELP_RECORD", nullptr);
    dxtest::RemoveTree(record.substr(0, record.find_last_of('\\') + 1));
}

TEST_F(ConfigDialogTest, ShowXmlConfigDlgGivesTheRegistryTextOnOkAndWritesTheFile) {
    Run("ShowXmlOk");
    std::vector<FileMap> maps = FileMaps("SOCKS");
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_EQ(maps[0].values["ProxyAddress"], "xml.example");
    HKEY key = nullptr;
    EXPECT_NE(RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Verdane\\Network Protocols\\SOCKS", 0, KEY_READ, &key),
              ERROR_SUCCESS);
    if (key != nullptr) RegCloseKey(key);
}

TEST_F(ConfigDialogTest, ShowXmlConfigDlgGivesNullOnCancel) {
    Run("ShowXmlCancel");
    EXPECT_FALSE(dxtest::SettingsFileExists());
}

TEST_F(ConfigDialogTest, HttpSimpleViewHoldsPortUserAndBasicAuthentication) {
    Run("HttpSimple", File(Http("0", Map("Default", "*", "*", "p.example", "3128", "bob", "4", "1", "1"))));
    std::vector<FileMap> maps = FileMaps("HTTP");
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_EQ(maps[0].values["ProxyPort"], "3128");
    EXPECT_EQ(maps[0].values["ProxyUser"], "ann  ");
    EXPECT_EQ(maps[0].values["BasicAuthentication"], "1");
    EXPECT_TRUE(FileMaps("SOCKS").empty());
}

TEST_F(ConfigDialogTest, HttpMapDialogDirectUnchecksBasicAuthentication) {
    Run("HttpMapDirect", File(Http("1", Map("1", "a.example", "*", "p.example", "3128", "bob", "4", "1", "1") +
                                            HttpDefault())));
    std::vector<FileMap> maps = FileMaps("HTTP");
    ASSERT_EQ(maps.size(), 2u);
    EXPECT_EQ(maps[0].values["ProxyUser"], "ann");
    EXPECT_EQ(maps[0].values["BasicAuthentication"], "1");
}

TEST_F(ConfigDialogTest, WithoutTheSuiteLibraryThereIsNoDialog) {
    dxtest::ExpectCopiedCasePasses({{dxtest::BesideProgram("DXSOCKS.DLL"), "DXSOCKS.DLL"}},
                                   "ConfigDialogChild.DISABLED_NoSuite", 60000);
}

TEST_F(ConfigDialogTest, DialogsCentreOnTheirParentsAndAskForHelpWithTheFamilysPage) {
    const std::vector<std::pair<std::string, std::string>> beside = {
        {dxtest::BesideProgram("DXSOCKS.DLL"), "DXSOCKS.DLL"},
        {dxtest::BesideProgram("DXSOCKS_0409.DLL"), "DXSOCKS_0409.DLL"},
        {dxtest::BesideProgram("..\\doubles\\recording\\KVTSOCK2.DLL"), "KVTSOCK2.DLL"}};
    dxtest::ExpectCopiedCasePasses(beside, "ConfigDialogChild.DISABLED_RecordedSocksHelp", 60000);
    dxtest::ExpectCopiedCasePasses(beside, "ConfigDialogChild.DISABLED_RecordedHttpHelp", 60000);
}

// ----- The children: each drives the dialogs in its own process -----

// The view the main dialog shows: the simple view's fields or the full view's labels, the switch
// enabled or not, and the window ending under the switch (simple) or under the line (full), with the
// same margin.
void ExpectSocksView(HWND dialog, bool simple) {
    EXPECT_EQ(Visible(dialog, IDC_PROXY_ADDRESS), simple);
    EXPECT_EQ(Visible(dialog, IDC_PROTOCOL_VERSION), simple);
    EXPECT_EQ(Visible(dialog, IDC_VERSION_LABEL), simple);
    EXPECT_EQ(Visible(dialog, IDC_SIMPLE_LABEL_1034), simple);
    EXPECT_EQ(Visible(dialog, IDC_FULL_LABEL_1039), !simple);
    EXPECT_EQ(Visible(dialog, IDC_FULL_LABEL_1037), !simple);
    EXPECT_EQ(Visible(dialog, IDC_FULL_LABEL_1040), !simple);
    EXPECT_EQ(ItemText(dialog, IDC_VIEW_SWITCH), simple ? "&Advanced >>" : "<< &Simple");
}

// The window's lower edge less the lower edge of control `id`.
int MarginUnder(HWND dialog, int id) {
    RECT window = {};
    RECT control = {};
    GetWindowRect(dialog, &window);
    GetWindowRect(GetDlgItem(dialog, id), &control);
    return window.bottom - control.bottom;
}

TEST(ConfigDialogChild, DISABLED_EmptySimpleOk) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ExpectSocksView(dialog, true);
        EXPECT_TRUE(Enabled(dialog, IDC_VIEW_SWITCH));
        EXPECT_EQ(Rows(dialog), (std::vector<Row>{{kAnyDestination, kDirect, ""}}));
        EXPECT_EQ(dxtest::ComboSelection(dialog, IDC_PROTOCOL_VERSION), 0);
        const int simpleMargin = MarginUnder(dialog, IDC_VIEW_SWITCH);
        const int simpleHeight = dxtest::Height(dialog);
        // Full and back: the window ends under the line with the margin it had under the switch.
        Click(dialog, IDC_VIEW_SWITCH);
        ExpectSocksView(dialog, false);
        EXPECT_EQ(MarginUnder(dialog, IDC_FULL_VIEW_BOTTOM), simpleMargin);
        EXPECT_GT(dxtest::Height(dialog), simpleHeight);
        EXPECT_TRUE(Enabled(dialog, IDC_VIEW_SWITCH));
        Click(dialog, IDC_VIEW_SWITCH);
        ExpectSocksView(dialog, true);
        EXPECT_EQ(dxtest::Height(dialog), simpleHeight);
        SetText(dialog, IDC_PROXY_ADDRESS, "proxy.example");
        dxtest::SelectCombo(dialog, IDC_PROTOCOL_VERSION, 1);
        Press(dialog, IDOK);
        EXPECT_TRUE(dxtest::Closes(dialog));
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_OpensFull) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ExpectSocksView(dialog, false);
        EXPECT_FALSE(Enabled(dialog, IDC_VIEW_SWITCH));
        Press(dialog, IDCANCEL);
        EXPECT_TRUE(dxtest::Closes(dialog));
    });
    EXPECT_EQ(result, 0);
}

TEST(ConfigDialogChild, DISABLED_OpensSimple) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ExpectSocksView(dialog, true);
        EXPECT_EQ(ItemText(dialog, IDC_PROXY_ADDRESS), "p.example");
        Press(dialog, IDCANCEL);
    });
    EXPECT_EQ(result, 0);
}

TEST(ConfigDialogChild, DISABLED_SimpleEmptyAddress) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ASSERT_EQ(ItemText(dialog, IDC_PROXY_ADDRESS), "p.example");
        SetText(dialog, IDC_PROXY_ADDRESS, "");
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_MapDirectToggle) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ASSERT_EQ(Rows(dialog).size(), 2u);
        EXPECT_EQ(Rows(dialog)[0], (Row{"a.example:23", "p.example:1081", "bob"}));
        dxtest::SelectRow(dialog, 0);
        Press(dialog, IDC_EDIT);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(ItemText(map, IDC_DESTINATION_ADDRESS), "a.example");
        EXPECT_EQ(ItemText(map, IDC_DESTINATION_PORT), "23");
        EXPECT_EQ(ItemText(map, IDC_PROXY_ADDRESS), "p.example");
        EXPECT_EQ(ItemText(map, IDC_PROXY_PORT), "1081");
        EXPECT_EQ(ItemText(map, IDC_PROXY_USER), "bob");
        EXPECT_EQ(dxtest::ComboSelection(map, IDC_PROTOCOL_VERSION), 1);
        EXPECT_FALSE(Checked(map, IDC_DIRECT));
        EXPECT_TRUE(Enabled(map, IDC_DESTINATION_ADDRESS));
        // Checked: the proxy fields empty and disabled, with their labels.
        Click(map, IDC_DIRECT);
        for (int id : {IDC_PROXY_ADDRESS, IDC_PROXY_PORT, IDC_PROXY_USER}) {
            EXPECT_EQ(ItemText(map, id), "") << id;
        }
        for (int id : {IDC_PROXY_ADDRESS, IDC_PROXY_PORT, IDC_PROXY_USER, IDC_PROTOCOL_VERSION, IDC_VERSION_LABEL,
                       IDC_PROXY_LABEL_1031, IDC_PROXY_LABEL_1033, IDC_PROXY_LABEL_1035, IDC_PROXY_LABEL_1036}) {
            EXPECT_FALSE(Enabled(map, id)) << id;
        }
        // The record's UseProxy follows at once: the list's cell asks the record.
        EXPECT_EQ(Rows(dialog)[0].proxy, kDirect);
        // Unchecked: the record's values again.
        Click(map, IDC_DIRECT);
        EXPECT_EQ(ItemText(map, IDC_PROXY_ADDRESS), "p.example");
        EXPECT_EQ(ItemText(map, IDC_PROXY_PORT), "1081");
        EXPECT_EQ(ItemText(map, IDC_PROXY_USER), "bob");
        EXPECT_TRUE(Enabled(map, IDC_PROXY_ADDRESS));
        EXPECT_TRUE(Enabled(map, IDC_PROXY_LABEL_1031));
        // Checked again, some edits, then Cancel: UseProxy comes back, the rest never changed.
        Click(map, IDC_DIRECT);
        SetText(map, IDC_DESTINATION_ADDRESS, "other.example");
        Press(map, IDCANCEL);
        ASSERT_TRUE(dxtest::Closes(map));
        EXPECT_EQ(Rows(dialog)[0], (Row{"a.example:23", "p.example:1081", "bob"}));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_AddFirst) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        dxtest::ClearSelection(dialog);
        ASSERT_EQ(dxtest::SelectedRow(dialog), -1);
        EXPECT_FALSE(Enabled(dialog, IDC_REMOVE));
        EXPECT_FALSE(Enabled(dialog, IDC_MOVE_UP));
        EXPECT_FALSE(Enabled(dialog, IDC_MOVE_DOWN));
        Press(dialog, IDC_ADD);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        char title[128] = {};
        GetWindowTextA(map, title, sizeof title);
        EXPECT_STREQ(title, "Add a proxy map");
        EXPECT_EQ(ItemText(map, IDC_DESTINATION_ADDRESS), "Any host");
        EXPECT_EQ(ItemText(map, IDC_DESTINATION_PORT), "Any");
        // A new map has no proxy: direct until unchecked, which shows the family's defaults.
        EXPECT_TRUE(Checked(map, IDC_DIRECT));
        EXPECT_EQ(ItemText(map, IDC_PROXY_PORT), "");
        Click(map, IDC_DIRECT);
        EXPECT_EQ(ItemText(map, IDC_PROXY_ADDRESS), "");
        EXPECT_EQ(ItemText(map, IDC_PROXY_PORT), "1080");
        EXPECT_EQ(ItemText(map, IDC_PROXY_USER), "Guest");
        EXPECT_EQ(dxtest::ComboSelection(map, IDC_PROTOCOL_VERSION), 0);
        // The port list: our eleven entries.
        EXPECT_EQ(SendDlgItemMessageA(map, IDC_DESTINATION_PORT, CB_GETCOUNT, 0, 0), 11);
        SetText(map, IDC_DESTINATION_ADDRESS, "new.example");
        SetText(map, IDC_DESTINATION_PORT, "22 (SSH)");
        SetText(map, IDC_PROXY_ADDRESS, "p2.example");
        Press(map, IDOK);
        ASSERT_TRUE(dxtest::Closes(map));
        std::vector<Row> rows = Rows(dialog);
        ASSERT_EQ(rows.size(), 3u);
        EXPECT_EQ(rows[0], (Row{"new.example:22 (SSH)", "p2.example", "Guest"}));
        EXPECT_EQ(dxtest::SelectedRow(dialog), 0);
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_RemoveOnly) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ASSERT_EQ(Rows(dialog), (std::vector<Row>{{kAnyDestination, "p.example:1081", "Guest"}}));
        EXPECT_FALSE(Enabled(dialog, IDC_VIEW_SWITCH));
        dxtest::SelectRow(dialog, 0);
        Click(dialog, IDC_REMOVE);
        EXPECT_EQ(Rows(dialog), (std::vector<Row>{{kAnyDestination, kDirect, ""}}));
        EXPECT_TRUE(Enabled(dialog, IDC_VIEW_SWITCH));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_RemoveLast) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ASSERT_EQ(Rows(dialog).size(), 2u);
        EXPECT_FALSE(Enabled(dialog, IDC_VIEW_SWITCH));
        dxtest::SelectRow(dialog, 1);
        Click(dialog, IDC_REMOVE);
        EXPECT_EQ(Rows(dialog), (std::vector<Row>{{"a.example:Any", "p.example", "Guest"}}));
        EXPECT_EQ(dxtest::SelectedRow(dialog), -1);
        EXPECT_FALSE(Enabled(dialog, IDC_REMOVE));
        EXPECT_FALSE(Enabled(dialog, IDC_MOVE_UP));
        EXPECT_FALSE(Enabled(dialog, IDC_MOVE_DOWN));
        // By the count alone, though the map left is customised.
        EXPECT_TRUE(Enabled(dialog, IDC_VIEW_SWITCH));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_MapTrimAndPort) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        // A double click edits, as Edit does.
        dxtest::DoubleClickRow(dialog, 0);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(ItemText(map, IDC_DESTINATION_ADDRESS), "a.example");
        SetText(map, IDC_PROXY_USER, "Jos\xe9  \t");
        SetText(map, IDC_PROXY_PORT, "");
        dxtest::TypeInto(map, IDC_PROXY_PORT, "123456");
        EXPECT_EQ(ItemText(map, IDC_PROXY_PORT), "12345");
        Press(map, IDOK);
        ASSERT_TRUE(dxtest::Closes(map));
        EXPECT_EQ(Rows(dialog)[0], (Row{"a.example:Any", "p.example:12345", "Jos"}));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_VersionSix) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        dxtest::SelectRow(dialog, 0);
        Press(dialog, IDC_EDIT);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(dxtest::ComboSelection(map, IDC_PROTOCOL_VERSION), -1);
        EXPECT_EQ(SendDlgItemMessageA(map, IDC_PROTOCOL_VERSION, CB_GETCOUNT, 0, 0), 2);
        Press(map, IDOK);
        ASSERT_TRUE(dxtest::Closes(map));
        // A version of 0 shows as version 4.
        dxtest::SelectRow(dialog, 1);
        Press(dialog, IDC_EDIT);
        map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(dxtest::ComboSelection(map, IDC_PROTOCOL_VERSION), 0);
        // The default map's destination is not to be edited.
        EXPECT_FALSE(Enabled(map, IDC_DESTINATION_ADDRESS));
        EXPECT_FALSE(Enabled(map, IDC_DESTINATION_PORT));
        Press(map, IDCANCEL);
        ASSERT_TRUE(dxtest::Closes(map));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_Move) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ASSERT_EQ(Rows(dialog).size(), 3u);
        EXPECT_EQ(dxtest::SelectedRow(dialog), 0);
        EXPECT_FALSE(Enabled(dialog, IDC_MOVE_UP));
        EXPECT_TRUE(Enabled(dialog, IDC_MOVE_DOWN));
        // The arrow buttons clicked as the mouse would, through the image button to the dialog.
        Click(dialog, IDC_MOVE_DOWN);
        // The list, filled again, has the keyboard.
        GUITHREADINFO focus = {};
        focus.cbSize = sizeof focus;
        ASSERT_TRUE(GetGUIThreadInfo(thread, &focus));
        EXPECT_EQ(focus.hwndFocus, GetDlgItem(dialog, IDC_MAP_LIST));
        std::vector<Row> rows = Rows(dialog);
        EXPECT_EQ(rows[0].destination, "b.example:Any");
        EXPECT_EQ(rows[1].destination, "a.example:Any");
        EXPECT_EQ(dxtest::SelectedRow(dialog), 1);
        EXPECT_TRUE(Enabled(dialog, IDC_MOVE_UP));
        EXPECT_TRUE(Enabled(dialog, IDC_MOVE_DOWN));
        dxtest::SelectRow(dialog, 2);
        EXPECT_TRUE(Enabled(dialog, IDC_MOVE_UP));
        EXPECT_FALSE(Enabled(dialog, IDC_MOVE_DOWN));
        // A command past the end changes nothing.
        SendMessageA(dialog, WM_COMMAND, IDC_MOVE_DOWN, 0);
        EXPECT_EQ(Rows(dialog), rows);
        dxtest::SelectRow(dialog, 1);
        Click(dialog, IDC_MOVE_UP);
        EXPECT_EQ(Rows(dialog)[0].destination, "a.example:Any");
        EXPECT_EQ(dxtest::SelectedRow(dialog), 0);
        EXPECT_FALSE(Enabled(dialog, IDC_MOVE_UP));
        Click(dialog, IDC_MOVE_DOWN);
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_CancelKeeps) {
    for (int round = 0; round < 2; ++round) {
        intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
            HWND dialog = dxtest::MainDialog(thread);
            ASSERT_NE(dialog, nullptr);
            EXPECT_EQ(Rows(dialog), (std::vector<Row>{{"a.example:Any", "p.example", "Guest"},
                                                      {kAnyDestination, kDirect, ""}}));
            dxtest::SelectRow(dialog, 0);
            Click(dialog, IDC_REMOVE);
            EXPECT_EQ(Rows(dialog).size(), 1u);
            Press(dialog, IDCANCEL);
        });
        EXPECT_EQ(result, 0);
    }
}

TEST(ConfigDialogChild, DISABLED_MapApply) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        Press(dialog, IDC_ADD);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        SetText(map, IDC_DESTINATION_ADDRESS, "dropped.example");
        Press(map, IDC_VIEW_SWITCH);
        ASSERT_TRUE(dxtest::Closes(map));
        EXPECT_EQ(Rows(dialog).size(), 2u);
        dxtest::SelectRow(dialog, 0);
        Press(dialog, IDC_EDIT);
        map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        SetText(map, IDC_PROXY_ADDRESS, "changed.example");
        Press(map, IDC_VIEW_SWITCH);
        ASSERT_TRUE(dxtest::Closes(map));
        EXPECT_EQ(Rows(dialog)[0].proxy, "changed.example");
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_LongTexts) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        std::vector<Row> rows = Rows(dialog);
        ASSERT_EQ(rows.size(), 502u);
        EXPECT_EQ(rows[0].destination, std::string(63, 'h'));
        EXPECT_EQ(rows[499].destination, "h500.example:Any");
        dxtest::SelectRow(dialog, 0);
        Press(dialog, IDC_EDIT);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        SetText(map, IDC_PROXY_ADDRESS, std::string(2000, 'x'));
        SetText(map, IDC_PROXY_USER, std::string(600, 'u'));
        Press(map, IDOK);
        ASSERT_TRUE(dxtest::Closes(map));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_Corrupt) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        EXPECT_EQ(Rows(dialog), (std::vector<Row>{{kAnyDestination, kDirect, ""}}));
        ExpectSocksView(dialog, true);
        SetText(dialog, IDC_PROXY_ADDRESS, "fresh.example");
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_CorruptWithKeys) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ExpectSocksView(dialog, false);
        // Read from the registry, which holds no user.
        EXPECT_EQ(Rows(dialog), (std::vector<Row>{{"sock.example:Any", "sp.example", ""},
                                                  {kAnyDestination, "sdef.example", ""}}));
        dxtest::SelectRow(dialog, 0);
        Press(dialog, IDC_EDIT);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        SetText(map, IDC_PROXY_ADDRESS, "edited.example");
        Press(map, IDOK);
        ASSERT_TRUE(dxtest::Closes(map));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_FolderAtPath) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        SetText(dialog, IDC_PROXY_ADDRESS, "p.example");
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_BogusOwner) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(reinterpret_cast<HWND>(0x5a5a0)); },
                                  [](DWORD thread) {
                                      HWND dialog = dxtest::MainDialog(thread);
                                      ASSERT_NE(dialog, nullptr);
                                      EXPECT_EQ(GetWindow(dialog, GW_OWNER), nullptr);
                                      Press(dialog, IDCANCEL);
                                  });
    EXPECT_EQ(result, 0);
}

// The busy message of `open`: its text and title, OK closes it, and the export gives 0.
void ExpectBusy(const std::function<intptr_t()>& open, const char* text, const char* title) {
    intptr_t result = DriveDialog(open, [&](DWORD thread) {
        HWND box = dxtest::MessageBoxOf(thread);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(ItemText(box, 65535), text);
        char caption[256] = {};
        GetWindowTextA(box, caption, sizeof caption);
        EXPECT_STREQ(caption, title);
        Press(box, IDOK);
    });
    EXPECT_EQ(result, 0);
}

const char kSocksBusy[] = "The SOCKS proxy configuration is already open in another window. Close it there first.";
const char kSocksBusyTitle[] = "SOCKS proxy configuration";
const char kHttpBusy[] = "The HTTP proxy configuration is already open in another window. Close it there first.";
const char kHttpBusyTitle[] = "HTTP proxy configuration";

// The other family's editor opens regardless.
void ExpectOpens(const std::function<intptr_t()>& open) {
    intptr_t result = DriveDialog(open, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        Press(dialog, IDCANCEL);
    });
    EXPECT_EQ(result, 0);
}

TEST(ConfigDialogChild, DISABLED_SocksBusy) {
    ExpectBusy([] { return SOCKS_ConfigurationDialog(nullptr); }, kSocksBusy, kSocksBusyTitle);
    ExpectBusy([] { return reinterpret_cast<intptr_t>(SOCKS_ShowXMLConfigDlg(nullptr)); }, kSocksBusy,
               kSocksBusyTitle);
    ExpectOpens([] { return HTTP_ConfigurationDialog(nullptr); });
    // The atom is another process's: it stays.
    EXPECT_NE(GlobalFindAtomA("KVT_Verdane_SOCKS_Configuration"), 0);
}

TEST(ConfigDialogChild, DISABLED_HttpBusy) {
    ExpectBusy([] { return HTTP_ConfigurationDialog(nullptr); }, kHttpBusy, kHttpBusyTitle);
    // Kept: the HTTP XML dialog speaks with the SOCKS family's strings.
    ExpectBusy([] { return reinterpret_cast<intptr_t>(HTTP_ShowXMLConfigDlg(nullptr)); }, kSocksBusy,
               kSocksBusyTitle);
    ExpectOpens([] { return SOCKS_ConfigurationDialog(nullptr); });
}

TEST(ConfigDialogChild, DISABLED_AtomWhileOpen) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        EXPECT_TRUE(dxtest::AtomSeenElsewhere("KVT_Verdane_SOCKS_Configuration"));
        EXPECT_FALSE(dxtest::AtomSeenElsewhere("KVT_Verdane_HTTP_Configuration"));
        Press(dialog, IDCANCEL);
    });
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(dxtest::AtomSeenElsewhere("KVT_Verdane_SOCKS_Configuration"));
}

// Context help on the dialog opens the family's page through our suite library's viewer.
void ExpectHelp(const std::function<intptr_t()>& open, const char* page) {
    char record[MAX_PATH] = {};
    ASSERT_GT(GetEnvironmentVariableA("DXTEST_HELP_RECORD", record, MAX_PATH), 0u);
    DeleteFileA(record);
    intptr_t result = DriveDialog(open, [&](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        PostMessageA(dialog, WM_SYSCOMMAND, SC_CONTEXTHELP, 0);
        std::string recorded;
        for (int waited = 0; waited <= dxtest::kDialogWaitMs && recorded.empty(); waited += 20) {
            Sleep(20);
            FILE* file = std::fopen(record, "rb");
            if (file == nullptr) continue;
            char text[MAX_PATH] = {};
            recorded.assign(text, std::fread(text, 1, sizeof text - 1, file));
            std::fclose(file);
        }
        const std::string ending = std::string("help\\") + page;
        ASSERT_GE(recorded.size(), ending.size()) << recorded;
        EXPECT_EQ(recorded.substr(recorded.size() - ending.size()), ending);
        Press(dialog, IDCANCEL);
    });
    EXPECT_EQ(result, 0);
}

TEST(ConfigDialogChild, DISABLED_SocksHelp) {
    ExpectHelp([] { return SOCKS_ConfigurationDialog(nullptr); }, "socks.html");
}

TEST(ConfigDialogChild, DISABLED_HttpHelp) {
    ExpectHelp([] { return HTTP_ConfigurationDialog(nullptr); }, "http.html");
}

// True when the recording suite's calls came to hold `line` within the wait.
bool Recorded(const std::string& line) {
    for (int waited = 0; waited <= dxtest::kDialogWaitMs; waited += 10) {
        if (RecordingSuiteCalls().find(line + "\n") != std::string::npos) return true;
        Sleep(10);
    }
    return false;
}

// The main dialog centred on the host's window, the map dialog on the main dialog; help of either
// with the family's page and command 5.
void ExpectRecordedHelp(int (*open)(HWND), DWORD helpId) {
    HWND owner = CreateWindowExA(0, "STATIC", "host", WS_OVERLAPPEDWINDOW, 0, 0, 300, 200, nullptr, nullptr,
                                 GetModuleHandleA(nullptr), nullptr);
    ASSERT_NE(owner, nullptr);
    const std::string page = " " + std::to_string(helpId) + " 5";
    intptr_t result = DriveDialog([&] { return open(owner); }, [&](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        EXPECT_EQ(GetWindow(dialog, GW_OWNER), owner);
        EXPECT_TRUE(Recorded("center " + RecordedWindow(dialog) + " " + RecordedWindow(owner))) << RecordingSuiteCalls();
        PostMessageA(dialog, WM_SYSCOMMAND, SC_CONTEXTHELP, 0);
        EXPECT_TRUE(Recorded("help " + RecordedWindow(dialog) + page)) << RecordingSuiteCalls();
        dxtest::SelectRow(dialog, 0);
        Press(dialog, IDC_EDIT);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        EXPECT_TRUE(Recorded("center " + RecordedWindow(map) + " " + RecordedWindow(dialog))) << RecordingSuiteCalls();
        PostMessageA(map, WM_SYSCOMMAND, SC_CONTEXTHELP, 0);
        EXPECT_TRUE(Recorded("help " + RecordedWindow(map) + page)) << RecordingSuiteCalls();
        Press(map, IDCANCEL);
        ASSERT_TRUE(dxtest::Closes(map));
        Press(dialog, IDCANCEL);
    });
    EXPECT_EQ(result, 0);
    DestroyWindow(owner);
}

TEST(ConfigDialogChild, DISABLED_RecordedSocksHelp) { ExpectRecordedHelp(SOCKS_ConfigurationDialog, 2002); }

TEST(ConfigDialogChild, DISABLED_RecordedHttpHelp) { ExpectRecordedHelp(HTTP_ConfigurationDialog, 2004); }

TEST(ConfigDialogChild, DISABLED_ShowXmlOk) {
    intptr_t result = DriveDialog([] { return reinterpret_cast<intptr_t>(SOCKS_ShowXMLConfigDlg(nullptr)); },
                                  [](DWORD thread) {
                                      HWND dialog = dxtest::MainDialog(thread);
                                      ASSERT_NE(dialog, nullptr);
                                      SetText(dialog, IDC_PROXY_ADDRESS, "xml.example");
                                      Press(dialog, IDOK);
                                  });
    ASSERT_NE(result, 0);
    EXPECT_NE(std::string(reinterpret_cast<const char*>(result)).find("Registry"), std::string::npos);
    // The registry layer stays bound to the in-memory registry: its text is there for the host.
    EXPECT_NE(SOCKS_GetXMLConfig(), nullptr);
}

TEST(ConfigDialogChild, DISABLED_ShowXmlCancel) {
    intptr_t result = DriveDialog([] { return reinterpret_cast<intptr_t>(HTTP_ShowXMLConfigDlg(nullptr)); },
                                  [](DWORD thread) {
                                      HWND dialog = dxtest::MainDialog(thread);
                                      ASSERT_NE(dialog, nullptr);
                                      SetText(dialog, IDC_PROXY_ADDRESS, "xml.example");
                                      Press(dialog, IDCANCEL);
                                  });
    EXPECT_EQ(result, 0);
    EXPECT_NE(HTTP_GetXMLConfig(), nullptr);
}

void ExpectHttpSimpleFields(HWND dialog, bool simple) {
    for (int id : {IDC_PROXY_ADDRESS, IDC_PROXY_PORT, IDC_PROXY_USER, IDC_BASIC_AUTHENTICATION, IDC_PROXY_LABEL_1033,
                   IDC_PROXY_LABEL_1035, IDC_PROXY_LABEL_1036, IDC_SIMPLE_LABEL_1034}) {
        EXPECT_EQ(Visible(dialog, id), simple) << id;
    }
    for (int id : {IDC_FULL_LABEL_1045, IDC_FULL_LABEL_1046, IDC_FULL_LABEL_1047}) {
        EXPECT_EQ(Visible(dialog, id), !simple) << id;
    }
}

TEST(ConfigDialogChild, DISABLED_HttpSimple) {
    intptr_t result = DriveDialog([] { return HTTP_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ExpectHttpSimpleFields(dialog, true);
        EXPECT_TRUE(Enabled(dialog, IDC_VIEW_SWITCH));
        EXPECT_EQ(ItemText(dialog, IDC_PROXY_ADDRESS), "p.example");
        EXPECT_EQ(ItemText(dialog, IDC_PROXY_PORT), "3128");
        EXPECT_EQ(ItemText(dialog, IDC_PROXY_USER), "bob");
        EXPECT_TRUE(Checked(dialog, IDC_BASIC_AUTHENTICATION));
        // The port field takes five characters here too.
        SetText(dialog, IDC_PROXY_PORT, "");
        dxtest::TypeInto(dialog, IDC_PROXY_PORT, "3128999");
        EXPECT_EQ(ItemText(dialog, IDC_PROXY_PORT), "31289");
        SetText(dialog, IDC_PROXY_PORT, "3128");
        SetText(dialog, IDC_PROXY_USER, "ann  ");
        // Full and back: gathered and shown again.
        Click(dialog, IDC_VIEW_SWITCH);
        ExpectHttpSimpleFields(dialog, false);
        EXPECT_EQ(Rows(dialog), (std::vector<Row>{{kAnyDestination, "p.example:3128", "ann  "}}));
        Click(dialog, IDC_VIEW_SWITCH);
        ExpectHttpSimpleFields(dialog, true);
        EXPECT_EQ(ItemText(dialog, IDC_PROXY_PORT), "3128");
        EXPECT_EQ(ItemText(dialog, IDC_PROXY_USER), "ann  ");
        EXPECT_TRUE(Checked(dialog, IDC_BASIC_AUTHENTICATION));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_HttpMapDirect) {
    intptr_t result = DriveDialog([] { return HTTP_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        HWND dialog = dxtest::MainDialog(thread);
        ASSERT_NE(dialog, nullptr);
        ExpectHttpSimpleFields(dialog, false);
        dxtest::SelectRow(dialog, 0);
        Press(dialog, IDC_EDIT);
        HWND map = dxtest::MapDialog(thread);
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(GetDlgItem(map, IDC_PROTOCOL_VERSION), nullptr);
        EXPECT_TRUE(Checked(map, IDC_BASIC_AUTHENTICATION));
        Click(map, IDC_DIRECT);
        EXPECT_FALSE(Checked(map, IDC_BASIC_AUTHENTICATION));
        EXPECT_FALSE(Enabled(map, IDC_BASIC_AUTHENTICATION));
        Click(map, IDC_DIRECT);
        EXPECT_TRUE(Checked(map, IDC_BASIC_AUTHENTICATION));
        EXPECT_TRUE(Enabled(map, IDC_BASIC_AUTHENTICATION));
        // Trailing blanks typed here go.
        SetText(map, IDC_PROXY_USER, "ann   ");
        Press(map, IDOK);
        ASSERT_TRUE(dxtest::Closes(map));
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1);
}

TEST(ConfigDialogChild, DISABLED_NoSuite) {
    intptr_t result = DriveDialog([] { return SOCKS_ConfigurationDialog(nullptr); }, [](DWORD thread) {
        EXPECT_EQ(dxtest::FindDialog(thread, 0, nullptr, 1000), nullptr);
    });
    EXPECT_EQ(result, 0);
}

}  // namespace
