// The SOCKS socket calls where the outcome shows in the socket objects: state, useCount and the
// fields of a read or of a stored selection. Objects are made through the exports or the registry and
// their fields set by hand, so every state is reached without a proxy.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench.h"
#include "config_sets.h"
#include "host_window.h"
#include "lifecycle.h"
#include "log_capture.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "registry_pair_test.h"
#include "socks_api.h"
#include "socks_socket.h"
#include "test_helpers.h"

namespace {

using dxtest::Address;
using dxtest::ClosedHandle;
using dxtest::Dotted;
using dxtest::Frame;
using dxtest::FrameWithoutResult;
using dxtest::IsListening;
using dxtest::IsOpen;
using dxtest::Line;
using dxtest::Lines;
using dxtest::N;
using dxtest::ReadableWithin;

std::vector<SOCKET> Entries(const fd_set& set) { return {set.fd_array, set.fd_array + set.fd_count}; }

fd_set SetOf(const std::vector<SOCKET>& sockets) {
    fd_set set;
    FD_ZERO(&set);
    for (SOCKET s : sockets) set.fd_array[set.fd_count++] = s;
    return set;
}

constexpr int kEarlierError = 4242;

// The WinSock error that the real select leaves behind on a writable socket, when kEarlierError stood
// before it: what a caller finds when Select fails without writing an error.
int ErrorLeftByTheRealSelect(SOCKET writable) {
    fd_set writes = SetOf({writable});
    timeval zero = {0, 0};
    WSASetLastError(kEarlierError);
    select(0, nullptr, &writes, nullptr, &zero);
    return WSAGetLastError();
}

void SetConnectErrorOne(CSocksSocket* object) { object->connectError = 1; }

// The library's waits have no limit. Where a test must not reach one, or reaches one on purpose, this
// ends it after a while from a second thread, by default by setting connectError to 1, which the test
// then sees.
class WaitBreaker {
public:
    WaitBreaker(CSocksSocket* object, DWORD ms, void (*end)(CSocksSocket*) = SetConnectErrorOne)
        : object_(object), ms_(ms), end_(end) {
        stop_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        thread_ = CreateThread(nullptr, 0, &WaitBreaker::Run, this, 0, nullptr);
    }
    ~WaitBreaker() {
        SetEvent(stop_);
        EXPECT_EQ(WaitForSingleObject(thread_, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
        CloseHandle(thread_);
        CloseHandle(stop_);
    }
    WaitBreaker(const WaitBreaker&) = delete;
    WaitBreaker& operator=(const WaitBreaker&) = delete;

private:
    static DWORD WINAPI Run(void* p) {
        auto* self = static_cast<WaitBreaker*>(p);
        if (WaitForSingleObject(self->stop_, self->ms_) == WAIT_TIMEOUT) self->end_(self->object_);
        return 0;
    }
    CSocksSocket* object_;
    DWORD ms_;
    void (*end_)(CSocksSocket*);
    HANDLE stop_ = nullptr;
    HANDLE thread_ = nullptr;
};

class SocksCallsTest : public RegistryPairTest {
protected:
    // The registry's own use keeps these objects while they stay linked.
    CSocksSocket* Add(SOCKET s) {
        return g_pProxySocketManager->AddSocket(s, kSocksSocketType).As<CSocksSocket>().get();
    }
    CSocksSocket* Find(SOCKET s) { return g_pProxySocketManager->FindSocket(s).As<CSocksSocket>().get(); }
    // An object for a new socket, with the state and the count of closes it owes.
    CSocksSocket* AddIn(uint32_t state, int32_t useCount) {
        CSocksSocket* object = Add(Socket());
        object->state = static_cast<ProxyState>(state);
        object->useCount = useCount;
        return object;
    }
    // An object with a proxy, as SOCKS_SetProxyEx leaves it.
    CSocksSocket* Proxied(SOCKET s) {
        sockaddr_in proxy = Address("10.1.2.3", 1080);
        EXPECT_EQ(SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 4), 0);
        return Find(s);
    }
};

// ---- SOCKS_closesocket and SOCKS_CleanupSocket ----

// No state of either stack is numbered 7.
constexpr uint32_t kNoSuchState = 7;

TEST_F(SocksCallsTest, CloseSocketByStateAndUseCount) {
    struct Case {
        uint32_t state;
        int32_t useCount;
        bool firstCloses;
        bool secondCloses;  // when the first didn't
    };
    const Case cases[] = {
        {kIdle, 1, true, false},         {kFinished, 1, true, false},       {kEstablished, 1, true, false},
        {kIdle, 2, false, true},         {kFinished, 2, false, true},       {kEstablished, 2, false, true},
        // Never connected: the count goes below zero and no close ever reaches WinSock.
        {kIdle, 0, false, false},
        // In mid-handshake the close only lowers the count; the state it leaves is idle.
        {kConnected, 1, false, false},   {kConnecting, 1, false, false},    {kAwaitSocks4Reply, 1, false, false},
        {kAwaitMethodReply, 1, false, false}, {kGssapiRefused, 1, false, false},
        {kAwaitPasswordStatus, 1, false, false}, {kNoSuchState, 1, false, false}, {kAwaitConnectReply, 1, false, false},
        {kFailed, 1, false, false},      {kAwaitSocks4Reply, 2, false, true}, {kFailed, 2, false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("state " + std::to_string(c.state) + ", useCount " + std::to_string(c.useCount));
        CSocksSocket* object = AddIn(c.state, c.useCount);
        const SOCKET s = object->socket;
        dxtest::LogCapture capture;
        EXPECT_EQ(SOCKS_closesocket(s), 0);
        if (c.firstCloses) {
            EXPECT_EQ(Find(s), nullptr);
            EXPECT_FALSE(IsOpen(s));
            EXPECT_EQ(capture.Lines(), Frame("SOCKS_closesocket", s, {"g_pProxySocketManager->RemoveSocket(s)"}, 0));
            continue;
        }
        ASSERT_EQ(Find(s), object);
        EXPECT_EQ(object->state, kIdle);
        EXPECT_EQ(object->useCount, c.useCount - 1);
        EXPECT_TRUE(IsOpen(s));
        EXPECT_EQ(capture.Lines(), Frame("SOCKS_closesocket", s, {}, 0));

        EXPECT_EQ(SOCKS_closesocket(s), 0);
        EXPECT_EQ(IsOpen(s), !c.secondCloses);
        EXPECT_EQ(Find(s) == nullptr, c.secondCloses);
    }
}

TEST_F(SocksCallsTest, CloseSocketWithoutAnObjectIsThePlainClose) {
    SOCKET s = Socket();
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_closesocket(s), 0);
    EXPECT_FALSE(IsOpen(s));
    EXPECT_EQ(capture.Lines(), Frame("SOCKS_closesocket", s, {}, 0));

    SOCKET gone = ClosedHandle();
    EXPECT_EQ(SOCKS_closesocket(gone), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

TEST_F(SocksCallsTest, CleanupSocketForgetsTheObjectWhateverTheCloseSaysAndLeavesTheSocketOpen) {
    struct Case {
        uint32_t state;
        int32_t useCount;
    };
    const Case cases[] = {{kAwaitSocks4Reply, 1}, {kEstablished, 2}, {kIdle, 0}, {kEstablished, 1}, {kFailed, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE("state " + std::to_string(c.state) + ", useCount " + std::to_string(c.useCount));
        const SOCKET s = AddIn(c.state, c.useCount)->socket;
        dxtest::LogCapture capture;
        SOCKS_CleanupSocket(s);
        EXPECT_EQ(Find(s), nullptr);
        EXPECT_TRUE(IsOpen(s));
        EXPECT_EQ(capture.Lines(),
                  FrameWithoutResult("SOCKS_CleanupSocket", s, {"g_pProxySocketManager->RemoveSocket(s)"}));
    }
}

TEST_F(SocksCallsTest, CleanupSocketOfAnUnknownSocketDoesNothing) {
    SOCKET s = Socket();
    Add(Socket());
    dxtest::LogCapture capture;
    SOCKS_CleanupSocket(s);
    EXPECT_EQ(g_pProxySocketManager->Count(), 1u);
    EXPECT_TRUE(IsOpen(s));
    EXPECT_EQ(capture.Lines(), FrameWithoutResult("SOCKS_CleanupSocket", s, {}));
}

// ---- SOCKS_accept ----

TEST_F(SocksCallsTest, AcceptJudgesTheSecondReplyAsASocks4Packet) {
    struct Case {
        const char* name;
        const char* replyHex;
        bool accepted;
    };
    const Case cases[] = {
        {"code 90 in byte 1", "005a1f900a000001", true},
        {"code 90 in byte 0", "5a001f900a000001", true},
        {"version byte and code 90", "045a1f900a000001", true},
        {"refusal 91", "005b1f900a000001", false},
        {"refusal 92", "005c1f900a000001", false},
        {"version 5 reply", "050000010a000001", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Pair pair = Connected();
        CSocksSocket* object = Proxied(pair.host);
        // As after a granted BIND.
        object->command = kCommandBind;
        object->state = kEstablished;
        object->useCount = 1;
        ASSERT_TRUE(dxtest::SendAll(pair.proxy, dxtest::Unhex(c.replyHex)));
        ASSERT_TRUE(ReadableWithin(pair.host, 5000));

        sockaddr_in peer;
        std::memset(&peer, 0xee, sizeof peer);
        const sockaddr_in before = peer;
        int length = 32;
        WSASetLastError(4242);
        SOCKET result = SOCKS_accept(pair.host, reinterpret_cast<sockaddr*>(&peer), &length);
        int error = WSAGetLastError();
        EXPECT_EQ(object->readPointer, nullptr);
        EXPECT_EQ(object->bytesRead, 0);
        EXPECT_EQ(object->bytesRequested, 0);
        EXPECT_EQ(length, 32);
        if (c.accepted) {
            // The accepted connection is the same handle, owing one more close.
            EXPECT_EQ(result, pair.host);
            EXPECT_EQ(error, 0);
            EXPECT_EQ(object->useCount, 2);
            EXPECT_EQ(peer.sin_family, AF_INET);
            EXPECT_EQ(ntohs(peer.sin_port), 8080);
            EXPECT_EQ(Dotted(peer), "10.0.0.1");
        } else {
            EXPECT_EQ(result, INVALID_SOCKET);
            EXPECT_EQ(error, WSAECONNREFUSED);
            EXPECT_EQ(object->useCount, 1);
            EXPECT_EQ(std::memcmp(&peer, &before, sizeof peer), 0);
        }
    }
}

TEST_F(SocksCallsTest, AcceptWithThreeBytesInHandWouldBlockAndTheOtherFiveCompleteIt) {
    Pair pair = Connected();
    CSocksSocket* object = Proxied(pair.host);
    object->command = kCommandBind;
    object->state = kEstablished;
    object->useCount = 1;

    ASSERT_TRUE(dxtest::SendAll(pair.proxy, dxtest::Unhex("005a1f")));
    ASSERT_TRUE(ReadableWithin(pair.host, 5000));
    sockaddr_in peer = Address("1.2.3.4", 5);
    int length = sizeof peer;
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_accept(pair.host, reinterpret_cast<sockaddr*>(&peer), &length), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    EXPECT_EQ(object->bytesRead, 3);
    EXPECT_EQ(object->bytesRequested, 8);
    EXPECT_EQ(object->readPointer, object->receiveBuffer + 3);
    EXPECT_EQ(object->useCount, 1);
    EXPECT_EQ(capture.Lines(), Frame("SOCKS_accept", pair.host,
                                     {"Begin addr 1.2.3.4:5", "* * * * * received 3, total 3, requested 8",
                                      "End addr 1.2.3.4:5", "WinSock Error = 10035"},
                                     -1));

    ASSERT_TRUE(dxtest::SendAll(pair.proxy, dxtest::Unhex("900a000001")));
    ASSERT_TRUE(ReadableWithin(pair.host, 5000));
    capture.Clear();
    EXPECT_EQ(SOCKS_accept(pair.host, reinterpret_cast<sockaddr*>(&peer), &length), pair.host);
    EXPECT_EQ(WSAGetLastError(), 0);
    EXPECT_EQ(object->useCount, 2);
    EXPECT_EQ(ntohs(peer.sin_port), 8080);
    EXPECT_EQ(capture.Lines(), Frame("SOCKS_accept", pair.host,
                                     {"Begin addr 1.2.3.4:5", "* * * * * received 5, total 8, requested 8",
                                      "End addr 10.0.0.1:8080", "WinSock Error = 0"},
                                     static_cast<int>(pair.host)));
}

TEST_F(SocksCallsTest, ListenInTheMiddleOfAReplyStartsTheReadAgain) {
    Pair pair = Connected();
    CSocksSocket* object = Proxied(pair.host);
    object->useCount = 1;
    sockaddr_in peer = {};
    int length = sizeof peer;

    ASSERT_TRUE(dxtest::SendAll(pair.proxy, dxtest::Unhex("000000")));
    ASSERT_TRUE(ReadableWithin(pair.host, 5000));
    EXPECT_EQ(SOCKS_accept(pair.host, reinterpret_cast<sockaddr*>(&peer), &length), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    EXPECT_EQ(SOCKS_listen(pair.host, 1), 0);
    // Carried on, the read would join the three zeros to this grant and refuse it.
    ASSERT_TRUE(dxtest::SendAll(pair.proxy, dxtest::Unhex("005a1f900a000001")));
    ASSERT_TRUE(ReadableWithin(pair.host, 5000));
    EXPECT_EQ(SOCKS_accept(pair.host, reinterpret_cast<sockaddr*>(&peer), &length), pair.host);
    EXPECT_EQ(WSAGetLastError(), 0);
}

TEST_F(SocksCallsTest, AcceptFromAProxyThatClosedKeepsWaiting) {
    Pair pair = Connected();
    CSocksSocket* object = Proxied(pair.host);
    ASSERT_EQ(shutdown(pair.proxy, SD_SEND), 0);
    ASSERT_TRUE(ReadableWithin(pair.host, 5000));
    dxtest::LogCapture capture;
    sockaddr_in peer = {};
    int length = sizeof peer;
    EXPECT_EQ(SOCKS_accept(pair.host, reinterpret_cast<sockaddr*>(&peer), &length), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    EXPECT_EQ(object->bytesRead, 0);
    auto received = dxtest::LinesStartingWith(capture.Lines(), Line("* * * * *"));
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0], Line("* * * * * received 0, total 0, requested 8"));
}

TEST_F(SocksCallsTest, AcceptPassesOnTheErrorOfAFailedRead) {
    Pair pair = Connected();
    Proxied(pair.host);
    ASSERT_EQ(shutdown(pair.host, SD_RECEIVE), 0);
    dxtest::LogCapture capture;
    sockaddr_in peer = {};
    int length = sizeof peer;
    EXPECT_EQ(SOCKS_accept(pair.host, reinterpret_cast<sockaddr*>(&peer), &length), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAESHUTDOWN);
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), Line("* * * * *")).empty());
    auto errors = dxtest::LinesStartingWith(capture.Lines(), Line("WinSock Error = "));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], Line("WinSock Error = 10058"));
}

TEST_F(SocksCallsTest, AcceptOnASocketWithoutAProxyIsThePlainAccept) {
    struct Case {
        const char* name;
        bool object;  // with an object whose useProxy is clear
    };
    for (const Case& c : {Case{"no object", false}, Case{"object without a proxy", true}}) {
        SCOPED_TRACE(c.name);
        if (c.object) {
            sockaddr_in none = {};
            ASSERT_EQ(SOCKS_SetProxyEx(listener, &none, sizeof none, "", 4), 0);
            ASSERT_EQ(Find(listener)->useProxy, 0);
        }
        SOCKET client = Socket();
        ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&listenAddress), sizeof listenAddress), 0);
        sockaddr_in clientAddress = {};
        int clientLength = sizeof clientAddress;
        ASSERT_EQ(getsockname(client, reinterpret_cast<sockaddr*>(&clientAddress), &clientLength), 0);

        sockaddr_in peer = {};
        int length = 32;
        SOCKET accepted = SOCKS_accept(listener, reinterpret_cast<sockaddr*>(&peer), &length);
        ASSERT_NE(accepted, INVALID_SOCKET);
        Own(accepted);
        EXPECT_NE(accepted, listener);
        EXPECT_EQ(length, static_cast<int>(sizeof peer));
        EXPECT_EQ(peer.sin_port, clientAddress.sin_port);
        EXPECT_EQ(Dotted(peer), "127.0.0.1");
        ASSERT_TRUE(dxtest::SendAll(client, "x"));
        EXPECT_EQ(dxtest::Receive(accepted, 1, 2000), "x");
    }
}

// ---- SOCKS_getsockname ----

TEST_F(SocksCallsTest, GetSockNameWithAProxyIsTheProxysAddressAndThePortByCommand) {
    struct Case {
        uint32_t command;
        uint16_t expectedPort;
    };
    // Before any connect the command is 0, so the zero targetAddress gives its port.
    const Case cases[] = {{0, 0}, {kCommandConnect, 0}, {kCommandBind, 4321}};
    for (const Case& c : cases) {
        SCOPED_TRACE("command " + std::to_string(c.command));
        SOCKET s = Socket();
        CSocksSocket* object = Proxied(s);
        object->command = c.command;
        if (c.command != 0) object->targetAddress = Address("192.0.2.9", 4321);
        sockaddr_in name = Address("1.2.3.4", 5);
        int length = 64;
        dxtest::LogCapture capture;
        EXPECT_EQ(SOCKS_getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
        EXPECT_EQ(name.sin_family, AF_INET);
        EXPECT_EQ(Dotted(name), "10.1.2.3");
        EXPECT_EQ(ntohs(name.sin_port), c.expectedPort);
        EXPECT_EQ(length, 64);
        EXPECT_EQ(capture.Lines(), Frame("SOCKS_getsockname", s,
                                         {"Begin addr 1.2.3.4:5", "calling CSocksSocket::GetSockName",
                                          "End addr 10.1.2.3:" + std::to_string(c.expectedPort)},
                                         0));
    }
}

// ---- SOCKS_listen ----

TEST_F(SocksCallsTest, ListenWithAProxyClearsTheReadAndAsksNothingOfWinsock) {
    SOCKET s = Socket();
    CSocksSocket* object = Proxied(s);
    object->readPointer = object->receiveBuffer + 5;
    object->bytesRead = 5;
    object->bytesRequested = 8;
    dxtest::LogCapture capture;
    // An unbound socket: the real listen would fail.
    EXPECT_EQ(SOCKS_listen(s, 5), 0);
    EXPECT_EQ(object->readPointer, nullptr);
    EXPECT_EQ(object->bytesRead, 0);
    EXPECT_EQ(object->bytesRequested, 0);
    EXPECT_FALSE(IsListening(s));
    EXPECT_EQ(capture.Lines(), Frame("SOCKS_listen", s, {}, 0));
}

TEST_F(SocksCallsTest, ListenWithoutAProxyIsTheRealCall) {
    struct Case {
        const char* name;
        bool object;
        bool bound;
        int result;
    };
    const Case cases[] = {
        {"bound, no object", false, true, 0},
        {"bound, object without a proxy", true, true, 0},
        {"unbound, no object", false, false, SOCKET_ERROR},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET s = Socket();
        if (c.object) {
            sockaddr_in none = {};
            ASSERT_EQ(SOCKS_SetProxyEx(s, &none, sizeof none, "", 4), 0);
        }
        if (c.bound) {
            sockaddr_in local = Address("127.0.0.1", 0);
            ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
        }
        dxtest::LogCapture capture;
        EXPECT_EQ(SOCKS_listen(s, 5), c.result);
        if (c.result == SOCKET_ERROR) {
            EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
        }
        EXPECT_EQ(IsListening(s), c.result == 0);
        auto results = dxtest::LinesStartingWith(capture.Lines(), Line(" result = "));
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0], Line(" result = " + std::to_string(c.result)));
    }
}

// ---- SOCKS_ioctlsocket ----

TEST_F(SocksCallsTest, IoctlSocketTable) {
    struct Case {
        const char* name;
        long command;
        bool nullArgument;
        u_long value;
        int result;
        bool objectMade;
        const char* modeLine;  // null: none
    };
    const Case cases[] = {
        {"FIONBIO on", static_cast<long>(FIONBIO), false, 1, 0, true, " set socket non-blocking"},
        {"FIONBIO off", static_cast<long>(FIONBIO), false, 0, 0, true, " set socket blocking"},
        {"FIONREAD", static_cast<long>(FIONREAD), false, 0, 0, false, nullptr},
        {"FIONBIO, null argument", static_cast<long>(FIONBIO), true, 0, WSAEFAULT, false, nullptr},
        {"FIONREAD, null argument", static_cast<long>(FIONREAD), true, 0, WSAEFAULT, false, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Pair pair = Connected();
        ASSERT_TRUE(dxtest::SendAll(pair.proxy, "abc"));
        ASSERT_TRUE(ReadableWithin(pair.host, 5000));
        u_long argument = c.value;
        dxtest::LogCapture capture;
        WSASetLastError(0);
        EXPECT_EQ(SOCKS_ioctlsocket(pair.host, c.command, c.nullArgument ? nullptr : &argument), c.result);
        if (c.result != 0) {
            EXPECT_EQ(WSAGetLastError(), c.result);
        }
        CSocksSocket* object = Find(pair.host);
        EXPECT_EQ(object != nullptr, c.objectMade);
        if (object != nullptr) {
            EXPECT_EQ(object->asyncMode, c.value != 0 ? 1 : 0);
        }
        if (c.command == static_cast<long>(FIONREAD) && !c.nullArgument) {
            EXPECT_EQ(argument, 3u);
        }

        Lines body;
        if (c.objectMade) body.push_back("CSocksSocket::CSocksSocket(" + N(pair.host) + ")");
        if (c.modeLine != nullptr) body.push_back(c.modeLine);
        EXPECT_EQ(capture.Lines(), Frame("SOCKS_ioctlsocket", pair.host, body, c.result));
    }
}

TEST_F(SocksCallsTest, IoctlSocketFionbioReachesTheRealSocket) {
    Pair pair = Connected();
    u_long on = 1;
    ASSERT_EQ(SOCKS_ioctlsocket(pair.host, static_cast<long>(FIONBIO), &on), 0);
    char byte;
    EXPECT_EQ(recv(pair.host, &byte, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
}

TEST_F(SocksCallsTest, IoctlSocketFailureReturnsTheWinsockCodeAndTheObjectStays) {
    SOCKET gone = ClosedHandle();
    u_long on = 1;
    EXPECT_EQ(SOCKS_ioctlsocket(gone, static_cast<long>(FIONBIO), &on), WSAENOTSOCK);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    CSocksSocket* object = Find(gone);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->asyncMode, 1);
}

// ---- SOCKS_WSAAsyncSelect ----

TEST_F(SocksCallsTest, WsaAsyncSelectByObjectAndState) {
    constexpr int kNoObject = -1;
    struct Case {
        const char* name;
        int state;  // kNoObject: the socket has none
        long events;
        const char* action;
        bool real;    // the real WSAAsyncSelect ran, so FD_WRITE arrives
        bool stored;  // the selection was stored in the object
    };
    const Case cases[] = {
        {"established", kEstablished, FD_WRITE, "calling ::WSAAsyncSelect", true, false},
        {"idle", kIdle, FD_CONNECT | FD_WRITE, "pSocket->PushAsyncSelect", false, true},
        // An idle object stores a selection without FD_CONNECT too.
        {"idle, no FD_CONNECT", kIdle, FD_WRITE, "pSocket->PushAsyncSelect", false, true},
        {"connecting", kConnecting, FD_CONNECT | FD_WRITE, "do nothing", false, false},
        {"awaiting reply", kAwaitSocks4Reply, FD_WRITE, "do nothing", false, false},
        {"finished", kFinished, FD_CONNECT | FD_WRITE, "do nothing", false, false},
        {"failed", kFailed, FD_WRITE, "do nothing", false, false},
        {"unknown, FD_CONNECT", kNoObject, FD_CONNECT | FD_WRITE, "pSocket->PushAsyncSelect", false, true},
        {"unknown, no FD_CONNECT", kNoObject, FD_WRITE, "calling ::WSAAsyncSelect", true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        dxtest::HostWindow window;
        Pair pair = Connected();
        if (c.state != kNoObject) Add(pair.host)->state = static_cast<ProxyState>(c.state);
        const UINT message = dxtest::HostWindow::kSocketMessage;
        char parameters[128];
        wsprintfA(parameters, " %p, %x, %x", window.Handle(), message, static_cast<unsigned>(c.events));

        dxtest::LogCapture capture;
        EXPECT_EQ(SOCKS_WSAAsyncSelect(pair.host, window.Handle(), message, c.events), 0);
        Lines body = {parameters};
        if (c.state == kNoObject && c.stored) body.push_back("CSocksSocket::CSocksSocket(" + N(pair.host) + ")");
        body.push_back(c.action);
        EXPECT_EQ(capture.Lines(), Frame("SOCKS_WSAAsyncSelect", pair.host, body, 0));

        CSocksSocket* object = Find(pair.host);
        EXPECT_EQ(object != nullptr, c.state != kNoObject || c.stored);
        if (object != nullptr) {
            EXPECT_EQ(object->asyncWindow, c.stored ? window.Handle() : nullptr);
            EXPECT_EQ(object->asyncMessage, c.stored ? message : 0u);
            EXPECT_EQ(object->asyncEvents, c.stored ? static_cast<uint32_t>(c.events) : 0u);
            EXPECT_EQ(object->asyncMode, c.stored ? 1 : 0);
            EXPECT_EQ(object->state, c.state == kNoObject ? kIdle : static_cast<uint32_t>(c.state));
        }
        if (c.real) {
            EXPECT_TRUE(window.PumpUntil([&] { return !window.SocketMessages(pair.host).empty(); }, 3000));
            auto posted = window.SocketMessages(pair.host);
            ASSERT_FALSE(posted.empty());
            EXPECT_EQ(posted[0].Event(), static_cast<unsigned>(FD_WRITE));
            WSAAsyncSelect(pair.host, window.Handle(), 0, 0);
        } else {
            // A real selection on this writable socket would post FD_WRITE at once.
            window.PumpFor(300);
            EXPECT_TRUE(window.SocketMessages(pair.host).empty());
        }
    }
}

TEST_F(SocksCallsTest, WsaAsyncSelectReturnsTheResultOfTheRealCall) {
    dxtest::HostWindow window;
    SOCKET gone = ClosedHandle();
    EXPECT_EQ(SOCKS_WSAAsyncSelect(gone, window.Handle(), dxtest::HostWindow::kSocketMessage, FD_READ), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_EQ(g_pProxySocketManager->Count(), 0u);
}

TEST_F(SocksCallsTest, WsaAsyncSelectWithFdConnectStoresEvenForInvalidSocket) {
    // The registry is asked to add, not to find or add, and only the latter refuses INVALID_SOCKET.
    EXPECT_EQ(SOCKS_WSAAsyncSelect(INVALID_SOCKET, nullptr, 1, FD_CONNECT), 0);
    CSocksSocket* object = Find(INVALID_SOCKET);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->asyncEvents, static_cast<uint32_t>(FD_CONNECT));
    EXPECT_EQ(object->asyncMode, 1);
}

// ---- Select ----

TEST_F(SocksCallsTest, SelectIsThePlainSelectWithoutAWriteSetOrWithoutObjects) {
    enum WriteSet { kNull, kEmpty, kWritable };
    struct Case {
        const char* name;
        bool registryEmpty;
        WriteSet writeSet;
        int result;  // the real select counts the read set too
    };
    const Case cases[] = {
        {"null write set", false, kNull, 1},
        {"empty write set", false, kEmpty, 1},
        {"empty registry", true, kWritable, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Pair readable = Connected();
        Pair writable = Connected();
        ASSERT_TRUE(dxtest::SendAll(readable.proxy, "r"));
        ASSERT_TRUE(ReadableWithin(readable.host, 5000));
        SOCKET other = Socket();
        if (!c.registryEmpty) Add(other)->state = kFailed;

        fd_set reads = SetOf({readable.host});
        fd_set writes = SetOf(c.writeSet == kWritable ? std::vector<SOCKET>{writable.host} : std::vector<SOCKET>{});
        timeval zero = {0, 0};
        EXPECT_EQ(SOCKS_select(0, &reads, c.writeSet == kNull ? nullptr : &writes, nullptr, &zero), c.result);
        EXPECT_EQ(Entries(reads), std::vector<SOCKET>{readable.host});
        if (c.writeSet == kWritable) {
            EXPECT_EQ(Entries(writes), std::vector<SOCKET>{writable.host});
        }
        g_pProxySocketManager->RemoveSocket(other);
    }
}

TEST_F(SocksCallsTest, SelectCountsTheWriteSetOnly) {
    Pair readable = Connected();
    Pair writable = Connected();
    Pair managed = Connected();
    Add(managed.host)->state = kEstablished;
    ASSERT_TRUE(dxtest::SendAll(readable.proxy, "r"));
    ASSERT_TRUE(ReadableWithin(readable.host, 5000));
    fd_set reads = SetOf({readable.host});
    fd_set writes = SetOf({writable.host});
    timeval zero = {0, 0};
    EXPECT_EQ(SOCKS_select(0, &reads, &writes, nullptr, &zero), 1);
    EXPECT_EQ(Entries(reads), std::vector<SOCKET>{readable.host});
    EXPECT_EQ(Entries(writes), std::vector<SOCKET>{writable.host});
}

TEST_F(SocksCallsTest, SelectOfThreeEstablishedNeighboursKeepsTheMiddleOneForTheRealSelect) {
    SOCKET a = Connected().host;
    SOCKET b = Connected().host;
    SOCKET c = Connected().host;
    for (SOCKET s : {a, b, c}) Add(s)->state = kEstablished;
    fd_set writes = SetOf({a, b, c});
    timeval zero = {0, 0};
    EXPECT_EQ(SOCKS_select(0, nullptr, &writes, nullptr, &zero), 4);
    EXPECT_EQ(Entries(writes), (std::vector<SOCKET>{b, a, b, c}));
}

TEST_F(SocksCallsTest, SelectPutsEstablishedSocketsBehindThePlainOnes) {
    SOCKET managed = Connected().host;
    SOCKET plain = Connected().host;
    Add(managed)->state = kEstablished;
    fd_set writes = SetOf({managed, plain});
    timeval zero = {0, 0};
    EXPECT_EQ(SOCKS_select(0, nullptr, &writes, nullptr, &zero), 2);
    EXPECT_EQ(Entries(writes), (std::vector<SOCKET>{plain, managed}));
}

TEST_F(SocksCallsTest, SelectDropsAnIdleSocketThoughItIsWritable) {
    SOCKET idle = Connected().host;
    SOCKET plain = Connected().host;
    CSocksSocket* object = Add(idle);
    for (const auto& order : {std::vector<SOCKET>{idle, plain}, std::vector<SOCKET>{plain, idle}}) {
        fd_set writes = SetOf(order);
        timeval zero = {0, 0};
        WaitBreaker breaker(object, 3000);
        EXPECT_EQ(SOCKS_select(0, nullptr, &writes, nullptr, &zero), 1);
        EXPECT_EQ(Entries(writes), std::vector<SOCKET>{plain});
    }
    EXPECT_EQ(object->connectError, 0u);
}

TEST_F(SocksCallsTest, SelectOfSixtyFourEstablishedSocketsLosesWhatNoLongerFits) {
    std::vector<SOCKET> sockets;
    for (int i = 0; i < FD_SETSIZE; ++i) {
        sockets.push_back(Connected().host);
        Add(sockets.back())->state = kEstablished;
    }
    fd_set writes = SetOf(sockets);
    timeval zero = {0, 0};
    EXPECT_EQ(SOCKS_select(0, nullptr, &writes, nullptr, &zero), FD_SETSIZE);
    // Every other one stays for the real select; all are appended until the set is full.
    std::vector<SOCKET> expected;
    for (int i = 1; i < FD_SETSIZE; i += 2) expected.push_back(sockets[i]);
    for (int i = 0; i < FD_SETSIZE / 2; ++i) expected.push_back(sockets[i]);
    EXPECT_EQ(Entries(writes), expected);
}

TEST_F(SocksCallsTest, SelectFailsWhenAHandshakeCannotEnd) {
    constexpr int kAsItStood = -1;
    struct Case {
        uint32_t state;
        int32_t canceled;
        uint32_t connectError;
        int error;
    };
    const Case cases[] = {
        {kAwaitSocks4Reply, 1, 0, DXSOCKS_PASSWORD_CANCELLED},
        {kAwaitPasswordStatus, 0, ERROR_TIMEOUT, ERROR_TIMEOUT},
        // No error is written when the handshake failed.
        {kFailed, 0, 0, kAsItStood},
        {kFailed, 1, ERROR_TIMEOUT, DXSOCKS_PASSWORD_CANCELLED},
        {kFailed, 0, ERROR_TIMEOUT, ERROR_TIMEOUT},
        {kFinished, 1, 0, DXSOCKS_PASSWORD_CANCELLED},
        {kConnecting, 0, ERROR_TIMEOUT, ERROR_TIMEOUT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("state " + std::to_string(c.state) + ", canceled " + std::to_string(c.canceled) +
                     ", connectError " + std::to_string(c.connectError));
        SOCKET managed = Connected().host;
        SOCKET plain = Connected().host;
        CSocksSocket* object = Add(managed);
        object->state = static_cast<ProxyState>(c.state);
        object->canceled = c.canceled;
        object->connectError = c.connectError;
        fd_set writes = SetOf({managed, plain});
        timeval zero = {0, 0};
        const int stood = ErrorLeftByTheRealSelect(plain);
        WaitBreaker breaker(object, 3000);
        dxtest::LogCapture capture;
        WSASetLastError(kEarlierError);
        EXPECT_EQ(SOCKS_select(0, nullptr, &writes, nullptr, &zero), SOCKET_ERROR);
        // Read after the closing log line.
        EXPECT_EQ(WSAGetLastError(), c.error == kAsItStood ? stood : c.error);
        EXPECT_EQ(capture.Lines(), dxtest::BareFrame("SOCKS_select", {}));
    }
}

TEST_F(SocksCallsTest, SelectLooksAtTheManagedSocketsInTheOrderOfTheSet) {
    SOCKET failed = Connected().host;
    SOCKET canceled = Connected().host;
    SOCKET plain = Connected().host;
    CSocksSocket* failedObject = Add(failed);
    failedObject->state = kFailed;
    CSocksSocket* canceledObject = Add(canceled);
    canceledObject->state = kAwaitMethodReply;
    canceledObject->canceled = 1;
    WaitBreaker failedBreaker(failedObject, 3000);
    WaitBreaker canceledBreaker(canceledObject, 3000);
    struct Case {
        std::vector<SOCKET> set;
        int error;
    };
    const int stood = ErrorLeftByTheRealSelect(plain);
    const Case cases[] = {{{failed, plain, canceled}, stood}, {{canceled, plain, failed}, DXSOCKS_PASSWORD_CANCELLED}};
    for (const Case& c : cases) {
        fd_set writes = SetOf(c.set);
        timeval zero = {0, 0};
        WSASetLastError(kEarlierError);
        EXPECT_EQ(SOCKS_select(0, nullptr, &writes, nullptr, &zero), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), c.error);
    }
}

// What a message of the host's thread does to the object that Select waits on.
CSocksSocket* g_timerObject = nullptr;
void (*g_timerAction)(CSocksSocket*) = nullptr;

void CALLBACK ActOnTimer(HWND, UINT, UINT_PTR, DWORD) {
    if (g_timerAction != nullptr) g_timerAction(g_timerObject);
    g_timerAction = nullptr;
}

TEST_F(SocksCallsTest, SelectWaitsPumpingTheCallersMessagesUntilTheHandshakeEnds) {
    constexpr int kAnyError = -1;
    struct Case {
        const char* name;
        void (*action)(CSocksSocket*);
        int result;
        int error;  // when result is -1
    };
    const Case cases[] = {
        {"established", [](CSocksSocket* o) { o->state = kEstablished; }, 2, 0},
        // The error is what the pump left; the cases without a wait show that none is written.
        {"failed", [](CSocksSocket* o) { o->state = kFailed; }, SOCKET_ERROR, kAnyError},
        {"cancelled", [](CSocksSocket* o) { o->canceled = 1; }, SOCKET_ERROR, DXSOCKS_PASSWORD_CANCELLED},
        {"timed out", [](CSocksSocket* o) { o->connectError = ERROR_TIMEOUT; }, SOCKET_ERROR, ERROR_TIMEOUT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET managed = Connected().host;
        SOCKET plain = Connected().host;
        CSocksSocket* object = Add(managed);
        object->state = kAwaitSocks4Reply;
        g_timerObject = object;
        g_timerAction = c.action;
        // Only a pumped message of this thread ends the handshake.
        UINT_PTR timer = SetTimer(nullptr, 0, 200, ActOnTimer);
        ASSERT_NE(timer, 0u);
        fd_set writes = SetOf({managed, plain});
        timeval zero = {0, 0};
        int result = 0;
        int error = 0;
        DWORD elapsed = 0;
        {
            WaitBreaker breaker(object, 5000);
            DWORD start = GetTickCount();
            result = SOCKS_select(0, nullptr, &writes, nullptr, &zero);
            error = WSAGetLastError();
            elapsed = GetTickCount() - start;
        }
        KillTimer(nullptr, timer);

        EXPECT_EQ(result, c.result);
        if (c.result != SOCKET_ERROR) {
            EXPECT_EQ(Entries(writes), (std::vector<SOCKET>{plain, managed}));
        } else if (c.error != kAnyError) {
            EXPECT_EQ(error, c.error);
        }
        // The zero timeout served the real select only.
        EXPECT_GE(elapsed, 150u);
        EXPECT_NE(object->connectError, 1u);
    }
}

// ---- SOCKS_BindEx ----

TEST_F(SocksCallsTest, BindExWaitsPumpingTheCallersMessagesThenClearsTheRead) {
    struct Case {
        const char* name;
        void (*action)(CSocksSocket*);
        int result;
        int error;
    };
    const Case cases[] = {
        {"established",
         [](CSocksSocket* o) {
             o->state = kEstablished;
             o->readPointer = o->receiveBuffer + 8;
             o->bytesRead = 8;
             o->bytesRequested = 8;
         },
         0, 0},
        // The cancellation's 65534 is replaced by the code, -1, at the end.
        {"cancelled",
         [](CSocksSocket* o) {
             o->canceled = 1;
             o->readPointer = o->receiveBuffer + 3;
             o->bytesRead = 3;
             o->bytesRequested = 8;
         },
         SOCKET_ERROR, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET s = Socket();
        // The listener stands in for the proxy; nothing answers, so only the pumped message ends the wait.
        ASSERT_EQ(SOCKS_SetProxyEx(s, &listenAddress, sizeof listenAddress, "", 4), 0);
        CSocksSocket* object = Find(s);
        g_timerObject = object;
        g_timerAction = c.action;
        UINT_PTR timer = SetTimer(nullptr, 0, 200, ActOnTimer);
        ASSERT_NE(timer, 0u);
        HWND before = reinterpret_cast<HWND>(static_cast<uintptr_t>(0x1234));
        g_hParentWindow = before;
        int result = 1;
        int error = 1;
        DWORD elapsed = 0;
        {
            WaitBreaker breaker(object, 5000, [](CSocksSocket* o) { o->canceled = 1; });
            DWORD start = GetTickCount();
            result = SOCKS_BindEx(s, "127.0.0.1", 4321, reinterpret_cast<HWND>(static_cast<uintptr_t>(0x99)), AF_INET);
            error = WSAGetLastError();
            elapsed = GetTickCount() - start;
        }
        KillTimer(nullptr, timer);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(error, c.error);
        EXPECT_GE(elapsed, 150u);
        EXPECT_LT(elapsed, 4000u);
        EXPECT_EQ(object->command, kCommandBind);
        EXPECT_EQ(object->readPointer, nullptr);
        EXPECT_EQ(object->bytesRead, 0);
        EXPECT_EQ(object->bytesRequested, 0);
        // Unlike SOCKS_ConnectEx, the BIND leaves the parent window of the first-use prompt alone.
        EXPECT_EQ(g_hParentWindow, before);
    }
    g_hParentWindow = nullptr;
}

TEST_F(SocksCallsTest, BindExWithoutAProxyLeavesTheParentWindowAlone) {
    // The socket without a proxy determines: nothing configured, no UI library beside the stand-in,
    // so the first-use prompt is declined and the BIND fails as without an object.
    dxtest::ClearSettingsStore();
    DeleteConfigSets();
    SOCKET s = Socket();
    HWND before = reinterpret_cast<HWND>(static_cast<uintptr_t>(0x1234));
    g_hParentWindow = before;
    EXPECT_EQ(SOCKS_BindEx(s, "127.0.0.1", 4321, nullptr, AF_INET), WSAENOTSOCK);
    EXPECT_EQ(WSAGetLastError(), 0);
    EXPECT_EQ(SOCKS_BindEx(INVALID_SOCKET, "127.0.0.1", 4321, nullptr, AF_INET), WSAENOTSOCK);
    EXPECT_EQ(g_hParentWindow, before);
    ASSERT_NE(Find(s), nullptr);
    EXPECT_EQ(Find(s)->state, kIdle);
    g_hParentWindow = nullptr;
    DeleteConfigSets();
    dxtest::ClearSettingsStore();
}

// ---- SOCKS_ConnectEx twice, SOCKS_SetProxyEx, SOCKS_SetProtocolVersion ----

TEST_F(SocksCallsTest, SecondConnectOnAnEstablishedSocketFailsInFinished) {
    SOCKET s = Socket();
    sockaddr_in fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
    dxtest::FakeReset();
    dxtest::FakeScript("read=9 send=005a000000000000 drain=3000");
    ASSERT_EQ(SOCKS_SetProxyEx(s, &fake, sizeof fake, "", 4), 0);
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), 0);
    CSocksSocket* object = Find(s);
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(object->state, kEstablished);

    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", 81, nullptr, AF_INET), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEISCONN);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, WSAEISCONN);
    EXPECT_EQ(object->proxyChosen, 1);
    EXPECT_EQ(object->useProxy, 1);
    EXPECT_EQ(object->useCount, 1);
    EXPECT_EQ(g_pProxySocketManager->Count(), 1u);
}

TEST_F(SocksCallsTest, SetProxyExOfAnInvalidSocketGivesOneAndMakesNoObject) {
    sockaddr_in proxy = Address("10.1.2.3", 1080);
    EXPECT_EQ(SOCKS_SetProxyEx(INVALID_SOCKET, &proxy, sizeof proxy, "", 4), 1);
    EXPECT_EQ(g_pProxySocketManager->Count(), 0u);
}

TEST_F(SocksCallsTest, SetProtocolVersionReturnsMinusOneAndChangesNothing) {
    SOCKET known = Socket();
    SOCKET unknown = Socket();
    CSocksSocket* object = Proxied(known);
    dxtest::LogCapture capture;
    for (unsigned version : {4u, 5u, 0u, 0xffffffffu}) {
        EXPECT_EQ(SOCKS_SetProtocolVersion(known, version), -1);
        EXPECT_EQ(SOCKS_SetProtocolVersion(unknown, version), -1);
        EXPECT_EQ(SOCKS_SetProtocolVersion(INVALID_SOCKET, version), -1);
    }
    EXPECT_EQ(object->protocolVersion, 4u);
    EXPECT_EQ(g_pProxySocketManager->Count(), 1u);
    EXPECT_TRUE(capture.Lines().empty());
}

}  // namespace
