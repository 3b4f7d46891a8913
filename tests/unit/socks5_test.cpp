// The version 5 steps, driven one at a time on objects whose fields the tests can see.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench.h"
#include "log_capture.h"
#include "socks_api.h"
#include "socks_socket.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;
using dxtest::Line;
using dxtest::Lines;

int GivePassword(void*, wchar_t* password, int, const wchar_t*, const wchar_t*) {
    lstrcpyW(password, L"pw");
    return 1;
}

class Socks5StepTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
        dxtest::FakeReset();
    }
    void TearDown() override {
        SOCKS_SetPasswordCallback(nullptr, nullptr);
        for (CSocksSocket* object : objects) {
            if (object->socket != INVALID_SOCKET) closesocket(object->socket);
            delete object;
        }
    }
    // A version 5 object on a socket of its own, with the fake proxy as its proxy.
    CSocksSocket* Fresh(const char* user = "") {
        objects.push_back(new CSocksSocket(dxtest::MakeTcpSocket()));
        objects.back()->SetProxy(&fake, sizeof fake, user, 5);
        return objects.back();
    }
    void ConnectToFake(CSocksSocket* object) {
        ASSERT_EQ(connect(object->socket, reinterpret_cast<sockaddr*>(&fake), sizeof fake), 0);
    }
    // Connected to the fake proxy, with `steps` steps made from kConnected.
    void Stepped(CSocksSocket* object, int steps) {
        ConnectToFake(object);
        object->targetAddress = dxtest::Loopback(80);
        object->state = kConnected;
        for (int i = 0; i < steps; ++i) ASSERT_EQ(object->ProcessState(), 0) << "step " << i;
    }
    // Closes the object's socket, so that the fake proxy's record is whole.
    static void CloseSocket(CSocksSocket* object) {
        closesocket(object->socket);
        object->socket = INVALID_SOCKET;
    }

    std::vector<CSocksSocket*> objects;
    sockaddr_in fake = {};
};

TEST_F(Socks5StepTest, NameRequestWithAnEmptyHostSendsNothing) {
    int id = FakeScript("drain=2000");
    CSocksSocket* object = Fresh();
    ConnectToFake(object);
    object->command = kCommandConnect;
    EXPECT_EQ(object->SendSocks5Request(), WSAEINVAL);
    CloseSocket(object);
    dxtest::FakeLog log = FakeReceived(id);
    EXPECT_EQ(log.status, "done");
    EXPECT_EQ(log.bytes, "");
}

// The method reply's step consumes the two bytes and clears them and the count on every path.
TEST_F(Socks5StepTest, MethodReplies) {
    struct Case {
        const char* name;
        const char* script;
        const char* user;
        int result;
        uint32_t state;
        int32_t lastError;
        int32_t canceled;
    };
    const Case cases[] = {
        // Dropped, and the state waits on.
        {"not beginning with 5", "read=3 send=0400 drain=3000", "", 0, kAwaitMethodReply, 0, 0},
        {"method 255", "read=3 send=05ff drain=3000", "", -1, kFinished, 10061, 0},
        // Through kGssapiRefused to the failure tail.
        {"method 1", "read=3 send=0501 drain=3000", "", -1, kFinished, 10061, 0},
        // The failure tail's refusal comes after the cancellation.
        {"method 2, prompt declined", "read=4 send=0502 drain=3000", "alice", -1, kFinished, 10061, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeScript(c.script);
        CSocksSocket* object = Fresh(c.user);
        Stepped(object, 1);
        ASSERT_EQ(object->state, kAwaitMethodReply);
        EXPECT_EQ(object->ProcessState(), c.result);
        EXPECT_EQ(object->state, c.state);
        EXPECT_EQ(object->lastError, c.lastError);
        EXPECT_EQ(object->canceled, c.canceled);
        EXPECT_EQ(object->connectError, 0u);
        EXPECT_EQ(object->receiveBuffer[0], 0);
        EXPECT_EQ(object->receiveBuffer[1], 0);
        EXPECT_EQ(object->bytesRequested, 0);
        EXPECT_EQ(object->bytesRead, 2);
    }
}

TEST_F(Socks5StepTest, FailedPeekInTheMethodStateAlsoClearsTheReplyAndTheCount) {
    // Never connected: the peek fails at once. The bytes stand as a reply of an earlier event would.
    CSocksSocket* object = Fresh();
    object->state = kAwaitMethodReply;
    object->receiveBuffer[0] = 5;
    object->receiveBuffer[1] = 2;
    object->bytesRequested = 8;
    dxtest::LogCapture capture;
    EXPECT_EQ(object->ProcessState(), -1);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 10061);
    EXPECT_EQ(object->receiveBuffer[0], 0);
    EXPECT_EQ(object->receiveBuffer[1], 0);
    EXPECT_EQ(object->bytesRequested, 0);
    EXPECT_EQ(capture.Lines(), Lines{Line("SocketPeek() returned err:" + std::to_string(WSAENOTCONN))});
}

TEST_F(Socks5StepTest, BlockingRefusalEndsWithCodeMinusOne) {
    FakeScript("read=3 send=0500 read=10 send=05020001000000000000 drain=3000");
    CSocksSocket* object = Fresh();
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "127.0.0.1", 80, nullptr, &error);
    EXPECT_EQ(static_cast<int>(error), -1);
    EXPECT_EQ(object->lastError, -1);
    EXPECT_EQ(object->state, kFinished);
}

// A proxy that sends nothing: on a non-blocking socket each state peeks a number of times, each
// peek a hundred 10 ms tries, and then gives up with a refusal; no read takes place.
TEST_F(Socks5StepTest, SilentProxyIsPeekedByTheStatesCount) {
    struct Case {
        const char* name;
        const char* script;
        bool password;  // the host's callback gives one
        int steps;      // made before the proxy falls silent
        uint32_t silentState;
        DWORD atLeastMs;
        DWORD belowMs;
    };
    const Case cases[] = {
        {"method reply, two peeks", "read=3 holdrecv=4000 close", false, 1, kAwaitMethodReply, 1500, 2950},
        {"password status, two peeks", "read=3 send=0502 read=5 holdrecv=5000 close", true, 2, kAwaitPasswordStatus,
         1500, 2950},
        {"connect reply, three peeks", "read=3 send=0500 read=10 holdrecv=5000 close", false, 2, kAwaitConnectReply,
         2500, 4425},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKS_SetPasswordCallback(nullptr, c.password ? GivePassword : nullptr);
        FakeScript(c.script);
        CSocksSocket* object = Fresh();
        Stepped(object, c.steps);
        ASSERT_EQ(object->state, c.silentState);
        dxtest::MakeNonBlocking(object->socket);
        dxtest::LogCapture capture;
        DWORD start = GetTickCount();
        EXPECT_EQ(object->ProcessState(), WSAEWOULDBLOCK);
        DWORD elapsed = GetTickCount() - start;
        EXPECT_GE(elapsed, c.atLeastMs);
        EXPECT_LT(elapsed, c.belowMs);
        EXPECT_EQ(object->state, kFinished);
        EXPECT_EQ(object->lastError, 10061);
        EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), Line("CSocksSocket::StartReading")).empty());
    }
}

// Status 0 asks for ten bytes, another status for what the peek saw; the read takes what has
// arrived, up to 64 bytes, so bytes behind the reply go with it.
TEST_F(Socks5StepTest, ConnectReplyReads) {
    struct Case {
        const char* reply;  // with bytes behind it
        int32_t bytesRequested;
        int32_t bytesRead;
        uint32_t state;
        int32_t lastError;
    };
    const Case cases[] = {
        {"0500000100000000000041424344", 10, 14, kEstablished, 0},
        // A proxy's refusal is no step failure.
        {"050500010000000000004142", 12, 12, kFinished, 10061},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        FakeScript(std::string("read=3 send=0500 read=10 send=") + c.reply + " drain=3000");
        CSocksSocket* object = Fresh();
        Stepped(object, 2);
        ASSERT_EQ(object->state, kAwaitConnectReply);
        Sleep(200);
        EXPECT_EQ(object->ProcessState(), 0);
        EXPECT_EQ(object->state, c.state);
        EXPECT_EQ(object->lastError, c.lastError);
        EXPECT_EQ(object->bytesRequested, c.bytesRequested);
        EXPECT_EQ(object->bytesRead, c.bytesRead);
    }
}

TEST_F(Socks5StepTest, LongPasswordGoesOutBehindTheLowEightBitsOfItsLength) {
    // 300 characters, each told from its neighbours: the length byte reads 44 (300 & 0xff), and
    // 44 bytes of the password, cut to 259 in its narrow form, follow it.
    std::wstring password;
    for (int i = 0; i < 300; ++i) password += static_cast<wchar_t>(L'a' + i % 26);
    const std::string narrow(password.begin(), password.end());
    int id = FakeScript("drain=3000");
    CSocksSocket* object = Fresh("alice");
    ConnectToFake(object);
    dxtest::LogCapture capture;
    EXPECT_EQ(object->SendPassword(password.c_str()), 0);
    CloseSocket(object);
    const std::string expected = std::string("\x01\x05" "alice" "\x2c", 8) + narrow.substr(0, 44);
    dxtest::FakeLog log = FakeReceived(id);
    EXPECT_EQ(log.status, "done");
    EXPECT_EQ(dxtest::Hex(log.bytes), dxtest::Hex(expected));
    EXPECT_EQ(capture.Lines(), Lines{Line("CSocksSocket::Send - 52 bytes sent.")});
}

}  // namespace
