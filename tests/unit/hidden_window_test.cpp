// The SOCKS hidden window's handling of socket events, seen from the objects and the log.
#include <gtest/gtest.h>

#include <string>

#include "bench.h"
#include "lifecycle.h"
#include "log_capture.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "socks_api.h"
#include "socks_socket.h"

namespace {

class HiddenWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);
        ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
        ASSERT_TRUE(IsWindow(g_hSocksWindow));
    }
    void TearDown() override {
        SOCKS_Cleanup();
        delete g_pProxySocketManager;
        g_pProxySocketManager = nullptr;
    }
    // Sends an event to the hidden window and waits, on its thread, until it has been handled.
    void Deliver(SOCKET s, unsigned event, unsigned error = 0) {
        SendMessageA(g_hSocksWindow, WM_SOCKET_EVENT, static_cast<WPARAM>(s), WSAMAKESELECTREPLY(event, error));
    }
    std::string EventLine(SOCKET s, unsigned error, unsigned event) {
        char line[128];
        std::snprintf(line, sizeof line, "DXSOCKS: socksHiddenOnSocketEvent(socket:%d,error:%d,FD event:%x)",
                      static_cast<int>(s), static_cast<int>(error), event);
        return line;
    }
};

TEST_F(HiddenWindowTest, EventForASocketThatLeftTheRegistryIsLoggedAndIgnored) {
    dxtest::LogCapture capture;
    Deliver(777, FD_READ);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{EventLine(777, 0, FD_READ)});
}

TEST_F(HiddenWindowTest, ReadInTheEstablishedStateIsNotAStep) {
    auto object = g_pProxySocketManager->AddSocket(778, kSocksSocketType).As<CSocksSocket>();
    object->state = kEstablished;
    dxtest::LogCapture capture;
    Deliver(778, FD_READ);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{EventLine(778, 0, FD_READ)});
    EXPECT_EQ(object->state, kEstablished);
}

TEST_F(HiddenWindowTest, ReadInAStateWithoutAStepFailsAndIsLogged) {
    auto object = g_pProxySocketManager->AddSocket(779, kSocksSocketType).As<CSocksSocket>();
    for (ProxyState state : {kIdle, kFinished, kFailed}) {
        object->state = state;
        dxtest::LogCapture capture;
        Deliver(779, FD_READ);
        std::vector<std::string> expected = {EventLine(779, 0, FD_READ),
                                             "DXSOCKS: socksHiddenOnSocketEvent(FD_READ). Error -1"};
        EXPECT_EQ(capture.Lines(), expected) << state;
    }
}

TEST_F(HiddenWindowTest, ConnectWithAnErrorChangesNothing) {
    auto object = g_pProxySocketManager->AddSocket(780, kSocksSocketType).As<CSocksSocket>();
    object->state = kConnecting;
    dxtest::LogCapture capture;
    Deliver(780, FD_CONNECT, WSAECONNREFUSED);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{EventLine(780, WSAECONNREFUSED, FD_CONNECT)});
    EXPECT_EQ(object->state, kConnecting);
}

TEST_F(HiddenWindowTest, ConnectWithoutAnErrorMakesTheFirstStep) {
    auto object = g_pProxySocketManager->AddSocket(781, kSocksSocketType).As<CSocksSocket>();
    object->state = kConnecting;
    object->protocolVersion = 7;  // a version without steps: ProcessState does nothing and gives 0
    dxtest::LogCapture capture;
    Deliver(781, FD_CONNECT);
    EXPECT_EQ(object->state, kConnected);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{EventLine(781, 0, FD_CONNECT)});
}

TEST(RegistryTest, NonBlockingModeAloneMakesAnIdleObject) {
    g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);
    SOCKET s = dxtest::MakeTcpSocket();
    u_long on = 1;
    EXPECT_EQ(SOCKS_ioctlsocket(s, FIONBIO, &on), 0);
    auto object = g_pProxySocketManager->FindSocket(s).As<CSocksSocket>();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->state, kIdle);
    EXPECT_EQ(object->useCount, 0);
    EXPECT_EQ(object->asyncMode, 1);
    closesocket(s);
    delete g_pProxySocketManager;
    g_pProxySocketManager = nullptr;
}

}  // namespace
