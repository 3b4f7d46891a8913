#include "socks_socket.h"

#include <gtest/gtest.h>

#include <string>

#include "bench.h"
#include "log_capture.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

std::string Socks4Request(uint16_t port, const std::string& user) {
    std::string request = {4, 1, static_cast<char>(port >> 8), static_cast<char>(port & 0xff), 127, 0, 0, 1};
    return request + user + std::string(1, '\0');
}

class SocksSocketTest : public ::testing::Test {
protected:
    void SetUp() override {
        s = dxtest::MakeTcpSocket();
        ASSERT_NE(s, INVALID_SOCKET);
        object = new CSocksSocket(s);
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
    }
    void TearDown() override {
        delete object;
        closesocket(s);
    }
    // Connects the socket to the fake proxy by hand, for steps driven one at a time.
    void ConnectToFake() {
        ASSERT_EQ(connect(s, reinterpret_cast<sockaddr*>(&fake), sizeof fake), 0);
    }

    SOCKET s = INVALID_SOCKET;
    CSocksSocket* object = nullptr;
    sockaddr_in fake = {};
};

TEST_F(SocksSocketTest, SetProxyWithAddressZeroChoosesNoProxyAndKeepsTheVersion) {
    sockaddr_in zero = dxtest::Loopback(1080);
    zero.sin_addr.s_addr = 0;
    object->SetProxy(&zero, sizeof zero, "user", 5);
    EXPECT_EQ(object->proxyChosen, 1);
    EXPECT_EQ(object->useProxy, 0);
    EXPECT_EQ(object->protocolVersion, 4u);
    EXPECT_STREQ(object->userId, "");

    CSocksSocket other(s);
    other.SetProxy(nullptr, 0, nullptr, 5);
    EXPECT_EQ(other.proxyChosen, 1);
    EXPECT_EQ(other.useProxy, 0);
    EXPECT_EQ(other.protocolVersion, 4u);
}

TEST_F(SocksSocketTest, SetProxyKeepsAddressUserAndVersion) {
    object->SetProxy(&fake, sizeof fake, "alice", 5);
    EXPECT_EQ(object->useProxy, 1);
    EXPECT_EQ(object->proxyChosen, 1);
    EXPECT_EQ(object->protocolVersion, 5u);
    EXPECT_EQ(object->proxyAddress.sin_port, fake.sin_port);
    EXPECT_EQ(object->proxyAddress.sin_addr.s_addr, fake.sin_addr.s_addr);
    EXPECT_STREQ(object->userId, "alice");
}

TEST_F(SocksSocketTest, UserIdOf511CharactersKeeps510) {
    std::string user(511, 'u');
    object->SetProxy(&fake, sizeof fake, user.c_str(), 4);
    EXPECT_EQ(std::string(object->userId), std::string(510, 'u'));
}

TEST_F(SocksSocketTest, LookupFailureUnderVersion4FailsBeforeAnyConnect) {
    int id = FakeScript("close");
    object->SetProxy(&fake, sizeof fake, "", 4);
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "no-such-host.invalid", 80, nullptr, &error);
    EXPECT_EQ(error, static_cast<unsigned>(WSAHOST_NOT_FOUND));
    EXPECT_EQ(object->lastError, WSAHOST_NOT_FOUND);
    EXPECT_EQ(object->state, kConnecting);
    EXPECT_EQ(object->useCount, 1);
    EXPECT_EQ(FakeReceived(id, 300).status, "pending");
    dxtest::FakeReset();
}

TEST_F(SocksSocketTest, GrantedRequestEndsEstablished) {
    uint16_t echo = dxtest::BenchPort("ECHO_PORT");
    int id = FakeScript("read=13 send=005a000000000000 drain=3000");
    object->SetProxy(&fake, sizeof fake, "user", 4);
    unsigned error = 99;
    object->StartConnect(kCommandConnect, "127.0.0.1", echo, nullptr, &error);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(object->state, kEstablished);
    EXPECT_EQ(object->lastError, 0);
    EXPECT_STREQ(object->targetHost, "127.0.0.1");
    EXPECT_STREQ(object->targetService, std::to_string(echo).c_str());
    EXPECT_EQ(object->targetPort, echo);
    closesocket(s);
    s = INVALID_SOCKET;
    EXPECT_EQ(FakeReceived(id).bytes, Socks4Request(echo, "user"));
}

TEST_F(SocksSocketTest, AConnectLogsTheIdentityItEntersWithTheSocketsOwnPort) {
    FakeScript("read=13 send=005a000000000000 drain=3000");
    object->SetProxy(&fake, sizeof fake, "user", 4);
    dxtest::LogCapture capture;
    unsigned error = 99;
    object->StartConnect(kCommandConnect, "127.0.0.1", 80, nullptr, &error);
    ASSERT_EQ(error, 0u);
    const dxtest::Lines logged = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: ");
    const dxtest::Lines identity = dxtest::IdentityLines(s, ntohs(fake.sin_port), "user", logged);
    const dxtest::Lines expected = {
        dxtest::Line(identity[0]),
        dxtest::Line(identity[1]),
        dxtest::Line("CSocksSocket::ProcessState - Sending SOCKS protocol header."),
        dxtest::Line("CSocksSocket::Send - 8 bytes sent."),
        dxtest::Line("CSocksSocket::ProcessState - Sending SOCKS user id."),
        dxtest::Line("CSocksSocket::Send - 5 bytes sent."),
        dxtest::Line("CSocksSocket::StartReading"),
    };
    EXPECT_EQ(logged, expected);
    // ConnectFinished took the entry out and closed the mapping, on a blocking socket too.
    EXPECT_EQ(object->identityHandle, nullptr);
    EXPECT_NE(object->identityLocalPort, 0u);
}

TEST_F(SocksSocketTest, RefusalRestsInFinished) {
    FakeScript("readz send=005b000000000000 drain=3000");
    object->SetProxy(&fake, sizeof fake, "", 4);
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "127.0.0.1", 7, nullptr, &error);
    EXPECT_EQ(error, 10061u);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
}

TEST_F(SocksSocketTest, DestinationAddressZeroSendsNothingAndFails) {
    int id = FakeScript("drain=3000");
    object->SetProxy(&fake, sizeof fake, "user", 4);
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "0.0.0.0", 80, nullptr, &error);
    EXPECT_EQ(error, static_cast<unsigned>(WSAHOST_NOT_FOUND));
    // The send failures of kConnected have no ConnectFinished, so kFailed stands.
    EXPECT_EQ(object->state, kFailed);
    closesocket(s);
    s = INVALID_SOCKET;
    dxtest::FakeLog log = FakeReceived(id);
    EXPECT_EQ(log.status, "done");
    EXPECT_EQ(log.bytes, "");
}

TEST_F(SocksSocketTest, ReadErrorIsReturnedAndTheStateStays) {
    dxtest::LogCapture capture;
    FakeScript("readz drain=3000");
    ConnectToFake();
    // A reset from the proxy may read as an end of stream under Wine; a shut receive side fails for sure.
    ASSERT_EQ(shutdown(s, SD_RECEIVE), 0);
    object->state = kAwaitSocks4Reply;
    EXPECT_EQ(object->ProcessState(), WSAESHUTDOWN);
    EXPECT_EQ(object->state, kAwaitSocks4Reply);
    EXPECT_EQ(object->reading, 0);
    auto errors = dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: CSocksSocket::OnRead returned err:");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "DXSOCKS: CSocksSocket::OnRead returned err:10058");
}

TEST_F(SocksSocketTest, FailedSendCodeOfTheHeaderIsDroppedAndTheUserIdStillGoes) {
    dxtest::LogCapture capture;
    object->targetAddress = dxtest::Loopback(7);
    object->command = kCommandConnect;
    object->state = kConnected;
    // Never connected: every send fails with a positive code.
    EXPECT_GT(object->ProcessState(), 0);
    EXPECT_EQ(object->state, kFailed);
    std::vector<std::string> expected = {
        "DXSOCKS: CSocksSocket::ProcessState - Sending SOCKS protocol header.",
        "DXSOCKS: CSocksSocket::ProcessState - Sending SOCKS user id.",
    };
    EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(SocksSocketTest, ThreeByteReplyOnANonBlockingSocketLeavesTheReadOpenAndTheNextEventStartsAfresh) {
    FakeScript("readz send=005a00 holdrecv=2500 send=0000000000 drain=3000");
    ConnectToFake();
    ASSERT_TRUE(dxtest::SendAll(s, std::string(1, '\0')));
    dxtest::MakeNonBlocking(s);
    object->state = kAwaitSocks4Reply;
    EXPECT_EQ(object->ProcessState(), 0);  // about 1 s of retries
    EXPECT_EQ(object->reading, 1);
    EXPECT_EQ(object->bytesRead, 3);
    EXPECT_EQ(object->state, kAwaitSocks4Reply);
    Sleep(2000);  // the other five bytes arrive meanwhile
    EXPECT_EQ(object->ProcessState(), 0);
    EXPECT_EQ(object->bytesRead, 5);
    EXPECT_EQ(object->reading, 1);
    EXPECT_EQ(object->state, kAwaitSocks4Reply);
}

TEST_F(SocksSocketTest, ReplyFollowedByTheSecondReplyOfABindIsConsumedWhole) {
    FakeScript("readz send=005a1f9000000000005a1f907f000001 drain=3000");
    ConnectToFake();
    ASSERT_TRUE(dxtest::SendAll(s, std::string(1, '\0')));
    Sleep(300);
    object->command = kCommandBind;
    object->proxyAddress = fake;
    object->state = kAwaitSocks4Reply;
    EXPECT_EQ(object->ProcessState(), 0);
    EXPECT_EQ(object->bytesRead, 16);
    EXPECT_EQ(object->state, kEstablished);
    // A zero address in a BIND's reply stands for the proxy's.
    EXPECT_EQ(std::string(reinterpret_cast<char*>(object->socks4Packet) + 4, 4), std::string("\x7f\0\0\x01", 4));
    dxtest::MakeNonBlocking(s);
    char rest;
    EXPECT_EQ(recv(s, &rest, 1, MSG_PEEK), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
}

TEST_F(SocksSocketTest, ReleaseSocketOnAFreshObjectIsNotTheLastClose) {
    EXPECT_EQ(object->ReleaseSocket(), 0);
    EXPECT_EQ(object->useCount, -1);
    EXPECT_EQ(object->state, kIdle);
}

TEST_F(SocksSocketTest, ReleaseSocketOfAnEstablishedConnectIsTheLastClose) {
    object->useCount = 1;
    object->state = kEstablished;
    object->reading = 1;
    EXPECT_EQ(object->ReleaseSocket(), 1);
    EXPECT_EQ(object->useCount, 0);
    EXPECT_EQ(object->state, kIdle);
    EXPECT_EQ(object->reading, 0);
}

TEST_F(SocksSocketTest, ReleaseSocketInMidHandshakeIsNeverTheLastClose) {
    for (ProxyState state : {kConnected, kConnecting, kAwaitSocks4Reply, kFailed}) {
        object->useCount = 1;
        object->state = state;
        EXPECT_EQ(object->ReleaseSocket(), 0) << state;
        EXPECT_EQ(object->useCount, 0);
    }
    object->useCount = 1;
    object->state = kFinished;
    EXPECT_EQ(object->ReleaseSocket(), 1);
}

}  // namespace
