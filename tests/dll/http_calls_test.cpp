// The HTTP socket calls through DXSOCKS.DLL, as a host uses them: their log frames, the calls that go
// straight to WinSock, the ones that wait for an exchange, and the family's startup and clean-up.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench.h"
#include "fake_proxy_test.h"
#include "host_window.h"
#include "http_api.h"
#include "log_capture.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::Answer;
using dxtest::ClosedHandle;
using dxtest::Dotted;
using dxtest::FakeScript;
using dxtest::Frame;
using dxtest::HostWindow;
using dxtest::IsListening;
using dxtest::IsOpen;
using dxtest::Line;
using dxtest::Lines;

const char kGranted[] = "HTTP/1.1 200 Connection established\r\n\r\n";

class HttpCallsTest : public dxtest::FakeProxyTest {
protected:
    void Close(SOCKET socket) override {
        HTTP_CleanupSocket(socket);
        closesocket(socket);
    }
};

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
    EXPECT_EQ(capture.Lines(), Frame("HTTP_closesocket", s, {}, 0));
    EXPECT_FALSE(IsOpen(s));
    Forget();
}

TEST_F(HttpCallsTest, CloseOfAGrantedSocketClosesItAndForgetsTheObject) {
    FakeScript(Answer(kGranted));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_closesocket(s), 0);
    EXPECT_EQ(capture.Lines(), Frame("HTTP_closesocket", s, {"g_pProxySocketManager->RemoveSocket(s)"}, 0));
    EXPECT_FALSE(IsOpen(s));
    Forget();
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
    EXPECT_EQ(capture.Lines(), Frame("HTTP_ioctlsocket", INVALID_SOCKET, {" set socket non-blocking"}, WSAENOTSOCK));
}

// ---- Calls during and around a non-blocking exchange ----

class HttpCallsEventTest : public HttpCallsTest {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(HTTP_Startup(nullptr, 0), 1); }
    static void TearDownTestSuite() { HTTP_Cleanup(); }

    // Pumps until the request has gone to the proxy: the object then awaits the reply.
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
        EXPECT_EQ(capture.Lines(), Frame("HTTP_closesocket", s, {}, 0)) << close;
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
    EXPECT_EQ(capture.Lines(), Frame("HTTP_WSAAsyncSelect", s,
                                     {" " + dxtest::Pointer(host.Handle()) + ", 44d, 11", "do nothing"}, 0));
    // The grant comes as FD_CONNECT of the first selection; the late bytes raise no FD_READ.
    ASSERT_TRUE(host.PumpUntil([&] { return !host.SocketMessages(s).empty(); }, 5000));
    host.PumpFor(800);
    auto messages = host.SocketMessages(s);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].Event(), static_cast<unsigned>(FD_CONNECT));
    EXPECT_EQ(messages[0].Error(), 0u);
    EXPECT_EQ(dxtest::Receive(s, 4, 1000), "late");
}

}  // namespace
