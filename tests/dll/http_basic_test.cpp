// HTTP Basic authentication with the host's password callback.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "answering_passwords.h"
#include "bench.h"
#include "fake_proxy_test.h"
#include "http_api.h"
#include "log_capture.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

std::string Request(const std::string& target, const std::string& credentials) {
    return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\nProxy-Authorization: basic " + credentials;
}

class HttpBasicTest : public dxtest::FakeProxyTest {
protected:
    int Connect(const sockaddr_in& proxy, const char* user, uint16_t port = 80) {
        EXPECT_EQ(HTTP_SetProxy(s, &proxy, sizeof proxy, user, 1), 0);
        return HTTP_ConnectEx(s, "127.0.0.1", port, nullptr, AF_INET);
    }
    // Connects through the fake proxy, which grants after the request, and returns what it got.
    std::string Sent(const char* user, int* result) {
        int id = FakeScript("readhttp send=" + dxtest::Hex("HTTP/1.1 200 OK\r\n\r\n") + " drain=2000");
        *result = Connect(fake, user);
        CloseNow();
        return FakeReceived(id).bytes;
    }

    dxtest::AnsweringPasswords answer{HTTP_SetPasswordCallback};
};

TEST_F(HttpBasicTest, CredentialsAsTheyGoOut) {
    struct Case {
        const char* user;
        std::wstring password;
        std::string credentials;
    };
    const Case cases[] = {
        {"alice", L"x", "YWxpY2U6eA=="},
        // An empty password the callback accepts leaves the user name alone.
        {"alice", L"", "YWxpY2U="},
        {"", L"x", "Ong="},
        // "\u00e9t\u00e9" is one byte each in the ANSI code page, and goes out unencoded in UTF-8.
        {"alice", L"\x00e9t\x00e9", "alice:\xc3\xa9t\xc3\xa9"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.credentials);
        if (s == INVALID_SOCKET) s = dxtest::MakeTcpSocket();  // the last row's is gone
        answer.calls = 0;
        answer.password = c.password;
        int result = 1;
        EXPECT_EQ(Sent(c.user, &result), Request("127.0.0.1:80", c.credentials + "\r\n\r\n"));
        EXPECT_EQ(result, 0);
        EXPECT_EQ(answer.calls, 1);
        EXPECT_EQ(answer.user, std::wstring(c.user, c.user + std::strlen(c.user)));
        EXPECT_EQ(answer.proxy, L"127.0.0.1");
    }
}

TEST_F(HttpBasicTest, EmptyUserAndPasswordGiveTheRequestWithoutABlankLine) {
    answer.password = L"";
    int id = FakeScript("read=80 send=" + dxtest::Hex("HTTP/1.1 200 OK\r\n\r\n") + " drain=2000");
    EXPECT_EQ(Connect(fake, ""), 0);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, Request("127.0.0.1:80", "\r\n"));
}

TEST_F(HttpBasicTest, CredentialsUpTo765BytesGoOutAndLongerOnesAreRefused) {
    std::string user(510, 'u');
    answer.password.assign(254, L'p');  // 510 + ":" + 254 = 765
    int result = 1;
    std::string sent = Sent(user.c_str(), &result);
    EXPECT_EQ(result, 0);
    EXPECT_NE(sent.find("Proxy-Authorization: basic "), std::string::npos);
    EXPECT_EQ(sent.size(), Request("127.0.0.1:80", "").size() + 1020 + 4);

    SOCKET longer = dxtest::MakeTcpSocket();
    answer.password.assign(255, L'p');  // 766
    int id = FakeScript("drain=2000");
    ASSERT_EQ(HTTP_SetProxy(longer, &fake, sizeof fake, user.c_str(), 1), 0);
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ConnectEx(longer, "127.0.0.1", 80, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 65534);
    EXPECT_EQ(HTTP_ConnectCanceled(longer), 1);
    dxtest::Retire(longer);
    EXPECT_EQ(FakeReceived(id).bytes, "");
    auto lines = capture.Lines();
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "DXSOCKS: CHttpSocket::SendHttpAuthentication - Password request cancelled."),
              lines.end());
}

TEST_F(HttpBasicTest, CallbackThatDeclinesSendsNothing) {
    answer.result = 0;
    int id = FakeScript("drain=2000");
    EXPECT_EQ(Connect(fake, "alice"), -1);
    EXPECT_EQ(WSAGetLastError(), 65534);
    EXPECT_EQ(HTTP_ConnectCanceled(s), 1);
    CloseNow();
    EXPECT_EQ(FakeReceived(id).bytes, "");
}

TEST_F(HttpBasicTest, RealProxiesAcceptTheRightPasswordAndCarryData) {
    std::string user = "dxuser";
    answer.password = L"dxpass";
    for (const char* key : {"SQUID_AUTH_PORT", "TINYPROXY_AUTH_PORT"}) {
        SOCKET tunnel = dxtest::MakeTcpSocket();
        sockaddr_in proxy = dxtest::Loopback(dxtest::BenchPort(key));
        ASSERT_EQ(HTTP_SetProxy(tunnel, &proxy, sizeof proxy, user.c_str(), 1), 0);
        ASSERT_EQ(HTTP_ConnectEx(tunnel, "127.0.0.1", dxtest::BenchPort("ECHO_PORT"), nullptr, AF_INET), 0) << key;
        ASSERT_TRUE(dxtest::SendAll(tunnel, "basic"));
        EXPECT_EQ(dxtest::Receive(tunnel, 5), "basic") << key;
        dxtest::Retire(tunnel);
    }
}

TEST_F(HttpBasicTest, SquidRefusesAWrongPasswordWith407) {
    answer.password = L"wrong";
    sockaddr_in squid = dxtest::Loopback(dxtest::BenchPort("SQUID_AUTH_PORT"));
    EXPECT_EQ(Connect(squid, "dxuser", dxtest::BenchPort("ECHO_PORT")), -1);
    EXPECT_EQ(HTTP_GetConnectError(s), 65533u);
}

}  // namespace
