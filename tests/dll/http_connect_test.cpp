// HTTP CONNECT exchanges through the exports, as a host makes them: against the scripted fake proxy,
// tinyproxy and squid, blocking and non-blocking.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench.h"
#include "declining_passwords.h"
#include "fake_proxy_test.h"
#include "host_window.h"
#include "http_api.h"
#include "log_capture.h"
#include "test_helpers.h"

namespace {

using dxtest::Answer;
using dxtest::FakeReceived;
using dxtest::FakeScript;
using dxtest::Frame;
using dxtest::HostWindow;
using dxtest::Line;
using dxtest::Lines;
using dxtest::Request;

// The way out of every state: forget the object, then close.
void CloseThroughTheLibrary(SOCKET s) {
    HTTP_CleanupSocket(s);
    closesocket(s);
}

// Stands for "whatever WinSock had": the stack doesn't write the error on this path.
constexpr int kLeftByWinsock = -2;

class HttpConnectTest : public dxtest::FakeProxyTest {
protected:
    void Close(SOCKET socket) override { CloseThroughTheLibrary(socket); }
};

TEST_F(HttpConnectTest, RequestBytesNameTheTargetTwiceAndNothingElse) {
    struct Case {
        const char* host;
        unsigned port;
    };
    // The port goes with the target also where it is the default one.
    const Case cases[] = {{"127.0.0.1", 4321}, {"example.com", 443}, {"www.example.org", 80}, {"localhost", 0}};
    for (const Case& c : cases) {
        SOCKET r = dxtest::MakeTcpSocket();
        int id = FakeScript(Answer("HTTP/1.1 200 OK\r\n\r\n"));
        ASSERT_EQ(HTTP_SetProxy(r, &fake, sizeof fake, "someone", 0), 0);
        EXPECT_EQ(HTTP_ConnectEx(r, c.host, c.port, nullptr, AF_INET), 0) << c.host;
        CloseThroughTheLibrary(r);
        EXPECT_EQ(FakeReceived(id).bytes, Request(std::string(c.host) + ":" + std::to_string(c.port)));
    }
}

TEST_F(HttpConnectTest, LogOfAGrantedExchange) {
    FakeScript(Answer("HTTP/1.0 200 Connection established\r\n\r\n"));
    dxtest::LogCapture capture;
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    const std::string request = Request("127.0.0.1:4321");
    Lines expected = dxtest::Joined({
        dxtest::FrameWithoutResult("HTTP_SetProxy", s, {"CHttpSocket::CHttpSocket(" + S() + ")"}),
        Frame("HTTP_ConnectEx", s,
              {"Begin host:port 127.0.0.1:4321",
               "CHttpSocket::SendHttpAuthentication - Sending HTTP proxy authentication request.\n" + request,
               "CHttpSocket::Send - " + std::to_string(request.size()) + " bytes sent.", "CHttpSocket::StartReading",
               "CHttpSocket::OnHttpResponse - HTTP proxy authentication response read.\n",
               "CHttpSocket::OnHttpResponse - OK 200. 'Connection established'", "End host:port 127.0.0.1:4321",
               "WinSock Error = 0"},
              0),
    });
    // The numbered reports among these lines are the business of reports_test.cpp.
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), "DXSOCKS: "), expected);
}

TEST_F(HttpConnectTest, BlockingOutcomes) {
    dxtest::DecliningPasswords declining;  // the cases with authentication are declined
    struct Case {
        const char* name;
        std::string script;  // empty: the proxy's port refuses the TCP connect
        unsigned authenticate;
        int result;
        int code;       // as HTTP_ConnectEx logs it
        int lastError;  // or kLeftByWinsock
        unsigned connectError;
        int canceled;
        std::string judgement;  // the OnHttpResponse line, if there is one
    };
    const int left = kLeftByWinsock;
    const Case cases[] = {
        {"status line with reason", Answer("HTTP/1.0 200 OK\r\n\r\n"), 0, 0, 0, 0, 0, 0, "OK 200. 'OK'"},
        {"bare word and 200", Answer("X 200"), 0, 0, 0, 0, 0, 0, "OK 200. ''"},
        {"empty reason", Answer("HTTP/1.1 200\r\n"), 0, 0, 0, 0, 0, 0, "OK 200. ''"},
        {"silent close", "readhttp close", 0, 0, 0, 0, 0, 0, ""},
        {"no blank at all", Answer("HTTP/1.1-200-OK\r\n\r\n"), 0, -1, -1, left, 10061, 0, "500: ''"},
        {"201", Answer("HTTP/1.1 201 Created\r\n\r\n"), 0, -1, -1, left, 10061, 0, "201: 'Created'"},
        {"204", Answer("HTTP/1.1 204 No Content\r\n\r\n"), 0, -1, -1, left, 10061, 0, "204: 'No Content'"},
        {"404", Answer("HTTP/1.1 404 Not Found\r\n\r\n"), 0, -1, -1, left, 65532, 0,
         "Unable to resolve host name 404: 'Not Found'"},
        {"407", Answer("HTTP/1.1 407 Proxy Authentication Required\r\n\r\n"), 0, -1, -1, left, 65533, 0,
         "Proxy Authentication Required 407: 'Proxy Authentication Required'"},
        {"502", Answer("HTTP/1.1 502 Bad Gateway\r\n\r\n"), 0, -1, -1, left, 10061, 0, "502: 'Bad Gateway'"},
        {"connect fails at once", "", 0, -1, WSAECONNREFUSED, WSAECONNREFUSED, 0, 0, ""},
        // The code is -1, so the call leaves the error the failed send step wrote.
        {"password prompt declined", "readhttp close", 1, -1, -1, 65534, 0, 1, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SOCKET r = dxtest::MakeTcpSocket();
        sockaddr_in proxy = c.script.empty() ? dxtest::Loopback(1) : fake;
        int id = c.script.empty() ? 0 : FakeScript(c.script);
        ASSERT_EQ(HTTP_SetProxy(r, &proxy, sizeof proxy, "", c.authenticate), 0);
        dxtest::LogCapture capture;
        WSASetLastError(4711);
        EXPECT_EQ(HTTP_ConnectEx(r, "127.0.0.1", 4321, nullptr, AF_INET), c.result);
        int lastError = WSAGetLastError();
        if (c.lastError == kLeftByWinsock) {
            EXPECT_NE(lastError, static_cast<int>(c.connectError));
        } else {
            EXPECT_EQ(lastError, c.lastError);
        }
        auto lines = capture.Lines();
        EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("WinSock Error = ")),
                  Lines{Line("WinSock Error = " + std::to_string(c.code))});
        Lines judged = dxtest::LinesStartingWith(lines, Line("CHttpSocket::OnHttpResponse - "));
        if (c.judgement.empty()) {
            EXPECT_TRUE(judged.empty());
        } else {
            EXPECT_EQ(judged.size(), 2u);
            EXPECT_EQ(judged.back(), Line("CHttpSocket::OnHttpResponse - " + c.judgement));
        }
        EXPECT_EQ(HTTP_GetConnectError(r), c.connectError);
        EXPECT_EQ(HTTP_ConnectCanceled(r), c.canceled);
        CloseThroughTheLibrary(r);
        if (id != 0) {
            // A declined password prompt sends nothing at all.
            EXPECT_EQ(FakeReceived(id).bytes, c.authenticate ? "" : Request("127.0.0.1:4321"));
        }
    }
}

TEST_F(HttpConnectTest, DeclinedPasswordPromptIsLoggedAndNothingIsSent) {
    dxtest::DecliningPasswords declining;
    int id = FakeScript("readhttp close");
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "alice", 1), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 65534);
    auto lines = capture.Lines();
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("CHttpSocket::SendHttpAuthentication")),
              Lines{Line("CHttpSocket::SendHttpAuthentication - Password request cancelled.")});
    EXPECT_TRUE(dxtest::LinesStartingWith(lines, Line("CHttpSocket::Send - ")).empty());
    EXPECT_EQ(HTTP_ConnectCanceled(s), 1);
    CloseNow();
    dxtest::FakeLog log = FakeReceived(id);
    EXPECT_EQ(log.status, "done");
    EXPECT_EQ(log.bytes, "");
}

TEST_F(HttpConnectTest, AReplyOfExactly1024BytesLosesItsLastByte) {
    // The last byte completes "200"; the terminator takes its place, and 20 is no success.
    std::string reply = std::string(1020, 'X') + " 200";
    ASSERT_EQ(reply.size(), 1024u);
    FakeScript(Answer(reply));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), -1);
    EXPECT_EQ(HTTP_GetConnectError(s), 10061u);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("CHttpSocket::OnHttpResponse - 2")),
              Lines{Line("CHttpSocket::OnHttpResponse - 20: ''")});
}

TEST_F(HttpConnectTest, BytesBehindTheGrantInTheSameSegmentAreLost) {
    FakeScript("readhttp send=" + dxtest::Hex("HTTP/1.1 200 OK\r\n\r\nDESTINATION-GREETING\n") + " echo");
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "after"));
    EXPECT_EQ(dxtest::Receive(s, 100, 1000), "after");
}

TEST_F(HttpConnectTest, HeaderInTwoSegmentsLeavesItsRestToTheHost) {
    const std::string rest = "Proxy-agent: fake/1.0\r\n\r\n";
    FakeScript("readhttp send=" + dxtest::Hex("HTTP/1.0 200 Connection established\r\n") + " sleep=300 send=" +
               dxtest::Hex(rest) + " echo");
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "ping"));
    EXPECT_EQ(dxtest::Receive(s, rest.size() + 4), rest + "ping");
}

TEST_F(HttpConnectTest, AReplyOver1024BytesLeavesTheRestInTheSocket) {
    std::string head = "HTTP/1.1 200 OK\r\nX-Padding: ";
    std::string reply = head + std::string(1024 - head.size() - 4, 'p') + "\r\n\r\n";
    ASSERT_EQ(reply.size(), 1024u);
    FakeScript(Answer(reply + "REST"));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    EXPECT_EQ(dxtest::Receive(s, 100, 1000), "REST");
}

TEST_F(HttpConnectTest, ZeroProxyAddressSendsTheRequestToTheDestinationItself) {
    // The fake proxy stands as the destination here.
    int id = FakeScript(Answer("HTTP/1.1 200 OK\r\n\r\n"));
    sockaddr_in none = {};
    ASSERT_EQ(HTTP_SetProxy(s, &none, sizeof none, "ignored", 1), 0);
    uint16_t port = ntohs(fake.sin_port);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", port, nullptr, AF_INET), 0);
    CloseNow();
    // Without a proxy there is no authentication either: the request went out.
    EXPECT_EQ(FakeReceived(id).bytes, Request("127.0.0.1:" + std::to_string(port)));
}

TEST_F(HttpConnectTest, ANameThatDoesNotResolveLocallyIsSentAsText) {
    int id = FakeScript(Answer("HTTP/1.1 200 OK\r\n\r\n"));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    EXPECT_EQ(HTTP_ConnectEx(s, "no-such-host.invalid", 443, nullptr, AF_INET), 0);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, Request("no-such-host.invalid:443"));
}

TEST_F(HttpConnectTest, AccentedTargetGoesOutWholeInUtf8) {
    // "e acute" in the ANSI code page, one byte there and two in UTF-8.
    char ansi[8] = {};
    BOOL lossy = FALSE;
    ASSERT_EQ(WideCharToMultiByte(CP_ACP, 0, L"\u00e9", 1, ansi, sizeof ansi, nullptr, &lossy), 1);
    ASSERT_FALSE(lossy) << "the ANSI code page " << GetACP() << " has no e acute";
    std::string host(300, ansi[0]);
    std::string utf8;
    for (int i = 0; i < 300; ++i) utf8 += "\xc3\xa9";

    int id = FakeScript(Answer("HTTP/1.1 200 OK\r\n\r\n"));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    EXPECT_EQ(HTTP_ConnectEx(s, host.c_str(), 8080, nullptr, AF_INET), 0);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, Request(utf8 + ":8080"));
}

TEST_F(HttpConnectTest, TheProxysRefusalAlsoAnswersTheLaterCalls) {
    FakeScript(Answer("HTTP/1.1 404 Not Found\r\n\r\n"));
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), -1);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_GetConnectError(s), 65532u);
    EXPECT_EQ(HTTP_ConnectCanceled(s), 0);
    EXPECT_EQ(capture.Lines(),
              dxtest::Joined({Frame("HTTP_GetConnectError", s, {}, 65532), Frame("HTTP_ConnectCanceled", s, {}, 0)}));
}

// ---- Non-blocking: the hidden thread runs the exchange, the host hears of it as FD_CONNECT ----

class HttpNonBlockingTest : public HttpConnectTest {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(HTTP_Startup(nullptr, 0), 1); }
    static void TearDownTestSuite() { HTTP_Cleanup(); }

    void SelectHost(SOCKET socket, long events) {
        ASSERT_EQ(HTTP_WSAAsyncSelect(socket, host.Handle(), HostWindow::kSocketMessage, events), 0);
    }
    bool AwaitConnect(SOCKET socket, dxtest::PostedMessage* connected, int timeoutMs = 8000) {
        return host.AwaitEvent(socket, FD_CONNECT, connected, timeoutMs);
    }
    std::string ReceiveWhenReadable(SOCKET socket, size_t count) { return host.ReceiveWhenReadable(socket, count); }

    HostWindow host;
};

// Threads that keep the processors busy while the object lives, so that a caller is likely to lose its
// processor at any point.
class BusyProcessors {
public:
    BusyProcessors() {
        for (HANDLE& thread : threads_) thread = CreateThread(nullptr, 0, &BusyProcessors::Spin, this, 0, nullptr);
    }
    ~BusyProcessors() {
        stop_ = 1;
        for (HANDLE thread : threads_) {
            if (thread == nullptr) continue;
            WaitForSingleObject(thread, 5000);
            CloseHandle(thread);
        }
    }
    BusyProcessors(const BusyProcessors&) = delete;
    BusyProcessors& operator=(const BusyProcessors&) = delete;

private:
    static DWORD WINAPI Spin(void* p) {
        auto* self = static_cast<BusyProcessors*>(p);
        DWORD start = GetTickCount();
        while (!self->stop_ && GetTickCount() - start < 30000) {
        }
        return 0;
    }
    volatile LONG stop_ = 0;
    HANDLE threads_[4] = {};
};

// Sockets closed through the library when the test ends, however it ends.
struct SocketsClosedAtTheEnd {
    std::vector<SOCKET> sockets;
    ~SocketsClosedAtTheEnd() {
        for (SOCKET r : sockets) CloseThroughTheLibrary(r);
    }
};

TEST_F(HttpNonBlockingTest, EveryExchangeSendsItsRequestOnce) {
    // The hidden thread may take FD_CONNECT and send the request before the call that started the
    // exchange has returned; nothing on the caller's side may set the exchange back to sending. A
    // request sent twice also leaves HTTP_BindEx waiting for a reply event that never comes.
    const int kExchanges = 60;
    std::vector<int> ids;
    {
        SocketsClosedAtTheEnd opened;
        BusyProcessors busy;
        for (int i = 0; i < kExchanges; ++i) {
            SOCKET r = dxtest::MakeTcpSocket();
            opened.sockets.push_back(r);
            ids.push_back(FakeScript(Answer("HTTP/1.1 200 OK\r\n\r\n")));
            u_long on = 1;
            ASSERT_EQ(HTTP_ioctlsocket(r, static_cast<long>(FIONBIO), &on), 0);
            ASSERT_EQ(HTTP_SetProxy(r, &fake, sizeof fake, "", 0), 0);
            // HTTP_BindEx makes the same exchange and waits for its end, from a thread of its own so
            // that a wait without end stays bounded.
            struct Call {
                SOCKET s;
                int result;
            } call{r, 1};
            HANDLE caller = CreateThread(
                nullptr, 0,
                [](void* p) -> DWORD {
                    auto* call = static_cast<Call*>(p);
                    call->result = HTTP_BindEx(call->s, "127.0.0.1", 4321, nullptr, AF_INET);
                    return 0;
                },
                &call, 0, nullptr);
            ASSERT_NE(caller, nullptr);
            bool returned = WaitForSingleObject(caller, 3000) == WAIT_OBJECT_0;
            if (!returned) TerminateThread(caller, 1);
            CloseHandle(caller);
            ASSERT_TRUE(returned) << "exchange " << i;
            EXPECT_EQ(call.result, 0) << "exchange " << i;
        }
    }
    for (int i = 0; i < kExchanges; ++i) EXPECT_EQ(FakeReceived(ids[i]).bytes, Request("127.0.0.1:4321")) << i;
}

TEST_F(HttpNonBlockingTest, HeaderInTwoSegmentsLeavesItsRestToTheHost) {
    const std::string rest = "Proxy-agent: fake/1.0\r\n\r\n";
    FakeScript("readhttp send=" + dxtest::Hex("HTTP/1.0 200 Connection established\r\n") + " sleep=300 send=" +
               dxtest::Hex(rest) + " drain=3000");
    SelectHost(s, FD_CONNECT | FD_READ);
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    dxtest::PostedMessage connected{};
    ASSERT_TRUE(AwaitConnect(s, &connected));
    EXPECT_EQ(connected.Error(), 0u);
    EXPECT_EQ(ReceiveWhenReadable(s, rest.size()), rest);
}

TEST_F(HttpNonBlockingTest, SilentCloseBeforeTheReplyIsOnlyAnFdCloseAndTheExchangeStaysOpen) {
    // A close changes no state in event mode, and an end without data raises no FD_READ: the reply
    // step never runs, and the host's own time-out has to end the wait.
    int id = FakeScript("readhttp close");
    SelectHost(s, FD_CONNECT);
    ASSERT_EQ(HTTP_SetProxy(s, &fake, sizeof fake, "", 0), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", 4321, nullptr, AF_INET), 0);
    EXPECT_EQ(FakeReceived(id).bytes, Request("127.0.0.1:4321"));
    host.PumpFor(1000);
    EXPECT_TRUE(host.SocketMessages(s).empty());
    auto events = dxtest::LinesStartingWith(capture.Lines(), Line("httpHiddenOnSocketEvent("));
    Lines expected = {Line("httpHiddenOnSocketEvent(socket:" + S() + ",error:0,FD event:10)"),
                      Line("httpHiddenOnSocketEvent(socket:" + S() + ",error:0,FD event:20)"),
                      Line("httpHiddenOnSocketEvent(FD_CLOSE). Error 0")};
    EXPECT_EQ(events, expected);
    // Still in the exchange: the host's selection is not taken.
    capture.Clear();
    EXPECT_EQ(HTTP_WSAAsyncSelect(s, host.Handle(), HostWindow::kSocketMessage, FD_READ), 0);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("do nothing")).size(), 1u);
}

// ---- Real proxies ----

class HttpRealProxyTest : public HttpConnectTest {
protected:
    void CarriesDataBothWays(uint16_t proxyPort) {
        sockaddr_in proxy = dxtest::Loopback(proxyPort);
        ASSERT_EQ(HTTP_SetProxy(s, &proxy, sizeof proxy, "", 0), 0);
        ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
        EXPECT_EQ(HTTP_GetConnectError(s), 0u);
        std::string payload(5000, 'p');
        for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7);
        ASSERT_TRUE(dxtest::SendAll(s, payload));
        EXPECT_EQ(dxtest::Receive(s, payload.size()), payload);
    }
    void WantsCredentials(uint16_t proxyPort) {
        sockaddr_in proxy = dxtest::Loopback(proxyPort);
        ASSERT_EQ(HTTP_SetProxy(s, &proxy, sizeof proxy, "", 0), 0);
        dxtest::LogCapture capture;
        EXPECT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), -1);
        EXPECT_EQ(HTTP_GetConnectError(s), 65533u);
        EXPECT_EQ(HTTP_ConnectCanceled(s), 0);
        EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("CHttpSocket::OnHttpResponse - Proxy")),
                  Lines{Line("CHttpSocket::OnHttpResponse - Proxy Authentication Required 407: "
                             "'Proxy Authentication Required'")});
    }
};

TEST_F(HttpRealProxyTest, TinyproxyCarriesDataBothWays) { CarriesDataBothWays(dxtest::BenchPort("TINYPROXY_PORT")); }

TEST_F(HttpRealProxyTest, SquidCarriesDataBothWays) { CarriesDataBothWays(dxtest::BenchPort("SQUID_PORT")); }

TEST_F(HttpRealProxyTest, TinyproxyWithBasicAuthRefusesWith407) {
    WantsCredentials(dxtest::BenchPort("TINYPROXY_AUTH_PORT"));
}

TEST_F(HttpRealProxyTest, SquidWithBasicAuthRefusesWith407) { WantsCredentials(dxtest::BenchPort("SQUID_AUTH_PORT")); }

TEST_F(HttpRealProxyTest, SquidToAServerThatSpeaksFirst) {
    sockaddr_in proxy = dxtest::Loopback(dxtest::BenchPort("SQUID_PORT"));
    ASSERT_EQ(HTTP_SetProxy(s, &proxy, sizeof proxy, "", 0), 0);
    ASSERT_EQ(HTTP_ConnectEx(s, "localhost", dxtest::BenchPort("BANNER_PORT"), nullptr, AF_INET), 0);
    ASSERT_TRUE(dxtest::SendAll(s, "back"));
    // A banner that came in the reply's segment is gone with it.
    std::string received = dxtest::Receive(s, 18, 2000);
    EXPECT_TRUE(received == "DXTEST-BANNER\nback" || received == "back") << received;
}

}  // namespace
