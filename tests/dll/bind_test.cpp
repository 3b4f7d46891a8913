// BIND through a proxy: the host binds, learns the address to give its peer, listens, and accepts
// the peer's connection on the same socket.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench.h"
#include "fake_proxy_test.h"
#include "log_capture.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

class BindTest : public dxtest::FakeProxyTest {
protected:
    void SetUp() override {
        ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
        dxtest::FakeProxyTest::SetUp();
        dxtest::MakeNonBlocking(s, SOCKS_ioctlsocket);
    }
    void TearDown() override {
        dxtest::FakeProxyTest::TearDown();
        SOCKS_Cleanup();
    }

    // Calls SOCKS_accept until the proxy's second reply is judged, for at most a few seconds.
    SOCKET AcceptWhenReady(sockaddr_in* peer, int* error) {
        int length = sizeof *peer;
        for (int tries = 0; tries < 100; ++tries) {
            SOCKET accepted = SOCKS_accept(s, reinterpret_cast<sockaddr*>(peer), &length);
            *error = WSAGetLastError();
            if (accepted != INVALID_SOCKET || *error != WSAEWOULDBLOCK) return accepted;
            Sleep(50);
        }
        return INVALID_SOCKET;
    }
};

TEST_F(BindTest, Socks4BindThroughDantedCarriesDataBothWaysAndNeedsTwoCloses) {
    sockaddr_in dante = dxtest::Loopback(dxtest::BenchPort("DANTE_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &dante, sizeof dante, "binder", 4), 0);
    std::vector<uint16_t> before = dxtest::ListeningPorts("danted");
    ASSERT_EQ(SOCKS_BindEx(s, "127.0.0.1", 1234, nullptr, AF_INET), 0);

    // What the host hands its peer: the proxy's address and the port it gave, not the bound one.
    sockaddr_in local = {};
    int length = sizeof local;
    ASSERT_EQ(SOCKS_getsockname(s, reinterpret_cast<sockaddr*>(&local), &length), 0);
    EXPECT_EQ(local.sin_addr.s_addr, dante.sin_addr.s_addr);
    EXPECT_EQ(ntohs(local.sin_port), 1234);
    EXPECT_EQ(SOCKS_listen(s, 1), 0);

    // The library never tells the port the proxy bound; the proxy's listening sockets do.
    std::vector<uint16_t> after = dxtest::ListeningPorts("danted");
    std::vector<uint16_t> bound;
    for (uint16_t port : after) {
        if (std::find(before.begin(), before.end(), port) == before.end()) bound.push_back(port);
    }
    ASSERT_EQ(bound.size(), 1u);

    SOCKET peer = dxtest::MakeTcpSocket();
    sockaddr_in target = dxtest::Loopback(bound[0]);
    ASSERT_EQ(connect(peer, reinterpret_cast<sockaddr*>(&target), sizeof target), 0);
    sockaddr_in peerLocal = {};
    int peerLength = sizeof peerLocal;
    ASSERT_EQ(getsockname(peer, reinterpret_cast<sockaddr*>(&peerLocal), &peerLength), 0);

    sockaddr_in reported = {};
    int error = 0;
    ASSERT_EQ(AcceptWhenReady(&reported, &error), s) << "error " << error;
    EXPECT_EQ(error, 0);
    EXPECT_EQ(reported.sin_family, AF_INET);
    EXPECT_EQ(reported.sin_port, peerLocal.sin_port);

    ASSERT_TRUE(dxtest::SendAll(peer, "from the peer"));
    EXPECT_EQ(dxtest::Receive(s, 13), "from the peer");
    ASSERT_TRUE(dxtest::SendAll(s, "from the host"));
    EXPECT_EQ(dxtest::Receive(peer, 13), "from the host");

    EXPECT_EQ(SOCKS_closesocket(s), 0);  // the accepted side's close: the socket stays
    ASSERT_TRUE(dxtest::SendAll(s, "still open"));
    EXPECT_EQ(dxtest::Receive(peer, 10), "still open");
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: g_pProxySocketManager->RemoveSocket(s)").size(), 1u);
    EXPECT_EQ(dxtest::Receive(peer, 1, 3000), "");  // the proxy passes the close on
    Forget();
    closesocket(peer);
}

TEST_F(BindTest, Socks5BindsSecondReplyIsNotASocks4GrantAndEndsIn10061) {
    int id = dxtest::FakeScript(
        "read=3 send=0500 read=10 send=05000001000000000000 sleep=300 send=050000017f0000011f90 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 5), 0);
    ASSERT_EQ(SOCKS_BindEx(s, "127.0.0.1", 8080, nullptr, AF_INET), 0);
    sockaddr_in reported = {};
    int error = 0;
    EXPECT_EQ(AcceptWhenReady(&reported, &error), INVALID_SOCKET);
    EXPECT_EQ(error, WSAECONNREFUSED);
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    Forget();
    dxtest::FakeLog log = dxtest::FakeReceived(id);
    EXPECT_EQ(log.bytes, dxtest::Unhex("050100") + dxtest::Unhex("050200017f0000011f90"));
}

}  // namespace
