// Non-blocking handshakes: the hidden thread runs them, and the outcome reaches the host's window as
// FD_CONNECT, or SOCKS_select waits for it.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "bench.h"
#include "host_window.h"
#include "log_capture.h"
#include "socks_api.h"

namespace {

using dxtest::FakeScript;
using dxtest::HostWindow;

const char kGranted4[] = "005a000000000000";
const char kGranted5[] = "05000001000000000000";

class NonBlockingTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
        s = dxtest::MakeTcpSocket();
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
        echo = dxtest::BenchPort("ECHO_PORT");
        dxtest::FakeReset();
    }
    void TearDown() override {
        dxtest::Retire(s);
        SOCKS_Cleanup();
    }
    void SelectHost(long events) {
        ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), HostWindow::kSocketMessage, events), 0);
    }
    bool AwaitConnect(dxtest::PostedMessage* connected) { return host.AwaitEvent(s, FD_CONNECT, connected, 8000); }
    std::string ReceiveWhenReadable(size_t count) { return host.ReceiveWhenReadable(s, count); }

    HostWindow host;
    SOCKET s = INVALID_SOCKET;
    sockaddr_in fake = {};
    uint16_t echo = 0;
};

TEST_F(NonBlockingTest, Socks4GrantArrivesAsFdConnectAndTheHostGetsItsEvents) {
    FakeScript(std::string("read=9 send=") + kGranted4 + " echo");
    SelectHost(FD_CONNECT | FD_READ | FD_CLOSE);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    // 0, not -1 with 10035; the WinSock error is left as the pending connect set it.
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(&connected));
    EXPECT_EQ(connected.Error(), 0u);
    ASSERT_TRUE(dxtest::SendAll(s, "ping"));
    EXPECT_TRUE(host.AwaitEvent(s, FD_READ, nullptr, 5000));
    EXPECT_EQ(ReceiveWhenReadable(4), "ping");
}

TEST_F(NonBlockingTest, Socks4RefusalArrivesAsFdConnectWith10061) {
    FakeScript("read=9 send=005b000000000000 drain=3000");
    SelectHost(FD_CONNECT);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(&connected));
    EXPECT_EQ(connected.Error(), 10061u);
    // The first error posted is the one the host sees; nothing else follows.
    host.PumpFor(300);
    EXPECT_EQ(host.SocketMessages(s).size(), 1u);
}

TEST_F(NonBlockingTest, Socks5ThroughDantedCarriesData) {
    SelectHost(FD_CONNECT | FD_READ);
    sockaddr_in dante = dxtest::Loopback(dxtest::BenchPort("DANTE_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &dante, sizeof dante, "", 5), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(&connected));
    EXPECT_EQ(connected.Error(), 0u);
    ASSERT_TRUE(dxtest::SendAll(s, "nonblocking five"));
    EXPECT_EQ(ReceiveWhenReadable(16), "nonblocking five");
}

TEST_F(NonBlockingTest, Socks5RefusalArrivesAsFdConnectWith10061) {
    FakeScript("read=3 send=05ff drain=3000");
    SelectHost(FD_CONNECT);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 5), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(&connected));
    EXPECT_EQ(connected.Error(), 10061u);
}

TEST_F(NonBlockingTest, MethodReplyThatDoesNotBeginWithFiveIsDroppedAndTheHandshakeWaitsOn) {
    FakeScript(std::string("read=3 send=0400 sleep=500 send=0500 read=10 send=") + kGranted5 + " drain=3000");
    SelectHost(FD_CONNECT);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 5), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(&connected));
    EXPECT_EQ(connected.Error(), 0u);
}

TEST_F(NonBlockingTest, Socks5ConnectReplyInTwoPiecesLeavesItsTailForTheHost) {
    // The peek sees 3 bytes with status 0; the read of 10 gives up after its retries and the step
    // succeeds, so the other 7 bytes reach the host as its first data.
    FakeScript("read=3 send=0500 read=10 send=050000 sleep=1800 send=01020304050607 drain=3000");
    SelectHost(FD_CONNECT | FD_READ);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 5), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(&connected));
    EXPECT_EQ(connected.Error(), 0u);
    EXPECT_EQ(ReceiveWhenReadable(7), dxtest::Unhex("01020304050607"));
}

TEST_F(NonBlockingTest, SelectionOfFdConnectAlonePostsTheOutcomeAndSelectsNothingMore) {
    FakeScript(std::string("read=9 send=") + kGranted4 + " sleep=300 send=6c617465 drain=3000");
    SelectHost(FD_CONNECT);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(&connected));
    host.PumpFor(800);  // the proxy's late bytes raise no event for the host
    EXPECT_EQ(host.SocketMessages(s).size(), 1u);
    auto posted = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: CSocksSocket::ConnectFinished - PostMessage(");
    ASSERT_EQ(posted.size(), 1u);
    // wsprintf's %p prints 16 upper-case hex digits without a prefix.
    char window[32];
    std::snprintf(window, sizeof window, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(host.Handle())));
    char expected[128];
    std::snprintf(expected, sizeof expected, "DXSOCKS: CSocksSocket::ConnectFinished - PostMessage(%s,%x,%x,%x)",
                  window, HostWindow::kSocketMessage, static_cast<unsigned>(s), 16u);
    EXPECT_EQ(posted[0], expected);
}

TEST_F(NonBlockingTest, SelectionWithoutFdConnectPostsNothingAndHandsOnAWrappedMask) {
    // The object exists already, so the host's selection is stored although it lacks FD_CONNECT.
    FakeScript(std::string("read=9 send=") + kGranted4 + " sleep=300 send=6c617465 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    SelectHost(FD_READ);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    // FD_READ - FD_CONNECT wraps to a mask that still holds FD_READ: the late bytes reach the host.
    EXPECT_TRUE(host.AwaitEvent(s, FD_READ, nullptr, 5000));
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: CSocksSocket::ConnectFinished - PostMessage(").empty());
    EXPECT_EQ(ReceiveWhenReadable(4), "late");
}

TEST_F(NonBlockingTest, FionbioAloneLeavesTheOutcomeToSelect) {
    FakeScript(std::string("read=9 send=") + kGranted4 + " echo");
    u_long on = 1;
    ASSERT_EQ(SOCKS_ioctlsocket(s, FIONBIO, &on), 0);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    // Select waits on this thread's pump while the hidden thread finishes the handshake. The real
    // select needs a socket of its own, as the managed one is held back from it.
    SOCKET plain = socket(AF_INET, SOCK_DGRAM, 0);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(plain, &readable);
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(s, &writable);
    timeval none = {0, 0};
    EXPECT_EQ(SOCKS_select(0, &readable, &writable, nullptr, &none), 1);
    EXPECT_TRUE(FD_ISSET(s, &writable));
    closesocket(plain);
    EXPECT_TRUE(host.SocketMessages(s).empty());
    ASSERT_TRUE(dxtest::SendAll(s, "selected"));
    EXPECT_EQ(ReceiveWhenReadable(8), "selected");
}

TEST_F(NonBlockingTest, FailedTcpConnectToTheProxyTellsTheHostNothing) {
    SelectHost(FD_CONNECT);
    sockaddr_in closed = dxtest::Loopback(1);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &closed, sizeof closed, "", 4), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    host.PumpFor(1500);
    EXPECT_TRUE(host.SocketMessages(s).empty());
    // The hidden window saw the failed FD_CONNECT and left it alone.
    auto events = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: socksHiddenOnSocketEvent(socket:");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], "DXSOCKS: socksHiddenOnSocketEvent(socket:" + std::to_string(static_cast<int>(s)) +
                             ",error:10061,FD event:10)");
}

}  // namespace
