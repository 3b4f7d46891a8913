// One socket, both families: a socket named a proxy through one family's calls and then used through
// the other's. A lookup doesn't tell the classes apart, so the second family takes the first one's
// object as a fresh object of its own with that proxy: every call ends, and ends as it does on a
// socket the calling family named itself (the SOCKS family with version 4).
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "bench.h"
#include "host_window.h"
#include "http_api.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::HostWindow;

// What a call came to: its result, the WinSock error it left, and what else the step looked at.
struct Outcome {
    long long result = 0;
    int error = 0;
    std::string detail;
    bool operator==(const Outcome& other) const {
        return result == other.result && error == other.error && detail == other.detail;
    }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << "{result " << outcome.result << ", error " << outcome.error << ", " << outcome.detail << "}";
}

// A connected socket's round trip through the echo server behind the proxy.
std::string EchoOf(SOCKET s, const std::string& text) {
    if (!dxtest::SendAll(s, text)) return "send failed";
    return dxtest::Receive(s, text.size(), 3000);
}

std::string NameOf(SOCKET s, int (*call)(SOCKET, sockaddr*, int*)) {
    sockaddr_in name = {};
    int length = sizeof name;
    int result = call(s, reinterpret_cast<sockaddr*>(&name), &length);
    return std::to_string(result) + " " + dxtest::Dotted(name) + ":" + std::to_string(ntohs(name.sin_port));
}

struct Step {
    const char* name;
    std::function<Outcome(SOCKET)> call;
};

// Bench ports, read once for the tables.
uint16_t Port(const char* key) { return dxtest::BenchPort(key); }

class CrossFamilyTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
        ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
    }
    static void TearDownTestSuite() {
        HTTP_Cleanup();
        SOCKS_Cleanup();
    }
    void TearDown() override {
        for (SOCKET s : sockets) {
            SOCKS_CleanupSocket(s);
            dxtest::Retire(s);
        }
    }
    SOCKET Fresh() {
        SOCKET s = dxtest::MakeTcpSocket();
        sockets.push_back(s);
        return s;
    }
    // Runs `step` on a socket named `proxy` by `name`, on a thread of its own: a call that never
    // returns fails the test instead of holding it.
    Outcome Run(const Step& step, int (*name)(SOCKET, const sockaddr_in*), const sockaddr_in& proxy) {
        SOCKET s = Fresh();
        EXPECT_EQ(name(s, &proxy), 0);
        Outcome outcome;
        bool returned = dxtest::ReturnsWithin(10000, [&] { outcome = step.call(s); });
        if (!returned) {
            ADD_FAILURE() << step.name << " did not return";
            outcome.detail = "no return";
        }
        return outcome;
    }

    std::vector<SOCKET> sockets;
};

int NameBySocks4(SOCKET s, const sockaddr_in* proxy) { return SOCKS_SetProxyEx(s, proxy, sizeof *proxy, "", 4); }
int NameBySocks5(SOCKET s, const sockaddr_in* proxy) { return SOCKS_SetProxyEx(s, proxy, sizeof *proxy, "", 5); }
int NameByHttp(SOCKET s, const sockaddr_in* proxy) { return HTTP_SetProxy(s, proxy, sizeof *proxy, "", 0); }

Outcome Finish(long long result, std::string detail = "") { return {result, WSAGetLastError(), std::move(detail)}; }

// ---- The SOCKS calls on a socket the HTTP family named ----

std::vector<Step> SocksSteps() {
    const uint16_t echo = Port("ECHO_PORT");
    const sockaddr_in dante = dxtest::Loopback(Port("DANTE_PORT"));
    return {
        {"SOCKS_ConnectEx through danted",
         [=](SOCKET s) {
             WSASetLastError(0);
             int result = SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
             return Finish(result, result == 0 ? EchoOf(s, "four") : "");
         }},
        {"SOCKS_SetProxyEx version 5, SOCKS_ConnectEx through danted",
         [=](SOCKET s) {
             int named = SOCKS_SetProxyEx(s, &dante, sizeof dante, "", 5);
             WSASetLastError(0);
             int result = SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
             return Finish(result, std::to_string(named) + " " + (result == 0 ? EchoOf(s, "five") : ""));
         }},
        {"SOCKS_ConnectEx, then SOCKS_closesocket",
         [=](SOCKET s) {
             SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
             WSASetLastError(0);
             int result = SOCKS_closesocket(s);
             return Finish(result, dxtest::IsOpen(s) ? "open" : "closed");
         }},
        {"SOCKS_getsockname", [](SOCKET s) { return Finish(0, NameOf(s, SOCKS_getsockname)); }},
        {"SOCKS_listen",
         [](SOCKET s) {
             int result = SOCKS_listen(s, 1);
             return Finish(result, dxtest::IsListening(s) ? "listening" : "not listening");
         }},
        {"SOCKS_accept",
         [](SOCKET s) {
             sockaddr_in peer = {};
             int length = sizeof peer;
             SOCKET result = SOCKS_accept(s, reinterpret_cast<sockaddr*>(&peer), &length);
             return Finish(static_cast<long long>(result == INVALID_SOCKET ? -1 : result == s ? 1 : 2));
         }},
        {"SOCKS_ioctlsocket FIONBIO",
         [](SOCKET s) {
             u_long on = 1;
             return Finish(SOCKS_ioctlsocket(s, static_cast<long>(FIONBIO), &on));
         }},
        {"SOCKS_WSAAsyncSelect",
         [](SOCKET s) {
             // Before a connect the selection is only kept: nothing reaches WinSock.
             int result = SOCKS_WSAAsyncSelect(s, nullptr, HostWindow::kSocketMessage, FD_CONNECT | FD_READ);
             return Finish(result);
         }},
        {"SOCKS_closesocket before a connect",
         [](SOCKET s) {
             int result = SOCKS_closesocket(s);
             return Finish(result, dxtest::IsOpen(s) ? "open" : "closed");
         }},
        {"SOCKS_CleanupSocket",
         [](SOCKET s) {
             SOCKS_CleanupSocket(s);
             // The library forgot it: getsockname is WinSock's, on an unbound socket.
             return Finish(0, NameOf(s, SOCKS_getsockname));
         }},
    };
}

TEST_F(CrossFamilyTest, SocksCallsOnASocketTheHttpFamilyNamedActAsOnAFreshSocksSocket) {
    const sockaddr_in dante = dxtest::Loopback(Port("DANTE_PORT"));
    for (const Step& step : SocksSteps()) {
        SCOPED_TRACE(step.name);
        Outcome own = Run(step, NameBySocks4, dante);
        Outcome other = Run(step, NameByHttp, dante);
        EXPECT_EQ(other, own);
    }
}

TEST_F(CrossFamilyTest, SocksConnectOnAnHttpNamedSocketSendsAVersion4Request) {
    int id = dxtest::FakeScript("read=9 send=005a000000000000 drain=3000");
    sockaddr_in fake = dxtest::Loopback(Port("FAKE_PORT"));
    SOCKET s = Fresh();
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 1), 0);
    int result = -2;
    ASSERT_TRUE(dxtest::ReturnsWithin(10000, [&] { result = SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET); }));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    EXPECT_EQ(dxtest::Hex(dxtest::FakeReceived(id).bytes), "04010050" "7f000001" "00");
}

TEST_F(CrossFamilyTest, NonBlockingSocksConnectOnAnHttpNamedSocketRunsOnTheSocksHiddenThread) {
    HostWindow host;
    SOCKET s = Fresh();
    sockaddr_in dante = dxtest::Loopback(Port("DANTE_PORT"));
    ASSERT_EQ(HTTP_SetProxy(s, &dante, sizeof dante, "", 0), 0);
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), HostWindow::kSocketMessage, FD_CONNECT | FD_READ), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", Port("ECHO_PORT"), nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &connected, 8000));
    EXPECT_EQ(connected.Error(), 0u);
    ASSERT_TRUE(dxtest::SendAll(s, "hidden four"));
    EXPECT_EQ(host.ReceiveWhenReadable(s, 11), "hidden four");
}

// ---- The HTTP calls on a socket the SOCKS family named ----

std::vector<Step> HttpSteps() {
    const uint16_t echo = Port("ECHO_PORT");
    const sockaddr_in tinyproxy = dxtest::Loopback(Port("TINYPROXY_PORT"));
    return {
        {"HTTP_ConnectEx through tinyproxy",
         [=](SOCKET s) {
             WSASetLastError(0);
             int result = HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
             return Finish(result, std::to_string(HTTP_GetConnectError(s)) + " " +
                                       (result == 0 ? EchoOf(s, "http") : ""));
         }},
        {"HTTP_SetProxy, HTTP_ConnectEx through tinyproxy",
         [=](SOCKET s) {
             int named = HTTP_SetProxy(s, &tinyproxy, sizeof tinyproxy, "", 0);
             WSASetLastError(0);
             int result = HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
             return Finish(result, std::to_string(named) + " " + (result == 0 ? EchoOf(s, "again") : ""));
         }},
        {"HTTP_ConnectEx, then HTTP_closesocket",
         [=](SOCKET s) {
             HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
             WSASetLastError(0);
             int result = HTTP_closesocket(s);
             return Finish(result, dxtest::IsOpen(s) ? "open" : "closed");
         }},
        {"HTTP_getsockname", [](SOCKET s) { return Finish(0, NameOf(s, HTTP_getsockname)); }},
        {"HTTP_listen",
         [](SOCKET s) {
             int result = HTTP_listen(s, 1);
             return Finish(result, dxtest::IsListening(s) ? "listening" : "not listening");
         }},
        {"HTTP_accept",
         [](SOCKET s) {
             sockaddr_in peer = {};
             int length = sizeof peer;
             SOCKET result = HTTP_accept(s, reinterpret_cast<sockaddr*>(&peer), &length);
             return Finish(result == INVALID_SOCKET ? -1 : 1);
         }},
        {"HTTP_ioctlsocket FIONBIO",
         [](SOCKET s) {
             u_long off = 0;
             return Finish(HTTP_ioctlsocket(s, static_cast<long>(FIONBIO), &off));
         }},
        {"HTTP_WSAAsyncSelect",
         [](SOCKET s) { return Finish(HTTP_WSAAsyncSelect(s, nullptr, HostWindow::kSocketMessage, FD_CONNECT)); }},
        {"HTTP_closesocket before a connect",
         [](SOCKET s) {
             int result = HTTP_closesocket(s);
             return Finish(result, dxtest::IsOpen(s) ? "open" : "closed");
         }},
        {"HTTP_CleanupSocket",
         [](SOCKET s) {
             HTTP_CleanupSocket(s);
             return Finish(0, NameOf(s, HTTP_getsockname));
         }},
    };
}

TEST_F(CrossFamilyTest, HttpCallsOnASocketTheSocksFamilyNamedActAsOnAFreshHttpSocket) {
    const sockaddr_in tinyproxy = dxtest::Loopback(Port("TINYPROXY_PORT"));
    for (const Step& step : HttpSteps()) {
        SCOPED_TRACE(step.name);
        Outcome own = Run(step, NameByHttp, tinyproxy);
        for (auto name : {NameBySocks4, NameBySocks5}) {
            Outcome other = Run(step, name, tinyproxy);
            EXPECT_EQ(other, own);
        }
    }
}

TEST_F(CrossFamilyTest, NonBlockingHttpConnectOnASocksNamedSocketRunsOnTheHttpHiddenThread) {
    HostWindow host;
    SOCKET s = Fresh();
    sockaddr_in tinyproxy = dxtest::Loopback(Port("TINYPROXY_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &tinyproxy, sizeof tinyproxy, "", 5), 0);
    ASSERT_EQ(HTTP_WSAAsyncSelect(s, host.Handle(), HostWindow::kSocketMessage, FD_CONNECT | FD_READ), 0);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", Port("ECHO_PORT"), nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, &connected, 8000));
    EXPECT_EQ(connected.Error(), 0u);
    ASSERT_TRUE(dxtest::SendAll(s, "hidden http"));
    EXPECT_EQ(host.ReceiveWhenReadable(s, 11), "hidden http");
}

}  // namespace
