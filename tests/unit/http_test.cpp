// CHttpSocket driven one step at a time, with its fields in view; the status-line parser; the HTTP
// hidden window's event handler. The proxy's end of each connection is a socket of the test itself.
#include "http_socket.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench.h"
#include "test_helpers.h"
#include "bounded_text.h"
#include "families.h"
#include "host_window.h"
#include "http_api.h"
#include "http_wire.h"
#include "lifecycle.h"
#include "log_capture.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "registry_pair_test.h"
#include "socks_api.h"
#include "socks_socket.h"

namespace {

using dxtest::Address;
using dxtest::Line;
using dxtest::N;
using dxtest::Request;

using Lines = std::vector<std::string>;

// What send gives on a TCP socket that isn't connected; WinSock and Wine differ in the code.
int SendErrorWithoutAConnection() {
    SOCKET s = dxtest::MakeTcpSocket();
    int error = send(s, "x", 1, 0) == SOCKET_ERROR ? WSAGetLastError() : 0;
    closesocket(s);
    return error;
}

// ---- The status line ----

TEST(HttpStatusLineTest, StatusAndReasonAsTheStackReadsThem) {
    struct Case {
        std::string text;
        int status;
        std::string reason;
    };
    const Case cases[] = {
        {"HTTP/1.0 200 OK\r\nProxy-agent: x\r\n\r\n", 200, "OK"},
        {"X 200", 200, ""},
        {"HTTP/1.1 200\r\n\r\n", 200, ""},
        {"HTTP/1.1 200 Connection established\r\n\r\n", 200, "Connection established"},
        {"HTTP/1.1 404 Not Found\r\n", 404, "Not Found"},
        {"HTTP/1.1 407 Proxy Authentication Required\r\n", 407, "Proxy Authentication Required"},
        // Without a blank: 500 and no reason.
        {"HTTP/1.1200OK\r\n\r\n", 500, ""},
        {"", 500, ""},
        // Only the first blank counts; the word before it plays no part.
        {"HTTP/1.1\r\n 200 OK", 200, "OK"},
        {"HTTP/1.1  200 OK", 0, "200 OK"},
        {"HTTP/1.1 +200 OK", 0, "200 OK"},
        {"HTTP/1.1 abc", 0, "bc"},
        {"A 0200 OK", 200, "OK"},
        // Digits read as atoi reads them on Windows: beyond the range of int, 2147483647.
        {"A 4294967496 saturated", INT_MAX, "saturated"},
        {"A 4294967295 x", INT_MAX, "x"},
        {"A 2147483648 x", INT_MAX, "x"},
        {"A 2147483647 x", INT_MAX, "x"},
        {"A 99999999999999999999999 x", INT_MAX, "x"},
        {"A " + std::string(300, '0') + "200 OK", 200, ""},
        // The reason ends at a control byte or a byte with the high bit set; DEL is neither.
        {"A 200 ab\x01" "cd", 200, "ab"},
        {"A 200 ab\tcd", 200, "ab"},
        {"A 200 ab\xe9" "cd", 200, "ab"},
        {"A 200 ab\x7f" "cd", 200, "ab\x7f" "cd"},
        // 256 characters from the first digit.
        {"A 200 " + std::string(300, 'r'), 200, std::string(252, 'r')},
        {"A 2 " + std::string(300, 'r'), 2, std::string(254, 'r')},
        {"A x" + std::string(300, 'r'), 0, std::string(255, 'r')},
        {"A 4294967496 " + std::string(300, 'r'), INT_MAX, std::string(245, 'r')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        HttpStatus parsed = ParseHttpStatus(c.text.c_str());
        EXPECT_EQ(parsed.status, c.status);
        EXPECT_EQ(std::string(parsed.reason), c.reason);
    }
}

TEST(HttpStatusLineTest, OnlyTwoHundredSucceeds) {
    struct Case {
        int status;
        unsigned error;
    };
    const Case cases[] = {{200, 0},     {404, 65532}, {407, 65533}, {201, 10061}, {204, 10061},
                          {0, 10061},   {500, 10061}, {-1, 10061},  {403, 10061}, {502, 10061}};
    for (const Case& c : cases) EXPECT_EQ(HttpStatusError(c.status), c.error) << c.status;
}

// ---- Objects on a connection whose far end the test holds ----

class HttpSocketTest : public RegistryPairTest {
protected:
    void TearDown() override {
        for (CHttpSocket* object : objects) delete object;
        RegistryPairTest::TearDown();
    }

    CHttpSocket* Object(SOCKET s) {
        objects.push_back(new CHttpSocket(s));
        return objects.back();
    }
    // An object on a connected pair, in the state of a sent request.
    CHttpSocket* AwaitingReply(const Pair& pair) {
        CHttpSocket* object = Object(pair.host);
        object->state = kAwaitHttpReply;
        return object;
    }
    static void Target(CHttpSocket* object, const char* host, const char* service) {
        CopyText(object->targetHost, sizeof object->targetHost, host);
        CopyText(object->targetService, sizeof object->targetService, service);
    }

    std::vector<CHttpSocket*> objects;
};

TEST_F(HttpSocketTest, ConstructorLogsTheSocketAndSetsTheDefaults) {
    dxtest::LogCapture capture;
    CHttpSocket object(1234);
    EXPECT_EQ(capture.Lines(), Lines{Line("CHttpSocket::CHttpSocket(1234)")});
    EXPECT_EQ(object.state, kIdle);
    EXPECT_EQ(object.useAuthentication, 0);
    EXPECT_EQ(object.useProxy, 0);
    EXPECT_EQ(object.proxyChosen, 0);
    EXPECT_EQ(object.reserved, 255);
}

TEST_F(HttpSocketTest, SetProxyTakesTheAuthenticationFlagOnlyWithAProxy) {
    CHttpSocket object(1);
    sockaddr_in proxy = Address("10.1.2.3", 3128);
    object.SetProxy(&proxy, sizeof proxy, "alice", 1);
    EXPECT_EQ(object.useProxy, 1);
    EXPECT_EQ(object.proxyChosen, 1);
    EXPECT_EQ(object.useAuthentication, 1);
    EXPECT_EQ(object.proxyAddress.sin_addr.s_addr, proxy.sin_addr.s_addr);
    EXPECT_EQ(object.proxyAddress.sin_port, proxy.sin_port);
    EXPECT_STREQ(object.userId, "alice");

    object.SetProxy(&proxy, sizeof proxy, "alice", 0);
    EXPECT_EQ(object.useAuthentication, 0);
    object.SetProxy(&proxy, sizeof proxy, "alice", 7);
    EXPECT_EQ(object.useAuthentication, 1);

    // A zero address, or none: settled, no proxy, no authentication.
    sockaddr_in zero = Address("0.0.0.0", 3128);
    object.SetProxy(&zero, sizeof zero, "bob", 1);
    EXPECT_EQ(object.useProxy, 0);
    EXPECT_EQ(object.proxyChosen, 1);
    EXPECT_EQ(object.useAuthentication, 0);
    object.SetProxy(&proxy, sizeof proxy, "alice", 1);
    object.SetProxy(nullptr, 0, nullptr, 1);
    EXPECT_EQ(object.useProxy, 0);
    EXPECT_EQ(object.useAuthentication, 0);
}

TEST_F(HttpSocketTest, UserIdKeeps510CharactersAndCutsALongerOne) {
    CHttpSocket object(1);
    sockaddr_in proxy = Address("10.1.2.3", 3128);
    std::string exact(510, 'u');
    object.SetProxy(&proxy, sizeof proxy, exact.c_str(), 0);
    EXPECT_EQ(std::string(object.userId), exact);
    std::string longer = std::string(510, 'v') + "wxyz";
    object.SetProxy(&proxy, sizeof proxy, longer.c_str(), 0);
    EXPECT_EQ(std::string(object.userId), std::string(510, 'v'));
}

// ---- OnHttpResponse on crafted buffers ----

TEST_F(HttpSocketTest, OnHttpResponseJudgesTheReply) {
    struct Case {
        std::string reply;
        int result;
        unsigned code;
        std::string judgement;
    };
    const Case cases[] = {
        {"HTTP/1.0 200 OK\r\n\r\n", 0, 0, "OK 200. 'OK'"},
        {"X 200\r\n\r\n", 0, 0, "OK 200. ''"},
        {"HTTP/1.1 200\r\n\r\n", 0, 0, "OK 200. ''"},
        {"HTTP/1.1 200 Connection established\r\n\r\n", 0, 0, "OK 200. 'Connection established'"},
        {"NoBlankAtAll\r\n\r\n", -1, 10061, "500: ''"},
        {"no digits behind the blank\r\n", -1, 10061, "0: 'igits behind the blank'"},
        {"HTTPNOBLANK\r\n\r\n", -1, 10061, "500: ''"},
        {"HTTP/1.1 201 Created\r\n\r\n", -1, 10061, "201: 'Created'"},
        {"HTTP/1.1 204 No Content\r\n\r\n", -1, 10061, "204: 'No Content'"},
        {"HTTP/1.1 403 Forbidden\r\n\r\n", -1, 10061, "403: 'Forbidden'"},
        // Beyond the range of int: no known status, where wrapping would have made it 200.
        {"HTTP/1.1 4294967496 OK\r\n\r\n", -1, 10061, "2147483647: 'OK'"},
        {"HTTP/1.1 404 Not Found\r\n\r\n", -1, 65532, "Unable to resolve host name 404: 'Not Found'"},
        {"HTTP/1.1 407 Proxy Authentication Required\r\n\r\n", -1, 65533,
         "Proxy Authentication Required 407: 'Proxy Authentication Required'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        CHttpSocket object(1);
        object.connectError = 4711;
        std::memcpy(object.receiveBuffer, c.reply.data(), c.reply.size());
        object.bytesRead = static_cast<int32_t>(c.reply.size());
        unsigned code = 12345;
        dxtest::LogCapture capture;
        EXPECT_EQ(object.OnHttpResponse(&code), c.result);
        EXPECT_EQ(code, c.code);
        // Only a refusal is stored; a success leaves the field alone.
        EXPECT_EQ(object.connectError, c.result == 0 ? 4711u : c.code);
        Lines expected = {Line("CHttpSocket::OnHttpResponse - HTTP proxy authentication response read.\n"),
                          Line("CHttpSocket::OnHttpResponse - " + c.judgement)};
        EXPECT_EQ(capture.Lines(), expected);
    }
}

TEST_F(HttpSocketTest, OnHttpResponseEndsTheTextAtBytesRead) {
    CHttpSocket object(1);
    std::memcpy(object.receiveBuffer, "X 2001", 6);
    object.bytesRead = 5;
    unsigned code = 1;
    EXPECT_EQ(object.OnHttpResponse(&code), 0);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(object.receiveBuffer[5], 0);
}

TEST_F(HttpSocketTest, AReplyOf1024BytesLosesItsLastByteToTheTerminator) {
    struct Case {
        std::string reply;
        int32_t bytesRead;
        int result;
        std::string judgement;
    };
    const Case cases[] = {
        // The last byte completes "200"; without it the status is 20.
        {std::string(1020, 'X') + " 200", 1024, -1, "20: ''"},
        {std::string(1020, 'X') + " 200", 1023, -1, "20: ''"},
        {std::string(1020, 'X') + " 200", 4000, -1, "20: ''"},
        // The reason "AB" loses its B.
        {std::string(1017, 'X') + " 200 AB", 1024, 0, "OK 200. 'A'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytesRead);
        ASSERT_EQ(c.reply.size(), 1024u);
        CHttpSocket object(1);
        std::memcpy(object.receiveBuffer, c.reply.data(), 1024);
        object.bytesRead = c.bytesRead;
        unsigned code = 1;
        dxtest::LogCapture capture;
        EXPECT_EQ(object.OnHttpResponse(&code), c.result);
        EXPECT_EQ(object.receiveBuffer[1023], 0);
        auto judged = dxtest::LinesStartingWith(capture.Lines(), Line("CHttpSocket::OnHttpResponse - ") + c.judgement);
        EXPECT_EQ(judged.size(), 1u);
    }
}

// ---- AddressToHostPortText ----

TEST_F(HttpSocketTest, AddressToHostPortTextNeeds1059WideCharacters) {
    sockaddr_in address = Address("127.0.0.1", 4321);
    wchar_t out[1100];
    for (wchar_t& c : out) c = 0x5555;
    EXPECT_EQ(AddressToHostPortText(reinterpret_cast<sockaddr*>(&address), sizeof address, out, 1058), -1);
    for (wchar_t c : out) ASSERT_EQ(c, 0x5555);

    for (int size : {1059, 1060}) {
        SCOPED_TRACE(size);
        for (wchar_t& c : out) c = 0x5555;
        EXPECT_EQ(AddressToHostPortText(reinterpret_cast<sockaddr*>(&address), sizeof address, out, size), 0);
        std::wstring text(out);
        // The host part is a name where a reverse lookup finds one.
        ASSERT_GT(text.size(), 5u);
        EXPECT_EQ(text.substr(text.size() - 5), L":4321");
        std::wstring host = text.substr(0, text.size() - 5);
        EXPECT_TRUE(host == L"127.0.0.1" || host.find(L':') == std::wstring::npos);
        EXPECT_EQ(out[text.size() + 1], 0x5555);
    }
}

TEST_F(HttpSocketTest, AddressToHostPortTextGivesTheLookupErrorAndWritesNothing) {
    sockaddr_in address = Address("127.0.0.1", 4321);
    address.sin_family = 12345;
    wchar_t out[1060];
    for (wchar_t& c : out) c = 0x5555;
    int result = AddressToHostPortText(reinterpret_cast<sockaddr*>(&address), sizeof address, out, 1060);
    EXPECT_NE(result, 0);
    EXPECT_NE(result, -1);
    EXPECT_EQ(WSAGetLastError(), result);
    for (wchar_t c : out) ASSERT_EQ(c, 0x5555);
}

// ---- StartConnect ----

TEST_F(HttpSocketTest, StartConnectClearsConnectErrorUnlikeTheSocksTwin) {
    sockaddr_in closed = Address("127.0.0.1", 1);  // nothing listens on port 1

    CHttpSocket* object = Object(Socket());
    object->SetProxy(&closed, sizeof closed, "", 0);
    object->connectError = 1460;
    object->canceled = 1;
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "127.0.0.1", 80, nullptr, &error);
    EXPECT_EQ(error, static_cast<unsigned>(WSAECONNREFUSED));
    EXPECT_EQ(object->lastError, WSAECONNREFUSED);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->connectError, 0u);
    EXPECT_EQ(object->canceled, 0);

    SOCKET other = Socket();
    CSocksSocket twin(other);
    twin.SetProxy(&closed, sizeof closed, "", 4);
    twin.connectError = 1460;
    error = 0;
    twin.StartConnect(kCommandConnect, "127.0.0.1", 80, nullptr, &error);
    EXPECT_EQ(error, static_cast<unsigned>(WSAECONNREFUSED));
    EXPECT_EQ(twin.connectError, 1460u);
}

TEST_F(HttpSocketTest, StartConnectGoesOnWhenTheNameDoesNotResolveLocally) {
    sockaddr_in closed = Address("127.0.0.1", 1);
    CHttpSocket* object = Object(Socket());
    object->SetProxy(&closed, sizeof closed, "", 0);
    unsigned error = 0;
    object->StartConnect(kCommandConnect, "no-such-host.invalid", 8443, nullptr, &error);
    // The TCP connect to the proxy was tried: its refusal, not the lookup's code, is the outcome.
    EXPECT_EQ(error, static_cast<unsigned>(WSAECONNREFUSED));
    EXPECT_EQ(object->targetAddress.sin_addr.s_addr, 0u);
    EXPECT_EQ(object->targetAddress.sin_port, 0);
    EXPECT_STREQ(object->targetHost, "no-such-host.invalid");
    EXPECT_STREQ(object->targetService, "8443");
}

TEST_F(HttpSocketTest, StartConnectCutsTheHostAt1024CharactersAndRestoresTheMode) {
    sockaddr_in closed = Address("127.0.0.1", 1);
    CHttpSocket* object = Object(Socket());
    object->SetProxy(&closed, sizeof closed, "", 0);
    std::string host(1100, 'h');
    object->StartConnect(kCommandBind, host.c_str(), 65535, nullptr, nullptr);
    EXPECT_EQ(std::string(object->targetHost), std::string(1024, 'h'));
    EXPECT_STREQ(object->targetService, "65535");
    EXPECT_EQ(object->command, kCommandBind);
    EXPECT_EQ(object->asyncMode, 0);
    EXPECT_EQ(object->useCount, 1);
}

TEST_F(HttpSocketTest, BlockingStartConnectRunsBothStepsAndEndsEstablished) {
    SOCKET s = Socket();
    DWORD limit = 5000;
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
    CHttpSocket* object = Object(s);
    object->SetProxy(&listenAddress, sizeof listenAddress, "", 0);
    struct Proxy {
        SOCKET listener;
        size_t expected;
        std::string request;
    } proxy{listener, Request("example.com:443").size(), {}};
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](void* p) -> DWORD {
            auto* proxy = static_cast<Proxy*>(p);
            SOCKET peer = accept(proxy->listener, nullptr, nullptr);
            proxy->request = dxtest::Receive(peer, proxy->expected, 5000);
            dxtest::SendAll(peer, "HTTP/1.1 200 Connection established\r\n\r\n");
            Sleep(300);
            closesocket(peer);
            return 0;
        },
        &proxy, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    unsigned error = 1;
    object->StartConnect(kCommandConnect, "example.com", 443, nullptr, &error);
    EXPECT_EQ(WaitForSingleObject(thread, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
    CloseHandle(thread);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(object->state, kEstablished);
    EXPECT_EQ(object->lastError, 0);
    EXPECT_EQ(proxy.request, Request("example.com:443"));
}

// ---- ProcessHttpState ----

TEST_F(HttpSocketTest, ConnectedStateSendsTheRequestAndAwaitsTheReply) {
    Pair pair = Connected();
    CHttpSocket* object = Object(pair.host);
    Target(object, "example.com", "8080");
    object->state = kConnected;
    dxtest::LogCapture capture;
    EXPECT_EQ(object->ProcessHttpState(), 0);
    EXPECT_EQ(object->state, kAwaitHttpReply);
    EXPECT_EQ(dxtest::Receive(pair.proxy, 1000, 500), Request("example.com:8080"));
    Lines expected = {
        Line("CHttpSocket::SendHttpAuthentication - Sending HTTP proxy authentication request.\n" +
             Request("example.com:8080")),
        Line("CHttpSocket::Send - " + std::to_string(Request("example.com:8080").size()) + " bytes sent."),
    };
    EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(HttpSocketTest, EmptyTargetHostTakesTheTargetFromTheAddress) {
    Pair pair = Connected();
    CHttpSocket* object = Object(pair.host);
    object->targetAddress = Address("127.0.0.1", 4321);
    object->state = kConnected;
    ASSERT_EQ(object->ProcessHttpState(), 0);
    wchar_t wide[1060] = {};
    ASSERT_EQ(AddressToHostPortText(reinterpret_cast<sockaddr*>(&object->targetAddress), 16, wide, 1060), 0);
    char target[1100] = {};
    ASSERT_GT(WideCharToMultiByte(CP_UTF8, 0, wide, -1, target, sizeof target, nullptr, nullptr), 0);
    std::string received = dxtest::Receive(pair.proxy, 1000, 500);
    EXPECT_EQ(received, Request(target));
    EXPECT_NE(received.find(":4321 HTTP/1.1\r\n"), std::string::npos);
}

TEST_F(HttpSocketTest, ConnectedStateWithoutAConnectionFailsTheSendAndRestsFinished) {
    CHttpSocket* object = Object(Socket());
    Target(object, "example.com", "80");
    object->state = kConnected;
    const int code = SendErrorWithoutAConnection();
    ASSERT_NE(code, 0);
    EXPECT_EQ(object->ProcessHttpState(), code);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, code);
    EXPECT_EQ(object->connectError, 0u);
}

TEST_F(HttpSocketTest, AuthenticationWithoutAPasswordSourceIsCancelledAndSendsNothing) {
    Pair pair = Connected();
    CHttpSocket* object = Object(pair.host);
    sockaddr_in proxy = listenAddress;
    object->SetProxy(&proxy, sizeof proxy, "alice", 1);
    Target(object, "example.com", "80");
    object->state = kConnected;
    dxtest::LogCapture capture;
    WSASetLastError(0);
    EXPECT_EQ(object->SendHttpAuthentication(), -1);
    EXPECT_EQ(WSAGetLastError(), 65534);
    EXPECT_EQ(object->canceled, 1);
    Lines expected = {Line("CHttpSocket::createUTF8UsernamePassword - Creating username:password for authentication."),
                      Line("CHttpSocket::getPassword - Requesting Password."),
                      Line("CHttpSocket::SendHttpAuthentication - Password request cancelled.")};
    EXPECT_EQ(capture.Lines(), expected);

    EXPECT_EQ(object->ProcessHttpState(), -1);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(object->lastError, 65534);
    EXPECT_EQ(object->canceled, 1);
    EXPECT_EQ(object->connectError, 0u);
    EXPECT_EQ(dxtest::Receive(pair.proxy, 1000, 300), "");
}

CHttpSocket* g_promptedObject = nullptr;

// What a time-out reported by the host does to an open prompt: the flags change while it runs.
int TimeOutDuringThePrompt(void*, wchar_t*, int, const wchar_t*, const wchar_t*) {
    g_promptedObject->passwordTimedOut = 1;
    g_promptedObject->connectError = 1460;
    return 0;
}

TEST_F(HttpSocketTest, PasswordTimeOutFailsTheSendWith1460AndClearsCanceled) {
    for (int authenticate : {0, 1}) {
        SCOPED_TRACE(authenticate);
        Pair pair = Connected();
        CHttpSocket* object = Object(pair.host);
        object->useAuthentication = authenticate;
        // Without authentication no prompt clears the flag; with it, the time-out comes during the prompt.
        object->passwordTimedOut = 1;
        object->canceled = 1;
        g_promptedObject = object;
        g_pfnHttpPassword = TimeOutDuringThePrompt;
        Target(object, "example.com", "80");
        object->state = kConnected;
        dxtest::LogCapture capture;
        EXPECT_EQ(object->ProcessHttpState(), -1);
        EXPECT_EQ(WSAGetLastError(), 1460);
        EXPECT_EQ(object->canceled, 0);
        EXPECT_EQ(object->state, kFinished);
        EXPECT_EQ(object->lastError, -1);
        Lines expected = {Line("CHttpSocket::SendHttpAuthentication - Password request timeout.")};
        if (authenticate) {
            expected.insert(expected.begin(),
                            {Line("CHttpSocket::createUTF8UsernamePassword - Creating username:password for authentication."),
                             Line("CHttpSocket::getPassword - Requesting Password.")});
        }
        EXPECT_EQ(capture.Lines(), expected);
        EXPECT_EQ(dxtest::Receive(pair.proxy, 1000, 300), "");
        g_pfnHttpPassword = nullptr;
    }
}

TEST_F(HttpSocketTest, BlockingConnectExAfterAPasswordTimeOutFailsWith1460) {
    SOCKET s = Socket();
    ASSERT_EQ(HTTP_SetProxy(s, &listenAddress, sizeof listenAddress, "", 0), 0);
    auto object = g_pProxySocketManager->FindSocket(s).As<CHttpSocket>();
    ASSERT_NE(object, nullptr);
    object->passwordTimedOut = 1;
    WSASetLastError(0);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 1460);
    EXPECT_EQ(object->state, kFinished);
    EXPECT_EQ(HTTP_ConnectCanceled(s), 0);
}

TEST_F(HttpSocketTest, AwaitingTheReplyTakesItAndJudgesIt) {
    struct Case {
        std::string reply;  // empty: the proxy closes without a byte
        int result;
        uint32_t state;
        int32_t lastError;
        uint32_t connectError;
    };
    const Case cases[] = {
        {"HTTP/1.0 200 OK\r\n\r\n", 0, kEstablished, 0, 0},
        {"", 0, kEstablished, 0, 0},
        {"HTTP/1.1 404 Not Found\r\n\r\n", -1, kFailed, 65532, 65532},
        {"HTTP/1.1 407 Proxy Authentication Required\r\n\r\n", -1, kFailed, 65533, 65533},
        {"HTTP/1.1 502 Bad Gateway\r\n\r\n", -1, kFailed, 10061, 10061},
        {"garbage", -1, kFailed, 10061, 10061},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        Pair pair = Connected();
        CHttpSocket* object = AwaitingReply(pair);
        if (c.reply.empty()) {
            shutdown(pair.proxy, SD_SEND);
        } else {
            ASSERT_TRUE(dxtest::SendAll(pair.proxy, c.reply));
            Sleep(100);
        }
        EXPECT_EQ(object->ProcessHttpState(), c.result);
        EXPECT_EQ(object->state, c.state);
        EXPECT_EQ(object->lastError, c.lastError);
        EXPECT_EQ(object->connectError, c.connectError);
        EXPECT_EQ(object->bytesRead, static_cast<int32_t>(c.reply.size()));
        EXPECT_EQ(object->bytesRequested, 0);
        EXPECT_EQ(object->receiveBuffer[0], 0);
        EXPECT_EQ(object->receiveBuffer[1], 0);
    }
}

TEST_F(HttpSocketTest, AwaitingTheReplyConsumesExactlyWhatThePeekShowed) {
    Pair pair = Connected();
    CHttpSocket* object = AwaitingReply(pair);
    ASSERT_TRUE(dxtest::SendAll(pair.proxy, "HTTP/1.1 200 OK\r\n"));
    Sleep(100);
    ASSERT_EQ(object->ProcessHttpState(), 0);
    ASSERT_TRUE(dxtest::SendAll(pair.proxy, "Via: x\r\n\r\n"));
    // The rest of the header is the host's first data.
    EXPECT_EQ(dxtest::Receive(pair.host, 10, 1000), "Via: x\r\n\r\n");
}

TEST_F(HttpSocketTest, AwaitingTheReplyWithAFailingPeekEndsFailedWithTheWinsockError) {
    // The socket is not connected, so the peek fails at once.
    SOCKET s = Socket();
    CHttpSocket* object = Object(s);
    object->state = kAwaitHttpReply;
    dxtest::LogCapture capture;
    EXPECT_EQ(object->ProcessHttpState(), -1);
    EXPECT_EQ(object->state, kFailed);
    EXPECT_EQ(object->lastError, WSAENOTCONN);
    EXPECT_EQ(object->connectError, 0u);
    EXPECT_EQ(capture.Lines(), Lines{Line("SocketPeek() returned err:" + std::to_string(WSAENOTCONN))});
}

TEST_F(HttpSocketTest, OtherStatesAreNoStep) {
    for (uint32_t state : std::vector<uint32_t>{kIdle, kConnecting, kFinished, kEstablished, kFailed, kHttpCancelled,
                                                kAwaitSocks4Reply, kAwaitConnectReply}) {
        CHttpSocket object(1);
        object.state = static_cast<ProxyState>(state);
        dxtest::LogCapture capture;
        EXPECT_EQ(object.ProcessHttpState(), -1) << state;
        EXPECT_EQ(object.state, state);
        EXPECT_TRUE(capture.Lines().empty());
    }
}

// ---- The end of a non-blocking exchange, as the host's window sees it ----

class HttpEventModeTest : public HttpSocketTest {
protected:
    void SetUp() override {
        HttpSocketTest::SetUp();
        ASSERT_EQ(HTTP_Startup(nullptr, 0), 1);
        ASSERT_TRUE(IsWindow(g_hHttpWindow));
    }
    void TearDown() override {
        HTTP_Cleanup();
        HttpSocketTest::TearDown();
    }
    // An object whose outcome goes to the host's window as FD_CONNECT.
    CHttpSocket* EventDriven(SOCKET s) {
        CHttpSocket* object = Object(s);
        object->PushAsyncSelect(host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT);
        return object;
    }
    // The error word of the one FD_CONNECT posted for s; -1 if none came.
    long PostedError(SOCKET s) {
        host.PumpFor(200);
        auto messages = host.SocketMessages(s);
        if (messages.size() != 1 || messages[0].Event() != FD_CONNECT) return -1;
        return static_cast<long>(messages[0].Error());
    }
    dxtest::HostWindow host;
};

TEST_F(HttpEventModeTest, FailuresOfEitherStepReachTheHost) {
    const int sendError = SendErrorWithoutAConnection();
    ASSERT_NE(sendError, 0);
    struct Case {
        const char* name;
        bool connected;
        uint32_t state;
        int32_t useAuthentication;
        int32_t passwordTimedOut;
        const char* reply;  // what the proxy has sent, if anything
        int result;
        uint32_t endState;
        long posted;  // the error word of FD_CONNECT
    };
    const Case cases[] = {
        {"the request's send fails", false, kConnected, 0, 0, nullptr, sendError, kFinished, sendError},
        {"password prompt cancelled", true, kConnected, 1, 0, nullptr, -1, kFinished, 65534},
        // The step's -1 goes out as the error word.
        {"password prompt timed out", true, kConnected, 0, 1, nullptr, -1, kFinished, 0xFFFF},
        // WinSock's error of the failed peek.
        {"the reply's peek fails", false, kAwaitHttpReply, 0, 0, nullptr, -1, kFailed, WSAENOTCONN},
        // The stack's code for the refusal.
        {"404", true, kAwaitHttpReply, 0, 0, "HTTP/1.1 404 Not Found\r\n\r\n", -1, kFailed, 65532},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Pair pair = c.connected ? Connected() : Pair{Socket(), INVALID_SOCKET};
        CHttpSocket* object = EventDriven(pair.host);
        Target(object, "example.com", "80");
        object->useAuthentication = c.useAuthentication;
        object->passwordTimedOut = c.passwordTimedOut;
        object->state = static_cast<ProxyState>(c.state);
        if (c.reply != nullptr) {
            ASSERT_TRUE(dxtest::SendAll(pair.proxy, c.reply));
            Sleep(100);
        }
        EXPECT_EQ(object->ProcessHttpState(), c.result);
        EXPECT_EQ(object->state, c.endState);
        EXPECT_EQ(PostedError(pair.host), c.posted);
    }
}

TEST_F(HttpEventModeTest, NothingWithinTwoHundredPeeksEndsFailedWith10035) {
    Pair pair = Connected();
    dxtest::MakeNonBlocking(pair.host);
    CHttpSocket* object = EventDriven(pair.host);
    object->state = kAwaitHttpReply;
    DWORD start = GetTickCount();
    EXPECT_EQ(object->ProcessHttpState(), WSAEWOULDBLOCK);
    DWORD elapsed = GetTickCount() - start;
    EXPECT_GE(elapsed, 1500u);
    EXPECT_LT(elapsed, 6000u);
    EXPECT_EQ(object->state, kFailed);
    EXPECT_EQ(object->lastError, WSAEWOULDBLOCK);
    EXPECT_EQ(PostedError(pair.host), WSAEWOULDBLOCK);
}

// ---- httpHiddenOnSocketEvent ----

class HttpHiddenEventTest : public HttpEventModeTest {
protected:
    CHttpSocket* Registered(SOCKET s) {
        // The registry's own use keeps it while it stays linked.
        return g_pProxySocketManager->AddSocket(s, kHttpSocketType).As<CHttpSocket>().get();
    }
    static std::string EventLine(SOCKET s, unsigned error, unsigned events) {
        char line[128];
        std::snprintf(line, sizeof line, "httpHiddenOnSocketEvent(socket:%d,error:%d,FD event:%x)",
                      static_cast<int>(s), static_cast<int>(error), events);
        return Line(line);
    }
};

TEST_F(HttpHiddenEventTest, EventForAnUnknownSocketIsLoggedAndIgnored) {
    dxtest::LogCapture capture;
    EXPECT_EQ(httpHiddenOnSocketEvent(777, 0, FD_READ), 1);
    EXPECT_EQ(capture.Lines(), Lines{EventLine(777, 0, FD_READ)});
}

TEST_F(HttpHiddenEventTest, CloseIsLoggedAndNothingElseHappens) {
    Pair pair = Connected();
    ASSERT_TRUE(dxtest::SendAll(pair.proxy, "HTTP/1.1 200 OK\r\n\r\n"));
    CHttpSocket* object = Registered(pair.host);
    object->state = kAwaitHttpReply;
    for (unsigned events : {unsigned(FD_CLOSE), unsigned(FD_CLOSE | FD_READ), unsigned(FD_CLOSE | FD_CONNECT)}) {
        dxtest::LogCapture capture;
        EXPECT_EQ(httpHiddenOnSocketEvent(pair.host, 0, events), 1);
        Lines expected = {EventLine(pair.host, 0, events), Line("httpHiddenOnSocketEvent(FD_CLOSE). Error 0")};
        EXPECT_EQ(capture.Lines(), expected);
        EXPECT_EQ(object->state, kAwaitHttpReply);
    }
    dxtest::LogCapture capture;
    httpHiddenOnSocketEvent(pair.host, WSAECONNRESET, FD_CLOSE);
    EXPECT_EQ(capture.Lines().back(), Line("httpHiddenOnSocketEvent(FD_CLOSE). Error " + std::to_string(WSAECONNRESET)));
}

TEST_F(HttpHiddenEventTest, ConnectWithAnErrorIsDroppedAndTheStateStays) {
    CHttpSocket* object = Registered(Socket());
    object->state = kConnected;
    dxtest::LogCapture capture;
    httpHiddenOnSocketEvent(object->socket, WSAECONNREFUSED, FD_CONNECT);
    EXPECT_EQ(capture.Lines(), Lines{EventLine(object->socket, WSAECONNREFUSED, FD_CONNECT)});
    EXPECT_EQ(object->state, kConnected);
}

TEST_F(HttpHiddenEventTest, AFailedConnectStepIsLoggedAndSkipsTheReadStep) {
    CHttpSocket* object = Registered(Socket());
    Target(object, "example.com", "80");
    object->state = kConnecting;
    dxtest::LogCapture capture;
    httpHiddenOnSocketEvent(object->socket, 0, FD_CONNECT | FD_READ);
    auto lines = capture.Lines();
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("httpHiddenOnSocketEvent(FD_CONNECT). Error ")),
              Lines{Line("httpHiddenOnSocketEvent(FD_CONNECT). Error " + std::to_string(SendErrorWithoutAConnection()))});
    EXPECT_TRUE(dxtest::LinesStartingWith(lines, Line("httpHiddenOnSocketEvent(FD_READ)")).empty());
    EXPECT_EQ(object->state, kFinished);
}

TEST_F(HttpHiddenEventTest, ReadWhenEstablishedIsNoStep) {
    Pair pair = Connected();
    ASSERT_TRUE(dxtest::SendAll(pair.proxy, "tunnel data"));
    CHttpSocket* object = Registered(pair.host);
    object->state = kEstablished;
    dxtest::LogCapture capture;
    httpHiddenOnSocketEvent(pair.host, 0, FD_READ);
    EXPECT_EQ(capture.Lines(), Lines{EventLine(pair.host, 0, FD_READ)});
    EXPECT_EQ(object->state, kEstablished);
    EXPECT_EQ(dxtest::Receive(pair.host, 11, 1000), "tunnel data");
}

TEST_F(HttpHiddenEventTest, ReadWhenFailedStopsTheEventsOfTheSocket) {
    // The host's selection of FD_READ stands; when failed the read event takes it away, when established not.
    for (uint32_t state : {kFailed, kEstablished}) {
        SCOPED_TRACE(state);
        Pair pair = Connected();
        dxtest::HostWindow window;
        ASSERT_EQ(WSAAsyncSelect(pair.host, window.Handle(), dxtest::HostWindow::kSocketMessage, FD_READ), 0);
        CHttpSocket* object = Registered(pair.host);
        object->state = static_cast<ProxyState>(state);
        dxtest::LogCapture capture;
        httpHiddenOnSocketEvent(pair.host, 0, FD_READ);
        EXPECT_EQ(capture.Lines(), Lines{EventLine(pair.host, 0, FD_READ)});
        EXPECT_EQ(object->state, state);
        ASSERT_TRUE(dxtest::SendAll(pair.proxy, "late"));
        bool read = window.PumpUntil([&] { return !window.SocketMessages(pair.host).empty(); }, 1000);
        EXPECT_EQ(read, state == kEstablished);
    }
}

TEST_F(HttpHiddenEventTest, ReadWhileAStepIsUnderWayReportsNothing) {
    Pair pair = Connected();
    ASSERT_TRUE(dxtest::SendAll(pair.proxy, "HTTP/1.1 200 OK\r\n\r\n"));
    CHttpSocket* object = Registered(pair.host);
    object->state = kAwaitHttpReply;
    object->inProcessState = 1;
    EXPECT_EQ(object->ProcessState(), 0);
    dxtest::LogCapture capture;
    httpHiddenOnSocketEvent(pair.host, 0, FD_READ);
    EXPECT_EQ(capture.Lines(), Lines{EventLine(pair.host, 0, FD_READ)});
    EXPECT_EQ(object->state, kAwaitHttpReply);
    EXPECT_EQ(object->inProcessState, 1);
}

TEST_F(HttpHiddenEventTest, ReadInAStateWithoutAStepFailsAndIsLogged) {
    for (uint32_t state : {kIdle, kFinished}) {
        CHttpSocket* object = Registered(Socket());
        object->state = static_cast<ProxyState>(state);
        dxtest::LogCapture capture;
        httpHiddenOnSocketEvent(object->socket, 0, FD_READ);
        Lines expected = {EventLine(object->socket, 0, FD_READ), Line("httpHiddenOnSocketEvent(FD_READ). Error -1")};
        EXPECT_EQ(capture.Lines(), expected) << state;
    }
}

TEST_F(HttpHiddenEventTest, ReadWhileAwaitingTheReplyTakesIt) {
    Pair pair = Connected();
    ASSERT_TRUE(dxtest::SendAll(pair.proxy, "HTTP/1.1 200 OK\r\n\r\n"));
    Sleep(100);
    CHttpSocket* object = Registered(pair.host);
    object->state = kAwaitHttpReply;
    httpHiddenOnSocketEvent(pair.host, 0, FD_READ);
    EXPECT_EQ(object->state, kEstablished);
}

// ---- The export calls that need the registry's view ----

TEST_F(HttpSocketTest, FionbioSetsEventModeWhateverTheArgumentSays) {
    SOCKET s = Socket();
    u_long off = 0;
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ioctlsocket(s, static_cast<long>(FIONBIO), &off), 0);
    auto object = g_pProxySocketManager->FindSocket(s).As<CHttpSocket>();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->asyncMode, 1);
    EXPECT_EQ(object->state, kIdle);
    const std::string made = "CHttpSocket::CHttpSocket(" + N(s) + ")";
    EXPECT_EQ(capture.Lines(), dxtest::Frame("HTTP_ioctlsocket", s, {made, " set socket non-blocking"}, 0));

    // Other commands make no object.
    SOCKET other = Socket();
    u_long count = 0;
    EXPECT_EQ(HTTP_ioctlsocket(other, static_cast<long>(FIONREAD), &count), 0);
    EXPECT_EQ(g_pProxySocketManager->FindSocket(other), nullptr);
}

TEST_F(HttpSocketTest, InvalidSocketWithFionbioMakesNoObjectAndReachesIoctlsocket) {
    u_long on = 1;
    EXPECT_EQ(HTTP_ioctlsocket(INVALID_SOCKET, static_cast<long>(FIONBIO), &on), WSAENOTSOCK);
    EXPECT_EQ(g_pProxySocketManager->Count(), 0u);
}

TEST_F(HttpSocketTest, AsyncSelectWithoutFdConnectMakesNoObject) {
    SOCKET s = Socket();
    dxtest::HostWindow window;
    EXPECT_EQ(HTTP_WSAAsyncSelect(s, window.Handle(), dxtest::HostWindow::kSocketMessage, FD_READ), 0);
    EXPECT_EQ(g_pProxySocketManager->Count(), 0u);
    EXPECT_EQ(HTTP_WSAAsyncSelect(s, window.Handle(), dxtest::HostWindow::kSocketMessage, FD_READ | FD_CONNECT), 0);
    ASSERT_EQ(g_pProxySocketManager->Count(), 1u);
    auto object = g_pProxySocketManager->FindSocket(s).As<CHttpSocket>();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->asyncWindow, window.Handle());
    EXPECT_EQ(object->asyncEvents, static_cast<uint32_t>(FD_READ | FD_CONNECT));
    EXPECT_EQ(object->asyncMode, 1);
}

// The registry holds one object per handle, whichever family made it.
TEST_F(HttpSocketTest, AnObjectOfEitherFamilyServesTheOtherFamilysCallsAndGetsNoSecondObject) {
    for (const dxtest::Family* maker : dxtest::kFamilies) {
        const dxtest::Family& family = dxtest::Other(*maker);
        SCOPED_TRACE(std::string("made by ") + maker->name);
        SOCKET s = Socket();
        sockaddr_in proxy = Address("10.1.2.3", 1080);
        ASSERT_EQ(maker->setProxy(s, &proxy, sizeof proxy, "", maker->proxyArgument), 0);
        CProxySocket* made = g_pProxySocketManager->FindSocket(s).get();
        ASSERT_NE(made, nullptr);
        made->canceled = 1;
        made->connectError = 1460;

        dxtest::LogCapture capture;
        EXPECT_EQ(family.connectCanceled(s), 1);
        EXPECT_EQ(family.getConnectError(s), 1460u);
        sockaddr_in name = {};
        int length = sizeof name;
        EXPECT_EQ(family.getsockname(s, reinterpret_cast<sockaddr*>(&name), &length), 0);
        EXPECT_EQ(name.sin_addr.s_addr, proxy.sin_addr.s_addr);
        EXPECT_EQ(name.sin_port, 0);
        u_long on = 1;
        EXPECT_EQ(family.ioctl(s, static_cast<long>(FIONBIO), &on), 0);
        dxtest::HostWindow window;
        EXPECT_EQ(family.asyncSelect(s, window.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);

        EXPECT_EQ(g_pProxySocketManager->Count(), 1u);
        EXPECT_EQ(g_pProxySocketManager->FindSocket(s).get(), made);
        const std::string socketClass = family.socketClass;
        EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), Line(socketClass + "::" + socketClass + "(")).empty());
        EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("calling ")),
                  Lines{Line("calling " + socketClass + "::GetSockName")});

        family.cleanupSocket(s);
        EXPECT_EQ(g_pProxySocketManager->Count(), 0u);
    }
}

}  // namespace
