#include "proxy_socket_manager.h"

#include <gtest/gtest.h>

#include "log_capture.h"
#include "proxy_socket_factory.h"
#include "socks_socket.h"

namespace {

class ProxySocketManagerTest : public ::testing::Test {
protected:
    CProxySocketManager manager{MakeProxySocket};
};

TEST_F(ProxySocketManagerTest, InvalidSocketIsRefusedAndNeverAdded) {
    EXPECT_EQ(manager.FindOrAddSocket(INVALID_SOCKET, kSocksSocketType), nullptr);
    EXPECT_EQ(manager.Count(), 0u);
    EXPECT_EQ(manager.FindSocket(INVALID_SOCKET), nullptr);
}

TEST_F(ProxySocketManagerTest, FindOrAddAddsOnceThenFinds) {
    CProxySocket* first = manager.FindOrAddSocket(100, kSocksSocketType);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->socket, 100u);
    EXPECT_EQ(manager.FindOrAddSocket(100, kSocksSocketType), first);
    EXPECT_EQ(manager.FindSocket(100), first);
    EXPECT_EQ(manager.Count(), 1u);
}

TEST_F(ProxySocketManagerTest, AddSocketAppendsAtTheTailWithoutLooking) {
    CProxySocket* a = manager.AddSocket(7, kSocksSocketType);
    CProxySocket* b = manager.AddSocket(8, kSocksSocketType);
    CProxySocket* again = manager.AddSocket(7, kSocksSocketType);
    EXPECT_EQ(manager.At(0), a);
    EXPECT_EQ(manager.At(1), b);
    EXPECT_EQ(manager.At(2), again);
    // The first object of a handle is the one found.
    EXPECT_EQ(manager.FindSocket(7), a);
}

TEST_F(ProxySocketManagerTest, NewSocksObjectHasItsDefaultsAndLogsItsBirth) {
    dxtest::LogCapture capture;
    auto* object = static_cast<CSocksSocket*>(manager.AddSocket(42, kSocksSocketType));
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0], "DXSOCKS: CSocksSocket::CSocksSocket(42)");
    EXPECT_EQ(object->state, kIdle);
    EXPECT_EQ(object->useCount, 0);
    EXPECT_EQ(object->protocolVersion, 4u);
    EXPECT_EQ(object->proxyChosen, 0);
    EXPECT_EQ(object->reserved, 255);
    EXPECT_STREQ(object->userId, "");
}

TEST_F(ProxySocketManagerTest, RemoveSocketUnlinksAndUnknownHandlesAreNoError) {
    manager.AddSocket(1, kSocksSocketType);
    manager.AddSocket(2, kSocksSocketType);
    manager.AddSocket(3, kSocksSocketType);
    manager.RemoveSocket(2);
    EXPECT_EQ(manager.Count(), 2u);
    EXPECT_EQ(manager.FindSocket(2), nullptr);
    EXPECT_NE(manager.FindSocket(3), nullptr);
    manager.RemoveSocket(99);
    EXPECT_EQ(manager.Count(), 2u);
}

TEST(ProxySocketRecordTest, LinkComesFirstAndTheKeyIsSixtyFourBits) {
    CSocksSocket object(5);
    EXPECT_EQ(static_cast<void*>(&object), static_cast<void*>(static_cast<CListNode*>(&object)));
    EXPECT_EQ(sizeof object.socket, 8u);
    EXPECT_EQ(sizeof object.targetAddress, 16u);
    EXPECT_EQ(sizeof object.targetHost, 1025u);
    EXPECT_EQ(sizeof object.targetService, 33u);
    EXPECT_EQ(sizeof object.receiveBuffer, 1024u);
    EXPECT_EQ(sizeof object.userId, 512u);
    EXPECT_EQ(sizeof object.socks4Packet, 8u);
}

}  // namespace
