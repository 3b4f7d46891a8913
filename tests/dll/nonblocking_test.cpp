// Non-blocking handshakes: the hidden thread runs them, and the outcome reaches the host's window as
// FD_CONNECT, or SOCKS_select waits for it.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench.h"
#include "declining_passwords.h"
#include "fake_proxy_test.h"
#include "families.h"
#include "host_window.h"
#include "http_api.h"
#include "log_capture.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::Family;
using dxtest::FakeReceived;
using dxtest::FakeScript;
using dxtest::HostWindow;
using dxtest::Line;

const char kGranted4[] = "005a000000000000";
const char kGranted5[] = "05000001000000000000";

// The family started for each test, and a host window that hears the outcomes.
class NonBlockingFixture : public dxtest::FakeProxyTest {
protected:
    explicit NonBlockingFixture(const Family& family) : family_(family) {}
    void SetUp() override {
        ASSERT_EQ(F().startup(nullptr, 0), 1);
        dxtest::FakeProxyTest::SetUp();
    }
    void TearDown() override {
        dxtest::FakeProxyTest::TearDown();
        F().cleanup();
    }
    void Close(SOCKET socket) override {
        F().cleanupSocket(socket);
        dxtest::Retire(socket);
    }
    const Family& F() const { return family_; }
    void SelectHost(long events) {
        ASSERT_EQ(F().asyncSelect(s, host.Handle(), HostWindow::kSocketMessage, events), 0);
    }
    void ProxyAt(const sockaddr_in& proxy) {
        ASSERT_EQ(F().setProxy(s, &proxy, sizeof proxy, "", F().proxyArgument), 0);
    }

    HostWindow host;

private:
    const Family& family_;
};

class FamilyNonBlockingTest : public NonBlockingFixture, public ::testing::WithParamInterface<const Family*> {
protected:
    FamilyNonBlockingTest() : NonBlockingFixture(*GetParam()) {}
};

TEST_P(FamilyNonBlockingTest, GrantArrivesAsFdConnectAndTheHostGetsItsEvents) {
    FakeScript(dxtest::Granting(F()) + " echo");
    SelectHost(FD_CONNECT | FD_READ | FD_CLOSE);
    ProxyAt(fake);
    // 0, not -1 with 10035; the WinSock error is left as the pending connect set it.
    EXPECT_EQ(F().connectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &connected, 8000));
    EXPECT_EQ(connected.Error(), 0u);
    ASSERT_TRUE(dxtest::SendAll(s, "ping"));
    EXPECT_TRUE(host.AwaitEvent(s, FD_READ, nullptr, 5000));
    EXPECT_EQ(host.ReceiveWhenReadable(s, 4), "ping");
}

TEST_P(FamilyNonBlockingTest, FailedTcpConnectToTheProxyTellsTheHostNothing) {
    SelectHost(FD_CONNECT);
    ProxyAt(dxtest::Loopback(1));  // nothing listens on port 1
    dxtest::LogCapture capture;
    EXPECT_EQ(F().connectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    host.PumpFor(1500);
    EXPECT_TRUE(host.SocketMessages(s).empty());
    // The hidden window saw the failed FD_CONNECT and left it alone.
    const std::string handler = F().eventHandler;
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line(handler + "(")),
              dxtest::Lines{Line(handler + "(socket:" + S() + ",error:10061,FD event:10)")});
}

TEST_P(FamilyNonBlockingTest, ConnectThatFailsAtOnceIsPostedWithItsCode) {
    // A TCP connect to the broadcast address fails inside the call.
    SelectHost(FD_CONNECT);
    sockaddr_in broadcast = dxtest::Loopback(3128);
    broadcast.sin_addr.s_addr = INADDR_BROADCAST;
    ProxyAt(broadcast);
    EXPECT_EQ(F().connectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    int code = WSAGetLastError();
    EXPECT_NE(code, 0);
    EXPECT_NE(code, WSAEWOULDBLOCK);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &connected, 2000));
    EXPECT_EQ(connected.Error(), static_cast<unsigned>(code));
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, FamilyNonBlockingTest, ::testing::ValuesIn(dxtest::kFamilies),
                         dxtest::FamilyName<::testing::TestParamInfo<const Family*>>);

// Both families started, and a host window that hears the outcomes.
class BothFamiliesNonBlockingTest : public dxtest::FakeProxyTest {
protected:
    void SetUp() override {
        ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
        ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
        dxtest::FakeProxyTest::SetUp();
    }
    void TearDown() override {
        dxtest::FakeProxyTest::TearDown();
        SOCKS_Cleanup();
        HTTP_Cleanup();
    }

    HostWindow host;
};

TEST_F(BothFamiliesNonBlockingTest, EachOutcomeArrivesAsOneFdConnect) {
    dxtest::DecliningPasswords declining;  // the row with authentication is declined
    const Family* socks = &dxtest::kSocksFamily;
    const Family* http = &dxtest::kHttpFamily;
    const std::string kHttpSent = dxtest::Hex(dxtest::Request("127.0.0.1:4321"));
    const std::string kMethodSelect = "050100";
    struct Case {
        dxtest::Handshake row;
        unsigned posted;  // the error word of FD_CONNECT
        unsigned connectError;
        int canceled;
    };
    const Case cases[] = {
        {{socks, "SOCKS 4 refusal", "read=9 send=005b000000000000 drain=3000", "", 4,
          dxtest::Hex(dxtest::ConnectRequest(*socks, 4321))},
         10061, 0, 0},
        {{socks, "SOCKS 5 refusal", "read=3 send=05ff drain=3000", "", 5, kMethodSelect}, 10061, 0, 0},
        // A method reply that does not begin with 5 is dropped, and the handshake waits on.
        {{socks, "SOCKS 5 method reply without a 5 first",
          std::string("read=3 send=0400 sleep=500 send=0500 read=10 send=") + kGranted5 + " drain=3000", "", 5,
          kMethodSelect + "050100017f00000110e1"},
         0, 0, 0},
        {{http, "HTTP 200", dxtest::Answer("HTTP/1.0 200 OK\r\n\r\n"), "", 0, kHttpSent}, 0, 0, 0},
        {{http, "HTTP 200, empty reason", dxtest::Answer("HTTP/1.1 200\r\n"), "", 0, kHttpSent}, 0, 0, 0},
        {{http, "HTTP, no blank at all", dxtest::Answer("HTTP/1.1-200\r\n\r\n"), "", 0, kHttpSent}, 10061, 10061, 0},
        {{http, "HTTP 201", dxtest::Answer("HTTP/1.1 201 Created\r\n\r\n"), "", 0, kHttpSent}, 10061, 10061, 0},
        {{http, "HTTP 404", dxtest::Answer("HTTP/1.1 404 Not Found\r\n\r\n"), "", 0, kHttpSent}, 65532, 65532, 0},
        {{http, "HTTP 407", dxtest::Answer("HTTP/1.1 407 Proxy Authentication Required\r\n\r\n"), "", 0, kHttpSent},
         65533, 65533, 0},
        // A declined prompt sends nothing, and the cancellation is no refusal of the proxy's.
        {{http, "HTTP password prompt declined", "readhttp close", "", 1, ""}, 65534, 0, 1},
    };
    // Every socket stays open until the end, so that no handle comes back for a later row.
    std::vector<SOCKET> sockets;
    std::vector<int> ids;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row.name);
        const Family& f = *c.row.family;
        SOCKET r = dxtest::MakeTcpSocket();
        sockets.push_back(r);
        ids.push_back(FakeScript(c.row.script));
        ASSERT_EQ(f.asyncSelect(r, host.Handle(), HostWindow::kSocketMessage, FD_CONNECT), 0);
        c.row.NameProxy(r, fake);
        EXPECT_EQ(f.connectEx(r, "127.0.0.1", 4321, nullptr, AF_INET), 0);
        dxtest::PostedMessage connected{};
        ASSERT_TRUE(host.AwaitEvent(r, FD_CONNECT, &connected, 8000));
        EXPECT_EQ(connected.Error(), c.posted);
        // The first outcome posted is the only one.
        host.PumpFor(300);
        EXPECT_EQ(host.SocketMessages(r).size(), 1u);
        EXPECT_EQ(f.getConnectError(r), c.connectError);
        EXPECT_EQ(f.connectCanceled(r), c.canceled);
    }
    for (size_t i = 0; i < sockets.size(); ++i) {
        SCOPED_TRACE(cases[i].row.name);
        cases[i].row.family->cleanupSocket(sockets[i]);
        closesocket(sockets[i]);
        EXPECT_EQ(dxtest::Hex(FakeReceived(ids[i]).bytes), cases[i].row.sentHex);
    }
}

class NonBlockingTest : public NonBlockingFixture {
protected:
    NonBlockingTest() : NonBlockingFixture(dxtest::kSocksFamily) {}
};

TEST_F(NonBlockingTest, Socks5ThroughDantedCarriesData) {
    SelectHost(FD_CONNECT | FD_READ);
    sockaddr_in dante = dxtest::Loopback(dxtest::BenchPort("DANTE_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &dante, sizeof dante, "", 5), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &connected, 8000));
    EXPECT_EQ(connected.Error(), 0u);
    ASSERT_TRUE(dxtest::SendAll(s, "nonblocking five"));
    EXPECT_EQ(host.ReceiveWhenReadable(s, 16), "nonblocking five");
}

TEST_F(NonBlockingTest, Socks5ConnectReplyInTwoPiecesLeavesItsTailForTheHost) {
    // The peek sees 3 bytes with status 0; the read of 10 gives up after its retries and the step
    // succeeds, so the other 7 bytes reach the host as its first data.
    FakeScript("read=3 send=0500 read=10 send=050000 sleep=1800 send=01020304050607 drain=3000");
    SelectHost(FD_CONNECT | FD_READ);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 5), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &connected, 8000));
    EXPECT_EQ(connected.Error(), 0u);
    EXPECT_EQ(host.ReceiveWhenReadable(s, 7), dxtest::Unhex("01020304050607"));
}

TEST_F(NonBlockingTest, SelectionOfFdConnectAlonePostsTheOutcomeAndSelectsNothingMore) {
    FakeScript(std::string("read=9 send=") + kGranted4 + " sleep=300 send=6c617465 drain=3000");
    SelectHost(FD_CONNECT);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &connected, 8000));
    host.PumpFor(800);  // the proxy's late bytes raise no event for the host
    EXPECT_EQ(host.SocketMessages(s).size(), 1u);
    char expected[128];
    std::snprintf(expected, sizeof expected, "CSocksSocket::ConnectFinished - PostMessage(%s,%x,%x,%x)",
                  dxtest::Pointer(host.Handle()).c_str(), HostWindow::kSocketMessage, static_cast<unsigned>(s), 16u);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("CSocksSocket::ConnectFinished - PostMessage(")),
              dxtest::Lines{Line(expected)});
}

TEST_F(NonBlockingTest, SelectionWithoutFdConnectHandsOnTheMaskLessFdConnectWrapped) {
    // At the grant the stored mask goes to WSAAsyncSelect as mask - FD_CONNECT, an unsigned subtraction:
    // without FD_CONNECT in it, it wraps round and holds events the host never selected. What the
    // proxy does after its grant, and whether the host hears of it, tells which mask was handed on.
    struct Case {
        const char* name;
        long selected;
        const char* afterTheGrant;
        unsigned event;
        bool heard;
    };
    const Case cases[] = {
        {"FD_READ, late bytes", FD_READ, "sleep=300 send=6c617465 drain=3000", FD_READ, true},
        // 1 - 16 is 0xfffffff1: FD_READ, and FD_CLOSE besides.
        {"FD_READ, the proxy closes", FD_READ, "sleep=300 close", FD_CLOSE, true},
        // 32 - 16 is 16: FD_CONNECT alone, so the host's own FD_CLOSE is lost.
        {"FD_CLOSE, the proxy closes", FD_CLOSE, "sleep=300 close", FD_CLOSE, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET r = dxtest::MakeTcpSocket();
        FakeScript(std::string("read=9 send=") + kGranted4 + " " + c.afterTheGrant);
        // The object exists already, so the host's selection is stored although it lacks FD_CONNECT.
        ASSERT_EQ(SOCKS_SetProxyEx(r, &fake, sizeof fake, "", 4), 0);
        ASSERT_EQ(SOCKS_WSAAsyncSelect(r, host.Handle(), HostWindow::kSocketMessage, c.selected), 0);
        dxtest::LogCapture capture;
        EXPECT_EQ(SOCKS_ConnectEx(r, "127.0.0.1", 80, nullptr, AF_INET), 0);
        auto heard = [&](unsigned event) {
            for (const dxtest::PostedMessage& posted : host.SocketMessages(r)) {
                if (posted.Event() == event) return true;
            }
            return false;
        };
        EXPECT_EQ(host.PumpUntil([&] { return heard(c.event); }, 3000), c.heard);
        if (c.event == FD_READ && c.heard) {
            EXPECT_EQ(host.ReceiveWhenReadable(r, 4), "late");
        }
        // Without FD_CONNECT in the selection the outcome is posted to nobody.
        EXPECT_FALSE(heard(FD_CONNECT));
        EXPECT_TRUE(
            dxtest::LinesStartingWith(capture.Lines(), Line("CSocksSocket::ConnectFinished - PostMessage(")).empty());
        WSAAsyncSelect(r, host.Handle(), 0, 0);
        SOCKS_CleanupSocket(r);
        dxtest::Retire(r);
    }
}

TEST_F(NonBlockingTest, FionbioAloneLeavesTheOutcomeToSelect) {
    FakeScript(std::string("read=9 send=") + kGranted4 + " echo");
    dxtest::MakeNonBlocking(s, SOCKS_ioctlsocket);
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
    EXPECT_EQ(host.ReceiveWhenReadable(s, 8), "selected");
}

}  // namespace
