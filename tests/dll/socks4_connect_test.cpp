// SOCKS 4 connects through the exports, against the scripted fake proxy and a real danted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench.h"
#include "fake_proxy_test.h"
#include "log_capture.h"
#include "settings_files.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;
using dxtest::Frame;
using dxtest::FrameWithoutResult;
using dxtest::Lines;

std::string Socks4Request(uint8_t command, uint16_t port, const std::string& address, const std::string& user) {
    std::string request = {4, static_cast<char>(command), static_cast<char>(port >> 8), static_cast<char>(port & 0xff)};
    return request + address + user + std::string(1, '\0');
}
const std::string kLoopbackBytes("\x7f\0\0\x01", 4);

class Socks4ConnectTest : public dxtest::FakeProxyTest {};

TEST_F(Socks4ConnectTest, GrantedConnectCarriesTheHostsOwnData) {
    int id = FakeScript("read=14 send=005a000000000000 echo");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "alice", 4), 0);
    WSASetLastError(0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    EXPECT_EQ(WSAGetLastError(), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "payload"));
    EXPECT_EQ(dxtest::Receive(s, 7), "payload");
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, Socks4Request(1, echo, kLoopbackBytes, "alice") + "payload");
}

TEST_F(Socks4ConnectTest, LogOfAGrantedConnect) {
    FakeScript("read=9 send=005a000000000000 drain=3000");
    dxtest::LogCapture capture;
    ASSERT_EQ(SOCKS_SetProxy(s, &fake, sizeof fake, ""), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    Lines logged = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: ");
    Lines identity = dxtest::IdentityLines(s, FakePort(), "", logged);
    Lines expected = dxtest::Joined({
        FrameWithoutResult("SOCKS_SetProxyEx", s, {"CSocksSocket::CSocksSocket(" + S() + ")"}),
        Frame("SOCKS_ConnectEx", s,
              {"Begin host:port 127.0.0.1:4321", identity[0], identity[1],
               "CSocksSocket::ProcessState - Sending SOCKS protocol header.", "CSocksSocket::Send - 8 bytes sent.",
               "CSocksSocket::ProcessState - Sending SOCKS user id.", "CSocksSocket::Send - 1 bytes sent.",
               "CSocksSocket::StartReading", "End host:port 127.0.0.1:4321", "WinSock Error = 0"},
              0),
    });
    // The numbered reports among these lines are the business of reports_test.cpp.
    EXPECT_EQ(logged, expected);
}

TEST_F(Socks4ConnectTest, EveryRefusalCodeGives10061) {
    for (const char* code : {"5b", "5c", "5d", "5e", "00"}) {
        SOCKET refused = dxtest::MakeTcpSocket();
        int id = FakeScript(std::string("readz send=00") + code + "000000000000 drain=3000");
        ASSERT_EQ(SOCKS_SetProxyEx(refused, &fake, sizeof fake, "bob", 4), 0);
        WSASetLastError(0);
        EXPECT_EQ(SOCKS_ConnectEx(refused, "127.0.0.1", 80, nullptr, AF_INET), -1) << code;
        EXPECT_EQ(WSAGetLastError(), 10061) << code;
        dxtest::Retire(refused);
        EXPECT_EQ(FakeReceived(id).bytes, Socks4Request(1, 80, kLoopbackBytes, "bob")) << code;
    }
}

TEST_F(Socks4ConnectTest, ReplyInPiecesOnABlockingSocket) {
    FakeScript("readz send=00 sleep=200 send=5a0000 sleep=200 send=00000000 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
}

TEST_F(Socks4ConnectTest, BytesBehindTheReplyInTheSameSegmentAreConsumedWithIt) {
    FakeScript("read=9 send=005a00000000000048454c4c4f echo");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "after"));
    EXPECT_EQ(dxtest::Receive(s, 10, 1000), "after");
}

TEST_F(Socks4ConnectTest, RefusalLogReportsTheWinsockError) {
    FakeScript("readz send=005b000000000000 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    auto lines = capture.Lines();
    ASSERT_GE(lines.size(), 4u);
    std::vector<std::string> tail(lines.end() - 4, lines.end());
    std::vector<std::string> expected = {
        "DXSOCKS: End host:port 127.0.0.1:80",
        "DXSOCKS: WinSock Error = 10061",
        "DXSOCKS:  result = -1",
        "DXSOCKS: End func SOCKS_ConnectEx",
    };
    EXPECT_EQ(tail, expected);
}

TEST_F(Socks4ConnectTest, UnresolvableDestinationGivesTheLookupCodeBeforeAnyConnect) {
    int id = FakeScript("close");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "no-such-host.invalid", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), WSAHOST_NOT_FOUND);
    EXPECT_EQ(FakeReceived(id, 300).status, "pending");
}

TEST_F(Socks4ConnectTest, ProxyThatRefusesTheTcpConnect) {
    sockaddr_in closed = dxtest::Loopback(1);  // nothing listens on port 1
    ASSERT_EQ(SOCKS_SetProxyEx(s, &closed, sizeof closed, "", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNREFUSED);
}

TEST_F(Socks4ConnectTest, NoProxyAddressConnectsToTheTargetAndShakesHandsThere) {
    // The fake proxy stands as the destination here: the SOCKS request reaches it directly.
    int id = FakeScript("read=9 send=005a000000000000 drain=3000");
    sockaddr_in none = {};
    ASSERT_EQ(SOCKS_SetProxyEx(s, &none, sizeof none, "ignored", 5), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", ntohs(fake.sin_port), nullptr, AF_INET), 0);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, Socks4Request(1, ntohs(fake.sin_port), kLoopbackBytes, ""));
}

TEST_F(Socks4ConnectTest, CanceledAndConnectErrorOfAnOrdinaryConnectAreZero) {
    FakeScript("read=9 send=005a000000000000 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 0);
    EXPECT_EQ(SOCKS_GetConnectError(s), 0u);
    EXPECT_EQ(capture.Lines(),
              dxtest::Joined({Frame("SOCKS_ConnectCanceled", s, {}, 0), Frame("SOCKS_GetConnectError", s, {}, 0)}));
}

TEST_F(Socks4ConnectTest, PercentInTheHostNameGoesThroughTheSecondPass) {
    // Named no proxy, the socket determines, over a map that goes direct: the call and the
    // determination each log the host.
    dxtest::ClearSettingsStore();
    ASSERT_TRUE(dxtest::WriteDirectSettings());
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectEx(s, "h%n%s%x%*d%c%", 80, nullptr, AF_INET), -1);
    dxtest::ClearSettingsStore();
    auto begin = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: Begin host:port");
    ASSERT_EQ(begin.size(), 2u);
    EXPECT_EQ(begin[0], "DXSOCKS: Begin host:port h(null)00%:80");
    EXPECT_EQ(begin[1], "DXSOCKS: Begin host:port h(null)00%:80");
}

TEST_F(Socks4ConnectTest, ProxyThatClosesBeforeAnyReplyKeepsTheReadGoingUntilTheHostShutsItDown) {
    // A zero-byte read is no retry, so the blocking read only ends when reading fails.
    int id = FakeScript("readz close");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    struct Call {
        SOCKET s;
        int result = 1;
        int error = 0;
    } call{s};
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](void* p) -> DWORD {
            auto* c = static_cast<Call*>(p);
            c->result = SOCKS_ConnectEx(c->s, "127.0.0.1", 80, nullptr, AF_INET);
            c->error = WSAGetLastError();
            return 0;
        },
        &call, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(FakeReceived(id).status, "done");
    EXPECT_EQ(WaitForSingleObject(thread, 500), static_cast<DWORD>(WAIT_TIMEOUT));
    shutdown(s, SD_RECEIVE);
    ASSERT_EQ(WaitForSingleObject(thread, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
    CloseHandle(thread);
    EXPECT_EQ(call.result, -1);
    EXPECT_EQ(call.error, WSAESHUTDOWN);
}

class DantedTest : public Socks4ConnectTest {
protected:
    void SetUp() override {
        Socks4ConnectTest::SetUp();
        dante = dxtest::Loopback(dxtest::BenchPort("DANTE_PORT"));
    }
    sockaddr_in dante = {};
};

TEST_F(DantedTest, Socks4ConnectCarriesDataBothWays) {
    ASSERT_EQ(SOCKS_SetProxyEx(s, &dante, sizeof dante, "tester", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    std::string payload(5000, 'p');
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7);
    ASSERT_TRUE(dxtest::SendAll(s, payload));
    EXPECT_EQ(dxtest::Receive(s, payload.size()), payload);
}

TEST_F(DantedTest, Socks4ConnectToAServerThatSpeaksFirst) {
    ASSERT_EQ(SOCKS_SetProxy(s, &dante, sizeof dante, ""), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "localhost", dxtest::BenchPort("BANNER_PORT"), nullptr, AF_INET), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "back"));
    // The reply read takes up to 64 bytes, so a banner that came with the reply is gone.
    std::string received = dxtest::Receive(s, 18, 2000);
    EXPECT_TRUE(received == "DXTEST-BANNER\nback" || received == "back") << received;
}

TEST_F(DantedTest, Socks4ConnectToAClosedPortIsRefused) {
    ASSERT_EQ(SOCKS_SetProxyEx(s, &dante, sizeof dante, "", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 1, nullptr, AF_INET), -1);
    // danted may close at once behind its refusal, and the reset can overtake the reply's bytes.
    int error = WSAGetLastError();
    EXPECT_TRUE(error == WSAECONNREFUSED || error == WSAECONNRESET) << error;
}

}  // namespace
