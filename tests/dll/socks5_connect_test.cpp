// SOCKS 5 connects through the exports on blocking sockets, against the fake proxy, danted and microsocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench.h"
#include "declining_passwords.h"
#include "fake_proxy_test.h"
#include "log_capture.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

const std::string kLoopbackBytes("\x7f\0\0\x01", 4);

std::string PortBytes(uint16_t port) { return {static_cast<char>(port >> 8), static_cast<char>(port & 0xff)}; }
std::string Bytes(std::initializer_list<int> values) {
    std::string bytes;
    for (int v : values) bytes += static_cast<char>(v);
    return bytes;
}
const std::string kSelectWithoutUser = Bytes({5, 1, 0});
const std::string kSelectWithUser = Bytes({5, 2, 2, 0});
std::string RequestByAddress(uint16_t port) { return Bytes({5, 1, 0, 1}) + kLoopbackBytes + PortBytes(port); }
std::string RequestByName(const std::string& name, uint16_t port) {
    return Bytes({5, 1, 0, 3, static_cast<int>(name.size() & 0xff)}) + name + PortBytes(port);
}
// A granted connect reply with a bound address, 10 bytes.
const char kGranted[] = "05000001000000000000";

class Socks5ConnectTest : public dxtest::FakeProxyTest {
protected:
    int Connect(const char* host, uint16_t port, const char* user = "") {
        EXPECT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, user, 5), 0);
        return SOCKS_ConnectEx(s, host, port, nullptr, AF_INET);
    }
    // Everything the fake proxy received, once the socket is gone.
    std::string Received(int id) {
        CloseNow();
        return FakeReceived(id).bytes;
    }
};

TEST_F(Socks5ConnectTest, ADestinationThatResolvesGoesAsAnAddressAndDataFlows) {
    // A name that resolves here goes as address type 1, without the name.
    for (const char* host : {"127.0.0.1", "localhost"}) {
        SCOPED_TRACE(host);
        int id = FakeScript(std::string("read=3 send=0500 read=10 send=") + kGranted + " echo");
        if (s == INVALID_SOCKET) s = dxtest::MakeTcpSocket();  // the last row's is gone
        WSASetLastError(0);
        ASSERT_EQ(Connect(host, 5555), 0);
        EXPECT_EQ(WSAGetLastError(), 0);
        ASSERT_TRUE(dxtest::SendAll(s, "five"));
        EXPECT_EQ(dxtest::Receive(s, 4), "five");
        EXPECT_EQ(dxtest::Hex(Received(id)), dxtest::Hex(kSelectWithoutUser + RequestByAddress(5555) + "five"));
    }
}

TEST_F(Socks5ConnectTest, UnresolvedNameGoesToTheProxyAsText) {
    const std::string name = "only-the-proxy-knows.invalid";
    int id = FakeScript("read=3 send=0500 read=" + std::to_string(7 + name.size()) + " send=" + kGranted +
                        " drain=3000");
    EXPECT_EQ(Connect(name.c_str(), 443), 0);
    EXPECT_EQ(Received(id), kSelectWithoutUser + RequestByName(name, 443));
}

TEST_F(Socks5ConnectTest, NameLongerThan255GoesWholeBehindTheLowEightBitsOfItsLength) {
    const std::string name(300, 'n');
    int id = FakeScript("read=3 send=0500 read=307 send=" + std::string(kGranted) + " drain=3000");
    EXPECT_EQ(Connect(name.c_str(), 80), 0);
    std::string received = Received(id);
    ASSERT_EQ(received.size(), 3u + 307u);
    EXPECT_EQ(static_cast<unsigned char>(received[3 + 4]), 300 & 0xff);
    EXPECT_EQ(received, kSelectWithoutUser + RequestByName(name, 80));
}

TEST_F(Socks5ConnectTest, UserNameOffersPasswordFirstAndMethodZeroSkipsTheExchange) {
    int id = FakeScript(std::string("read=4 send=0500 read=10 send=") + kGranted + " drain=3000");
    EXPECT_EQ(Connect("127.0.0.1", 80, "alice"), 0);
    EXPECT_EQ(Received(id), kSelectWithUser + RequestByAddress(80));
}

TEST_F(Socks5ConnectTest, LogOfAGrantedConnect) {
    FakeScript(std::string("read=3 send=0500 read=10 send=") + kGranted + " drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 5), 0);
    dxtest::LogCapture capture;
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    const dxtest::Lines logged = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: ");
    const dxtest::Lines identity = dxtest::IdentityLines(s, FakePort(), "", logged);
    const dxtest::Lines expected = dxtest::Frame(
        "SOCKS_ConnectEx", s,
        {"Begin host:port 127.0.0.1:80", identity[0], identity[1],
         "CSocksSocket::ProcessState - Sending SOCKSv5 method select header.",
         "CSocksSocket::Send - 3 bytes sent.", "CSocksSocket::StartReading",
         "CSocksSocket::ProcessState - Sending SOCKS protocol header.", "CSocksSocket::Send - 10 bytes sent.",
         "CSocksSocket::StartReading", "End host:port 127.0.0.1:80", "WinSock Error = 0"},
        0);
    // The numbered reports among these lines are the business of reports_test.cpp.
    EXPECT_EQ(logged, expected);
}

// Each refusal ends with -1 and, on a blocking socket, the code -1: no WinSock error is set for it.
TEST_F(Socks5ConnectTest, RefusalsEndWithMinusOneAndNoWinsockError) {
    struct Case {
        const char* what;
        std::string script;
    };
    const Case cases[] = {
        {"method 255", "read=3 send=05ff drain=3000"},
        {"method 1", "read=3 send=0501 drain=3000"},
        {"unknown method 9", "read=3 send=0509 drain=3000"},
        {"status 1", "read=3 send=0500 read=10 send=05010001000000000000 drain=3000"},
        {"status 5", "read=3 send=0500 read=10 send=05050001000000000000 drain=3000"},
    };
    for (const Case& c : cases) {
        SOCKET refused = dxtest::MakeTcpSocket();
        FakeScript(c.script);
        ASSERT_EQ(SOCKS_SetProxyEx(refused, &fake, sizeof fake, "", 5), 0);
        dxtest::LogCapture capture;
        EXPECT_EQ(SOCKS_ConnectEx(refused, "127.0.0.1", 80, nullptr, AF_INET), -1) << c.what;
        EXPECT_NE(WSAGetLastError(), 10061) << c.what;
        EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: WinSock Error = "),
                  std::vector<std::string>{"DXSOCKS: WinSock Error = -1"})
            << c.what;
        EXPECT_EQ(SOCKS_ConnectCanceled(refused), 0) << c.what;
        dxtest::Retire(refused);
    }
}

TEST_F(Socks5ConnectTest, MethodTwoWithADeclinedPasswordIsACancelledPrompt) {
    dxtest::DecliningPasswords declining;
    int id = FakeScript("read=4 send=0502 drain=3000");
    dxtest::LogCapture capture;
    EXPECT_EQ(Connect("127.0.0.1", 80, "alice"), -1);
    EXPECT_NE(WSAGetLastError(), 65534);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 1);
    EXPECT_EQ(SOCKS_GetConnectError(s), 0u);
    auto lines = capture.Lines();
    EXPECT_EQ(dxtest::LinesStartingWith(lines, "DXSOCKS: CSocksSocket::OnMethodRecv").size(), 2u);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "DXSOCKS: CSocksSocket::OnMethodRecv - Requesting Password."),
              lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "DXSOCKS: CSocksSocket::OnMethodRecv - Password dialog cancelled."),
              lines.end());
    // Nothing goes out after the method selection.
    EXPECT_EQ(Received(id), kSelectWithUser);
}

TEST_F(Socks5ConnectTest, MethodTwoChosenWithoutAnOfferOfItTakesThePasswordPathAllTheSame) {
    dxtest::DecliningPasswords declining;
    int id = FakeScript("read=3 send=0502 drain=3000");
    EXPECT_EQ(Connect("127.0.0.1", 80), -1);
    EXPECT_EQ(SOCKS_ConnectCanceled(s), 1);
    EXPECT_EQ(Received(id), kSelectWithoutUser);
}

TEST_F(Socks5ConnectTest, ProxyThatClosesInsteadOfTheConnectReplyCountsAsSuccess) {
    FakeScript("read=3 send=0500 read=10 close");
    EXPECT_EQ(Connect("127.0.0.1", 80), 0);
}

class Socks5ProxyTest : public Socks5ConnectTest {};

TEST_F(Socks5ProxyTest, DantedCarriesDataBothWays) {
    sockaddr_in dante = dxtest::Loopback(dxtest::BenchPort("DANTE_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &dante, sizeof dante, "", 5), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    std::string payload(4000, 'd');
    ASSERT_TRUE(dxtest::SendAll(s, payload));
    EXPECT_EQ(dxtest::Receive(s, payload.size()), payload);
}

TEST_F(Socks5ProxyTest, DantedRefusalOfAClosedPortSetsNoWinsockError) {
    sockaddr_in dante = dxtest::Loopback(dxtest::BenchPort("DANTE_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &dante, sizeof dante, "", 5), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 1, nullptr, AF_INET), -1);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: WinSock Error = "),
              std::vector<std::string>{"DXSOCKS: WinSock Error = -1"});
}

TEST_F(Socks5ProxyTest, MicrosocksCarriesDataBothWays) {
    sockaddr_in micro = dxtest::Loopback(dxtest::BenchPort("MICROSOCKS_PORT"));
    ASSERT_EQ(SOCKS_SetProxyEx(s, &micro, sizeof micro, "", 5), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "localhost", echo, nullptr, AF_INET), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "through microsocks"));
    EXPECT_EQ(dxtest::Receive(s, 18), "through microsocks");
}

}  // namespace
