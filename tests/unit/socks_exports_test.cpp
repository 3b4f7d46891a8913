// Export behaviour that only the library's own globals show.
#include <gtest/gtest.h>

#include "bench.h"
#include "config_sets.h"
#include "lifecycle.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "socks_api.h"
#include "socks_socket.h"
#include "test_helpers.h"

namespace {

class SocksExportsTest : public ::testing::Test {
protected:
    // A socket without a proxy determines: with nothing configured and no UI library beside "this
    // library" (the stand-in), the first-use prompt is a declined one.
    void SetUp() override {
        dxtest::ClearSettingsStore();
        DeleteConfigSets();
        g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);
    }
    void TearDown() override {
        delete g_pProxySocketManager;
        g_pProxySocketManager = nullptr;
        DeleteConfigSets();
        dxtest::ClearSettingsStore();
    }
    // Any window handle value will do: the library only stores it.
    HWND Window(uintptr_t value) { return reinterpret_cast<HWND>(value); }
};

TEST_F(SocksExportsTest, ConnectExWritesTheParentWindowInEveryCase) {
    SOCKET s = dxtest::MakeTcpSocket();
    g_hParentWindow = Window(0x1234);
    EXPECT_EQ(SOCKS_ConnectEx(INVALID_SOCKET, "127.0.0.1", 80, Window(0x10), AF_INET), -1);
    EXPECT_EQ(g_hParentWindow, Window(0x10));
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, Window(0x20), AF_INET), -1);  // no proxy
    EXPECT_EQ(g_hParentWindow, Window(0x20));
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(g_hParentWindow, nullptr);
    closesocket(s);
}

TEST_F(SocksExportsTest, SocketWithoutAProxyStaysIdleWhenTheFirstUsePromptIsDeclined) {
    SOCKET s = dxtest::MakeTcpSocket();
    WSASetLastError(4242);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 1223);
    auto object = g_pProxySocketManager->FindSocket(s).As<CSocksSocket>();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->state, kIdle);
    EXPECT_EQ(object->proxyChosen, 0);
    closesocket(s);
}

TEST_F(SocksExportsTest, SetProxyIsVersion4) {
    SOCKET s = dxtest::MakeTcpSocket();
    sockaddr_in proxy = dxtest::Loopback(1080);
    ASSERT_EQ(SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 5), 0);
    ASSERT_EQ(SOCKS_SetProxy(s, &proxy, sizeof proxy, "me"), 0);
    auto object = g_pProxySocketManager->FindSocket(s).As<CSocksSocket>();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->protocolVersion, 4u);
    EXPECT_STREQ(object->userId, "me");
    EXPECT_EQ(g_pProxySocketManager->Count(), 1u);
    closesocket(s);
}

TEST_F(SocksExportsTest, LookupFailureLeavesTheObjectConnecting) {
    SOCKET s = dxtest::MakeTcpSocket();
    sockaddr_in proxy = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "no-such-host.invalid", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), WSAHOST_NOT_FOUND);
    auto object = g_pProxySocketManager->FindSocket(s).As<CSocksSocket>();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->state, kConnecting);
    EXPECT_EQ(object->lastError, WSAHOST_NOT_FOUND);
    closesocket(s);
}

}  // namespace
