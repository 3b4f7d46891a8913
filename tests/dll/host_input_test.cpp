// What a host may hand the exports at the edge of what WinSock on Windows accepts: proxy records
// shorter than a whole record, ending at a page the process may not read; null and negative lengths
// to the calls that pass through to WinSock; a null log format. And the log's callback and context
// while another thread switches them.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "http_api.h"
#include "log_capture.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::Line;
using Lines = std::vector<std::string>;

// Two pages, the second without access: bytes placed at the end of the first have nothing readable
// or writable behind them, so a read or write past them ends the process.
class GuardedPage {
public:
    GuardedPage() {
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        page_ = info.dwPageSize;
        base_ = static_cast<char*>(VirtualAlloc(nullptr, 2 * page_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD previous = 0;
        if (base_ != nullptr && !VirtualProtect(base_ + page_, page_, PAGE_NOACCESS, &previous)) {
            VirtualFree(base_, 0, MEM_RELEASE);
            base_ = nullptr;
        }
    }
    ~GuardedPage() {
        if (base_ != nullptr) VirtualFree(base_, 0, MEM_RELEASE);
    }
    GuardedPage(const GuardedPage&) = delete;
    GuardedPage& operator=(const GuardedPage&) = delete;

    bool Ready() const { return base_ != nullptr; }
    // `size` bytes that end where the page without access begins.
    char* End(size_t size) const { return base_ + page_ - size; }

private:
    char* base_ = nullptr;
    size_t page_ = 0;
};

// One family's calls as the tests here need them.
struct Family {
    const char* name;
    int (*setProxy)(SOCKET, const sockaddr_in*, int);
    int (*getsockname)(SOCKET, sockaddr*, int*);
    SOCKET (*accept)(SOCKET, sockaddr*, int*);
    void (*cleanupSocket)(SOCKET);
    const char* ownGetSockName;  // the log line of the call's own answer
};

int SocksSetProxy(SOCKET s, const sockaddr_in* proxy, int length) { return SOCKS_SetProxyEx(s, proxy, length, "", 4); }
int HttpSetProxy(SOCKET s, const sockaddr_in* proxy, int length) { return HTTP_SetProxy(s, proxy, length, "", 0); }

const Family kSocks = {"SOCKS", SocksSetProxy, SOCKS_getsockname, SOCKS_accept, SOCKS_CleanupSocket,
                       "calling CSocksSocket::GetSockName"};
const Family kHttp = {"HTTP", HttpSetProxy, HTTP_getsockname, HTTP_accept, HTTP_CleanupSocket,
                      "calling CHttpSocket::GetSockName"};

// ---- Proxy records shorter than a record ----

class ShortProxyRecordTest : public ::testing::TestWithParam<int> {};

// The record's bytes lie at the very end of the readable page; a read past the length the host gave
// ends the test program. Under 8 bytes the record holds no whole address and names no proxy.
TEST_P(ShortProxyRecordTest, OnlyTheGivenBytesAreReadAndUnderEightNameNoProxy) {
    const int length = GetParam();
    GuardedPage page;
    ASSERT_TRUE(page.Ready());
    sockaddr_in whole = dxtest::Address("10.1.2.3", 1080);
    for (const Family* family : {&kSocks, &kHttp}) {
        SCOPED_TRACE(family->name);
        char* record = page.End(static_cast<size_t>(length));
        std::memcpy(record, &whole, static_cast<size_t>(length));
        SOCKET s = dxtest::MakeTcpSocket();
        ASSERT_NE(s, INVALID_SOCKET);
        EXPECT_EQ(family->setProxy(s, reinterpret_cast<const sockaddr_in*>(record), length), 0);

        sockaddr_in name = {};
        int nameLength = sizeof name;
        dxtest::LogCapture capture;
        int result = family->getsockname(s, reinterpret_cast<sockaddr*>(&name), &nameLength);
        Lines calls = dxtest::LinesStartingWith(capture.Lines(), Line("calling "));
        if (length < 8) {
            EXPECT_EQ(calls, Lines{Line("calling ::getsockname")});
            // An unbound socket: WinSock's own answer.
            EXPECT_EQ(result, SOCKET_ERROR);
        } else {
            EXPECT_EQ(calls, Lines{Line(family->ownGetSockName)});
            EXPECT_EQ(result, 0);
            EXPECT_EQ(dxtest::Dotted(name), "10.1.2.3");
        }
        family->cleanupSocket(s);
        closesocket(s);
    }
}

INSTANTIATE_TEST_SUITE_P(LengthsZeroToSixteen, ShortProxyRecordTest, ::testing::Range(0, 17));

// ---- Null and negative lengths to the calls that pass through ----

class PassThroughLengthTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(page.Ready());
        // The address buffer ends at the page without access: a write of more than a record ends
        // the test program.
        address = reinterpret_cast<sockaddr*>(page.End(sizeof(sockaddr_in)));
    }
    // A listening plain socket with one connection waiting to be accepted.
    SOCKET ListenerWithAConnection(SOCKET* client) {
        SOCKET listener = dxtest::MakeTcpSocket();
        sockaddr_in local = dxtest::Loopback(0);
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
        EXPECT_EQ(listen(listener, 4), 0);
        int length = sizeof local;
        EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&local), &length), 0);
        *client = dxtest::MakeTcpSocket();
        EXPECT_EQ(connect(*client, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
        return listener;
    }

    GuardedPage page;
    sockaddr* address = nullptr;
};

TEST_F(PassThroughLengthTest, GetSockNameWithANullOrNegativeLengthFailsWith10014) {
    for (const Family* family : {&kSocks, &kHttp}) {
        SCOPED_TRACE(family->name);
        SOCKET bound = dxtest::MakeTcpSocket();
        sockaddr_in local = dxtest::Loopback(0);
        ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
        // Without library state, and with state but no proxy: both go to WinSock.
        SOCKET stateless = bound;
        SOCKET unproxied = dxtest::MakeTcpSocket();
        ASSERT_EQ(bind(unproxied, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
        ASSERT_EQ(family->setProxy(unproxied, nullptr, 0), 0);
        for (SOCKET s : {stateless, unproxied}) {
            dxtest::LogCapture capture;
            WSASetLastError(0);
            EXPECT_EQ(family->getsockname(s, address, nullptr), SOCKET_ERROR);
            EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
            int negative = -1;
            WSASetLastError(0);
            EXPECT_EQ(family->getsockname(s, address, &negative), SOCKET_ERROR);
            EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
            EXPECT_EQ(negative, -1);
            EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("calling ")),
                      (Lines{Line("calling ::getsockname"), Line("calling ::getsockname")}));
            // A whole length still reaches WinSock.
            int whole = sizeof(sockaddr_in);
            EXPECT_EQ(family->getsockname(s, address, &whole), 0);
            EXPECT_EQ(whole, static_cast<int>(sizeof(sockaddr_in)));
        }
        family->cleanupSocket(unproxied);
        closesocket(unproxied);
        closesocket(bound);
    }
}

TEST_F(PassThroughLengthTest, AcceptWithAnAddressAndANullOrNegativeLengthFailsWith10014AndTakesNothing) {
    for (const Family* family : {&kSocks, &kHttp}) {
        SCOPED_TRACE(family->name);
        SOCKET client = INVALID_SOCKET;
        SOCKET listener = ListenerWithAConnection(&client);
        WSASetLastError(0);
        EXPECT_EQ(family->accept(listener, address, nullptr), INVALID_SOCKET);
        EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
        int negative = -1;
        WSASetLastError(0);
        EXPECT_EQ(family->accept(listener, address, &negative), INVALID_SOCKET);
        EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
        EXPECT_EQ(negative, -1);
        // The waiting connection was left for a call WinSock takes.
        int whole = sizeof(sockaddr_in);
        SOCKET accepted = family->accept(listener, address, &whole);
        ASSERT_NE(accepted, INVALID_SOCKET);
        EXPECT_EQ(whole, static_cast<int>(sizeof(sockaddr_in)));
        closesocket(accepted);
        closesocket(client);
        closesocket(listener);
    }
}

TEST_F(PassThroughLengthTest, AcceptWithoutAnAddressNeedsNoLength) {
    for (const Family* family : {&kSocks, &kHttp}) {
        SCOPED_TRACE(family->name);
        SOCKET client = INVALID_SOCKET;
        SOCKET listener = ListenerWithAConnection(&client);
        SOCKET accepted = family->accept(listener, nullptr, nullptr);
        EXPECT_NE(accepted, INVALID_SOCKET);
        closesocket(accepted);
        closesocket(client);
        closesocket(listener);
    }
}

TEST_F(PassThroughLengthTest, SocksAcceptLogsTheRefusalAsItsOwnError) {
    SOCKET client = INVALID_SOCKET;
    SOCKET listener = ListenerWithAConnection(&client);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_accept(listener, address, nullptr), INVALID_SOCKET);
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line("WinSock Error = ")),
              Lines{Line("WinSock Error = 10014")});
    EXPECT_EQ(dxtest::LinesStartingWith(capture.Lines(), Line(" result = ")), Lines{Line(" result = -1")});
    closesocket(client);
    closesocket(listener);
}

TEST_F(PassThroughLengthTest, IoctlsocketWithANullArgumentGives10014) {
    SOCKET s = dxtest::MakeTcpSocket();
    // Wine answers FIOASYNC with a null argument 10045 where Windows gives 10014.
    for (long command : {static_cast<long>(FIONREAD), static_cast<long>(FIONBIO), static_cast<long>(FIOASYNC)}) {
        SCOPED_TRACE(command);
        WSASetLastError(0);
        EXPECT_EQ(HTTP_ioctlsocket(s, command, nullptr), WSAEFAULT);
        EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
        WSASetLastError(0);
        EXPECT_EQ(SOCKS_ioctlsocket(s, command, nullptr), WSAEFAULT);
        EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    }
    // The HTTP family's FIONBIO keeps its log line and its object, whatever the argument.
    dxtest::LogCapture capture;
    EXPECT_EQ(HTTP_ioctlsocket(s, static_cast<long>(FIONBIO), nullptr), WSAEFAULT);
    Lines expected = {Line("Begin func HTTP_ioctlsocket"), Line(" socket = " + dxtest::N(s)),
                      Line(" set socket non-blocking"), Line(" result = 10014"), Line("End func HTTP_ioctlsocket")};
    EXPECT_EQ(capture.Lines(), expected);
    HTTP_CleanupSocket(s);
    closesocket(s);
}

// ---- The log ----

TEST(NullLogFormatTest, DeliversNoLineAndKeepsTheWinSockError) {
    dxtest::LogCapture capture;
    WSASetLastError(10060);
    SOCKS_LogString(nullptr);
    EXPECT_EQ(WSAGetLastError(), 10060);
    HTTP_LogString(nullptr);
    EXPECT_TRUE(capture.Lines().empty());
    SOCKS_LogString("after");
    EXPECT_EQ(capture.Lines(), Lines{Line("after")});
}

struct PairCount {
    std::atomic<long> lines{0};
    std::atomic<long> mismatches{0};
};
PairCount g_first;
PairCount g_second;

void FirstCallback(void* context, const char*) {
    ++g_first.lines;
    if (context != &g_first) ++g_first.mismatches;
}

void SecondCallback(void* context, const char*) {
    ++g_second.lines;
    if (context != &g_second) ++g_second.mismatches;
}

// One thread switches between two callbacks, each with its own context, through both families;
// two threads log meanwhile, until the switches have overlapped enough lines (both bounded). Every
// line reaches a callback with that callback's context.
TEST(LogCallbackPairTest, ALineNeverReachesACallbackWithTheOtherOnesContext) {
    constexpr long kLeastLines = 500000;    // per logging thread
    constexpr long kMostLines = 2000000;    // per logging thread
    constexpr long kWantedSwitches = 5000000;
    constexpr long kMostSwitches = 50000000;
    SOCKS_SetLoggingCallback(nullptr);
    SOCKS_SetLoggingCallbackEx(&g_first, FirstCallback);
    std::atomic<long> switches{0};
    std::atomic<int> loggersDone{0};
    std::thread switcher([&] {
        for (long i = 0; i < kMostSwitches && loggersDone.load() < 2; ++i) {
            if (i % 2 == 0) {
                HTTP_SetLoggingCallbackEx(&g_second, SecondCallback);
            } else {
                SOCKS_SetLoggingCallbackEx(&g_first, FirstCallback);
            }
            switches.store(i + 1, std::memory_order_relaxed);
        }
    });
    std::atomic<long> logged{0};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 2; ++t) {
        loggers.emplace_back([&] {
            long i = 0;
            while (i < kMostLines && (i < kLeastLines || switches.load(std::memory_order_relaxed) < kWantedSwitches)) {
                SOCKS_LogString("pair %d", static_cast<int>(i));
                ++i;
            }
            logged += i;
            ++loggersDone;
        });
    }
    for (auto& logger : loggers) logger.join();
    switcher.join();
    SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
    EXPECT_EQ(g_first.mismatches.load() + g_second.mismatches.load(), 0);
    EXPECT_EQ(g_first.lines.load() + g_second.lines.load(), logged.load());
    EXPECT_GT(g_second.lines.load(), 0);
}

}  // namespace
