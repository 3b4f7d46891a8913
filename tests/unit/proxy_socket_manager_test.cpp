#include "proxy_socket_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "http_socket.h"
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
    ProxySocketUse first = manager.FindOrAddSocket(100, kSocksSocketType);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->socket, 100u);
    EXPECT_EQ(manager.FindOrAddSocket(100, kSocksSocketType).get(), first.get());
    EXPECT_EQ(manager.FindSocket(100).get(), first.get());
    EXPECT_EQ(manager.Count(), 1u);
}

TEST_F(ProxySocketManagerTest, AddSocketAppendsAtTheTailWithoutLooking) {
    ProxySocketUse a = manager.AddSocket(7, kSocksSocketType);
    ProxySocketUse b = manager.AddSocket(8, kSocksSocketType);
    ProxySocketUse again = manager.AddSocket(7, kSocksSocketType);
    EXPECT_EQ(manager.At(0).get(), a.get());
    EXPECT_EQ(manager.At(1).get(), b.get());
    EXPECT_EQ(manager.At(2).get(), again.get());
    EXPECT_EQ(manager.At(3), nullptr);
    // The first object of a handle is the one found.
    EXPECT_EQ(manager.FindSocket(7).get(), a.get());
}

TEST_F(ProxySocketManagerTest, NewSocksObjectHasItsDefaultsAndLogsItsBirth) {
    dxtest::LogCapture capture;
    auto object = manager.AddSocket(42, kSocksSocketType).As<CSocksSocket>();
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

TEST_F(ProxySocketManagerTest, RemovedObjectIsNotFoundAgainAndLivesWhileItIsUsed) {
    ProxySocketUse held = manager.AddSocket(30, kSocksSocketType);
    EXPECT_EQ(UseCountOf(held.get()), 2);  // the registry's and this one
    manager.RemoveSocket(30);
    EXPECT_EQ(manager.FindSocket(30), nullptr);
    EXPECT_EQ(manager.Count(), 0u);
    EXPECT_EQ(UseCountOf(held.get()), 1);
    held->state = kEstablished;
    EXPECT_EQ(held->socket, 30u);
}

TEST_F(ProxySocketManagerTest, RemovingAnObjectLeavesANewerOneOfTheSameHandle) {
    ProxySocketUse old = manager.AddSocket(31, kSocksSocketType);
    manager.RemoveSocket(31);
    ProxySocketUse newer = manager.FindOrAddSocket(31, kHttpSocketType);
    ASSERT_NE(newer.get(), old.get());
    manager.RemoveSocket(old.get());
    EXPECT_EQ(manager.FindSocket(31).get(), newer.get());
    manager.RemoveSocket(newer.get());
    EXPECT_EQ(manager.FindSocket(31), nullptr);
}

// ---- The factory: one room for both classes, the other class's defaults beneath ----

class ProxySocketFactoryTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (CProxySocket* object : made) DropUse(object);
    }
    CProxySocket* Made(SOCKET s, int type) {
        CProxySocket* object = MakeProxySocket(s, type);
        if (object != nullptr) made.push_back(object);
        return object;
    }
    std::vector<CProxySocket*> made;
};

TEST_F(ProxySocketFactoryTest, BothClassesTakeTheRoomOfTheLarger) {
    EXPECT_EQ(kProxySocketSize, std::max(sizeof(CSocksSocket), sizeof(CHttpSocket)));
    CProxySocket* socks = Made(50, kSocksSocketType);
    CProxySocket* http = Made(51, kHttpSocketType);
    CProxySocket* other = Made(52, 7);
    ASSERT_NE(socks, nullptr);
    ASSERT_NE(http, nullptr);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(RoomOf(socks), kProxySocketSize);
    EXPECT_EQ(RoomOf(http), kProxySocketSize);
    EXPECT_EQ(RoomOf(other), kProxySocketSize);
    EXPECT_EQ(UseCountOf(http), 1);
}

TEST_F(ProxySocketFactoryTest, AnHttpObjectReadAsSocksHoldsAFreshSocksObjectsFields) {
    dxtest::LogCapture capture;
    CProxySocket* object = Made(53, kHttpSocketType);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{"DXSOCKS: CHttpSocket::CHttpSocket(53)"});
    const CSocksSocket fresh(53, kUnlogged);
    const auto* asSocks = static_cast<const CSocksSocket*>(object);
    EXPECT_EQ(std::count(std::begin(asSocks->socks4Packet), std::end(asSocks->socks4Packet), 0), 8);
    EXPECT_EQ(asSocks->protocolVersion, 4u);
    EXPECT_EQ(asSocks->protocolVersion, fresh.protocolVersion);
    EXPECT_EQ(asSocks->identityHandle, nullptr);
    EXPECT_EQ(asSocks->identityLocalPort, 0u);
    EXPECT_EQ(static_cast<const CHttpSocket*>(object)->useAuthentication, 0);
    EXPECT_EQ(object->reserved, 255);
    EXPECT_EQ(object->state, kIdle);
}

TEST_F(ProxySocketFactoryTest, ASocksObjectReadAsHttpHoldsAFreshHttpObjectsFields) {
    dxtest::LogCapture capture;
    CProxySocket* object = Made(54, kSocksSocketType);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{"DXSOCKS: CSocksSocket::CSocksSocket(54)"});
    EXPECT_EQ(static_cast<const CHttpSocket*>(object)->useAuthentication, 0);
    EXPECT_EQ(static_cast<const CSocksSocket*>(object)->protocolVersion, 4u);
}

TEST_F(ProxySocketFactoryTest, TheOtherStacksSetProxyStaysInsideTheObject) {
    // HTTP names the proxy; the SOCKS stack then takes the object as a fresh one of its own with
    // that proxy: version 4.
    CProxySocket* object = Made(55, kHttpSocketType);
    ASSERT_NE(object, nullptr);
    sockaddr_in proxy = {};
    proxy.sin_family = AF_INET;
    proxy.sin_port = htons(3128);
    proxy.sin_addr.s_addr = inet_addr("10.1.2.3");
    static_cast<CHttpSocket*>(object)->SetProxy(&proxy, sizeof proxy, "user", 0);
    auto* asSocks = static_cast<CSocksSocket*>(object);
    EXPECT_EQ(asSocks->protocolVersion, 4u);
    EXPECT_EQ(asSocks->useProxy, 1);
    asSocks->SetProxy(&proxy, sizeof proxy, "user", 5);
    EXPECT_EQ(asSocks->protocolVersion, 5u);
    // The SOCKS fields lie within the room the block holds.
    auto end = reinterpret_cast<const char*>(&asSocks->identityLocalPort) + sizeof asSocks->identityLocalPort;
    EXPECT_LE(end, reinterpret_cast<const char*>(object) + RoomOf(object));
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
