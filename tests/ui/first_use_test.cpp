// The first use as a user meets it: a host determines with nothing configured, our pxmSetUI.dll beside
// the library raises its prompt, Configure opens the SOCKS editor, the user gives danted's address and
// port in the map dialog, and the determination goes on to a connection. Cancel, and a host's time-out
// while the editor is open, fail it with 1223 and leave the file as it was.
#include <gtest/gtest.h>

#include <string>

#include "bench.h"
#include "copied_program.h"
#include "dialog_driver.h"
#include "dxsocks_ids.h"
#include "prompt_window.h"
#include "settings_files.h"
#include "setui_ids.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::Click;
using dxtest::DriveDialog;
using dxtest::MainDialog;
using dxtest::MapDialog;
using dxtest::Press;
using dxtest::SetText;

// Each case in a fresh process: a process keeps the maps it once read while the file is gone.
class FirstUseTest : public ::testing::Test {
protected:
    // An editor's atom outlives a process that died with the editor open.
    void SetUp() override { Clean(); }
    void TearDown() override { Clean(); }
    static void Clean() {
        dxtest::ClearSettingsStore();
        dxtest::DeleteAtoms();
    }
    static void Run(const std::string& child) { dxtest::ExpectFreshCasePasses("FirstUseChild.DISABLED_" + child, 90000); }
};

TEST_F(FirstUseTest, ConfiguringDantedInTheEditorLetsTheDeterminationGoOnToAConnection) { Run("Configure"); }
TEST_F(FirstUseTest, CancelAtThePromptGivesZeroAnd1223) { Run("Cancel"); }
TEST_F(FirstUseTest, AHostTimeOutWithTheEditorOpenGives1223AndLeavesTheFileAsItWas) { Run("TimeOut"); }

class FirstUseChild : public ::testing::Test {
protected:

    // SOCKS_DetermineProxyEx for the echo server, as a host asks before connecting; `error` keeps the
    // WinSock error it left.
    int Determine() {
        int result = DetermineOnce();
        error = WSAGetLastError();
        return result;
    }
    int DetermineOnce() {
        proxy = {};
        char user[512] = {};
        unsigned version = 0;
        int family = AF_INET;
        return SOCKS_DetermineProxyEx("127.0.0.1", dxtest::BenchPort("ECHO_PORT"), &proxy, sizeof proxy, user,
                                      sizeof user, &version, &family);
    }

    // The first-use prompt of `thread`, found by its title, which is set last.
    static HWND Prompt(DWORD thread) {
        return dxtest::FindPrompt(thread, SETUI_TITLE_CONFIG_SOCKS, dxtest::kDialogWaitMs);
    }

    // Configure, the full view, Edit on the one map: the map dialog, with the main dialog behind it.
    static HWND OpenMapDialog(DWORD thread, HWND* main) {
        HWND prompt = Prompt(thread);
        if (prompt == nullptr) return nullptr;
        Press(prompt, SETUI_IDC_CONFIGURE);
        *main = MainDialog(thread);
        if (*main == nullptr) return nullptr;
        Click(*main, IDC_VIEW_SWITCH);
        dxtest::SelectRow(*main, 0);
        Press(*main, IDC_EDIT);
        return MapDialog(thread);
    }

    sockaddr_in proxy = {};
    int error = 0;
};

TEST_F(FirstUseChild, DISABLED_Configure) {
    const uint16_t dante = dxtest::BenchPort("DANTE_PORT");
    bool mapDialogSeen = false;
    intptr_t result = DriveDialog([&] { return static_cast<intptr_t>(Determine()); },
                                  [&](DWORD thread) {
                                      HWND main = nullptr;
                                      HWND map = OpenMapDialog(thread, &main);
                                      if (map == nullptr) return;
                                      mapDialogSeen = true;
                                      if (dxtest::Checked(map, IDC_DIRECT)) Click(map, IDC_DIRECT);
                                      SetText(map, IDC_PROXY_ADDRESS, "127.0.0.1");
                                      SetText(map, IDC_PROXY_PORT, std::to_string(dante));
                                      Press(map, IDOK);
                                      if (!dxtest::Closes(map)) return;
                                      Press(main, IDOK);
                                      dxtest::Closes(main);
                                  });
    ASSERT_TRUE(mapDialogSeen);
    ASSERT_EQ(result, 1) << "error " << error;
    EXPECT_EQ(proxy.sin_family, AF_INET);
    EXPECT_EQ(proxy.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(proxy.sin_port), dante);
    EXPECT_TRUE(dxtest::SettingsFileExists());

    // Configured now: the next connection goes through danted without a prompt.
    SOCKET s = dxtest::MakeTcpSocket();
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", dxtest::BenchPort("ECHO_PORT"), nullptr, AF_INET), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "first use"));
    EXPECT_EQ(dxtest::Receive(s, 9), "first use");
    dxtest::Retire(s);
}

TEST_F(FirstUseChild, DISABLED_Cancel) {
    bool promptSeen = false;
    WSASetLastError(0);
    intptr_t result = DriveDialog([&] { return static_cast<intptr_t>(Determine()); },
                                  [&](DWORD thread) {
                                      HWND prompt = Prompt(thread);
                                      if (prompt == nullptr) return;
                                      promptSeen = true;
                                      Press(prompt, IDCANCEL);
                                      dxtest::Closes(prompt);
                                  });
    ASSERT_TRUE(promptSeen);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(error, 1223);
    EXPECT_FALSE(dxtest::SettingsFileExists());
}

TEST_F(FirstUseChild, DISABLED_TimeOut) {
    // A file that parses, with HTTP maps only: the SOCKS set is empty.
    const std::string before =
        dxtest::kSettingsHead +
        dxtest::SettingsElement(dxtest::ProxyElement(
            "HTTP", "0", dxtest::FullMap("Default", "", "", "", "", "", "4", "0", "0")));
    ASSERT_TRUE(dxtest::WriteSettingsBytes(before));
    const std::string written = dxtest::ReadSettingsBytes();
    bool editing = false;
    bool editorClosed = false;
    WSASetLastError(0);
    intptr_t result = DriveDialog([&] { return static_cast<intptr_t>(Determine()); },
                                  [&](DWORD thread) {
                                      HWND main = nullptr;
                                      HWND map = OpenMapDialog(thread, &main);
                                      if (map == nullptr) return;
                                      SetText(map, IDC_PROXY_ADDRESS, "192.0.2.1");
                                      editing = true;
                                      SOCKS_ConnectTimeout(INVALID_SOCKET);
                                      editorClosed = dxtest::Closes(map) && dxtest::Closes(main);
                                  });
    ASSERT_TRUE(editing);
    EXPECT_TRUE(editorClosed);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(error, 1223);
    EXPECT_EQ(dxtest::ReadSettingsBytes(), written);
}

}  // namespace
