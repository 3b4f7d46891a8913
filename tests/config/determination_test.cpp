// Proxy determination of both families through the library's own code: its steps and log, the
// first-use prompt through a UI library double, the failure table row by row, the out-parameters a
// host hands in, the settings file read again or reused, and an older registry configuration moved
// at the first call.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "config_sets.h"
#include "determination.h"
#include "http_api.h"
#include "lifecycle.h"
#include "log.h"
#include "log_capture.h"
#include "module_files.h"
#include "our_strings.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "registry_fixture.h"
#include "settings_file.h"
#include "socks_api.h"
#include "store_fixture.h"
#include "suite_library.h"
#include "test_helpers.h"
#include "ui_double.h"

namespace {

using dxtest::FullMap;
using dxtest::Hive;
using dxtest::Line;
using dxtest::ProxyElement;
using dxtest::SettingsElement;
using Lines = std::vector<std::string>;

// A WinSock error no step of a determination sets: what stands when a row leaves it untouched.
constexpr int kMarker = 4242;
constexpr DWORD kPartialSuiteLanguage = 0x1234;

template <typename Entry>
Entry Export(HMODULE module, const char* name) {
    return reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// A default map, which takes every destination.
std::string DefaultMap(const std::string& proxy, const std::string& port, const std::string& user,
                       const std::string& version, const std::string& basic, const std::string& use) {
    return FullMap("Default", "", "", proxy, port, user, version, basic, use);
}

// A settings file of both families, each with only `maps` (numbered ones counted by `count`).
bool WriteBoth(const std::string& count, const std::string& maps) {
    return dxtest::WriteSettingsBytes(dxtest::kSettingsHead +
                                      SettingsElement(ProxyElement("SOCKS", count, maps) +
                                                      ProxyElement("HTTP", count, maps)));
}
bool WriteProxy(const std::string& proxy, const std::string& port = "1080", const std::string& user = "alice",
                const std::string& version = "5", const std::string& basic = "1", const std::string& use = "1") {
    return WriteBoth("0", DefaultMap(proxy, port, user, version, basic, use));
}

std::string Text(const sockaddr_in& address) { return dxtest::Dotted(address) + ":" + std::to_string(ntohs(address.sin_port)); }

bool Contains(const Lines& lines, const std::string& line) {
    for (const std::string& each : lines) {
        if (each == line) return true;
    }
    return false;
}

// The settings file's last-write time, and setting it.
FILETIME WrittenAt() {
    FILETIME time = {};
    HANDLE file = CreateFileA(dxtest::SettingsFilePath().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return time;
    GetFileTime(file, nullptr, nullptr, &time);
    CloseHandle(file);
    return time;
}
bool SetWrittenAt(FILETIME time) {
    HANDLE file = CreateFileA(dxtest::SettingsFilePath().c_str(), FILE_WRITE_ATTRIBUTES,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    bool set = SetFileTime(file, nullptr, nullptr, &time) != 0;
    CloseHandle(file);
    return set;
}

class DeterminationTest : public dxtest::ProxyStoreTest {
protected:
    // After a determination of a file whose map names port 1080, that map in the set edited to 1090.
    void DetermineAndEditTheSet() {
        ASSERT_TRUE(WriteProxy("127.0.0.1", "1080"));
        int family = 2;
        ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
        auto* map = static_cast<CProxyMap*>(g_pSocksConfig->First());
        ASSERT_NE(map, nullptr);
        map->SetProxyPort("1090");
    }
    void SetUp() override {
        dxtest::ProxyStoreTest::SetUp();
        savedModule = g_hModule;
        ui = LoadLibraryA(dxtest::BesideProgram("..\\doubles\\ui\\pxmSetUI.dll").c_str());
        ASSERT_NE(ui, nullptr);
        // The UI double lies beside "this library", with the partial suite library.
        g_hModule = ui;
        ForgetUILibrary();
        script = Export<PFN_UiDoubleScript>(ui, "UiDoubleScript");
        recording = Export<PFN_UiDoubleRecording>(ui, "UiDoubleRecording");
        Export<PFN_UiDoubleReset>(ui, "UiDoubleReset")();
        g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);
        SetReportFormatSource(LoadReportFormat);
        DeleteConfigSets();
        g_hParentWindow = nullptr;
    }
    void TearDown() override {
        DeleteConfigSets();
        SetReportFormatSource(nullptr);
        delete g_pProxySocketManager;
        g_pProxySocketManager = nullptr;
        g_configPromptActive = 0;
        g_configPromptTimedOut = 0;
        g_hParentWindow = nullptr;
        ForgetUILibrary();
        g_hModule = savedModule;
        if (ui != nullptr) FreeLibrary(ui);
        dxtest::ProxyStoreTest::TearDown();
    }
    static void ForgetUILibrary() {
        if (g_hSetUILibrary != nullptr) FreeLibrary(g_hSetUILibrary);
        g_hSetUILibrary = nullptr;
    }
    UiDoubleRecord Recording() const {
        UiDoubleRecord record;
        recording(&record);
        return record;
    }

    // SOCKS_DetermineProxyEx into the fixture's buffers.
    int Socks(const char* host, unsigned port, unsigned* version, int* family) {
        std::memset(&proxy, 0, sizeof proxy);
        std::memset(user, 0, sizeof user);
        return SOCKS_DetermineProxyEx(host, port, &proxy, sizeof proxy, user, sizeof user, version, family);
    }
    int Http(const char* host, unsigned port, unsigned* basic, int* family) {
        std::memset(&proxy, 0, sizeof proxy);
        std::memset(user, 0, sizeof user);
        return HTTP_DetermineProxyEx(host, port, &proxy, sizeof proxy, user, sizeof user, basic, family);
    }

    HMODULE savedModule = nullptr;
    HMODULE ui = nullptr;
    PFN_UiDoubleScript script = nullptr;
    PFN_UiDoubleRecording recording = nullptr;
    sockaddr_in proxy = {};
    char user[512] = {};
};

// ---- What a proxy that applies gives ----

TEST_F(DeterminationTest, SocksProxyThatAppliesGivesAddressUserVersionAndFamilyTwo) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "alice", "5"));
    unsigned version = 99;
    int family = 23;
    dxtest::LogCapture capture;
    WSASetLastError(kMarker);
    EXPECT_EQ(Socks("example.com", 80, &version, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1080");
    EXPECT_EQ(proxy.sin_family, AF_INET);
    EXPECT_STREQ(user, "alice");
    EXPECT_EQ(version, 5u);
    EXPECT_EQ(family, AF_INET);
    const Lines lines = capture.Lines();
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(lines[0], Line("Begin func SOCKS_DetermineProxyEx"));
    EXPECT_EQ(lines[1], Line("Begin host:port example.com:80"));
    // The shim check comes first, before the file is read.
    EXPECT_EQ(lines[2], Line("Begin func SOCKS_DetectShims"));
    EXPECT_TRUE(Contains(lines, Line("Reading SOCKS proxy configuration from XML.")));
    const Lines tail(lines.end() - 4, lines.end());
    EXPECT_EQ(tail, (Lines{Line("End addr 127.0.0.1:1080"), Line(" User ID = alice"), Line(" result = 1"),
                           Line("End func SOCKS_DetermineProxyEx")}));
    EXPECT_EQ(Recording().configCalls, 0);
}

TEST_F(DeterminationTest, NullVersionIsNotWrittenAndTheResultIsAsUsual) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "alice", "5"));
    int family = 2;
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1080");
    EXPECT_STREQ(user, "alice");
}

TEST_F(DeterminationTest, VersionIsLeftAloneWhenNoProxyApplies) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "alice", "5", "0", "0"));
    unsigned version = 99;
    int family = 2;
    EXPECT_EQ(Socks("example.com", 80, &version, &family), 0);
    EXPECT_EQ(version, 99u);
}

TEST_F(DeterminationTest, FamilyOf23ComesBackAsTwoWhetherOrNotAProxyApplies) {
    ASSERT_TRUE(WriteProxy("127.0.0.1"));
    int family = 23;
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(family, AF_INET);
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "alice", "5", "0", "0"));
    family = 23;
    unsigned basic = 7;
    EXPECT_EQ(Http("example.com", 80, &basic, &family), 0);
    EXPECT_EQ(family, AF_INET);
    EXPECT_EQ(basic, 0u);
}

TEST_F(DeterminationTest, HttpGivesTheBasicFlagAndLogsNoUserLine) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "3128", "bob", "4", "1"));
    unsigned basic = 7;
    int family = 2;
    dxtest::LogCapture capture;
    EXPECT_EQ(Http("example.com", 443, &basic, &family), 1);
    EXPECT_EQ(basic, 1u);
    EXPECT_STREQ(user, "bob");
    EXPECT_EQ(Text(proxy), "127.0.0.1:3128");
    const Lines lines = capture.Lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], Line("Begin func HTTP_DetermineProxyEx"));
    EXPECT_EQ(lines[2], Line("Begin func HTTP_DetectShims"));
    EXPECT_TRUE(Contains(lines, Line("Reading HTTP proxy configuration from XML.")));
    const Lines tail(lines.end() - 3, lines.end());
    EXPECT_EQ(tail, (Lines{Line("End addr 127.0.0.1:3128"), Line(" result = 1"), Line("End func HTTP_DetermineProxyEx")}));
    EXPECT_TRUE(dxtest::LinesStartingWith(lines, Line(" User ID")).empty());
}

TEST_F(DeterminationTest, UserIsCutToUserIdSizeAndTheLastByteIsZero) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "abcdefgh"));
    char buffer[12];
    std::memset(buffer, 'x', sizeof buffer);
    sockaddr_in address = {};
    int family = 2;
    EXPECT_EQ(SOCKS_DetermineProxyEx("example.com", 80, &address, sizeof address, buffer, 4, nullptr, &family), 1);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("abc\0xxxxxxxx", 12));
    // A shorter user: the buffer's last byte is closed all the same, the bytes between stay.
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "ab"));
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(SOCKS_DetermineProxyEx("example.com", 80, &address, sizeof address, buffer, 8, nullptr, &family), 1);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("ab\0xxxx\0xxxx", 12));
}

TEST_F(DeterminationTest, ProxyOf16BytesWithNoProxyIsAllZero) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "alice", "5", "0", "0"));
    unsigned char buffer[16];
    std::memset(buffer, 0xaa, sizeof buffer);
    char name[8] = "zzzzzzz";
    int family = 2;
    EXPECT_EQ(SOCKS_DetermineProxyEx("example.com", 80, reinterpret_cast<sockaddr_in*>(buffer), 16, name, sizeof name,
                                     nullptr, &family),
              0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 16), std::string(16, '\0'));
    EXPECT_EQ(name[0], '\0');
    EXPECT_EQ(name[1], 'z');
}

TEST_F(DeterminationTest, ProxyHostOfAStarOrOneLetterNeverApplies) {
    for (const char* host : {"*", "p", ""}) {
        SCOPED_TRACE(host);
        ASSERT_TRUE(WriteProxy(host));
        int family = 2;
        unsigned version = 99;
        dxtest::LogCapture capture;
        WSASetLastError(kMarker);
        EXPECT_EQ(Socks("example.com", 80, &version, &family), 0);
        EXPECT_EQ(WSAGetLastError(), kMarker);
        EXPECT_EQ(version, 99u);
        EXPECT_EQ(capture.Lines().back(), Line("End func SOCKS_DetermineProxyEx"));
    }
}

TEST_F(DeterminationTest, NullDestinationAsksForAnEmptyHostAndPortZero) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "alice"));
    char name[32] = {};
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_DetermineProxy(nullptr, 16, &proxy, sizeof proxy, name, sizeof name), 1);
    EXPECT_STREQ(name, "alice");
    EXPECT_TRUE(Contains(capture.Lines(), Line("Begin host:port :0")));
}

TEST_F(DeterminationTest, DetermineProxyTakesTheRecordsAddressAndPort) {
    ASSERT_TRUE(WriteBoth("1", FullMap("1", "10.1.2.3", "8443", "127.0.0.1", "1081", "one", "5", "1", "1") +
                                   DefaultMap("127.0.0.1", "1082", "other", "4", "0", "1")));
    sockaddr_in destination = dxtest::Address("10.1.2.3", 8443);
    char name[32] = {};
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_DetermineProxy(reinterpret_cast<sockaddr*>(&destination), sizeof destination, &proxy,
                                   sizeof proxy, name, sizeof name),
              1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1081");
    EXPECT_STREQ(name, "one");
    EXPECT_TRUE(Contains(capture.Lines(), Line("Begin host:port 10.1.2.3:8443")));
    unsigned basic = 7;
    EXPECT_EQ(HTTP_DetermineProxy(reinterpret_cast<sockaddr*>(&destination), sizeof destination, &proxy, sizeof proxy,
                                  name, sizeof name, &basic),
              1);
    EXPECT_EQ(basic, 1u);
    // Another port: the default map.
    destination.sin_port = htons(8444);
    EXPECT_EQ(HTTP_DetermineProxy(reinterpret_cast<sockaddr*>(&destination), sizeof destination, &proxy, sizeof proxy,
                                  name, sizeof name, &basic),
              1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1082");
    EXPECT_EQ(basic, 0u);
}

TEST_F(DeterminationTest, ShortOrTwoByteDestinationReadsNothingPastItAndGivesPortZero) {
    ASSERT_TRUE(WriteProxy("127.0.0.1"));
    // The record at the very end of a committed page: a read past its 2 bytes would fault.
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    auto* pages = static_cast<unsigned char*>(
        VirtualAlloc(nullptr, 2 * system.dwPageSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(pages, nullptr);
    DWORD old = 0;
    ASSERT_TRUE(VirtualProtect(pages + system.dwPageSize, system.dwPageSize, PAGE_NOACCESS, &old));
    unsigned char* record = pages + system.dwPageSize - 2;
    record[0] = AF_INET;
    record[1] = 0;
    char name[32] = {};
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_DetermineProxy(reinterpret_cast<sockaddr*>(record), 2, &proxy, sizeof proxy, name, sizeof name), 1);
    const Lines begin = dxtest::LinesStartingWith(capture.Lines(), Line("Begin host:port "));
    ASSERT_EQ(begin.size(), 1u);
    EXPECT_EQ(begin[0].substr(begin[0].size() - 2), ":0");
    VirtualFree(pages, 0, MEM_RELEASE);
}

TEST_F(DeterminationTest, HostOf1023CharactersIsAskedForWithoutHarm) {
    ASSERT_TRUE(WriteBoth("1", FullMap("1", std::string(1023, 'h'), "80", "127.0.0.1", "1081", "long", "5", "0", "1") +
                                   DefaultMap("127.0.0.1", "1082", "other", "4", "0", "0")));
    const std::string host(1023, 'h');
    int family = 2;
    EXPECT_EQ(Socks(host.c_str(), 80, nullptr, &family), 1);
    EXPECT_STREQ(user, "long");
    EXPECT_EQ(Socks((host + "h").c_str(), 80, nullptr, &family), 0);
}

TEST_F(DeterminationTest, NullFamilyOrBasicFlagGoesToALocal) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "alice", "5", "1"));
    EXPECT_EQ(Socks("example.com", 80, nullptr, nullptr), 1);
    EXPECT_EQ(Http("example.com", 80, nullptr, nullptr), 1);
    EXPECT_STREQ(user, "alice");
    EXPECT_EQ(SOCKS_UseAddressFamily("example.com", 80, nullptr), 1);
}

// Out-buffers of the host's sizes, each inside guard bytes that must stay.
TEST_F(DeterminationTest, OutBuffersTakeNoMoreThanTheirSize) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080", "abcdefghijklmnopqrstuvwxyz"));
    sockaddr_in whole = {};
    whole.sin_family = AF_INET;
    whole.sin_port = htons(1080);
    whole.sin_addr.s_addr = inet_addr("127.0.0.1");
    const std::string record(reinterpret_cast<const char*>(&whole), sizeof whole);
    const std::string name = "abcdefghijklmnopqrstuvwxyz";
    for (int size : {0, 1, 8, 16, -1}) {
        SCOPED_TRACE(size);
        char proxyGuarded[48];
        char userGuarded[48];
        std::memset(proxyGuarded, 0x5a, sizeof proxyGuarded);
        std::memset(userGuarded, 0x5a, sizeof userGuarded);
        int family = 2;
        unsigned version = 0;
        EXPECT_EQ(SOCKS_DetermineProxyEx("example.com", 80, reinterpret_cast<sockaddr_in*>(proxyGuarded + 16), size,
                                         userGuarded + 16, size, &version, &family),
                  1);
        EXPECT_EQ(version, 5u);
        const size_t written = size > 0 ? static_cast<size_t>(size) : 0;
        EXPECT_EQ(std::string(proxyGuarded + 16, written), record.substr(0, written));
        std::string expectedUser = written > 0 ? name.substr(0, written - 1) + '\0' : "";
        EXPECT_EQ(std::string(userGuarded + 16, written), expectedUser);
        for (size_t i = 0; i < sizeof proxyGuarded; ++i) {
            if (i >= 16 && i < 16 + written) continue;
            ASSERT_EQ(proxyGuarded[i], 0x5a) << "proxy byte " << i;
            ASSERT_EQ(userGuarded[i], 0x5a) << "user byte " << i;
        }
    }
    // Null buffers with sizes that would be good: nothing written, the answer still given.
    int family = 2;
    EXPECT_EQ(SOCKS_DetermineProxyEx("example.com", 80, nullptr, 16, nullptr, 512, nullptr, &family), 1);
}

// ---- The failure table, row by row, the WinSock error preset to a marker ----

TEST_F(DeterminationTest, DeclinedPromptGivesZeroAnd1223WithoutClosingLinesAndLeavesTheFamily) {
    for (DWORD answer : {0u, 2u, 7u}) {
        SCOPED_TRACE(answer);
        script(answer, nullptr, nullptr, nullptr);
        int family = 23;
        unsigned version = 99;
        dxtest::LogCapture capture;
        WSASetLastError(kMarker);
        EXPECT_EQ(Socks("example.com", 80, &version, &family), 0);
        EXPECT_EQ(WSAGetLastError(), 1223);
        EXPECT_EQ(family, 23);
        EXPECT_EQ(version, 99u);
        EXPECT_EQ(g_configPromptActive, 0);
        EXPECT_EQ(g_socksBusy, 0);
        const Lines lines = capture.Lines();
        EXPECT_FALSE(Contains(lines, Line("End func SOCKS_DetermineProxyEx")));
        EXPECT_TRUE(dxtest::LinesStartingWith(lines, Line(" result")).size() == 1u);  // the shim check's only
    }
    // Asked at every determination while nothing is configured.
    EXPECT_EQ(Recording().configCalls, 3);
}

TEST_F(DeterminationTest, MissingUiLibraryIsADeclinedPrompt) {
    HMODULE standin = LoadLibraryA(dxtest::BesideProgram("..\\doubles\\standin\\standin.dll").c_str());
    ASSERT_NE(standin, nullptr);
    ForgetUILibrary();
    g_hModule = standin;
    int family = 23;
    WSASetLastError(kMarker);
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 0);
    EXPECT_EQ(WSAGetLastError(), 1223);
    EXPECT_EQ(family, 23);
    unsigned basic = 5;
    WSASetLastError(kMarker);
    EXPECT_EQ(Http("example.com", 80, &basic, &family), 0);
    EXPECT_EQ(WSAGetLastError(), 1223);
    EXPECT_EQ(basic, 5u);
    g_hModule = ui;
    ForgetUILibrary();
    FreeLibrary(standin);
}

TEST_F(DeterminationTest, SavedPromptWhoseFileCannotBeReadGivesZeroAndLeavesTheError) {
    script(1, nullptr, nullptr, nullptr);
    int family = 23;
    dxtest::LogCapture capture;
    WSASetLastError(kMarker);
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 0);
    EXPECT_EQ(WSAGetLastError(), kMarker);
    EXPECT_EQ(family, 23);
    EXPECT_FALSE(Contains(capture.Lines(), Line("End func SOCKS_DetermineProxyEx")));
    EXPECT_EQ(g_configPromptActive, 0);
}

TEST_F(DeterminationTest, NoMapThatMatchesGivesZeroWithClosingLines) {
    // Without a file the set keeps what it holds: one map for another destination only.
    g_pSocksConfig = new CSocksConfig();
    CProxyMap* map = CSocksConfig::NewMap();
    map->SetDestinationAddress("other.example");
    map->SetDestinationPort("80");
    map->SetProxyAddress("127.0.0.1");
    map->SetUseProxy(1);
    g_pSocksConfig->Append(map);
    g_pSocksConfig->MigrationState = 0;
    int family = 23;
    dxtest::LogCapture capture;
    WSASetLastError(kMarker);
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 0);
    EXPECT_EQ(WSAGetLastError(), kMarker);
    EXPECT_EQ(family, AF_INET);
    const Lines lines = capture.Lines();
    const Lines tail(lines.end() - 4, lines.end());
    EXPECT_EQ(tail, (Lines{Line("End addr 0.0.0.0:0"), Line(" User ID = "), Line(" result = 0"),
                           Line("End func SOCKS_DetermineProxyEx")}));
    EXPECT_EQ(Socks("other.example", 80, nullptr, &family), 1);
    EXPECT_EQ(Recording().configCalls, 0);
}

TEST_F(DeterminationTest, MapWithoutAProxyOrWithAOneCharacterHostGivesZeroWithClosingLines) {
    for (const std::string& file : {DefaultMap("127.0.0.1", "1080", "u", "5", "0", "0"),
                                    DefaultMap("x", "1080", "u", "5", "0", "1")}) {
        SCOPED_TRACE(file);
        ASSERT_TRUE(WriteBoth("0", file));
        int family = 2;
        dxtest::LogCapture capture;
        WSASetLastError(kMarker);
        EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 0);
        EXPECT_EQ(WSAGetLastError(), kMarker);
        const Lines lines = capture.Lines();
        const Lines tail(lines.end() - 4, lines.end());
        EXPECT_EQ(tail, (Lines{Line("End addr 0.0.0.0:0"), Line(" User ID = "), Line(" result = 0"),
                               Line("End func SOCKS_DetermineProxyEx")}));
    }
}

TEST_F(DeterminationTest, ProxyNameThatDoesNotResolveLeaves11001AndReports1001) {
    ASSERT_TRUE(WriteProxy("proxy.invalid"));
    int family = 2;
    unsigned version = 99;
    dxtest::LogCapture capture;
    WSASetLastError(kMarker);
    EXPECT_EQ(Socks("example.com", 80, &version, &family), 0);
    EXPECT_EQ(WSAGetLastError(), 11001);
    EXPECT_EQ(version, 99u);
    EXPECT_STREQ(user, "");
    const Lines lines = capture.Lines();
    EXPECT_TRUE(Contains(lines, dxtest::UnresolvedReport("proxy.invalid")));
    const Lines tail(lines.end() - 3, lines.end());
    EXPECT_EQ(tail, (Lines{Line(" User ID = "), Line(" result = 0"), Line("End func SOCKS_DetermineProxyEx")}));
}

// ---- The first-use prompt ----

struct PromptSeen {
    int32_t active = -1;
    int32_t timedOut = -1;
    bool writeFile = false;
    bool reportTimeout = false;
};

void WINAPI LookInsidePrompt(void* context) {
    auto* seen = static_cast<PromptSeen*>(context);
    seen->active = g_configPromptActive;
    seen->timedOut = g_configPromptTimedOut;
    if (seen->writeFile) WriteProxy("127.0.0.1", "1085", "saved", "4", "1");
    if (seen->reportTimeout) SOCKS_ConnectTimeout(INVALID_SOCKET);
}

TEST_F(DeterminationTest, PromptIsAskedWithLanguageTopWindowOneZeroAndTheFamily) {
    HWND top = CreateWindowExA(0, "STATIC", "", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    HWND child = CreateWindowExA(0, "STATIC", "", WS_CHILD, 0, 0, 10, 10, top, nullptr, nullptr, nullptr);
    ASSERT_NE(child, nullptr);
    SOCKS_SetParentHWND(child);
    for (DWORD familyWord : {0u, 1u}) {
        SCOPED_TRACE(familyWord);
        int family = 2;
        if (familyWord == 0) {
            Socks("example.com", 80, nullptr, &family);
        } else {
            unsigned basic = 0;
            Http("example.com", 80, &basic, &family);
        }
        UiDoubleRecord record = Recording();
        EXPECT_EQ(record.configCalls, static_cast<int>(familyWord) + 1);
        EXPECT_EQ(record.language, kPartialSuiteLanguage);
        EXPECT_EQ(record.owner, top);
        EXPECT_EQ(record.one, 1u);
        EXPECT_EQ(record.zero, 0u);
        EXPECT_EQ(record.family, familyWord);
    }
    DestroyWindow(top);
}

TEST_F(DeterminationTest, SavedPromptReadsTheNewFileAndThePromptFlagIsSetOnlyWhileItIsOpen) {
    PromptSeen seen;
    seen.writeFile = true;
    g_configPromptTimedOut = 1;
    script(1, nullptr, LookInsidePrompt, &seen);
    unsigned basic = 0;
    int family = 23;
    EXPECT_EQ(Http("example.com", 80, &basic, &family), 1);
    EXPECT_EQ(seen.active, 1);
    EXPECT_EQ(seen.timedOut, 0);  // cleared at the prompt's start
    EXPECT_EQ(g_configPromptActive, 0);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1085");
    EXPECT_STREQ(user, "saved");
    EXPECT_EQ(basic, 1u);
    EXPECT_EQ(family, AF_INET);
    // Configured now: no prompt at the next determination of either family.
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Recording().configCalls, 1);
}

TEST_F(DeterminationTest, TimeOutDuringThePromptClosesItAndThePromptsResultStillDecides) {
    PromptSeen seen;
    seen.reportTimeout = true;
    script(2, nullptr, LookInsidePrompt, &seen);
    int family = 2;
    WSASetLastError(kMarker);
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 0);
    EXPECT_EQ(WSAGetLastError(), 1223);
    EXPECT_EQ(Recording().timeoutCalls, 1);
    EXPECT_EQ(g_configPromptTimedOut, 1);
    // A user who had saved before the time ran out keeps the configuration.
    seen.writeFile = true;
    script(1, nullptr, LookInsidePrompt, &seen);
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Recording().timeoutCalls, 2);
    // Outside a prompt a time-out does not reach the UI library.
    SOCKS_ConnectTimeout(INVALID_SOCKET);
    EXPECT_EQ(Recording().timeoutCalls, 2);
}

struct SecondCaller {
    DeterminationTest* test = nullptr;
    std::atomic<bool> done{false};
    std::atomic<int> result{-1};
    bool doneWhilePromptOpen = true;
    std::thread thread;
};

void WINAPI StartSecondDetermination(void* context) {
    auto* second = static_cast<SecondCaller*>(context);
    WriteProxy("127.0.0.1", "1086", "second", "5");
    second->thread = std::thread([second] {
        sockaddr_in address = {};
        char name[64] = {};
        int family = 2;
        second->result = SOCKS_DetermineProxyEx("example.com", 80, &address, sizeof address, name, sizeof name,
                                                nullptr, &family);
        second->done = true;
    });
    // The second thread spins, pumping its own queue, as long as this prompt is open.
    Sleep(300);
    second->doneWhilePromptOpen = second->done;
}

TEST_F(DeterminationTest, SecondThreadSpinsWhileAPromptIsOpenAndGoesOnAfterIt) {
    SecondCaller second;
    script(1, nullptr, StartSecondDetermination, &second);
    int result = -1;
    EXPECT_TRUE(dxtest::ReturnsWithin(20000, [&] {
        sockaddr_in address = {};
        char name[64] = {};
        int family = 2;
        result = SOCKS_DetermineProxyEx("example.com", 80, &address, sizeof address, name, sizeof name, nullptr,
                                        &family);
    }));
    EXPECT_EQ(result, 1);
    EXPECT_FALSE(second.doneWhilePromptOpen);
    for (int i = 0; i < 2000 && !second.done; ++i) Sleep(10);
    EXPECT_TRUE(second.done);
    if (second.thread.joinable()) {
        if (second.done) {
            second.thread.join();
        } else {
            second.thread.detach();
        }
    }
    EXPECT_EQ(second.result, 1);
    EXPECT_EQ(Recording().configCalls, 1);
}

// ---- Bad input: a number that is none ----

TEST_F(DeterminationTest, CountThatIsNoNumberRaisesAtEveryCallAndFreesTheFamily) {
    ASSERT_TRUE(WriteBoth("x", DefaultMap("127.0.0.1", "1080", "u", "5", "0", "1")));
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        bool raised = false;
        EXPECT_TRUE(dxtest::ReturnsWithin(10000, [&] {
            try {
                int family = 2;
                Socks("example.com", 80, nullptr, &family);
            } catch (const std::invalid_argument&) {
                raised = true;
            }
        }));
        EXPECT_TRUE(raised);
        EXPECT_EQ(g_socksBusy, 0);
    }
}

// ---- UseAddressFamily ----

TEST_F(DeterminationTest, HttpUseAddressFamilyWith23ReturnsTwoAndTheDeterminationsResult) {
    for (const char* use : {"1", "0"}) {
        SCOPED_TRACE(use);
        ASSERT_TRUE(WriteProxy("127.0.0.1", "3128", "u", "4", "1", use));
        int family = 23;
        dxtest::LogCapture capture;
        const int result = HTTP_UseAddressFamily("example.com", 443, &family);
        EXPECT_EQ(result, use[0] == '1' ? 1 : 0);
        EXPECT_EQ(family, AF_INET);
        const Lines lines = capture.Lines();
        ASSERT_GE(lines.size(), 8u);
        EXPECT_EQ(Lines(lines.begin(), lines.begin() + 4),
                  (Lines{Line("Begin func HTTP_UseAddressFamily"), Line("Begin host:port example.com:443"),
                         Line("Requesting address family 23"), Line("Begin func HTTP_DetermineProxyEx")}));
        EXPECT_EQ(Lines(lines.end() - 5, lines.end()),
                  (Lines{Line("End func HTTP_DetermineProxyEx"), Line("End host:port example.com:443"),
                         Line("Address family found 2"), Line(" result = " + std::to_string(result)),
                         Line("End func HTTP_UseAddressFamily")}));
    }
}

TEST_F(DeterminationTest, UseAddressFamilyLeavesTheFamilyOnADeclinedPrompt) {
    int family = 23;
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_UseAddressFamily("example.com", 80, &family), 0);
    EXPECT_EQ(family, 23);
    EXPECT_TRUE(Contains(capture.Lines(), Line("Address family found 23")));
}

// ---- The settings file read again, or its document reused ----

TEST_F(DeterminationTest, UnchangedFileIsNotParsedAgainWhileTheLogAndTheSetStayTheSame) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080"));
    int family = 2;
    dxtest::LogCapture capture;
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    const Lines first = capture.Lines();
    CPXMSettings* document = SettingsDocument;
    capture.Clear();
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(SettingsDocument, document);
    EXPECT_EQ(capture.Lines(), first);
}

TEST_F(DeterminationTest, FileRewrittenWithTheSameSizeAndANewTimeIsReadAgain) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080"));
    int family = 2;
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    ASSERT_EQ(Text(proxy), "127.0.0.1:1080");
    const FILETIME before = WrittenAt();
    const std::string size = dxtest::ReadSettingsBytes();
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1081"));
    ASSERT_EQ(dxtest::ReadSettingsBytes().size(), size.size());
    FILETIME later = before;
    later.dwLowDateTime += 10000000;  // a second on
    if (later.dwLowDateTime < before.dwLowDateTime) ++later.dwHighDateTime;
    ASSERT_TRUE(SetWrittenAt(later));
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1081");
    // The same size and the old time again: the stamp matches, so the document held is kept.
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1082"));
    ASSERT_TRUE(SetWrittenAt(later));
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1081");
}

TEST_F(DeterminationTest, FailedWriteFollowedByADeterminationGivesTheFilesMaps) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080"));
    int family = 2;
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    const FILETIME written = WrittenAt();
    // An edit in memory, whose write cannot open the file.
    auto* map = static_cast<CProxyMap*>(g_pSocksConfig->First());
    ASSERT_NE(map, nullptr);
    map->SetProxyPort("1090");
    HANDLE held = CreateFileA(dxtest::SettingsFilePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_EQ(g_pSocksConfig->WriteConfiguration(), 1);
    CloseHandle(held);
    ASSERT_EQ(WrittenAt().dwLowDateTime, written.dwLowDateTime);
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1080");
}

TEST_F(DeterminationTest, CorruptFileAfterAGoodReadKeepsTheOldMaps) {
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1080"));
    int family = 2;
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    ASSERT_TRUE(dxtest::WriteSettingsBytes(std::string(dxtest::kSettingsHead) + "<Settings><Proxies>"));
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1080");
    EXPECT_EQ(SettingsDocument, nullptr);
    // Repaired, it is read again.
    ASSERT_TRUE(WriteProxy("127.0.0.1", "1083"));
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1083");
}

// The port of the first SOCKS map in the set; "" without one.
std::string FirstSocksPort() {
    auto* map = static_cast<CProxyMap*>(g_pSocksConfig->First());
    return map != nullptr ? map->GetProxyPort() : "";
}

TEST_F(DeterminationTest, UnchangedFileRebuildsTheSetFromTheFilesMaps) {
    // The edit of the set alone, never written: the next determination's set is the file's again.
    ASSERT_NO_FATAL_FAILURE(DetermineAndEditTheSet());
    int family = 2;
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1080");
    EXPECT_EQ(FirstSocksPort(), "1080");
}

TEST_F(DeterminationTest, EditOfTheDocumentAfterAReadIsWhatTheSetReadsFromIt) {
    ASSERT_NO_FATAL_FAILURE(DetermineAndEditTheSet());
    // Into the document only; the file keeps 1080.
    ASSERT_EQ(g_pSocksConfig->WriteToXml(), 1);
    ASSERT_EQ(g_pSocksConfig->ReadFromXml(), 1);
    EXPECT_EQ(FirstSocksPort(), "1090");
    // The file, unchanged, is parsed again, and its maps apply.
    int family = 2;
    ASSERT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1080");
}

// ---- The older registry configuration ----

TEST_F(DeterminationTest, RegistryConfigurationIsMovedAtTheFirstDeterminationOnly) {
    const std::string key = "Network Protocols\\SOCKS";
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, key, "Count", 0));
    ASSERT_TRUE(dxtest::PutText(Hive::kUser, key + "\\Default Map", "Proxy Address", "127.0.0.1"));
    ASSERT_TRUE(dxtest::PutText(Hive::kUser, key + "\\Default Map", "Proxy Port", "1084"));
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, key + "\\Default Map", "Use Proxy", 1));
    CreateConfigSets();
    ASSERT_EQ(g_pSocksConfig->MigrationState, 1);
    int family = 2;
    dxtest::LogCapture capture;
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1084");
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("Writing configuration")).size(), 1u);
    EXPECT_TRUE(dxtest::SettingsFileExists());
    EXPECT_FALSE(dxtest::KeyExists(Hive::kUser, key));
    EXPECT_EQ(g_pSocksConfig->MigrationState, 0);
    capture.Clear();
    EXPECT_EQ(Socks("example.com", 80, nullptr, &family), 1);
    EXPECT_EQ(Text(proxy), "127.0.0.1:1084");
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), Line("Writing configuration")).empty());
}

TEST_F(DeterminationTest, UserKeyHoldingOnlyDetectIsARegistryConfigurationMovedAndDeletedWithIt) {
    const std::string key = "Network Protocols\\SOCKS";
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, key, "Detect", 0));
    int family = 2;
    dxtest::LogCapture capture;
    Socks("example.com", 80, nullptr, &family);
    const Lines lines = capture.Lines();
    // The shim check runs under the key first; the move follows.
    size_t check = lines.size();
    size_t move = lines.size();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (check == lines.size() && lines[i] == Line("Begin func SOCKS_DetectShims")) check = i;
        if (move == lines.size() && lines[i] == Line("Writing configuration to settings file.")) move = i;
    }
    EXPECT_LT(check, move);
    EXPECT_LT(move, lines.size());
    EXPECT_FALSE(dxtest::KeyExists(Hive::kUser, key));
    EXPECT_FALSE(dxtest::GetValue(Hive::kUser, key, "Detect").found);
    EXPECT_TRUE(dxtest::SettingsFileExists());
    // The set moved holds its default map: nothing for the prompt to ask.
    EXPECT_EQ(Recording().configCalls, 0);
}

}  // namespace
