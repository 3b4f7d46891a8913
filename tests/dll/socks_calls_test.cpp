// The SOCKS socket calls through DXSOCKS.DLL, as a host uses them: against the scripted fake proxy,
// the echo server, and the SOCKS hidden thread for the non-blocking cases.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "bench.h"
#include "test_helpers.h"
#include "declining_passwords.h"
#include "host_window.h"
#include "log_capture.h"
#include "socks_api.h"

namespace {

using dxtest::Line;
using dxtest::Dotted;
using dxtest::IsOpen;
using dxtest::ReturnsWithin;

using dxtest::FakeReceived;
using dxtest::FakeScript;
using Lines = std::vector<std::string>;

class SocksCallsDllTest : public ::testing::Test {
protected:
    // The hidden thread drives the non-blocking handshakes.
    static void SetUpTestSuite() { ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1); }
    static void TearDownTestSuite() { SOCKS_Cleanup(); }

    void SetUp() override {
        s = dxtest::MakeTcpSocket();
        ASSERT_NE(s, INVALID_SOCKET);
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
        echo = dxtest::BenchPort("ECHO_PORT");
        dxtest::FakeReset();
    }
    void TearDown() override {
        if (s != INVALID_SOCKET) dxtest::Retire(s);
        dxtest::FakeReset();
    }
    // The socket was closed through the library, which forgot it.
    void ClosedThroughTheLibrary() { s = INVALID_SOCKET; }
    void MakeNonBlocking(SOCKET handle) {
        u_long on = 1;
        ASSERT_EQ(SOCKS_ioctlsocket(handle, static_cast<long>(FIONBIO), &on), 0);
    }
    // A plain socket connected to the echo server: writable at once.
    SOCKET EchoConnection() {
        SOCKET plain = dxtest::MakeTcpSocket();
        sockaddr_in address = dxtest::Loopback(echo);
        EXPECT_EQ(connect(plain, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return plain;
    }
    std::string S() const { return std::to_string(static_cast<int>(s)); }

    SOCKET s = INVALID_SOCKET;
    sockaddr_in fake = {};
    uint16_t echo = 0;
};

TEST_F(SocksCallsDllTest, SecondConnectExOnAnEstablishedSocketReusesTheProxyAndFailsAsAlreadyConnected) {
    int first = FakeScript("read=9 send=005a000000000000 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    // Should the second call go to the proxy afresh, it would find this script.
    int second = FakeScript("read=9 send=005a000000000000 drain=3000");

    dxtest::LogCapture capture;
    WSASetLastError(0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEISCONN);
    auto errors = dxtest::LinesStartingWith(capture.Lines(), Line("WinSock Error = "));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], Line("WinSock Error = 10056"));
    EXPECT_EQ(FakeReceived(second, 300).status, "pending");

    // The object rests in state 9, which closes on the first call.
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ClosedThroughTheLibrary();
    EXPECT_EQ(FakeReceived(first).status, "done");
}

TEST_F(SocksCallsDllTest, GetSockNameAfterAConnectThroughTheProxyIsTheProxyWithPortZero) {
    FakeScript("read=9 send=005a000000000000 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    sockaddr_in name = {};
    int length = sizeof name;
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(name.sin_family, AF_INET);
    EXPECT_EQ(Dotted(name), "127.0.0.1");
    EXPECT_EQ(name.sin_port, 0);
    Lines expected = {
        Line("Begin func SOCKS_getsockname"),
        Line(" socket = " + S()),
        Line("Begin addr 0.0.0.0:0"),
        Line("calling CSocksSocket::GetSockName"),
        Line("End addr 127.0.0.1:0"),
        Line(" result = 0"),
        Line("End func SOCKS_getsockname"),
    };
    EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(SocksCallsDllTest, GetSockNameAfterSetProxyExBeforeAnyConnectIsTheProxyWithPortZero) {
    sockaddr_in proxy = dxtest::Loopback(1080);
    proxy.sin_addr.s_addr = inet_addr("10.1.2.3");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 5), 0);
    sockaddr_in name = {};
    int length = sizeof name;
    EXPECT_EQ(SOCKS_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(name.sin_family, AF_INET);
    EXPECT_EQ(Dotted(name), "10.1.2.3");
    EXPECT_EQ(name.sin_port, 0);
}

TEST_F(SocksCallsDllTest, GetSockNameOfAPlainSocketIsTheRealCall) {
    sockaddr_in local = dxtest::Loopback(0);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    sockaddr_in real = {};
    int realLength = sizeof real;
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&real), &realLength), 0);
    sockaddr_in name = {};
    int length = sizeof name;
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(length, static_cast<int>(sizeof name));
    EXPECT_EQ(name.sin_port, real.sin_port);
    auto calls = dxtest::LinesStartingWith(capture.Lines(), Line("calling "));
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0], Line("calling ::getsockname"));

    // Unbound, the real call fails and so does this one.
    SOCKET unbound = dxtest::MakeTcpSocket();
    EXPECT_EQ(SOCKS_getsockname(unbound, reinterpret_cast<sockaddr*>(&name), &length), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    closesocket(unbound);
}

TEST_F(SocksCallsDllTest, SetProtocolVersionReturnsMinusOneLogsNothingAndLeavesTheVersion) {
    int id = FakeScript("read=9 send=005a000000000000 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    dxtest::LogCapture capture;
    for (unsigned version : {5u, 4u, 0u, 0xffffffffu}) {
        EXPECT_EQ(SOCKS_SetProtocolVersion(s, version), -1);
        EXPECT_EQ(SOCKS_SetProtocolVersion(INVALID_SOCKET, version), -1);
    }
    EXPECT_EQ(SOCKS_SetProtocolVersion(s, 5), -1);
    EXPECT_TRUE(capture.Lines().empty());
    // Still a version 4 request.
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ClosedThroughTheLibrary();
    EXPECT_EQ(dxtest::Hex(FakeReceived(id).bytes), "04010050" "7f000001" "00");
}

TEST_F(SocksCallsDllTest, SetProxyExOfAnInvalidSocketGivesOne) {
    EXPECT_EQ(SOCKS_SetProxyEx(INVALID_SOCKET, &fake, sizeof fake, "", 5), 1);
}

TEST_F(SocksCallsDllTest, AcceptOfAPlainListeningSocketIsTheRealAccept) {
    sockaddr_in local = dxtest::Loopback(0);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    ASSERT_EQ(SOCKS_listen(s, 1), 0);
    int length = sizeof local;
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&local), &length), 0);
    SOCKET client = dxtest::MakeTcpSocket();
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    sockaddr_in clientAddress = {};
    length = sizeof clientAddress;
    ASSERT_EQ(getsockname(client, reinterpret_cast<sockaddr*>(&clientAddress), &length), 0);

    sockaddr_in peer = {};
    length = 32;
    dxtest::LogCapture capture;
    WSASetLastError(0);
    SOCKET accepted = SOCKS_accept(s, reinterpret_cast<sockaddr*>(&peer), &length);
    ASSERT_NE(accepted, INVALID_SOCKET);
    EXPECT_NE(accepted, s);
    EXPECT_EQ(length, static_cast<int>(sizeof peer));
    EXPECT_EQ(peer.sin_port, clientAddress.sin_port);
    const std::string port = std::to_string(ntohs(clientAddress.sin_port));
    Lines expected = {
        Line("Begin func SOCKS_accept"),
        Line(" socket = " + S()),
        Line("Begin addr 0.0.0.0:0"),
        Line("End addr 127.0.0.1:" + port),
        Line("WinSock Error = 0"),
        Line(" result = " + std::to_string(static_cast<int>(accepted))),
        Line("End func SOCKS_accept"),
    };
    EXPECT_EQ(capture.Lines(), expected);
    ASSERT_TRUE(dxtest::SendAll(client, "x"));
    EXPECT_EQ(dxtest::Receive(accepted, 1, 2000), "x");
    closesocket(client);
    closesocket(accepted);
}

TEST_F(SocksCallsDllTest, IoctlSocketWithANullArgumentReturnsAndSets10014) {
    dxtest::LogCapture capture;
    WSASetLastError(0);
    EXPECT_EQ(SOCKS_ioctlsocket(s, static_cast<long>(FIONBIO), nullptr), WSAEFAULT);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    Lines expected = {Line("Begin func SOCKS_ioctlsocket"), Line(" socket = " + S()), Line(" result = 10014"),
                      Line("End func SOCKS_ioctlsocket")};
    EXPECT_EQ(capture.Lines(), expected);
}

// Whether a call left library state for a socket shows at its close: a never connected object owes
// no close, so that SOCKS_closesocket leaves the socket open.
TEST_F(SocksCallsDllTest, OnlyFionbioAndAPushedSelectionLeaveStateThatTheCloseKeepsOpen) {
    struct Case {
        const char* name;
        std::function<void(SOCKET)> call;
        bool leavesState;
    };
    dxtest::HostWindow window;
    const UINT message = dxtest::HostWindow::kSocketMessage;
    const Case cases[] = {
        {"FIONREAD",
         [](SOCKET x) {
             u_long count = 0;
             SOCKS_ioctlsocket(x, static_cast<long>(FIONREAD), &count);
         },
         false},
        {"FIONBIO, null argument", [](SOCKET x) { SOCKS_ioctlsocket(x, static_cast<long>(FIONBIO), nullptr); }, false},
        {"FIONBIO",
         [](SOCKET x) {
             u_long on = 1;
             SOCKS_ioctlsocket(x, static_cast<long>(FIONBIO), &on);
         },
         true},
        {"WSAAsyncSelect without FD_CONNECT",
         [&](SOCKET x) { SOCKS_WSAAsyncSelect(x, window.Handle(), message, FD_READ); }, false},
        {"WSAAsyncSelect with FD_CONNECT",
         [&](SOCKET x) { SOCKS_WSAAsyncSelect(x, window.Handle(), message, FD_CONNECT | FD_READ); }, true},
        {"getsockname",
         [](SOCKET x) {
             sockaddr_in name = {};
             int length = sizeof name;
             SOCKS_getsockname(x, reinterpret_cast<sockaddr*>(&name), &length);
         },
         false},
        {"listen", [](SOCKET x) { SOCKS_listen(x, 1); }, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET handle = dxtest::MakeTcpSocket();
        c.call(handle);
        EXPECT_EQ(SOCKS_closesocket(handle), 0);
        EXPECT_EQ(IsOpen(handle), c.leavesState);
        if (c.leavesState) {
            // The host's way out: forget the state, then close the socket itself.
            SOCKS_CleanupSocket(handle);
            EXPECT_TRUE(IsOpen(handle));
            EXPECT_EQ(SOCKS_closesocket(handle), 0);
            EXPECT_FALSE(IsOpen(handle));
        }
    }
}

TEST_F(SocksCallsDllTest, WsaAsyncSelectOnAPlainSocketSelectsTheEventsAtOnce) {
    dxtest::HostWindow window;
    SOCKET plain = EchoConnection();
    EXPECT_EQ(SOCKS_WSAAsyncSelect(plain, window.Handle(), dxtest::HostWindow::kSocketMessage, FD_WRITE | FD_READ), 0);
    ASSERT_TRUE(window.PumpUntil([&] { return !window.SocketMessages(plain).empty(); }, 3000));
    EXPECT_EQ(window.SocketMessages(plain)[0].Event(), static_cast<unsigned>(FD_WRITE));
    ASSERT_TRUE(dxtest::SendAll(plain, "ping"));
    EXPECT_TRUE(window.PumpUntil(
        [&] {
            for (const auto& posted : window.SocketMessages(plain)) {
                if (posted.Event() == FD_READ) return true;
            }
            return false;
        },
        3000));
    WSAAsyncSelect(plain, window.Handle(), 0, 0);
    EXPECT_EQ(SOCKS_closesocket(plain), 0);
    EXPECT_FALSE(IsOpen(plain));
}

TEST_F(SocksCallsDllTest, WsaAsyncSelectBeforeTheConnectTakesEffectWhenTheHandshakeEnds) {
    int id = FakeScript("read=9 send=005a000000000000 sleep=300 send=68656c6c6f drain=3000");
    dxtest::HostWindow window;
    const UINT message = dxtest::HostWindow::kSocketMessage;
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, window.Handle(), message, FD_CONNECT | FD_WRITE | FD_READ), 0);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    // Non-blocking through the stored selection: 0 at once, not 10035.
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);

    auto has = [&](unsigned event) {
        for (const auto& posted : window.SocketMessages(s)) {
            if (posted.Event() == event) return true;
        }
        return false;
    };
    ASSERT_TRUE(window.PumpUntil([&] { return has(FD_CONNECT); }, 5000));
    auto posted = window.SocketMessages(s);
    EXPECT_EQ(posted[0].Event(), static_cast<unsigned>(FD_CONNECT));
    EXPECT_EQ(posted[0].Error(), 0u);
    // The other events were handed to the real WSAAsyncSelect when the proxy granted.
    EXPECT_TRUE(window.PumpUntil([&] { return has(FD_WRITE) && has(FD_READ); }, 5000));
    char hello[5];
    EXPECT_EQ(recv(s, hello, sizeof hello, 0), 5);

    // Established: the next call is the real one.
    window.PumpFor(50);
    size_t before = window.SocketMessages(s).size();
    EXPECT_EQ(SOCKS_WSAAsyncSelect(s, window.Handle(), message, FD_WRITE), 0);
    EXPECT_TRUE(window.PumpUntil([&] { return window.SocketMessages(s).size() > before; }, 3000));
    WSAAsyncSelect(s, window.Handle(), 0, 0);
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ClosedThroughTheLibrary();
    EXPECT_EQ(FakeReceived(id).status, "done");
}

TEST_F(SocksCallsDllTest, SelectWaitsForANonBlockingHandshakeAndThenReportsTheSocket) {
    FakeScript("read=9 sleep=300 send=005a000000000000 drain=3000");
    MakeNonBlocking(s);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    SOCKET plain = EchoConnection();

    fd_set writes;
    FD_ZERO(&writes);
    FD_SET(s, &writes);
    FD_SET(plain, &writes);
    int result = 0;
    DWORD elapsed = 0;
    ASSERT_TRUE(ReturnsWithin(5000, [&] {
        timeval zero = {0, 0};
        DWORD start = GetTickCount();
        result = SOCKS_select(0, nullptr, &writes, nullptr, &zero);
        elapsed = GetTickCount() - start;
    }));
    EXPECT_EQ(result, 2);
    ASSERT_EQ(writes.fd_count, 2u);
    EXPECT_EQ(writes.fd_array[0], plain);
    EXPECT_EQ(writes.fd_array[1], s);
    EXPECT_GE(elapsed, 150u);
    closesocket(plain);
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ClosedThroughTheLibrary();
}

TEST_F(SocksCallsDllTest, SelectOfACancelledPasswordPromptFailsWith65534) {
    // The proxy asks for username and password, and the user declines.
    dxtest::DecliningPasswords declining;
    int id = FakeScript("read=4 sleep=200 send=0502 drain=3000");
    MakeNonBlocking(s);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "alice", 5), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    SOCKET plain = EchoConnection();

    fd_set writes;
    FD_ZERO(&writes);
    FD_SET(s, &writes);
    FD_SET(plain, &writes);
    int result = 0;
    int error = 0;
    ASSERT_TRUE(ReturnsWithin(5000, [&] {
        timeval zero = {0, 0};
        result = SOCKS_select(0, nullptr, &writes, nullptr, &zero);
        error = WSAGetLastError();
    }));
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(error, DXSOCKS_PASSWORD_CANCELLED);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 1);
    closesocket(plain);
    // Failed in mid-handshake: the close owes nothing, so the host cleans up and closes itself.
    SOCKS_CleanupSocket(s);
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ClosedThroughTheLibrary();
    EXPECT_EQ(dxtest::Hex(FakeReceived(id).bytes), "05020200");
}

TEST_F(SocksCallsDllTest, BindExWithoutAProxyGivesPositive10038AndErrorZero) {
    for (SOCKET handle : {s, INVALID_SOCKET}) {
        SCOPED_TRACE(handle == INVALID_SOCKET ? "INVALID_SOCKET" : "socket without a proxy");
        dxtest::LogCapture capture;
        WSASetLastError(4242);
        EXPECT_EQ(SOCKS_BindEx(handle, "127.0.0.1", 4321, nullptr, AF_INET), WSAENOTSOCK);
        EXPECT_EQ(WSAGetLastError(), 0);
        auto lines = capture.Lines();
        ASSERT_GE(lines.size(), 4u);
        Lines tail(lines.end() - 4, lines.end());
        Lines expected = {Line("End host:port 127.0.0.1:4321"), Line("WinSock Error = 0"), Line(" result = 10038"),
                          Line("End func SOCKS_BindEx")};
        EXPECT_EQ(tail, expected);
    }
}

TEST_F(SocksCallsDllTest, BindTakesAnAddressRecordAsBindExDoes) {
    sockaddr_in peer = dxtest::Loopback(4321);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_bind(s, reinterpret_cast<sockaddr*>(&peer), sizeof peer), WSAENOTSOCK);
    EXPECT_EQ(WSAGetLastError(), 0);
    Lines expected = {
        Line("Begin func SOCKS_bind"),
        Line(" socket = " + S()),
        Line("Begin func SOCKS_BindEx"),
        Line(" socket = " + S()),
        Line("Begin host:port 127.0.0.1:4321"),
        Line("CSocksSocket::CSocksSocket(" + S() + ")"),
        Line("End host:port 127.0.0.1:4321"),
        Line("WinSock Error = 0"),
        Line(" result = 10038"),
        Line("End func SOCKS_BindEx"),
        Line("End func SOCKS_bind"),
    };
    EXPECT_EQ(capture.Lines(), expected);
}

// The incoming-connection sequence: BIND, tell the peer the address, listen, accept the proxy's
// second reply, and the two closes that the accepted handle owes.
TEST_F(SocksCallsDllTest, GrantedBindThenGetSockNameListenAcceptAndTwoCloses) {
    int id = FakeScript("read=9 send=005a000000000000 sleep=400 send=005a1f900a000001 drain=5000");
    MakeNonBlocking(s);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    int result = -2;
    int error = -2;
    ASSERT_TRUE(ReturnsWithin(5000, [&] {
        result = SOCKS_BindEx(s, "127.0.0.1", 4321, nullptr, AF_INET);
        error = WSAGetLastError();
    }));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(error, 0);

    sockaddr_in name = {};
    int length = sizeof name;
    EXPECT_EQ(SOCKS_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(Dotted(name), "127.0.0.1");
    EXPECT_EQ(ntohs(name.sin_port), 4321);
    EXPECT_EQ(SOCKS_listen(s, 1), 0);

    sockaddr_in peer = {};
    length = sizeof peer;
    SOCKET accepted = INVALID_SOCKET;
    int acceptError = 0;
    DWORD start = GetTickCount();
    do {
        accepted = SOCKS_accept(s, reinterpret_cast<sockaddr*>(&peer), &length);
        acceptError = WSAGetLastError();
        if (accepted == INVALID_SOCKET) Sleep(20);
    } while (accepted == INVALID_SOCKET && acceptError == WSAEWOULDBLOCK && GetTickCount() - start < 5000);
    ASSERT_EQ(accepted, s) << acceptError;
    EXPECT_EQ(acceptError, 0);
    EXPECT_EQ(Dotted(peer), "10.0.0.1");
    EXPECT_EQ(ntohs(peer.sin_port), 8080);

    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "still open"));
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ClosedThroughTheLibrary();
    dxtest::FakeLog log = FakeReceived(id, 3000);
    EXPECT_EQ(log.status, "done");
    EXPECT_EQ(dxtest::Hex(log.bytes), "040210e17f00000100" + dxtest::Hex("still open"));
}

TEST_F(SocksCallsDllTest, BindExWithACancelledPasswordPromptEndsWithMinusOneAsTheError) {
    dxtest::DecliningPasswords declining;
    FakeScript("read=4 send=0502 drain=3000");
    MakeNonBlocking(s);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "alice", 5), 0);
    int result = 0;
    int error = 0;
    ASSERT_TRUE(ReturnsWithin(5000, [&] {
        result = SOCKS_BindEx(s, "127.0.0.1", 4321, nullptr, AF_INET);
        error = WSAGetLastError();
    }));
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 1);
    SOCKS_CleanupSocket(s);
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    ClosedThroughTheLibrary();
}

}  // namespace
