// SOCKS_Startup and SOCKS_Cleanup as a host sees them: the dispatch table, the count, the hidden window.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "socks_api.h"

namespace {

const char kHiddenClass[] = "ZELMONT_SOCKS_HIDDEN_WINDOW";

bool HiddenWindowExists() { return FindWindowA(kHiddenClass, nullptr) != nullptr; }

using AnyFunction = void (*)();

// The table's slots in order, with the export each stands for.
struct Slot {
    const char* name;
    int ordinal;
};
const Slot kTable[33] = {
    {"SOCKS_accept", 1},          {"SOCKS_bind", 2},
    {"SOCKS_closesocket", 3},     {"SOCKS_connect", 4},
    {"SOCKS_getsockname", 6},     {"SOCKS_ioctlsocket", 12},
    {"SOCKS_listen", 13},         {"SOCKS_select", 18},
    {"SOCKS_WSAAsyncSelect", 101}, {"SOCKS_Cleanup", 201},
    {"SOCKS_LogString", 202},     {"SOCKS_ConfigurationDialog", 203},
    {"SOCKS_SetProxy", 204},      {"SOCKS_DetermineProxy", 205},
    {"SOCKS_DetectShims", 206},   {"SOCKS_GetVersionInfo", 207},
    {"SOCKS_SetProtocolVersion", 208}, {"SOCKS_SetLoggingCallback", 209},
    {"SOCKS_SetPasswordCallback", 211}, {"SOCKS_SetLoggingCallbackEx", 210},
    {"SOCKS_ConnectEx", 212},     {"SOCKS_BindEx", 213},
    {"SOCKS_ConnectCanceled", 214}, {"SOCKS_GetConnectError", 215},
    {"SOCKS_DetermineProxyEx", 216}, {"SOCKS_UseAddressFamily", 217},
    {"SOCKS_SetXMLConfig", 218},  {"SOCKS_GetXMLConfig", 219},
    {"SOCKS_ShowXMLConfigDlg", 220}, {"SOCKS_CleanupSocket", 221},
    {"SOCKS_SetProxyEx", 222},    {"SOCKS_ConnectTimeout", 223},
    {"SOCKS_SetParentHWND", 224},
};

class LifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(HiddenWindowExists()) << "a test left the family started"; }
    HMODULE Library() { return GetModuleHandleA("DXSOCKS.DLL"); }
};

TEST_F(LifecycleTest, EverySlotIsTheExportAtItsOrdinalAndTheMissingOnesAreNull) {
    AnyFunction table[33];
    std::memset(table, 0xab, sizeof table);
    ASSERT_EQ(SOCKS_Startup(table, sizeof table), 1);
    std::vector<std::string> missing;
    for (int i = 0; i < 33; ++i) {
        FARPROC byOrdinal = GetProcAddress(Library(), MAKEINTRESOURCEA(kTable[i].ordinal));
        FARPROC byName = GetProcAddress(Library(), kTable[i].name);
        EXPECT_EQ(byOrdinal, byName) << kTable[i].name;
        EXPECT_EQ(reinterpret_cast<void*>(table[i]), reinterpret_cast<void*>(byOrdinal)) << kTable[i].name;
        if (table[i] == nullptr) missing.push_back(kTable[i].name);
    }
    // Exports of the configuration, determination, shim and XML calls come later.
    std::vector<std::string> expected = {
        "SOCKS_ConfigurationDialog", "SOCKS_DetermineProxy", "SOCKS_DetectShims",      "SOCKS_DetermineProxyEx",
        "SOCKS_UseAddressFamily",    "SOCKS_SetXMLConfig",   "SOCKS_GetXMLConfig",     "SOCKS_ShowXMLConfigDlg",
    };
    EXPECT_EQ(missing, expected);
    EXPECT_EQ(SOCKS_Cleanup(), 1);
}

TEST_F(LifecycleTest, TheCopyIsTheSmallerOfTheSizeAndTheTable) {
    struct Case {
        int size;
        size_t copied;
    };
    const Case cases[] = {{16, 16}, {1000, 264}, {-1, 264}, {-1000, 264}, {0, 0}, {3, 3}};
    for (const Case& c : cases) {
        unsigned char buffer[1000];
        std::memset(buffer, 0xab, sizeof buffer);
        ASSERT_EQ(SOCKS_Startup(buffer, c.size), 1);
        for (size_t i = c.copied; i < sizeof buffer; ++i) ASSERT_EQ(buffer[i], 0xab) << c.size << " at " << i;
        if (c.copied >= 16) {
            AnyFunction first;
            std::memcpy(&first, buffer, sizeof first);
            EXPECT_EQ(reinterpret_cast<void*>(first), reinterpret_cast<void*>(GetProcAddress(Library(), "SOCKS_accept")));
        }
        EXPECT_EQ(SOCKS_Cleanup(), 1);
    }
}

TEST_F(LifecycleTest, NullTableStartsAsUsual) {
    ASSERT_EQ(SOCKS_Startup(nullptr, 264), 1);
    EXPECT_TRUE(HiddenWindowExists());
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    EXPECT_FALSE(HiddenWindowExists());
}

TEST_F(LifecycleTest, TwoStartupsNeedTwoCleanups) {
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    HWND window = FindWindowA(kHiddenClass, nullptr);
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    EXPECT_TRUE(IsWindow(window));
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    EXPECT_FALSE(IsWindow(window));
}

TEST_F(LifecycleTest, AStartupAfterACleanupMakesANewThreadAndWindow) {
    dxtest::LogCapture capture;
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    EXPECT_TRUE(HiddenWindowExists());
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    std::vector<std::string> expected = {
        "DXSOCKS: Begin func SOCKS_Startup", "DXSOCKS: Creating hidden window.", "DXSOCKS: End func SOCKS_Startup",
        "DXSOCKS: Begin func SOCKS_Cleanup", "DXSOCKS: End func SOCKS_Cleanup",
        "DXSOCKS: Begin func SOCKS_Startup", "DXSOCKS: Creating hidden window.", "DXSOCKS: End func SOCKS_Startup",
        "DXSOCKS: Begin func SOCKS_Cleanup", "DXSOCKS: End func SOCKS_Cleanup",
    };
    EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(LifecycleTest, CleanupWithoutStartupLeavesTheNextStartupWithoutAWindow) {
    EXPECT_EQ(SOCKS_Cleanup(), 1);  // the count goes to -1
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);  // back to 0, and no thread
    EXPECT_FALSE(HiddenWindowExists());
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);  // 0 again: this one starts the thread
    EXPECT_TRUE(HiddenWindowExists());
    EXPECT_EQ(SOCKS_Cleanup(), 1);
    EXPECT_FALSE(HiddenWindowExists());
}

TEST_F(LifecycleTest, SetProtocolVersionIsMinusOneAndLogsNothing) {
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_SetProtocolVersion(INVALID_SOCKET, 5), -1);
    EXPECT_EQ(SOCKS_SetProtocolVersion(42, 4), -1);
    EXPECT_TRUE(capture.Lines().empty());
}

}  // namespace
