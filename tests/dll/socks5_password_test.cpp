// SOCKS 5 username/password with the host's password callback.
#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <string>
#include <vector>

#include "answering_passwords.h"
#include "bench.h"
#include "fake_proxy_test.h"
#include "host_window.h"
#include "log_capture.h"
#include "socks_api.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

std::string Hex(const std::string& bytes) { return dxtest::Hex(bytes); }

class Socks5PasswordTest : public dxtest::FakeProxyTest {
protected:
    int ConnectThrough(const sockaddr_in& proxy, const char* user, uint16_t port) {
        EXPECT_EQ(SOCKS_SetProxyEx(s, &proxy, sizeof proxy, user, 5), 0);
        return SOCKS_ConnectEx(s, "127.0.0.1", port, nullptr, AF_INET);
    }

    dxtest::AnsweringPasswords answer{SOCKS_SetPasswordCallback};
};

TEST_F(Socks5PasswordTest, PasswordFromTheCallbackGoesOutAfterTheUserName) {
    answer.password = L"secret";
    int id = FakeScript("read=4 send=0502 read=14 send=0100 read=10 send=05000001000000000000 drain=3000");
    dxtest::LogCapture capture;
    EXPECT_EQ(ConnectThrough(fake, "alice", 80), 0);
    EXPECT_EQ(answer.calls, 1);
    EXPECT_EQ(answer.size, 260);
    EXPECT_EQ(answer.user, L"alice");
    EXPECT_EQ(answer.proxy, L"127.0.0.1");
    EXPECT_EQ(answer.thread, GetCurrentThreadId());  // a blocking handshake runs on the caller's thread
    CloseNow();
    std::string expected = dxtest::Unhex("05020200") + std::string("\x01\x05" "alice" "\x06" "secret", 14) +
                           dxtest::Unhex("050100017f0000010050");
    EXPECT_EQ(Hex(FakeReceived(id).bytes), Hex(expected));
    auto lines = capture.Lines();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "DXSOCKS: CSocksSocket::OnMethodRecv - Send Password."),
              lines.end());
}

TEST_F(Socks5PasswordTest, CallbackThatDeclinesIsACancelledPrompt) {
    answer.password = L"unused";
    answer.result = 0;
    int id = FakeScript("read=4 send=0502 drain=3000");
    EXPECT_EQ(ConnectThrough(fake, "alice", 80), -1);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 1);
    EXPECT_EQ(SOCKS_GetConnectError(s), 0u);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, dxtest::Unhex("05020200"));
}

TEST_F(Socks5PasswordTest, EmptyPasswordTheCallbackAcceptsGoesOutWithLengthZero) {
    answer.password = L"";
    int id = FakeScript("read=4 send=0502 read=5 send=0100 read=10 send=05000001000000000000 drain=3000");
    EXPECT_EQ(ConnectThrough(fake, "bob", 80), 0);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes.substr(4, 6), std::string("\x01\x03" "bob" "\x00", 6));
}

TEST_F(Socks5PasswordTest, RefusedPasswordEndsInARefusal) {
    answer.password = L"wrong";
    FakeScript("read=4 send=0502 read=13 send=0101 drain=3000");
    dxtest::LogCapture capture;
    EXPECT_EQ(ConnectThrough(fake, "alice", 80), -1);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 0);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: WinSock Error = "),
              std::vector<std::string>{"DXSOCKS: WinSock Error = -1"});
}

TEST_F(Socks5PasswordTest, ProxyThatClosesInsteadOfThePasswordStatusCountsAsSuccess) {
    // Nothing seen and no error: the status byte left at 0 by the method state decides.
    answer.password = L"pw";
    FakeScript("read=4 send=0502 read=10 close");
    EXPECT_EQ(ConnectThrough(fake, "alice", 80), 0);
}

TEST_F(Socks5PasswordTest, MicrosocksAcceptsTheRightPasswordAndCarriesData) {
    std::string user = "dxuser";
    std::string pass = "dxpass";
    answer.password.assign(pass.begin(), pass.end());
    sockaddr_in micro = dxtest::Loopback(dxtest::BenchPort("MICROSOCKS_AUTH_PORT"));
    ASSERT_EQ(ConnectThrough(micro, user.c_str(), dxtest::BenchPort("ECHO_PORT")), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "authenticated"));
    EXPECT_EQ(dxtest::Receive(s, 13), "authenticated");
}

TEST_F(Socks5PasswordTest, MicrosocksRefusesAWrongPassword) {
    answer.password = L"not-the-password";
    sockaddr_in micro = dxtest::Loopback(dxtest::BenchPort("MICROSOCKS_AUTH_PORT"));
    EXPECT_EQ(ConnectThrough(micro, "dxuser", dxtest::BenchPort("ECHO_PORT")), -1);
    EXPECT_EQ(answer.calls, 1);
}

TEST_F(Socks5PasswordTest, NonBlockingHandshakeAsksOnTheHiddenThread) {
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    dxtest::HostWindow host;
    answer.password = L"dxpass";
    sockaddr_in micro = dxtest::Loopback(dxtest::BenchPort("MICROSOCKS_AUTH_PORT"));
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
    EXPECT_EQ(ConnectThrough(micro, "dxuser", dxtest::BenchPort("ECHO_PORT")), 0);
    EXPECT_TRUE(host.PumpUntil([&] { return !host.SocketMessages(s).empty(); }, 8000));
    ASSERT_EQ(host.SocketMessages(s).size(), 1u);
    EXPECT_EQ(host.SocketMessages(s)[0].Event(), static_cast<unsigned>(FD_CONNECT));
    EXPECT_EQ(host.SocketMessages(s)[0].Error(), 0u);
    EXPECT_EQ(answer.calls, 1);
    EXPECT_NE(answer.thread, GetCurrentThreadId());
    SOCKS_Cleanup();
}

TEST_F(Socks5PasswordTest, NonBlockingDeclinePostsTheCancelledCode) {
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    dxtest::HostWindow host;
    answer.result = 0;
    FakeScript("read=4 send=0502 drain=3000");
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
    EXPECT_EQ(ConnectThrough(fake, "alice", 80), 0);
    EXPECT_TRUE(host.PumpUntil([&] { return !host.SocketMessages(s).empty(); }, 8000));
    host.PumpFor(300);
    // The refusal of the failure tail that follows finds nothing left to post.
    ASSERT_EQ(host.SocketMessages(s).size(), 1u);
    EXPECT_EQ(host.SocketMessages(s)[0].Error(), 65534u);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 1);
    SOCKS_Cleanup();
}

}  // namespace
