// The identity a SOCKS handshake enters, as a proxy that checks its clients by ident learns it: the
// fake proxy asks dxidentd (the `identd` fixture) during the handshake, the test asks after it. These
// cases look at the block itself, which any SOCKS handshake of the prefix opens: their group runs alone.
#include <gtest/gtest.h>

#include <string>

#include "bench.h"
#include "fake_proxy_test.h"
#include "host_window.h"
#include "http_api.h"
#include "log_capture.h"
#include "module_files.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

const char kIdentityTableName[] = "KVT_Verdane_IdentD";
const char kGranted4[] = "005a000000000000";
const char kGranted5[] = "05000001000000000000";

bool BlockExists() {
    HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, kIdentityTableName);
    if (mapping == nullptr) return false;
    CloseHandle(mapping);
    return true;
}

// The user id the tests enter: longer than the 30 characters the table keeps.
std::string LongUser() {
    std::string user;
    for (int i = 0; i < 40; ++i) user += static_cast<char>('a' + i % 26);
    return user;
}

std::string UserAnswer(uint16_t local, uint16_t remote, const std::string& user) {
    return std::to_string(local) + " , " + std::to_string(remote) + " : USERID : WIN32 : " + user + "\r\n";
}

std::string ErrorAnswer(uint16_t local, uint16_t remote, const std::string& error) {
    return std::to_string(local) + " , " + std::to_string(remote) + " : ERROR : " + error + "\r\n";
}

class IdentityFixture : public dxtest::FakeProxyTest {
protected:
    void SetUp() override {
        ASSERT_FALSE(BlockExists()) << "a handshake or a test left the block open";
        ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
        ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
        dxtest::FakeProxyTest::SetUp();
        identd = std::to_string(dxtest::IdentdPort());
    }
    void TearDown() override {
        dxtest::FakeProxyTest::TearDown();
        HTTP_Cleanup();
        SOCKS_Cleanup();
    }
    // Through the library, so that every object and its entry go with the test.
    void Close(SOCKET socket) override { SOCKS_closesocket(socket); }
    uint16_t LocalPort() const {
        sockaddr_in local = {};
        int length = sizeof local;
        getsockname(s, reinterpret_cast<sockaddr*>(&local), &length);
        return ntohs(local.sin_port);
    }

    std::string identd;
    dxtest::HostWindow host;
};

struct Mode {
    unsigned version;
    bool blocking;
};

std::string ModeName(const ::testing::TestParamInfo<Mode>& info) {
    return "Socks" + std::to_string(info.param.version) + (info.param.blocking ? "Blocking" : "NonBlocking");
}

class IdentityTest : public IdentityFixture, public ::testing::WithParamInterface<Mode> {
protected:
    // The proxy asks at accept, as danted does, before the library may have entered the user.
    std::string Script() const {
        std::string ask = "ident=" + identd + " ";
        if (GetParam().version == 4) {
            return ask + "read=" + std::to_string(8 + LongUser().size() + 1) + " send=" + kGranted4 + " drain=3000";
        }
        return ask + "read=4 send=0500 read=10 send=" + kGranted5 + " drain=3000";
    }
    // Connects through the fake proxy in the mode of the case; true when the proxy granted it.
    bool Connect() {
        if (!GetParam().blocking) {
            EXPECT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
        }
        EXPECT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, LongUser().c_str(), GetParam().version), 0);
        if (SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET) != 0) return false;
        if (GetParam().blocking) return true;
        dxtest::PostedMessage outcome = {};
        return host.AwaitEvent(s, FD_CONNECT, &outcome, 10000) && outcome.Error() == 0;
    }
};

TEST_P(IdentityTest, TheProxyLearnsTheUsersFirstThirtyCharactersDuringTheHandshakeAndNoUserAfter) {
    int id = FakeScript(Script());
    ASSERT_TRUE(Connect());
    uint16_t local = LocalPort();
    EXPECT_EQ(dxtest::AskIdent(local, FakePort()), ErrorAnswer(local, FakePort(), "NO-USER"));
    CloseNow();
    EXPECT_EQ(FakeReceived(id).ident, UserAnswer(local, FakePort(), LongUser().substr(0, 30)));
}

TEST_P(IdentityTest, TheBlockIsGoneOnceNoHandshakeHoldsIt) {
    FakeScript(Script());
    ASSERT_TRUE(Connect());
    EXPECT_FALSE(BlockExists());
}

INSTANTIATE_TEST_SUITE_P(Modes, IdentityTest,
                         ::testing::Values(Mode{4, true}, Mode{4, false}, Mode{5, true}, Mode{5, false}), ModeName);

using IdentityRoadsTest = IdentityFixture;

TEST_F(IdentityRoadsTest, ABindHoldsTheEntryFromTheConnectToTheFirstReply) {
    dxtest::MakeNonBlocking(s, SOCKS_ioctlsocket);
    const std::string user = "binder";
    int id = FakeScript("read=" + std::to_string(8 + user.size() + 1) + " ident=" + identd + " send=" + kGranted4 +
                        " drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, user.c_str(), 4), 0);
    ASSERT_EQ(SOCKS_BindEx(s, "127.0.0.1", 1234, nullptr, AF_INET), 0);
    uint16_t local = LocalPort();
    EXPECT_EQ(dxtest::AskIdent(local, FakePort()), ErrorAnswer(local, FakePort(), "NO-USER"));
    EXPECT_FALSE(BlockExists());
    CloseNow();
    EXPECT_EQ(FakeReceived(id).ident, UserAnswer(local, FakePort(), user));
}

TEST_F(IdentityRoadsTest, AnEmptyUserIdIsAHiddenUser) {
    int id = FakeScript(std::string("ident=") + identd + " read=9 send=" + kGranted4 + " drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    uint16_t local = LocalPort();
    CloseNow();
    EXPECT_EQ(FakeReceived(id).ident, ErrorAnswer(local, FakePort(), "HIDDEN-USER"));
}

TEST_F(IdentityRoadsTest, AnHttpConnectMakesNoBlock) {
    // Non-blocking, with the reply held back, so that the handshake is under way while the test looks.
    SOCKET http = dxtest::MakeTcpSocket();
    ASSERT_EQ(HTTP_WSAAsyncSelect(http, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
    int id = FakeScript("readhttp ident=" + identd + " sleep=1000 send=" + dxtest::Hex("HTTP/1.0 200 OK\r\n\r\n") +
                        " drain=3000");
    ASSERT_EQ(HTTP_SetProxy(http, &fake, sizeof fake, "", 0), 0);
    dxtest::LogCapture capture;
    ASSERT_EQ(HTTP_ConnectEx(http, "127.0.0.1", echo, nullptr, AF_INET), 0);
    EXPECT_FALSE(BlockExists());
    dxtest::PostedMessage outcome = {};
    ASSERT_TRUE(host.AwaitEvent(http, FD_CONNECT, &outcome, 10000));
    EXPECT_EQ(outcome.Error(), 0u);
    sockaddr_in local = {};
    int length = sizeof local;
    getsockname(http, reinterpret_cast<sockaddr*>(&local), &length);
    HTTP_closesocket(http);
    EXPECT_EQ(FakeReceived(id).ident, ErrorAnswer(ntohs(local.sin_port), FakePort(), "NO-USER"));
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: IdentityAdd(").empty());
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: CSocksSocket::ProcessState - getsockname").empty());
}

TEST_F(IdentityRoadsTest, ASocksHandshakeUnderWayHoldsTheBlock) {
    dxtest::MakeNonBlocking(s, SOCKS_ioctlsocket);
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
    FakeScript(std::string("read=9 sleep=1000 send=") + kGranted4 + " drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    EXPECT_TRUE(BlockExists());
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, nullptr, 10000));
    EXPECT_FALSE(BlockExists());
}

TEST_F(IdentityRoadsTest, TheEntryLeavesTheWinsockErrorAsTheConnectLeftIt) {
    // A fresh block each time: the table's calls fail and succeed on the way, none of it shows.
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
    FakeScript(std::string("read=9 send=") + kGranted4 + " drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    WSASetLastError(0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, nullptr, 10000));
}

TEST_F(IdentityRoadsTest, AFailedHandshakesEntryGoesWithTheSocketsCleanup) {
    // A destination without an address: SOCKS 4 fails before it sends, and no ConnectFinished follows.
    FakeScript("drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "stale", 4), 0);
    EXPECT_EQ(SOCKS_ConnectEx(s, "0.0.0.0", 80, nullptr, AF_INET), -1);
    uint16_t local = LocalPort();
    EXPECT_EQ(dxtest::AskIdent(local, FakePort()), UserAnswer(local, FakePort(), "stale"));
    SOCKS_CleanupSocket(s);
    EXPECT_EQ(dxtest::AskIdent(local, FakePort()), ErrorAnswer(local, FakePort(), "NO-USER"));
    EXPECT_FALSE(BlockExists());
}

// The responder's answers to what a proxy might send; each query on a connection of its own.
class IdentResponderTest : public ::testing::Test {
protected:
    uint16_t port = dxtest::IdentdPort();
};

// A dxidentd of the test's own, beside the test program, with `arguments`; its standard output goes
// to a pipe that Output() reads once the program has ended.
class Responder {
public:
    explicit Responder(const std::string& arguments) {
        SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
        if (!CreatePipe(&read_, &write_, &inherit, 1 << 16)) return;
        SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOA startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = write_;
        startup.hStdError = write_;
        std::string command = "\"" + dxtest::BesideProgram("dxidentd.exe") + "\" " + arguments;
        if (CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, DETACHED_PROCESS, nullptr, nullptr, &startup,
                           &process_)) {
            CloseHandle(process_.hThread);
        }
        CloseHandle(write_);
    }
    ~Responder() {
        if (process_.hProcess != nullptr) {
            TerminateProcess(process_.hProcess, 0);
            WaitForSingleObject(process_.hProcess, 5000);
            CloseHandle(process_.hProcess);
        }
        if (read_ != nullptr) CloseHandle(read_);
    }
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;

    bool Started() const { return process_.hProcess != nullptr; }
    // Waits at most `ms` for the program to end; its exit code, or -1 if it still runs.
    int Ended(DWORD ms) const {
        DWORD code = 0;
        if (WaitForSingleObject(process_.hProcess, ms) != WAIT_OBJECT_0 || !GetExitCodeProcess(process_.hProcess, &code))
            return -1;
        return static_cast<int>(code);
    }
    std::string Output() const {
        std::string text;
        char buffer[4096];
        DWORD got = 0;
        while (ReadFile(read_, buffer, sizeof buffer, &got, nullptr) && got > 0) text.append(buffer, got);
        return text;
    }

private:
    HANDLE read_ = nullptr;
    HANDLE write_ = nullptr;
    PROCESS_INFORMATION process_ = {};
};

TEST_F(IdentityRoadsTest, TheResponderListsTheTableAsItStands) {
    {
        Responder none("-d");
        ASSERT_TRUE(none.Started());
        EXPECT_EQ(none.Ended(10000), 0);
        EXPECT_EQ(none.Output(), std::string(kIdentityTableName) + ": none (no SOCKS handshake is under way)\r\n");
    }
    dxtest::MakeNonBlocking(s, SOCKS_ioctlsocket);
    ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
    FakeScript(std::string("read=13 sleep=3000 send=") + kGranted4 + " drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "dora", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    Responder listing("-d");
    ASSERT_TRUE(listing.Started());
    EXPECT_EQ(listing.Ended(10000), 0);
    EXPECT_EQ(listing.Output(), std::string(kIdentityTableName) +
                                    ": totalSize 7656, version 1, highWater 1, addCount 1, entrySize 76, entryCount 100\r\n"
                                    "slot 0: local " + std::to_string(LocalPort()) + ", remote " +
                                    std::to_string(FakePort()) + ", user \"dora\"\r\n");
    ASSERT_TRUE(host.AwaitEvent(s, FD_CONNECT, nullptr, 10000));
}

TEST_F(IdentResponderTest, AConnectionIdleForTheLimitIsCut) {
    // A port of its own, and an idle limit of 1 s.
    SOCKET probe = dxtest::MakeTcpSocket();
    sockaddr_in any = dxtest::Loopback(0);
    ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
    int length = sizeof any;
    ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&any), &length), 0);
    closesocket(probe);
    uint16_t own = ntohs(any.sin_port);
    Responder responder("-p " + std::to_string(own) + " -t 1");
    ASSERT_TRUE(responder.Started());
    SOCKET idle = INVALID_SOCKET;
    for (int tries = 0; tries < 100 && idle == INVALID_SOCKET; ++tries) {
        idle = dxtest::MakeTcpSocket();
        sockaddr_in address = dxtest::Loopback(own);
        if (connect(idle, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            closesocket(idle);
            idle = INVALID_SOCKET;
            Sleep(100);
        }
    }
    ASSERT_NE(idle, INVALID_SOCKET) << "the responder did not listen";
    ASSERT_TRUE(dxtest::SendAll(idle, "12 , 3"));  // no line end: the query never completes
    DWORD start = GetTickCount();
    // The responder closes: the read ends well before its bound, with nothing.
    EXPECT_EQ(dxtest::Receive(idle, 1, 10000), "");
    EXPECT_LT(GetTickCount() - start, 9000u);
    closesocket(idle);
}

TEST_F(IdentResponderTest, BadQueriesGetTheRfcsErrorAndGoodOnesNoUser) {
    struct Row {
        const char* query;
        const char* answer;
    };
    const Row rows[] = {
        {"6191 , 23\r\n", "6191 , 23 : ERROR : NO-USER\r\n"},
        {"6191,23\n", "6191 , 23 : ERROR : NO-USER\r\n"},
        {"0 , 23\r\n", "0 , 23 : ERROR : INVALID-PORT\r\n"},
        {"70000 , 23\r\n", "70000 , 23 : ERROR : INVALID-PORT\r\n"},
        {"abc , def\r\n", "0 , 0 : ERROR : INVALID-PORT\r\n"},
        {"6191\r\n", "0 , 0 : ERROR : INVALID-PORT\r\n"},
        {"\r\n", "0 , 0 : ERROR : INVALID-PORT\r\n"},
        {"1234567 , 1\r\n", "0 , 0 : ERROR : INVALID-PORT\r\n"},
    };
    for (const Row& row : rows) EXPECT_EQ(dxtest::AskIdent(port, row.query), row.answer) << row.query;
}

TEST_F(IdentResponderTest, SeveralQueriesOnOneConnectionEachGetAnAnswer) {
    SOCKET ident = dxtest::MakeTcpSocket();
    sockaddr_in address = dxtest::Loopback(port);
    ASSERT_EQ(connect(ident, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_TRUE(dxtest::SendAll(ident, "1 , 2\r\n3 , 4\r\n"));
    const std::string answers = "1 , 2 : ERROR : NO-USER\r\n3 , 4 : ERROR : NO-USER\r\n";
    EXPECT_EQ(dxtest::Receive(ident, answers.size(), 5000), answers);
    closesocket(ident);
}

TEST_F(IdentResponderTest, AnOverLongOrEndlessLineIsCutWithoutAnAnswer) {
    EXPECT_EQ(dxtest::AskIdent(port, std::string(1000, '1')), "");
    EXPECT_EQ(dxtest::AskIdent(port, std::string(5000, ' ') + "1 , 2\r\n"), "");
    // The responder still answers afterwards.
    EXPECT_EQ(dxtest::AskIdent(port, "5 , 6\r\n"), "5 , 6 : ERROR : NO-USER\r\n");
}

}  // namespace
