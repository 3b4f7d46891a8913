// The SOCKS socket calls through DXSOCKS.DLL, as a host uses them: against the scripted fake proxy,
// the echo server, and the SOCKS hidden thread for the non-blocking cases.
#include <gtest/gtest.h>

#include <functional>
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
#include "settings_files.h"
#include "test_helpers.h"

namespace {

using dxtest::Dotted;
using dxtest::FakeReceived;
using dxtest::FakeScript;
using dxtest::Family;
using dxtest::Frame;
using dxtest::FrameWithoutResult;
using dxtest::IsOpen;
using dxtest::Line;
using dxtest::Lines;
using dxtest::ReturnsWithin;

// A socket without a proxy determines. Every destination goes direct, so that no first-use prompt
// comes up beside the UI library of the build.
class DirectMapsTest : public dxtest::FakeProxyTest {
protected:
    void SetUp() override {
        dxtest::ClearSettingsStore();
        ASSERT_TRUE(dxtest::WriteDirectSettings());
        dxtest::FakeProxyTest::SetUp();
    }
    void TearDown() override {
        dxtest::FakeProxyTest::TearDown();
        dxtest::ClearSettingsStore();
    }
    // The lines of a call whose determination found no proxy: `head`, the family's determination
    // (its first two lines, its last two), then `tail`.
    static void ExpectDeterminedNone(const Lines& lines, const Lines& head, const std::string& family,
                                     const std::string& host, const Lines& tail) {
        ASSERT_GE(lines.size(), head.size() + tail.size() + 4);
        EXPECT_EQ(Lines(lines.begin(), lines.begin() + head.size()), head);
        EXPECT_EQ(lines[head.size()], Line("Begin func " + family + "_DetermineProxyEx"));
        EXPECT_EQ(lines[head.size() + 1], Line("Begin host:port " + host));
        EXPECT_EQ(Lines(lines.end() - tail.size() - 2, lines.end() - tail.size()),
                  (Lines{Line(" result = 0"), Line("End func " + family + "_DetermineProxyEx")}));
        EXPECT_EQ(Lines(lines.end() - tail.size(), lines.end()), tail);
    }
};

class SocksCallsDllTest : public DirectMapsTest {
protected:
    // The hidden thread drives the non-blocking handshakes.
    static void SetUpTestSuite() { ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1); }
    static void TearDownTestSuite() { SOCKS_Cleanup(); }
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

    // The object rests in kFinished, which closes on the first call.
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    Forget();
    EXPECT_EQ(FakeReceived(first).status, "done");
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
    Forget();
    EXPECT_EQ(dxtest::Hex(FakeReceived(id).bytes), "04010050" "7f000001" "00");
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
    EXPECT_EQ(capture.Lines(), Frame("SOCKS_accept", s, {"Begin addr 0.0.0.0:0", "End addr 127.0.0.1:" + port,
                                                         "WinSock Error = 0"},
                                     static_cast<int>(accepted)));
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
    EXPECT_EQ(capture.Lines(), Frame("SOCKS_ioctlsocket", s, {}, WSAEFAULT));
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
    SOCKET plain = dxtest::EchoConnection();
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
    Forget();
    EXPECT_EQ(FakeReceived(id).status, "done");
}

TEST_F(SocksCallsDllTest, BindTakesAnAddressRecordAsBindExDoes) {
    sockaddr_in peer = dxtest::Loopback(4321);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_bind(s, reinterpret_cast<sockaddr*>(&peer), sizeof peer), WSAENOTSOCK);
    EXPECT_EQ(WSAGetLastError(), 0);
    // SOCKS_bind's own frame logs no result; the determination finds the direct map.
    ExpectDeterminedNone(capture.Lines(),
                         {Line("Begin func SOCKS_bind"), Line(" socket = " + S()), Line("Begin func SOCKS_BindEx"),
                          Line(" socket = " + S()), Line("Begin host:port 127.0.0.1:4321"),
                          Line("CSocksSocket::CSocksSocket(" + S() + ")")},
                         "SOCKS", "127.0.0.1:4321",
                         {Line("End host:port 127.0.0.1:4321"), Line("WinSock Error = 0"), Line(" result = 10038"),
                          Line("End func SOCKS_BindEx"), Line("End func SOCKS_bind")});
}

// The incoming-connection sequence: BIND, tell the peer the address, listen, accept the proxy's
// second reply, and the two closes that the accepted handle owes.
TEST_F(SocksCallsDllTest, GrantedBindThenGetSockNameListenAcceptAndTwoCloses) {
    int id = FakeScript("read=9 send=005a000000000000 sleep=400 send=005a1f900a000001 drain=5000");
    dxtest::MakeNonBlocking(s, SOCKS_ioctlsocket);
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
    Forget();
    dxtest::FakeLog log = FakeReceived(id, 3000);
    EXPECT_EQ(log.status, "done");
    EXPECT_EQ(dxtest::Hex(log.bytes), "040210e17f00000100" + dxtest::Hex("still open"));
}

TEST_F(SocksCallsDllTest, SetProxyOfAnInvalidSocketGivesOneForEitherVersion) {
    EXPECT_EQ(SOCKS_SetProxy(INVALID_SOCKET, &fake, sizeof fake, ""), 1);
    EXPECT_EQ(SOCKS_SetProxyEx(INVALID_SOCKET, &fake, sizeof fake, "", 5), 1);
}

// ---- The calls that both families make alike ----

class FamilyCallsTest : public DirectMapsTest, public ::testing::WithParamInterface<const Family*> {
protected:
    const Family& F() const { return *GetParam(); }
    void Close(SOCKET socket) override {
        F().cleanupSocket(socket);
        dxtest::Retire(socket);
    }
    std::string ObjectMade() const { return std::string(F().socketClass) + "::" + F().socketClass + "(" + S() + ")"; }
};

TEST_P(FamilyCallsTest, LogFrames) {
    dxtest::HostWindow window;
    const Family& f = F();
    struct Case {
        const char* name;
        std::function<void()> call;
        Lines expected;
    };
    u_long count = 0;
    timeval zero = {0, 0};
    const Case cases[] = {
        {"ConnectCanceled", [&] { f.connectCanceled(s); }, Frame(f.Export("ConnectCanceled"), s, {}, 0)},
        {"GetConnectError", [&] { f.getConnectError(s); }, Frame(f.Export("GetConnectError"), s, {}, 0)},
        {"ioctlsocket", [&] { f.ioctl(s, static_cast<long>(FIONREAD), &count); },
         Frame(f.Export("ioctlsocket"), s, {}, 0)},
        {"WSAAsyncSelect", [&] { f.asyncSelect(s, window.Handle(), dxtest::HostWindow::kSocketMessage, FD_READ); },
         Frame(f.Export("WSAAsyncSelect"), s,
               {" " + dxtest::Pointer(window.Handle()) + ", 44d, 1", "calling ::WSAAsyncSelect"}, 0)},
        {"select", [&] { f.select(0, nullptr, nullptr, nullptr, &zero); },
         dxtest::BareFrame(f.Export("select"), {})},
        {"CleanupSocket without an object", [&] { f.cleanupSocket(s); },
         FrameWithoutResult(f.Export("CleanupSocket"), s, {})},
        {"SetProxy", [&] { f.setProxy(s, &fake, sizeof fake, "", f.proxyArgument); },
         FrameWithoutResult(f.setProxyName, s, {ObjectMade()})},
        {"CleanupSocket with an object", [&] { f.cleanupSocket(s); },
         FrameWithoutResult(f.Export("CleanupSocket"), s, {"g_pProxySocketManager->RemoveSocket(s)"})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        dxtest::LogCapture capture;
        c.call();
        EXPECT_EQ(capture.Lines(), c.expected);
    }
    WSAAsyncSelect(s, window.Handle(), 0, 0);

    // BindEx without a proxy: the family's determination stands between the object and the end.
    dxtest::LogCapture capture;
    f.bindEx(s, "127.0.0.1", 80, nullptr, AF_INET);
    ExpectDeterminedNone(capture.Lines(),
                         {Line("Begin func " + f.Export("BindEx")), Line(" socket = " + S()),
                          Line("Begin host:port 127.0.0.1:80"), Line(ObjectMade())},
                         f.name, "127.0.0.1:80",
                         {Line("End host:port 127.0.0.1:80"), Line("WinSock Error = 0"), Line(" result = 10038"),
                          Line("End func " + f.Export("BindEx"))});
}

TEST_P(FamilyCallsTest, InvalidSocketGetsNoObject) {
    EXPECT_EQ(F().setProxy(INVALID_SOCKET, &fake, sizeof fake, "", F().proxyArgument), 1);
    WSASetLastError(0);
    EXPECT_EQ(F().connectEx(INVALID_SOCKET, "127.0.0.1", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_EQ(F().connectCanceled(INVALID_SOCKET), 0);
    EXPECT_EQ(F().getConnectError(INVALID_SOCKET), 0u);
}

TEST_P(FamilyCallsTest, BindExWithoutAnObjectOrAProxyIsAPositive10038WithErrorZero) {
    // The socket without a proxy asks the determination, whose map goes direct.
    for (SOCKET handle : {s, INVALID_SOCKET}) {
        SCOPED_TRACE(handle == INVALID_SOCKET ? "INVALID_SOCKET" : "socket for which no proxy applies");
        dxtest::LogCapture capture;
        WSASetLastError(4242);
        EXPECT_EQ(F().bindEx(handle, "127.0.0.1", 4321, nullptr, AF_INET), WSAENOTSOCK);
        EXPECT_EQ(WSAGetLastError(), 0);
        Lines lines = capture.Lines();
        ASSERT_GE(lines.size(), 4u);
        Lines tail(lines.end() - 4, lines.end());
        Lines expected = {Line("End host:port 127.0.0.1:4321"), Line("WinSock Error = 0"), Line(" result = 10038"),
                          Line("End func " + F().Export("BindEx"))};
        EXPECT_EQ(tail, expected);
    }
}

// The determination finds the direct map: no proxy applies, and the call fails, never connecting direct.
TEST_P(FamilyCallsTest, ConnectExWithoutAProxyFailsBeforeAnyConnectAndLeavesTheError) {
    int id = FakeScript("close");
    dxtest::LogCapture capture;
    WSASetLastError(4711);
    EXPECT_EQ(F().connectEx(s, "127.0.0.1", FakePort(), nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 4711);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("WinSock Error = ")),
              Lines{Line("WinSock Error = 4711")});
    sockaddr_in peer = {};
    int length = sizeof peer;
    EXPECT_EQ(getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length), SOCKET_ERROR);
    EXPECT_EQ(FakeReceived(id, 300).status, "pending");

    // Without an error to leave, the code is -1 and the error stays 0.
    SOCKET other = dxtest::MakeTcpSocket();
    WSASetLastError(0);
    capture.Clear();
    EXPECT_EQ(F().connectEx(other, "127.0.0.1", FakePort(), nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 0);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("WinSock Error = ")), Lines{Line("WinSock Error = -1")});
    F().cleanupSocket(other);
    dxtest::Retire(other);
}

TEST_P(FamilyCallsTest, ConnectTakesAnAddressRecord) {
    int id = FakeScript(dxtest::Granting(F()) + " drain=3000");
    ASSERT_EQ(F().setProxy(s, &fake, sizeof fake, "", F().proxyArgument), 0);
    sockaddr_in destination = dxtest::Loopback(echo);
    dxtest::LogCapture capture;
    EXPECT_EQ(F().connect(s, reinterpret_cast<sockaddr*>(&destination), sizeof destination), 0);
    Lines lines = capture.Lines();
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(lines[0], Line("Begin func " + F().Export("connect")));
    EXPECT_EQ(lines[1], Line(" socket = " + S()));
    EXPECT_EQ(lines[2], Line("Begin func " + F().Export("ConnectEx")));
    EXPECT_EQ(lines[4], Line("Begin host:port 127.0.0.1:" + std::to_string(echo)));
    EXPECT_EQ(lines[lines.size() - 2],
              F().connectLogsResult ? Line(" result = 0") : Line("End func " + F().Export("ConnectEx")));
    EXPECT_EQ(lines.back(), Line("End func " + F().Export("connect")));
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, dxtest::ConnectRequest(F(), echo));

    // A null record, or one too short for an IPv4 address.
    SOCKET other = dxtest::MakeTcpSocket();
    EXPECT_EQ(F().connect(other, nullptr, 16), -1);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_EQ(F().connect(other, reinterpret_cast<sockaddr*>(&destination), 8), -1);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    F().cleanupSocket(other);
    dxtest::Retire(other);
}

TEST_P(FamilyCallsTest, GetSockNameOfAProxiedSocketIsTheProxyWithPortZero) {
    FakeScript(dxtest::Granting(F()) + " drain=3000");
    ASSERT_EQ(F().setProxy(s, &fake, sizeof fake, "", F().proxyArgument), 0);
    ASSERT_EQ(F().connectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    sockaddr_in name = {};
    int length = 99;  // not looked at and not written
    dxtest::LogCapture capture;
    EXPECT_EQ(F().getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(name.sin_family, AF_INET);
    EXPECT_EQ(Dotted(name), "127.0.0.1");
    EXPECT_EQ(name.sin_port, 0);
    EXPECT_EQ(length, 99);
    EXPECT_EQ(capture.Lines(),
              Frame(F().Export("getsockname"), s,
                    {"Begin addr 0.0.0.0:0", std::string("calling ") + F().socketClass + "::GetSockName",
                     "End addr 127.0.0.1:0"},
                    0));
}

TEST_P(FamilyCallsTest, GetSockNameWithoutAProxyIsTheRealCall) {
    struct Case {
        const char* name;
        bool object;  // one whose proxy address was zero
        bool bound;
    };
    const Case cases[] = {
        {"no object", false, true},
        {"object without a proxy", true, true},
        // Unbound, the real call fails and so does this one.
        {"unbound, no object", false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET r = dxtest::MakeTcpSocket();
        sockaddr_in none = {};
        if (c.object) {
            ASSERT_EQ(F().setProxy(r, &none, sizeof none, "", F().proxyArgument), 0);
        }
        sockaddr_in real = {};
        if (c.bound) {
            sockaddr_in local = dxtest::Loopback(0);
            ASSERT_EQ(bind(r, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
            int realLength = sizeof real;
            ASSERT_EQ(getsockname(r, reinterpret_cast<sockaddr*>(&real), &realLength), 0);
        }
        sockaddr_in name = {};
        int length = sizeof name;
        dxtest::LogCapture capture;
        int result = F().getsockname(r, reinterpret_cast<sockaddr*>(&name), &length);
        if (c.bound) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(length, static_cast<int>(sizeof name));
            EXPECT_EQ(name.sin_port, real.sin_port);
            EXPECT_EQ(Dotted(name), "127.0.0.1");
            EXPECT_EQ(capture.Lines(),
                      Frame(F().Export("getsockname"), r,
                            {"Begin addr 0.0.0.0:0", "calling ::getsockname",
                             "End addr 127.0.0.1:" + std::to_string(ntohs(real.sin_port))},
                            0));
        } else {
            EXPECT_EQ(result, SOCKET_ERROR);
            EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
            EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("calling ")),
                      Lines{Line("calling ::getsockname")});
        }
        F().cleanupSocket(r);
        closesocket(r);
    }
}

// The registry holds one object per handle, whichever family made it.
TEST_P(FamilyCallsTest, AnObjectTheOtherFamilyMadeServesTheCalls) {
    const Family& maker = dxtest::Other(F());
    sockaddr_in proxy = dxtest::Address("10.1.2.3", 1080);
    ASSERT_EQ(maker.setProxy(s, &proxy, sizeof proxy, "", maker.proxyArgument), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(F().connectCanceled(s), 0);
    EXPECT_EQ(F().getConnectError(s), 0u);
    sockaddr_in name = {};
    int length = sizeof name;
    EXPECT_EQ(F().getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(Dotted(name), "10.1.2.3");
    EXPECT_EQ(name.sin_port, 0);
    Lines lines = capture.Lines();
    EXPECT_TRUE(dxtest::LinesStartingWith(lines, Line(std::string(F().socketClass) + "::" + F().socketClass + "("))
                    .empty());
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("calling ")),
              Lines{Line(std::string("calling ") + F().socketClass + "::GetSockName")});
    capture.Clear();
    F().cleanupSocket(s);
    EXPECT_EQ(capture.Lines(),
              dxtest::FrameWithoutResult(F().Export("CleanupSocket"), s, {"g_pProxySocketManager->RemoveSocket(s)"}));
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, FamilyCallsTest, ::testing::ValuesIn(dxtest::kFamilies),
                         dxtest::FamilyName<::testing::TestParamInfo<const Family*>>);

// Both families started: their hidden threads run the non-blocking handshakes of the tables below.
class BothFamiliesEventTest : public dxtest::FakeProxyTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
        ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
    }
    static void TearDownTestSuite() {
        SOCKS_Cleanup();
        HTTP_Cleanup();
    }
    // A socket of the row's family, non-blocking through the library, its proxy named and the fake
    // proxy scripted. Returns the script's id.
    int Begin(const dxtest::Handshake& row, SOCKET* r) {
        *r = dxtest::MakeTcpSocket();
        int id = FakeScript(row.script);
        dxtest::MakeNonBlocking(*r, row.family->ioctl);
        row.NameProxy(*r, fake);
        return id;
    }
    // Failed in mid-handshake a close owes nothing, so the host forgets the state and closes itself;
    // then the fake proxy's record is whole.
    static void End(const dxtest::Handshake& row, SOCKET r, int id) {
        row.family->cleanupSocket(r);
        EXPECT_EQ(row.family->closesocket(r), 0);
        EXPECT_EQ(dxtest::Hex(FakeReceived(id).bytes), row.sentHex);
    }
};

// A fake-proxy script that takes the HTTP request and answers after a while.
std::string Delayed(const std::string& reply) {
    return "readhttp sleep=300 send=" + dxtest::Hex(reply) + " drain=3000";
}

TEST_F(BothFamiliesEventTest, SelectWaitsForTheHandshakeAndThenReportsTheSocket) {
    dxtest::DecliningPasswords declining;  // the row with a password prompt is declined
    const std::string kHttpSent = dxtest::Hex(dxtest::Request("127.0.0.1:" + std::to_string(echo)));
    const Family* socks = &dxtest::kSocksFamily;
    const Family* http = &dxtest::kHttpFamily;
    struct Case {
        dxtest::Handshake row;  // each answer comes after a while
        int result;
        int error;  // when the result is -1
        int canceled;
    };
    const Case cases[] = {
        {{socks, "SOCKS 4 granted", "read=9 sleep=300 send=005a000000000000 drain=3000", "", 4,
          dxtest::Hex(dxtest::ConnectRequest(*socks, echo))},
         2, 0, 0},
        // The proxy asks for username and password, and the user declines.
        {{socks, "SOCKS 5 password prompt declined", "read=4 sleep=200 send=0502 drain=3000", "alice", 5, "05020200"},
         SOCKET_ERROR, DXSOCKS_PASSWORD_CANCELLED, 1},
        {{http, "HTTP granted", Delayed("HTTP/1.1 200 Connection established\r\n\r\n"), "", 0, kHttpSent}, 2, 0, 0},
        {{http, "HTTP 404", Delayed("HTTP/1.1 404 Not Found\r\n\r\n"), "", 0, kHttpSent}, SOCKET_ERROR, 65532, 0},
        {{http, "HTTP 502", Delayed("HTTP/1.1 502 Bad Gateway\r\n\r\n"), "", 0, kHttpSent}, SOCKET_ERROR, 10061, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row.name);
        const Family& f = *c.row.family;
        SOCKET r = INVALID_SOCKET;
        int id = Begin(c.row, &r);
        ASSERT_EQ(f.connectEx(r, "127.0.0.1", echo, nullptr, AF_INET), 0);
        SOCKET plain = dxtest::EchoConnection();
        fd_set writes;
        FD_ZERO(&writes);
        FD_SET(r, &writes);
        FD_SET(plain, &writes);
        int result = 0;
        int error = 0;
        DWORD elapsed = 0;
        ASSERT_TRUE(ReturnsWithin(5000, [&] {
            timeval zero = {0, 0};
            DWORD start = GetTickCount();
            WSASetLastError(0);
            result = f.select(0, nullptr, &writes, nullptr, &zero);
            error = WSAGetLastError();
            elapsed = GetTickCount() - start;
        }));
        EXPECT_EQ(result, c.result);
        if (c.result == SOCKET_ERROR) {
            EXPECT_EQ(error, c.error);
        } else {
            // The socket in mid-handshake goes back behind the plain one.
            ASSERT_EQ(writes.fd_count, 2u);
            EXPECT_EQ(writes.fd_array[0], plain);
            EXPECT_EQ(writes.fd_array[1], r);
        }
        // The zero timeout served the real select only.
        EXPECT_GE(elapsed, 150u);
        EXPECT_EQ(f.connectCanceled(r), c.canceled);
        closesocket(plain);
        End(c.row, r, id);
    }
}

TEST_F(BothFamiliesEventTest, BindExOnANonBlockingSocketWaitsForTheOutcome) {
    dxtest::DecliningPasswords declining;  // the rows with a password prompt are declined
    const std::string kHttpSent = dxtest::Hex(dxtest::Request("127.0.0.1:4321"));
    const Family* socks = &dxtest::kSocksFamily;
    const Family* http = &dxtest::kHttpFamily;
    struct Case {
        dxtest::Handshake row;
        int result;
        int error;
        unsigned connectError;
        int canceled;
    };
    const Case cases[] = {
        {{socks, "SOCKS 4 granted", "read=9 send=005a000000000000 drain=3000", "", 4, "040210e17f00000100"},
         0, 0, 0, 0},
        // The cancellation's 65534 is replaced by the code, -1, at the end.
        {{socks, "SOCKS 5 password prompt declined", "read=4 send=0502 drain=3000", "alice", 5, "05020200"},
         SOCKET_ERROR, -1, 0, 1},
        {{http, "HTTP granted", dxtest::Answer("HTTP/1.1 200 Connection established\r\n\r\n"), "", 0, kHttpSent}, 0, 0,
         0, 0},
        // The reason of a refusal is only in the two fields; the WinSock error is -1.
        {{http, "HTTP 404", dxtest::Answer("HTTP/1.1 404 Not Found\r\n\r\n"), "", 0, kHttpSent}, SOCKET_ERROR, -1,
         65532, 0},
        {{http, "HTTP 407", dxtest::Answer("HTTP/1.1 407 Proxy Authentication Required\r\n\r\n"), "", 0, kHttpSent},
         SOCKET_ERROR, -1, 65533, 0},
        {{http, "HTTP password prompt declined", "readhttp close", "", 1, ""}, SOCKET_ERROR, -1, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row.name);
        const Family& f = *c.row.family;
        SOCKET r = INVALID_SOCKET;
        int id = Begin(c.row, &r);
        int result = 1;
        int error = 4711;
        ASSERT_TRUE(ReturnsWithin(8000, [&] {
            result = f.bindEx(r, "127.0.0.1", 4321, nullptr, AF_INET);
            error = WSAGetLastError();
        }));
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(f.getConnectError(r), c.connectError);
        EXPECT_EQ(f.connectCanceled(r), c.canceled);
        End(c.row, r, id);
    }
}

}  // namespace
