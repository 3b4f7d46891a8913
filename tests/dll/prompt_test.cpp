// The UI library's real password prompt, as a host without a password callback meets it: driven
// from a second thread as a user would, in blocking and non-blocking handshakes, and closed by the
// host's time-out from another thread.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "bench.h"
#include "fake_proxy_test.h"
#include "families.h"
#include "host_window.h"
#include "http_api.h"
#include "prompt_window.h"
#include "setui_ids.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

using dxtest::ItemText;

HWND FindPrompt(const char* title) { return dxtest::FindPrompt(0, title); }

// What the user saw and did.
struct Seen {
    bool found = false;
    std::string user;
    std::string address;
    HWND owner = nullptr;
    DWORD thread = 0;
};

enum class Answer { kOk, kCancel, kHostTimesOut };

// A user at the prompt, on a thread of its own. For kHostTimesOut the host's time-out closes it.
class User {
public:
    User(const char* title, const std::string& typed, Answer answer, void (*connectTimeout)(SOCKET) = nullptr,
         SOCKET s = INVALID_SOCKET)
        : worker_([=] {
              HWND dialog = FindPrompt(title);
              if (dialog == nullptr) return;
              seen_.found = true;
              seen_.user = ItemText(dialog, SETUI_IDC_USER);
              seen_.address = ItemText(dialog, SETUI_IDC_ADDRESS);
              seen_.owner = GetWindow(dialog, GW_OWNER);
              seen_.thread = GetWindowThreadProcessId(dialog, nullptr);
              dxtest::Type(dialog, typed);
              switch (answer) {
                  case Answer::kOk: dxtest::Press(dialog, IDOK); break;
                  case Answer::kCancel: dxtest::Press(dialog, IDCANCEL); break;
                  case Answer::kHostTimesOut: connectTimeout(s); break;
              }
          }) {}
    ~User() { Finish(); }
    const Seen& Finish() {
        if (worker_.joinable()) worker_.join();
        return seen_;
    }

private:
    Seen seen_;
    std::thread worker_;
};

class PromptTest : public dxtest::FakeProxyTest {
protected:
    void SetUp() override {
        dxtest::FakeProxyTest::SetUp();
        SOCKS_SetPasswordCallback(nullptr, nullptr);
        HTTP_SetPasswordCallback(nullptr, nullptr);
    }
    void Socks5To(const sockaddr_in& proxy, const char* user) {
        ASSERT_EQ(SOCKS_SetProxyEx(s, &proxy, sizeof proxy, user, 5), 0);
    }
};

TEST_F(PromptTest, BlockingSocksPromptSendsWhatTheUserTyped) {
    int id = FakeScript("read=4 send=0502 read=14 send=0100 read=10 send=05000001000000000000 drain=3000");
    Socks5To(fake, "alice");
    HWND top = CreateWindowExA(0, "STATIC", "host", WS_POPUP | WS_VISIBLE, 0, 0, 300, 200, nullptr, nullptr, nullptr,
                               nullptr);
    HWND child = CreateWindowExA(0, "STATIC", "", WS_CHILD, 0, 0, 10, 10, top, nullptr, nullptr, nullptr);
    User user(SETUI_TITLE_SOCKS, "hunter", Answer::kOk);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, child, AF_INET), 0);
    const Seen& seen = user.Finish();
    ASSERT_TRUE(seen.found);
    EXPECT_EQ(seen.user, "alice");
    EXPECT_EQ(seen.address, "127.0.0.1");
    EXPECT_EQ(seen.owner, top);  // the top of the socket's parent window
    EXPECT_EQ(seen.thread, GetCurrentThreadId());
    CloseNow();
    std::string request = FakeReceived(id).bytes;
    EXPECT_EQ(dxtest::Hex(request.substr(4, 14)), dxtest::Hex(std::string("\x01\x05" "alice" "\x06" "hunter", 14)));
    DestroyWindow(top);
}

TEST_F(PromptTest, BlockingSocksPromptCancelledIsACancelledConnect) {
    int id = FakeScript("read=4 send=0502 drain=3000");
    Socks5To(fake, "alice");
    User user(SETUI_TITLE_SOCKS, "never sent", Answer::kCancel);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    ASSERT_TRUE(user.Finish().found);
    EXPECT_EQ(user.Finish().owner, nullptr);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 1);
    EXPECT_EQ(SOCKS_GetConnectError(s), 0u);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes.size(), 4u);  // nothing behind the method selection
}

TEST_F(PromptTest, BlockingSocksTimeOutFromAnotherThreadEndsWith1460) {
    FakeScript("read=4 send=0502 drain=3000");
    Socks5To(fake, "alice");
    User user(SETUI_TITLE_SOCKS, "", Answer::kHostTimesOut, SOCKS_ConnectTimeout, s);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    ASSERT_TRUE(user.Finish().found);
    EXPECT_EQ(SOCKS_GetConnectError(s), 1460u);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 0);
}

TEST_F(PromptTest, NonBlockingSocksPromptRunsOnTheHiddenThreadAndMicrosocksTakesThePassword) {
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    dxtest::HostWindow host;
    dxtest::MakeNonBlocking(s);
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
    Socks5To(dxtest::Loopback(dxtest::BenchPort("MICROSOCKS_AUTH_PORT")), "dxuser");
    User user(SETUI_TITLE_SOCKS, "dxpass", Answer::kOk);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", dxtest::BenchPort("ECHO_PORT"), nullptr, AF_INET), 0);
    dxtest::PostedMessage message;
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &message, 10000));
    EXPECT_EQ(message.Error(), 0u);
    const Seen& seen = user.Finish();
    EXPECT_EQ(seen.user, "dxuser");
    EXPECT_NE(seen.thread, GetCurrentThreadId());
    ASSERT_TRUE(dxtest::SendAll(s, "through"));
    EXPECT_EQ(host.ReceiveWhenReadable(s, 7), "through");
    EXPECT_EQ(SOCKS_Cleanup(), 1);
}

TEST_F(PromptTest, NonBlockingTimeOutPostsTheFamilysCodeAndKeeps1460) {
    const dxtest::Family& socks = dxtest::kSocksFamily;
    const dxtest::Family& http = dxtest::kHttpFamily;
    struct Case {
        const dxtest::Family& family;
        const char* title;
        const char* script;
        unsigned proxyArgument;  // SOCKS 5, or HTTP with authentication
        unsigned posted;         // the error word of FD_CONNECT
    };
    const Case cases[] = {
        {socks, SETUI_TITLE_SOCKS, "read=4 send=0502 drain=5000", 5, 1460},
        // The step's -1 goes out as the error word; the field holds the time-out.
        {http, SETUI_TITLE_HTTP, "readhttp drain=5000", 1, 0xFFFF},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.family.name);
        const dxtest::Family& f = c.family;
        ASSERT_EQ(f.startup(nullptr, 0), 1);
        dxtest::HostWindow host;
        SOCKET r = dxtest::MakeTcpSocket();
        FakeScript(c.script);
        dxtest::MakeNonBlocking(r);
        ASSERT_EQ(f.asyncSelect(r, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
        ASSERT_EQ(f.setProxy(r, &fake, sizeof fake, "alice", c.proxyArgument), 0);
        User user(c.title, "", Answer::kHostTimesOut, f.connectTimeout, r);
        EXPECT_EQ(f.connectEx(r, "127.0.0.1", 4321, nullptr, AF_INET), 0);
        dxtest::PostedMessage message;
        ASSERT_TRUE(host.AwaitEvent(r, FD_CONNECT, &message, 10000));
        EXPECT_EQ(message.Error(), c.posted);
        ASSERT_TRUE(user.Finish().found);
        EXPECT_EQ(f.getConnectError(r), 1460u);
        EXPECT_EQ(f.connectCanceled(r), 0);
        EXPECT_EQ(f.cleanup(), 1);
        f.cleanupSocket(r);
        dxtest::Retire(r);
    }
}

TEST_F(PromptTest, BlockingHttpPromptGivesSquidItsPassword) {
    sockaddr_in squid = dxtest::Loopback(dxtest::BenchPort("SQUID_AUTH_PORT"));
    ASSERT_EQ(HTTP_SetProxy(s, &squid, sizeof squid, "dxuser", 1), 0);
    User user(SETUI_TITLE_HTTP, "dxpass", Answer::kOk);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", dxtest::BenchPort("ECHO_PORT"), nullptr, AF_INET), 0);
    EXPECT_EQ(user.Finish().user, "dxuser");
    ASSERT_TRUE(dxtest::SendAll(s, "tunnel"));
    EXPECT_EQ(dxtest::Receive(s, 6), "tunnel");
}

TEST_F(PromptTest, BlockingHttpPromptWithAnEmptyPasswordIsDeclined) {
    int id = FakeScript("readhttp close");
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "alice", 1), 0);
    User user(SETUI_TITLE_HTTP, "", Answer::kOk);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 65534);
    ASSERT_TRUE(user.Finish().found);
    EXPECT_EQ(HTTP_ConnectCanceled(s), 1);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, "");
}

}  // namespace

// Runs in a process of its own (see tests/CMakeLists.txt), since a family's clean-up may end the
// hidden thread in the middle of the prompt. Our prompt is a modal dialog: the clean-up's close of
// the hidden window ends its loop, the prompt counts as cancelled, and the thread ends in time.
class PromptCleanupTest : public ::testing::TestWithParam<bool> {
protected:
    bool Http() const { return GetParam(); }
};

TEST_P(PromptCleanupTest, CleanupDuringThePromptCancelsItAndEndsTheThread) {
    ASSERT_EQ(Http() ? HTTP_Startup(nullptr, 0) : SOCKS_Startup(nullptr, 0), 1);
    dxtest::HostWindow host;
    SOCKET s = dxtest::MakeTcpSocket();
    dxtest::FakeReset();
    sockaddr_in fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
    if (Http()) {
        FakeScript("readhttp drain=5000");
        ASSERT_EQ(HTTP_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
        ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "alice", 1), 0);
        EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    } else {
        FakeScript("read=4 send=0502 drain=5000");
        ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
        ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "alice", 5), 0);
        EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    }
    HWND prompt = FindPrompt(Http() ? SETUI_TITLE_HTTP : SETUI_TITLE_SOCKS);
    ASSERT_NE(prompt, nullptr);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(Http() ? HTTP_Cleanup() : SOCKS_Cleanup(), 1);
    EXPECT_LT(GetTickCount64() - start, 3000u);
    dxtest::PostedMessage message;
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &message, 3000));
    EXPECT_EQ(message.Error(), 65534u);
    EXPECT_FALSE(IsWindow(prompt));
    EXPECT_EQ(Http() ? HTTP_ConnectCanceled(s) : SOCKS_ConnectCanceled(s), 1);
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, PromptCleanupTest, ::testing::Bool());
