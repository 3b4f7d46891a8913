// Sockets named no proxy take the one their family's determination picks from the settings file, as a
// host sees it: blocking and non-blocking connects through the bench's real proxies, a Basic map that
// asks the host's password callback, and the determination exports by name and ordinal.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "answering_passwords.h"
#include "bench.h"
#include "host_window.h"
#include "http_api.h"
#include "log_capture.h"
#include "settings_files.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::FullMap;
using dxtest::Line;
using dxtest::Lines;

// A settings file with one default map in each family: `socks` and `http` as FullMap gives them.
bool WriteMaps(const std::string& socks, const std::string& http) {
    return dxtest::WriteSettingsBytes(dxtest::kSettingsHead +
                                      dxtest::SettingsElement(dxtest::ProxyElement("SOCKS", "0", socks) +
                                                              dxtest::ProxyElement("HTTP", "0", http)));
}
std::string Proxy(const char* key, const std::string& user, const std::string& version, const std::string& basic) {
    return FullMap("Default", "", "", "127.0.0.1", std::to_string(dxtest::BenchPort(key)), user, version, basic, "1");
}
const std::string kDirect = FullMap("Default", "", "", "", "", "", "4", "0", "0");

class SocketDeterminationTest : public ::testing::Test {
protected:
    void SetUp() override {
        dxtest::ClearSettingsStore();
        s = dxtest::MakeTcpSocket();
        echo = dxtest::BenchPort("ECHO_PORT");
    }
    void TearDown() override {
        dxtest::Retire(s);
        dxtest::ClearSettingsStore();
    }
    void RoundTrip(const std::string& text) {
        ASSERT_TRUE(dxtest::SendAll(s, text));
        EXPECT_EQ(dxtest::Receive(s, text.size()), text);
    }

    SOCKET s = INVALID_SOCKET;
    uint16_t echo = 0;
};

TEST_F(SocketDeterminationTest, BlockingSocks5ConnectThroughDantedFromAMap) {
    ASSERT_TRUE(WriteMaps(Proxy("DANTE_PORT", "", "5", "0"), kDirect));
    dxtest::LogCapture capture;
    ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    RoundTrip("determined");
    const Lines lines = capture.Lines();
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("End func SOCKS_DetermineProxyEx")).size(), 1u);
    EXPECT_EQ(dxtest::LinesStartingWith(lines, Line("End addr 127.0.0.1:" + std::to_string(dxtest::BenchPort("DANTE_PORT")))).size(),
              1u);
    // A socket that has its proxy does not ask again.
    capture.Clear();
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), -1);
    EXPECT_TRUE(dxtest::LinesStartingWith(capture.Lines(), Line("Begin func SOCKS_DetermineProxyEx")).empty());
}

TEST_F(SocketDeterminationTest, ConnectTakesAnAddressRecordAndDeterminesToo) {
    ASSERT_TRUE(WriteMaps(Proxy("DANTE_PORT", "", "4", "0"), kDirect));
    sockaddr_in destination = dxtest::Loopback(echo);
    ASSERT_EQ(SOCKS_connect(s, reinterpret_cast<sockaddr*>(&destination), sizeof destination), 0);
    RoundTrip("by record");
}

TEST_F(SocketDeterminationTest, NonBlockingSocksConnectFromAMapPostsFdConnect) {
    ASSERT_TRUE(WriteMaps(Proxy("DANTE_PORT", "", "5", "0"), kDirect));
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    {
        dxtest::HostWindow host;
        ASSERT_EQ(SOCKS_WSAAsyncSelect(s, host.Handle(), dxtest::HostWindow::kSocketMessage, FD_CONNECT), 0);
        ASSERT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, host.Handle(), AF_INET), 0);
        EXPECT_TRUE(host.PumpUntil([&] { return !host.SocketMessages(s).empty(); }, 8000));
        ASSERT_EQ(host.SocketMessages(s).size(), 1u);
        EXPECT_EQ(host.SocketMessages(s)[0].Event(), static_cast<unsigned>(FD_CONNECT));
        EXPECT_EQ(host.SocketMessages(s)[0].Error(), 0u);
        WSAAsyncSelect(s, host.Handle(), 0, 0);
        u_long blocking = 0;
        ioctlsocket(s, FIONBIO, &blocking);
        RoundTrip("posted");
    }
    EXPECT_EQ(SOCKS_Cleanup(), 1);
}

TEST_F(SocketDeterminationTest, BlockingHttpConnectThroughTinyproxyFromAMap) {
    ASSERT_TRUE(WriteMaps(kDirect, Proxy("TINYPROXY_PORT", "", "4", "0")));
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    RoundTrip("through tinyproxy");
}

TEST_F(SocketDeterminationTest, BasicMapReachesThePasswordCallbackAndSquidLetsItThrough) {
    ASSERT_TRUE(WriteMaps(kDirect, Proxy("SQUID_AUTH_PORT", "dxuser", "4", "1")));
    dxtest::AnsweringPasswords answer{HTTP_SetPasswordCallback};
    answer.password = L"dxpass";
    ASSERT_EQ(HTTP_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), 0);
    EXPECT_EQ(answer.calls, 1);
    EXPECT_EQ(answer.user, L"dxuser");
    RoundTrip("basic from a map");
}

TEST_F(SocketDeterminationTest, DirectMapFailsTheConnectAndTheBindWithoutTouchingTheNetwork) {
    ASSERT_TRUE(WriteMaps(kDirect, kDirect));
    WSASetLastError(4242);
    EXPECT_EQ(SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET), -1);
    EXPECT_EQ(WSAGetLastError(), 4242);
    sockaddr_in peer = {};
    int length = sizeof peer;
    EXPECT_EQ(getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length), SOCKET_ERROR);
    WSASetLastError(4242);
    EXPECT_EQ(HTTP_BindEx(s, "127.0.0.1", echo, nullptr, AF_INET), WSAENOTSOCK);
    EXPECT_EQ(WSAGetLastError(), 0);
}

// A number in the file that is none raises out of the DLL, which this MinGW C++ host catches; the
// family is free again, so the next call raises too instead of waiting for ever.
TEST_F(SocketDeterminationTest, CountThatIsNoNumberRaisesThroughTheDllAtEveryCall) {
    ASSERT_TRUE(dxtest::WriteSettingsBytes(dxtest::kSettingsHead +
                                           dxtest::SettingsElement(dxtest::ProxyElement("SOCKS", "x", kDirect) +
                                                                   dxtest::ProxyElement("HTTP", "x", kDirect))));
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        bool raised = false;
        EXPECT_TRUE(dxtest::ReturnsWithin(10000, [&] {
            try {
                int family = AF_INET;
                sockaddr_in proxy = {};
                char user[16] = {};
                unsigned basic = 0;
                HTTP_DetermineProxyEx("example.com", 80, &proxy, sizeof proxy, user, sizeof user, &basic, &family);
            } catch (const std::invalid_argument&) {
                raised = true;
            }
        }));
        EXPECT_TRUE(raised);
    }
    // A connect that determines raises the same way, and the socket stays without a proxy.
    bool raised = false;
    EXPECT_TRUE(dxtest::ReturnsWithin(10000, [&] {
        try {
            SOCKS_ConnectEx(s, "127.0.0.1", echo, nullptr, AF_INET);
        } catch (const std::invalid_argument&) {
            raised = true;
        }
    }));
    EXPECT_TRUE(raised);
}

TEST_F(SocketDeterminationTest, DeterminationExportsStandAtTheirOrdinals) {
    HMODULE library = GetModuleHandleA("DXSOCKS.DLL");
    ASSERT_NE(library, nullptr);
    struct Export {
        const char* name;
        int ordinal;
    };
    for (const Export& e : {Export{"SOCKS_DetermineProxy", 205}, Export{"SOCKS_DetermineProxyEx", 216},
                            Export{"SOCKS_UseAddressFamily", 217}, Export{"HTTP_DetermineProxy", 414},
                            Export{"HTTP_DetermineProxyEx", 425}, Export{"HTTP_UseAddressFamily", 426}}) {
        SCOPED_TRACE(e.name);
        FARPROC byName = GetProcAddress(library, e.name);
        EXPECT_NE(byName, nullptr);
        EXPECT_EQ(byName, GetProcAddress(library, MAKEINTRESOURCEA(e.ordinal)));
    }
    ASSERT_TRUE(WriteMaps(Proxy("DANTE_PORT", "me", "5", "0"), kDirect));
    int family = 23;
    EXPECT_EQ(SOCKS_UseAddressFamily("example.com", 80, &family), 1);
    EXPECT_EQ(family, AF_INET);
    sockaddr_in proxy = {};
    char user[16] = {};
    sockaddr_in destination = dxtest::Loopback(echo);
    EXPECT_EQ(SOCKS_DetermineProxy(reinterpret_cast<sockaddr*>(&destination), sizeof destination, &proxy,
                                   sizeof proxy, user, sizeof user),
              1);
    EXPECT_STREQ(user, "me");
    EXPECT_EQ(ntohs(proxy.sin_port), dxtest::BenchPort("DANTE_PORT"));
    unsigned basic = 9;
    EXPECT_EQ(HTTP_DetermineProxy(reinterpret_cast<sockaddr*>(&destination), sizeof destination, &proxy, sizeof proxy,
                                  user, sizeof user, &basic),
              0);
    EXPECT_EQ(basic, 0u);
}

}  // namespace
