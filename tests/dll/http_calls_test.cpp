// The HTTP socket calls through DXSOCKS.DLL, as a host uses them: their log frames, the calls that go
// straight to WinSock, the ones that wait for an exchange, and the family's startup and clean-up.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "bench.h"
#include "test_helpers.h"
#include "declining_passwords.h"
#include "host_window.h"
#include "http_api.h"
#include "log_capture.h"
#include "socks_api.h"

namespace {

using dxtest::Line;
using dxtest::N;
using dxtest::Dotted;
using dxtest::Request;
using dxtest::Answer;
using dxtest::IsOpen;
using dxtest::IsListening;
using dxtest::ClosedHandle;
using dxtest::ReturnsWithin;

using dxtest::FakeReceived;
using dxtest::FakeScript;
using dxtest::HostWindow;
using Lines = std::vector<std::string>;

const char kHiddenClass[] = "ZELMONT_HTTP_HIDDEN_WINDOW";

const char kGranted[] = "HTTP/1.1 200 Connection established\r\n\r\n";

// wsprintf's %p: 16 upper-case hex digits without a prefix.
std::string Pointer(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

class HttpCallsTest : public ::testing::Test {
protected:
    void SetUp() override {
        s = dxtest::MakeTcpSocket();
        ASSERT_NE(s, INVALID_SOCKET);
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
        echo = dxtest::BenchPort("ECHO_PORT");
        dxtest::FakeReset();
    }
    void TearDown() override {
        if (s != INVALID_SOCKET) {
            HTTP_CleanupSocket(s);
            closesocket(s);
        }
        dxtest::FakeReset();
    }
    void Forget() { s = INVALID_SOCKET; }
    std::string S() const { return N(s); }
    static void MakeNonBlocking(SOCKET socket) {
        u_long on = 1;
        ASSERT_EQ(HTTP_ioctlsocket(socket, static_cast<long>(FIONBIO), &on), 0);
    }
    // A plain socket connected to the echo server: writable at once.
    SOCKET EchoConnection() const {
        SOCKET plain = dxtest::MakeTcpSocket();
        sockaddr_in address = dxtest::Loopback(echo);
        EXPECT_EQ(connect(plain, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return plain;
    }

    SOCKET s = INVALID_SOCKET;
    sockaddr_in fake = {};
    uint16_t echo = 0;
};

TEST_F(HttpCallsTest, LogFrames) {
    HostWindow window;
    const UINT message = HostWindow::kSocketMessage;
    struct Case {
        const char* name;
        std::function<void()> call;
        Lines expected;
    };
    u_long count = 0;
    timeval zero = {0, 0};
    const Case cases[] = {
        {"ConnectCanceled", [&] { HTTP_ConnectCanceled(s); },
         {Line("Begin func HTTP_ConnectCanceled"), Line(" socket = " + S()), Line(" result = 0"),
          Line("End func HTTP_ConnectCanceled")}},
        {"GetConnectError", [&] { HTTP_GetConnectError(s); },
         {Line("Begin func HTTP_GetConnectError"), Line(" socket = " + S()), Line(" result = 0"),
          Line("End func HTTP_GetConnectError")}},
        {"ioctlsocket", [&] { HTTP_ioctlsocket(s, static_cast<long>(FIONREAD), &count); },
         {Line("Begin func HTTP_ioctlsocket"), Line(" socket = " + S()), Line(" result = 0"),
          Line("End func HTTP_ioctlsocket")}},
        {"WSAAsyncSelect", [&] { HTTP_WSAAsyncSelect(s, window.Handle(), message, FD_READ); },
         {Line("Begin func HTTP_WSAAsyncSelect"), Line(" socket = " + S()),
          Line(" " + Pointer(window.Handle()) + ", 44d, 1"), Line("calling ::WSAAsyncSelect"), Line(" result = 0"),
          Line("End func HTTP_WSAAsyncSelect")}},
        {"select", [&] { HTTP_select(0, nullptr, nullptr, nullptr, &zero); },
         {Line("Begin func HTTP_select"), Line("End func HTTP_select")}},
        {"CleanupSocket without an object", [&] { HTTP_CleanupSocket(s); },
         {Line("Begin func HTTP_CleanupSocket"), Line(" socket = " + S()), Line("End func HTTP_CleanupSocket")}},
        {"SetProxy", [&] { HTTP_SetProxy(s, &fake, sizeof fake, "", 0); },
         {Line("Begin func HTTP_SetProxy"), Line(" socket = " + S()), Line("CHttpSocket::CHttpSocket(" + S() + ")"),
          Line("End func HTTP_SetProxy")}},
        {"CleanupSocket with an object", [&] { HTTP_CleanupSocket(s); },
         {Line("Begin func HTTP_CleanupSocket"), Line(" socket = " + S()),
          Line("g_pProxySocketManager->RemoveSocket(s)"), Line("End func HTTP_CleanupSocket")}},
        {"BindEx without a proxy", [&] { HTTP_BindEx(s, "127.0.0.1", 80, nullptr, AF_INET); },
         {Line("Begin func HTTP_BindEx"), Line(" socket = " + S()), Line("Begin host:port 127.0.0.1:80"),
          Line("CHttpSocket::CHttpSocket(" + S() + ")"), Line("End host:port 127.0.0.1:80"), Line("WinSock Error = 0"),
          Line(" result = 10038"), Line("End func HTTP_BindEx")}},
    };
    for (const Case& c : cases) {
        dxtest::LogCapture capture;
        c.call();
        EXPECT_EQ(capture.Lines(), c.expected) << c.name;
    }
    WSAAsyncSelect(s, window.Handle(), 0, 0);
}

TEST_F(HttpCallsTest, AcceptIsThePlainCallAndLogsNothing) {
    sockaddr_in local = dxtest::Loopback(0);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    ASSERT_EQ(listen(s, 1), 0);
    int length = sizeof local;
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&local), &length), 0);
    SOCKET client = dxtest::MakeTcpSocket();
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    sockaddr_in peer = {};
    length = sizeof peer;
    dxtest::LogCapture capture;
    SOCKET accepted = HTTP_accept(s, reinterpret_cast<sockaddr*>(&peer), &length);
    EXPECT_TRUE(capture.Lines().empty());
    ASSERT_NE(accepted, INVALID_SOCKET);
    EXPECT_EQ(Dotted(peer), "127.0.0.1");
    ASSERT_TRUE(dxtest::SendAll(client, "hello"));
    EXPECT_EQ(dxtest::Receive(accepted, 5), "hello");
    closesocket(accepted);
    closesocket(client);
}

TEST_F(HttpCallsTest, AsyncSelectWithoutFdConnectOnAnUnknownSocketMakesNoObject) {
    HostWindow window;
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_WSAAsyncSelect(s, window.Handle(), HostWindow::kSocketMessage, FD_READ), 0);
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), Line("CHttpSocket::CHttpSocket(")).empty());
    capture.Clear();
    // Without an object the close is the plain one.
    EXPECT_EQ(HTTP_closesocket(s), 0);
    Lines expected = {Line("Begin func HTTP_closesocket"), Line(" socket = " + S()), Line(" result = 0"),
                      Line("End func HTTP_closesocket")};
    EXPECT_EQ(capture.Lines(), expected);
    EXPECT_FALSE(IsOpen(s));
    Forget();
}

TEST_F(HttpCallsTest, CloseOfAGrantedSocketClosesItAndForgetsTheObject) {
    FakeScript(Answer(kGranted));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_closesocket(s), 0);
    Lines expected = {Line("Begin func HTTP_closesocket"), Line(" socket = " + S()),
                      Line("g_pProxySocketManager->RemoveSocket(s)"), Line(" result = 0"),
                      Line("End func HTTP_closesocket")};
    EXPECT_EQ(capture.Lines(), expected);
    EXPECT_FALSE(IsOpen(s));
    Forget();
}

TEST_F(HttpCallsTest, GetSockNameOfAProxiedSocketIsTheProxyWithPortZero) {
    FakeScript(Answer(kGranted));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    sockaddr_in name = {};
    int length = 99;  // not looked at and not written
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(name.sin_family, AF_INET);
    EXPECT_EQ(Dotted(name), "127.0.0.1");
    EXPECT_EQ(name.sin_port, 0);
    EXPECT_EQ(length, 99);
    Lines expected = {
        Line("Begin func HTTP_getsockname"),       Line(" socket = " + S()),       Line("Begin addr 0.0.0.0:0"),
        Line("calling CHttpSocket::GetSockName"), Line("End addr 127.0.0.1:0"), Line(" result = 0"),
        Line("End func HTTP_getsockname"),
    };
    EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(HttpCallsTest, GetSockNameWithoutAProxyIsTheRealCall) {
    sockaddr_in none = {};
    ASSERT_EQ(HTTP_SetProxy(s, &none, sizeof none, "", 0), 0);
    sockaddr_in local = dxtest::Loopback(0);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    sockaddr_in real = {};
    int length = sizeof real;
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&real), &length), 0);
    sockaddr_in name = {};
    length = sizeof name;
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(name.sin_port, real.sin_port);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("calling ")), Lines{Line("calling ::getsockname")});
}

TEST_F(HttpCallsTest, ListenOfAProxiedSocketAsksNothingOfWinsock) {
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    sockaddr_in local = dxtest::Loopback(0);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    EXPECT_EQ(HTTP_listen(s, 1), 0);
    EXPECT_FALSE(IsListening(s));

    SOCKET plain = dxtest::MakeTcpSocket();
    ASSERT_EQ(bind(plain, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
    EXPECT_EQ(HTTP_listen(plain, 1), 0);
    EXPECT_TRUE(IsListening(plain));
    closesocket(plain);
}

TEST_F(HttpCallsTest, IoctlsocketFailureIsTheWinsockCodeNotMinusOne) {
    SOCKET gone = ClosedHandle();
    u_long count = 0;
    EXPECT_EQ(HTTP_ioctlsocket(gone, static_cast<long>(FIONREAD), &count), WSAENOTSOCK);
    // FIONBIO first makes an object for the handle, and then fails the same way.
    u_long on = 1;
    EXPECT_EQ(HTTP_ioctlsocket(gone, static_cast<long>(FIONBIO), &on), WSAENOTSOCK);
    HTTP_CleanupSocket(gone);
}

TEST_F(HttpCallsTest, InvalidSocketWithFionbioGoesOnToIoctlsocket) {
    u_long on = 1;
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ioctlsocket(INVALID_SOCKET, static_cast<long>(FIONBIO), &on), WSAENOTSOCK);
    Lines expected = {Line("Begin func HTTP_ioctlsocket"), Line(" socket = -1"), Line(" set socket non-blocking"),
                      Line(" result = 10038"), Line("End func HTTP_ioctlsocket")};
    EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(HttpCallsTest, BindExWithoutAnObjectOrAProxyIsAPositive10038WithErrorZero) {
    for (SOCKET socket : {INVALID_SOCKET, s}) {
        WSASetLastError(4711);
        EXPECT_EQ(HTTP_BindEx(socket, "127.0.0.1", 80, nullptr, AF_INET), WSAENOTSOCK);
        EXPECT_EQ(WSAGetLastError(), 0);
    }
}

TEST_F(HttpCallsTest, ConnectExWithoutAProxyFailsBeforeAnyConnectAndLeavesTheError) {
    int id = FakeScript("close");
    dxtest::LogCapture capture;
    WSASetLastError(4711);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", ntohs(fake.sin_port), nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 4711);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("WinSock Error = ")),
              Lines{Line("WinSock Error = 4711")});
    sockaddr_in peer = {};
    int length = sizeof peer;
    EXPECT_EQ(getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length), SOCKET_ERROR);
    EXPECT_EQ(FakeReceived(id, 300).status, "pending");

    SOCKET other = dxtest::MakeTcpSocket();
    WSASetLastError(0);
    capture.Clear();
    EXPECT_EQ(HTTP_ConnectEx(other, "127.0.0.1", ntohs(fake.sin_port), nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 0);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("WinSock Error = ")), Lines{Line("WinSock Error = -1")});
    HTTP_CleanupSocket(other);
    closesocket(other);
}

TEST_F(HttpCallsTest, InvalidSocketGetsNoObject) {
    EXPECT_EQ(HTTP_SetProxy(INVALID_SOCKET, &fake, sizeof fake, "", 0), 1);
    WSASetLastError(0);
    EXPECT_EQ(HTTP_ConnectEx(INVALID_SOCKET, "127.0.0.1", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_EQ(HTTP_ConnectCanceled(INVALID_SOCKET), 0);
    EXPECT_EQ(HTTP_GetConnectError(INVALID_SOCKET), 0u);
}

TEST_F(HttpCallsTest, ConnectTakesAnAddressRecord) {
    int id = FakeScript(Answer(kGranted));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    sockaddr_in destination = dxtest::Loopback(echo);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_connect(s, reinterpret_cast<sockaddr*>(&destination), sizeof destination), 0);
    auto lines = capture.Lines();
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(lines[0], Line("Begin func HTTP_connect"));
    EXPECT_EQ(lines[1], Line(" socket = " + S()));
    EXPECT_EQ(lines[2], Line("Begin func HTTP_ConnectEx"));
    EXPECT_EQ(lines[4], Line("Begin host:port 127.0.0.1:" + std::to_string(echo)));
    EXPECT_EQ(lines[lines.size() - 2], Line(" result = 0"));
    EXPECT_EQ(lines.back(), Line("End func HTTP_connect"));
    HTTP_CleanupSocket(s);
    closesocket(s);
    Forget();
    EXPECT_EQ(FakeReceived(id).bytes, Request("127.0.0.1:" + std::to_string(echo)));

    SOCKET other = dxtest::MakeTcpSocket();
    EXPECT_EQ(HTTP_connect(other, nullptr, 16), -1);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    closesocket(other);
}

TEST_F(HttpCallsTest, TheSocksObjectOfAHandleServesTheHttpCalls) {
    sockaddr_in proxy = dxtest::Loopback(1080);
    proxy.sin_addr.s_addr = inet_addr("10.1.2.3");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 5), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ConnectCanceled(s), 0);
    EXPECT_EQ(HTTP_GetConnectError(s), 0u);
    sockaddr_in name = {};
    int length = sizeof name;
    EXPECT_EQ(HTTP_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(Dotted(name), "10.1.2.3");
    EXPECT_EQ(name.sin_port, 0);
    auto lines = capture.Lines();
    EXPECT_TRUE(dxtest::LinesStartingWith(lines, Line("CHttpSocket::CHttpSocket(")).empty());
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("calling ")), Lines{Line("calling CHttpSocket::GetSockName")});
    capture.Clear();
    HTTP_CleanupSocket(s);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("g_pProxySocketManager->RemoveSocket(s)")).size(), 1u);
}

// ---- Calls during and around a non-blocking exchange ----

class HttpCallsEventTest : public HttpCallsTest {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(HTTP_Startup(nullptr, 0), 1); }
    static void TearDownTestSuite() { HTTP_Cleanup(); }

    // Pumps until the request has gone to the proxy: the object is then in state 11.
    bool AwaitRequestSent(const dxtest::LogCapture& capture) {
        return host.PumpUntil(
            [&] { return !dxtest::LinesStartingWith(capture.Lines(), Line("CHttpSocket::Send - ")).empty(); }, 5000);
    }
    HostWindow host;
};

TEST_F(HttpCallsEventTest, CloseDuringTheExchangeLeavesTheSocketOpenTwice) {
    FakeScript("readhttp drain=5000");
    ASSERT_EQ(HTTP_WSAAsyncSelect(s, host.Handle(), HostWindow::kSocketMessage, FD_CONNECT), 0);
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    dxtest::LogCapture capture;
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    ASSERT_TRUE(AwaitRequestSent(capture));
    for (int close = 0; close < 2; ++close) {
        capture.Clear();
        EXPECT_EQ(HTTP_closesocket(s), 0) << close;
        EXPECT_TRUE(IsOpen(s)) << close;
        Lines expected = {Line("Begin func HTTP_closesocket"), Line(" socket = " + S()), Line(" result = 0"),
                          Line("End func HTTP_closesocket")};
        EXPECT_EQ(capture.Lines(), expected) << close;
    }
    // The way out: forget the object, then close.
    HTTP_CleanupSocket(s);
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_FALSE(IsOpen(s));
    Forget();
}

TEST_F(HttpCallsEventTest, AsyncSelectDuringTheExchangeDoesNothingAndTheSelectionIsLost) {
    FakeScript("readhttp sleep=500 send=" + dxtest::Hex(kGranted) + " sleep=300 send=" + dxtest::Hex("late") +
               " drain=3000");
    ASSERT_EQ(HTTP_WSAAsyncSelect(s, host.Handle(), HostWindow::kSocketMessage, FD_CONNECT), 0);
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    dxtest::LogCapture capture;
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    ASSERT_TRUE(AwaitRequestSent(capture));
    capture.Clear();
    EXPECT_EQ(HTTP_WSAAsyncSelect(s, host.Handle(), HostWindow::kSocketMessage, FD_CONNECT | FD_READ), 0);
    Lines expected = {Line("Begin func HTTP_WSAAsyncSelect"), Line(" socket = " + S()),
                      Line(" " + Pointer(host.Handle()) + ", 44d, 11"), Line("do nothing"), Line(" result = 0"),
                      Line("End func HTTP_WSAAsyncSelect")};
    EXPECT_EQ(capture.Lines(), expected);
    // The grant comes as FD_CONNECT of the first selection; the late bytes raise no FD_READ.
    ASSERT_TRUE(host.PumpUntil([&] { return !host.SocketMessages(s).empty(); }, 5000));
    host.PumpFor(800);
    auto messages = host.SocketMessages(s);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].Event(), static_cast<unsigned>(FD_CONNECT));
    EXPECT_EQ(messages[0].Error(), 0u);
    EXPECT_EQ(dxtest::Receive(s, 4, 1000), "late");
}

TEST_F(HttpCallsEventTest, BindExOnANonBlockingSocketWaitsForTheOutcome) {
    dxtest::DecliningPasswords declining;  // the case with authentication is declined
    struct Case {
        const char* name;
        std::string script;
        unsigned authenticate;
        int result;
        int error;
        unsigned connectError;
        int canceled;
    };
    const Case cases[] = {
        {"granted", Answer(kGranted), 0, 0, 0, 0, 0},
        // The reason of a refusal is only in the two fields; the WinSock error is -1.
        {"404", Answer("HTTP/1.1 404 Not Found\r\n\r\n"), 0, -1, -1, 65532, 0},
        {"407", Answer("HTTP/1.1 407 Proxy Authentication Required\r\n\r\n"), 0, -1, -1, 65533, 0},
        {"password prompt declined", "readhttp close", 1, -1, -1, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET r = dxtest::MakeTcpSocket();
        int id = FakeScript(c.script);
        MakeNonBlocking(r);
        ASSERT_EQ(HTTP_SetProxy(r, &fake, sizeof fake, "", c.authenticate), 0);
        int result = 1;
        int error = 4711;
        ASSERT_TRUE(ReturnsWithin(8000, [&] {
            result = HTTP_BindEx(r, "127.0.0.1", 4321, nullptr, AF_INET);
            error = WSAGetLastError();
        }));
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(HTTP_GetConnectError(r), c.connectError);
        EXPECT_EQ(HTTP_ConnectCanceled(r), c.canceled);
        HTTP_CleanupSocket(r);
        closesocket(r);
        EXPECT_EQ(FakeReceived(id).bytes, c.authenticate ? "" : Request("127.0.0.1:4321"));
    }
}

TEST_F(HttpCallsEventTest, SelectWaitsForTheExchange) {
    struct Case {
        const char* name;
        std::string reply;
        int result;
        int error;
    };
    const Case cases[] = {
        {"granted", kGranted, 2, 0},
        {"404", "HTTP/1.1 404 Not Found\r\n\r\n", SOCKET_ERROR, 65532},
        {"502", "HTTP/1.1 502 Bad Gateway\r\n\r\n", SOCKET_ERROR, 10061},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET r = dxtest::MakeTcpSocket();
        FakeScript("readhttp sleep=300 send=" + dxtest::Hex(c.reply) + " drain=3000");
        MakeNonBlocking(r);
        ASSERT_EQ(HTTP_SetProxy(r, &fake, sizeof fake, "", 0), 0);
        ASSERT_EQ(HTTP_ConnectEx(r, "127.0.0.1", echo, nullptr, AF_INET), 0);
        SOCKET plain = EchoConnection();
        fd_set writes;
        FD_ZERO(&writes);
        FD_SET(r, &writes);
        FD_SET(plain, &writes);
        int result = 0;
        int error = 0;
        ASSERT_TRUE(ReturnsWithin(5000, [&] {
            timeval zero = {0, 0};
            WSASetLastError(0);
            result = HTTP_select(0, nullptr, &writes, nullptr, &zero);
            error = WSAGetLastError();
        }));
        EXPECT_EQ(result, c.result);
        if (c.result == SOCKET_ERROR) {
            EXPECT_EQ(error, c.error);
        } else {
            ASSERT_EQ(writes.fd_count, 2u);
            EXPECT_EQ(writes.fd_array[1], r);
        }
        closesocket(plain);
        HTTP_CleanupSocket(r);
        closesocket(r);
    }
}

// ---- HTTP_Startup and HTTP_Cleanup ----

struct ExportSlot {
    const char* name;
    int ordinal;
};
// The dispatch table's slots in order, with the export each stands for. HTTP_Startup (409) isn't in it.
const ExportSlot kTable[31] = {
    {"HTTP_accept", 400},          {"HTTP_bind", 401},
    {"HTTP_closesocket", 402},     {"HTTP_connect", 403},
    {"HTTP_getsockname", 404},     {"HTTP_ioctlsocket", 405},
    {"HTTP_listen", 406},          {"HTTP_select", 407},
    {"HTTP_WSAAsyncSelect", 408},  {"HTTP_Cleanup", 410},
    {"HTTP_LogString", 411},       {"HTTP_ConfigurationDialog", 412},
    {"HTTP_SetProxy", 413},        {"HTTP_DetermineProxy", 414},
    {"HTTP_DetectShims", 415},     {"HTTP_GetVersionInfo", 416},
    {"HTTP_SetLoggingCallback", 418}, {"HTTP_SetPasswordCallback", 420},
    {"HTTP_SetLoggingCallbackEx", 419}, {"HTTP_ConnectEx", 421},
    {"HTTP_BindEx", 422},          {"HTTP_ConnectCanceled", 423},
    {"HTTP_GetConnectError", 424}, {"HTTP_DetermineProxyEx", 425},
    {"HTTP_UseAddressFamily", 426}, {"HTTP_SetXMLConfig", 427},
    {"HTTP_GetXMLConfig", 428},    {"HTTP_ShowXMLConfigDlg", 429},
    {"HTTP_CleanupSocket", 430},   {"HTTP_ConnectTimeout", 431},
    {"HTTP_SetParentHWND", 432},
};

class HttpLifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(FindWindowA(kHiddenClass, nullptr), nullptr) << "a test left the family started"; }
    static HMODULE Library() { return GetModuleHandleA("DXSOCKS.DLL"); }
};

TEST_F(HttpLifecycleTest, EverySlotIsTheExportAtItsOrdinal) {
    using AnyFunction = void (*)();
    AnyFunction table[31];
    std::memset(table, 0xab, sizeof table);
    ASSERT_EQ(HTTP_Startup(table, sizeof table), 1);
    std::vector<std::string> missing;
    for (int i = 0; i < 31; ++i) {
        FARPROC byOrdinal = GetProcAddress(Library(), MAKEINTRESOURCEA(kTable[i].ordinal));
        EXPECT_EQ(byOrdinal, GetProcAddress(Library(), kTable[i].name)) << kTable[i].name;
        EXPECT_EQ(reinterpret_cast<void*>(table[i]), reinterpret_cast<void*>(byOrdinal)) << kTable[i].name;
        if (table[i] == nullptr) missing.push_back(kTable[i].name);
    }
    EXPECT_EQ(GetProcAddress(Library(), MAKEINTRESOURCEA(409)), GetProcAddress(Library(), "HTTP_Startup"));
    EXPECT_NE(GetProcAddress(Library(), MAKEINTRESOURCEA(409)), nullptr);
    EXPECT_EQ(GetProcAddress(Library(), MAKEINTRESOURCEA(417)), nullptr);
    // Exports of the configuration, determination, shim and XML calls come later.
    std::vector<std::string> expected = {
        "HTTP_ConfigurationDialog", "HTTP_DetermineProxy", "HTTP_DetectShims",      "HTTP_DetermineProxyEx",
        "HTTP_UseAddressFamily",    "HTTP_SetXMLConfig",   "HTTP_GetXMLConfig",     "HTTP_ShowXMLConfigDlg",
    };
    EXPECT_EQ(missing, expected);
    EXPECT_EQ(HTTP_Cleanup(), 1);
}

TEST_F(HttpLifecycleTest, TheCopyIsTheSmallerOfTheSizeAndTheTable) {
    struct Case {
        int size;
        size_t copied;
    };
    const Case cases[] = {{16, 16}, {1000, 248}, {249, 248}, {248, 248}, {-1, 248}, {0, 0}, {3, 3}};
    for (const Case& c : cases) {
        unsigned char buffer[1000];
        std::memset(buffer, 0xab, sizeof buffer);
        ASSERT_EQ(HTTP_Startup(buffer, c.size), 1);
        for (size_t i = c.copied; i < sizeof buffer; ++i) ASSERT_EQ(buffer[i], 0xab) << c.size << " at " << i;
        if (c.copied >= 8) {
            void* first;
            std::memcpy(&first, buffer, sizeof first);
            EXPECT_EQ(first, reinterpret_cast<void*>(GetProcAddress(Library(), "HTTP_accept")));
        }
        EXPECT_EQ(HTTP_Cleanup(), 1);
    }
}

TEST_F(HttpLifecycleTest, TwoStartupsNeedTwoCleanups) {
    dxtest::LogCapture capture;
    ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
    ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
    HWND window = FindWindowA(kHiddenClass, nullptr);
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(HTTP_Cleanup(), 1);
    EXPECT_TRUE(IsWindow(window));
    EXPECT_EQ(HTTP_Cleanup(), 1);
    EXPECT_FALSE(IsWindow(window));
    auto lines = capture.Lines();
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("Creating hidden window.")).size(), 1u);
    // The cleanup that ends the thread waits for it; the other doesn't.
    EXPECT_LE(dxtest::LinesStartingWith(lines, Line("HTTP_Cleanup - waiting for thread to complete")).size(), 1u);
    EXPECT_EQ(lines.back(), Line("End func HTTP_Cleanup"));
}

// A log callback that holds the hidden thread, the first time it logs a socket event, until released.
class HiddenThreadStall {
public:
    HiddenThreadStall() {
        stalled_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        release_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        HTTP_SetLoggingCallbackEx(this, &HiddenThreadStall::Collect);
    }
    ~HiddenThreadStall() {
        HTTP_SetLoggingCallbackEx(nullptr, nullptr);
        SetEvent(release_);
        if (thread_ != nullptr) CloseHandle(thread_);
        CloseHandle(stalled_);
        CloseHandle(release_);
    }
    HiddenThreadStall(const HiddenThreadStall&) = delete;
    HiddenThreadStall& operator=(const HiddenThreadStall&) = delete;

    bool AwaitStall(DWORD ms) const { return WaitForSingleObject(stalled_, ms) == WAIT_OBJECT_0; }
    HANDLE Thread() const { return thread_; }
    Lines Collected() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

private:
    static void Collect(void* context, const char* text) {
        auto* self = static_cast<HiddenThreadStall*>(context);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->lines_.emplace_back(text);
            if (self->thread_ != nullptr || std::strstr(text, "httpHiddenOnSocketEvent(") == nullptr) return;
            self->thread_ = OpenThread(SYNCHRONIZE | THREAD_QUERY_INFORMATION, FALSE, GetCurrentThreadId());
        }
        SetEvent(self->stalled_);
        // Bounded, should the clean-up fail to end this thread.
        WaitForSingleObject(self->release_, 10000);
    }

    mutable std::mutex mutex_;
    Lines lines_;
    HANDLE thread_ = nullptr;
    HANDLE stalled_ = nullptr;
    HANDLE release_ = nullptr;
};

TEST_F(HttpLifecycleTest, CleanupEndsAHiddenThreadThatDoesNotStopWithinASecond) {
    ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
    HWND first = FindWindowA(kHiddenClass, nullptr);
    ASSERT_NE(first, nullptr);
    SOCKET s = dxtest::MakeTcpSocket();
    DWORD elapsed = 0;
    Lines lines;
    HANDLE thread = nullptr;
    {
        HiddenThreadStall stall;
        u_long on = 1;
        ASSERT_EQ(HTTP_ioctlsocket(s, static_cast<long>(FIONBIO), &on), 0);
        sockaddr_in proxy = dxtest::Loopback(dxtest::BenchPort("ECHO_PORT"));
        ASSERT_EQ(HTTP_SetProxy(s, &proxy, sizeof proxy, "", 0), 0);
        ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
        ASSERT_TRUE(stall.AwaitStall(5000));
        int cleanup = 0;
        ASSERT_TRUE(ReturnsWithin(8000, [&] {
            DWORD start = GetTickCount();
            cleanup = HTTP_Cleanup();
            elapsed = GetTickCount() - start;
        }));
        EXPECT_EQ(cleanup, 1);
        lines = stall.Collected();
        ASSERT_NE(stall.Thread(), nullptr);
        ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), stall.Thread(), GetCurrentProcess(), &thread, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS));
    }
    EXPECT_GE(elapsed, 900u);
    EXPECT_LT(elapsed, 5000u);
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("HTTP_Cleanup - waiting for thread to complete")).size(), 1u);
    EXPECT_EQ(lines.back(), Line("End func HTTP_Cleanup"));
    // Ended from outside, with exit code 0, while the callback still held it.
    EXPECT_EQ(WaitForSingleObject(thread, 2000), static_cast<DWORD>(WAIT_OBJECT_0));
    DWORD exitCode = 1;
    EXPECT_TRUE(GetExitCodeThread(thread, &exitCode));
    EXPECT_EQ(exitCode, 0u);
    CloseHandle(thread);
    HTTP_CleanupSocket(s);
    closesocket(s);

    // The ended thread could not unregister its window class; without that no later startup of the
    // family would get a window. Its window may outlive it for a while, so the startup can return
    // before the new window is there.
    EXPECT_TRUE(UnregisterClassA(kHiddenClass, Library()));
    bool restarted = false;
    ASSERT_TRUE(ReturnsWithin(5000, [&] { restarted = HTTP_Startup(nullptr, 0) == 1; }));
    EXPECT_TRUE(restarted);
    HWND second = nullptr;
    DWORD start = GetTickCount();
    while ((second = FindWindowA(kHiddenClass, nullptr)) == nullptr && GetTickCount() - start < 3000) Sleep(20);
    EXPECT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(HTTP_Cleanup(), 1);
}

}  // namespace
