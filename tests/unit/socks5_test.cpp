// The version 5 steps, driven one at a time on objects whose fields the tests can see.
#include <gtest/gtest.h>

#include <string>

#include "bench.h"
#include "log_capture.h"
#include "socks_api.h"
#include "socks_socket.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

class Socks5StepTest : public ::testing::Test {
protected:
    void SetUp() override {
        s = dxtest::MakeTcpSocket();
        object = new CSocksSocket(s);
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
        dxtest::FakeReset();
        object->SetProxy(&fake, sizeof fake, "", 5);
    }
    void TearDown() override {
        delete object;
        closesocket(s);
    }
    void ConnectToFake() { ASSERT_EQ(connect(s, reinterpret_cast<sockaddr*>(&fake), sizeof fake), 0); }
    void MakeNonBlocking() {
        u_long on = 1;
        ASSERT_EQ(ioctlsocket(s, FIONBIO, &on), 0);
    }

    SOCKET s = INVALID_SOCKET;
    CSocksSocket* object = nullptr;
    sockaddr_in fake = {};
};

TEST_F(Socks5StepTest, NameRequestWithAnEmptyHostSendsNothing) {
    int id = FakeScript("drain=2000");
    ConnectToFake();
    object->command = 1;
    EXPECT_EQ(object->SendSocks5Request(), WSAEINVAL);
    closesocket(s);
    s = INVALID_SOCKET;
    dxtest::FakeLog log = FakeReceived(id);
    EXPECT_EQ(log.status, "done");
    EXPECT_EQ(log.bytes, "");
}

TEST_F(Socks5StepTest, MethodReplyNotBeginningWithFiveIsDroppedAndTheBufferCleared) {
    FakeScript("read=3 send=0400 drain=3000");
    ConnectToFake();
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    ASSERT_EQ(object->state, kAwaitMethodReply);
    EXPECT_EQ(object->ProcessState(), 0);
    EXPECT_EQ(object->state, kAwaitMethodReply);
    EXPECT_EQ(object->receiveBuffer[0], 0);
    EXPECT_EQ(object->receiveBuffer[1], 0);
    EXPECT_EQ(object->bytesRequested, 0);
    EXPECT_EQ(object->bytesRead, 2);  // the reply was consumed
}

TEST_F(Socks5StepTest, Method255FailsTheStepAndFinishesWithARefusal) {
    FakeScript("read=3 send=05ff drain=3000");
    ConnectToFake();
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    EXPECT_EQ(object->ProcessState(), -1);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
}

TEST_F(Socks5StepTest, Method1PassesThroughGssapiRefusedToFinished) {
    FakeScript("read=3 send=0501 drain=3000");
    ConnectToFake();
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    EXPECT_EQ(object->ProcessState(), -1);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
}

TEST_F(Socks5StepTest, DeclinedPasswordPromptIsCancelledThenRefused) {
    FakeScript("read=4 send=0502 drain=3000");
    object->SetProxy(&fake, sizeof fake, "alice", 5);
    ConnectToFake();
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    EXPECT_EQ(object->ProcessState(), -1);
    EXPECT_EQ(object->canceled, 1);
    EXPECT_EQ(object->connectError, 0u);
    EXPECT_EQ(object->state, kFinished);
    // The failure tail's refusal comes after the cancellation.
    EXPECT_EQ(object->lastError, 10061);
}

TEST_F(Socks5StepTest, BlockingRefusalEndsWithCodeMinusOne) {
    FakeScript("read=3 send=0500 read=10 send=05020001000000000000 drain=3000");
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "127.0.0.1", 80, nullptr, &error);
    EXPECT_EQ(static_cast<int>(error), -1);
    EXPECT_EQ(object->lastError, -1);
    EXPECT_EQ(object->state, kFinished);
}

TEST_F(Socks5StepTest, SilentProxyOnANonBlockingSocketGivesUpAfterTwoPeeksInTheMethodState) {
    dxtest::LogCapture capture;
    FakeScript("read=3 holdrecv=4000 close");
    ConnectToFake();
    MakeNonBlocking();
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    DWORD start = GetTickCount();
    EXPECT_EQ(object->ProcessState(), WSAEWOULDBLOCK);
    DWORD elapsed = GetTickCount() - start;
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
    // Two peeks of a hundred 10 ms tries each; no read took place.
    EXPECT_GE(elapsed, 1500u);
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: CSocksSocket::StartReading").empty());
}

TEST_F(Socks5StepTest, StatusZeroAsksForTenBytesAndOtherStatusesForWhatThePeekSaw) {
    FakeScript("read=3 send=0500 read=10 send=0500000100000000000041424344 drain=3000");
    ConnectToFake();
    object->targetAddress = dxtest::Loopback(80);
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    ASSERT_EQ(object->ProcessState(), 0);
    ASSERT_EQ(object->state, kAwaitConnectReply);
    Sleep(200);
    EXPECT_EQ(object->ProcessState(), 0);
    EXPECT_EQ(object->state, kEstablished);
    EXPECT_EQ(object->bytesRequested, 10);
    // The read takes what has arrived, up to 64 bytes: the four bytes behind the reply went with it.
    EXPECT_EQ(object->bytesRead, 14);
}

TEST_F(Socks5StepTest, RefusalReadsWhatThePeekSaw) {
    FakeScript("read=3 send=0500 read=10 send=050500010000000000004142 drain=3000");
    ConnectToFake();
    object->targetAddress = dxtest::Loopback(80);
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    ASSERT_EQ(object->ProcessState(), 0);
    Sleep(200);
    EXPECT_EQ(object->ProcessState(), 0);  // a proxy's refusal is no step failure
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
    EXPECT_EQ(object->bytesRequested, 12);
    EXPECT_EQ(object->bytesRead, 12);
}

TEST_F(Socks5StepTest, SilentProxyInTheConnectReplyStateIsPeekedThreeTimes) {
    FakeScript("read=3 send=0500 read=10 holdrecv=5000 close");
    ConnectToFake();
    object->targetAddress = dxtest::Loopback(80);
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    ASSERT_EQ(object->ProcessState(), 0);
    ASSERT_EQ(object->state, kAwaitConnectReply);
    MakeNonBlocking();
    DWORD start = GetTickCount();
    EXPECT_EQ(object->ProcessState(), WSAEWOULDBLOCK);
    EXPECT_GE(GetTickCount() - start, 2500u);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
}


int GivePassword(void*, wchar_t* password, int, const wchar_t*, const wchar_t*) {
    lstrcpyW(password, L"pw");
    return 1;
}

TEST_F(Socks5StepTest, SilentProxyInThePasswordStatusStateIsPeekedTwice) {
    SOCKS_SetPasswordCallback(nullptr, GivePassword);
    FakeScript("read=3 send=0502 read=5 holdrecv=5000 close");
    ConnectToFake();
    object->state = kConnected;
    ASSERT_EQ(object->ProcessState(), 0);
    ASSERT_EQ(object->ProcessState(), 0);
    SOCKS_SetPasswordCallback(nullptr, nullptr);
    ASSERT_EQ(object->state, kAwaitPasswordStatus);
    MakeNonBlocking();
    DWORD start = GetTickCount();
    EXPECT_EQ(object->ProcessState(), WSAEWOULDBLOCK);
    DWORD elapsed = GetTickCount() - start;
    // Two peeks of a hundred 10 ms tries each, not the connect reply's three.
    EXPECT_GE(elapsed, 1500u);
    EXPECT_LT(elapsed, 2950u);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
}

}  // namespace
