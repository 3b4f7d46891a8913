// The resolver functions as the library binds them under Wine: the system's from ws2_32 of the
// system folder, the helper library or the emulation from other folders, and the emulation beside
// Wine's own functions.
#include "resolver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "bounded_text.h"
#include "module_files.h"
#include "socks_socket.h"
#include "test_helpers.h"

namespace {

using dxtest::FakeReceived;
using dxtest::FakeScript;

void* Ws2_32(const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ws2_32.dll"), name));
}

template <typename F>
void* Untyped(F function) {
    return reinterpret_cast<void*>(function);
}

// The system's loader, with the folder a test names as the system folder.
std::string g_folder;
unsigned FolderOfTheTest(char* buffer, unsigned size) {
    if (g_folder.size() >= size) return static_cast<unsigned>(g_folder.size() + 1);
    CopyText(buffer, size, g_folder.c_str());
    return static_cast<unsigned>(g_folder.size());
}
void* Load(const char* path) { return LoadLibraryA(path); }
void* Lookup(void* library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
void Unload(void* library) { FreeLibrary(static_cast<HMODULE>(library)); }
constexpr legacy::Loader kFolderLoader = {FolderOfTheTest, Load, Lookup, Unload};

void* const kEmulation[3] = {Untyped(&LegacyGetAddrInfo), Untyped(&LegacyGetNameInfo), Untyped(&LegacyFreeAddrInfo)};

TEST(ResolverBindingTest, TheBoundFunctionsAreThoseOfWs2_32) {
    EXPECT_EQ(Ws2_32("getaddrinfo"), BindResolverFunction(legacy::kGetAddrInfo));
    EXPECT_EQ(Ws2_32("getnameinfo"), BindResolverFunction(legacy::kGetNameInfo));
    EXPECT_EQ(Ws2_32("freeaddrinfo"), BindResolverFunction(legacy::kFreeAddrInfo));
    EXPECT_TRUE(ResolverBound());
}

TEST(ResolverBindingTest, TheConversionsGoThroughTheBoundFunctions) {
    sockaddr_in address = {};
    ASSERT_EQ(0, ResolveHostPort("127.0.0.1", 1080, &address));
    EXPECT_EQ(htonl(0x7F000001), address.sin_addr.s_addr);
    EXPECT_EQ(htons(1080), address.sin_port);
    char text[32];
    ASSERT_EQ(0, AddressToNumericText(reinterpret_cast<sockaddr*>(&address), sizeof address, text, sizeof text));
    EXPECT_STREQ("127.0.0.1", text);
    EXPECT_EQ(WSAHOST_NOT_FOUND, ResolveHostPort("no-such-host.invalid", 80, &address));
    EXPECT_EQ(WSAHOST_NOT_FOUND, WSAGetLastError());
}

TEST(ResolverBindingTest, AFolderWithoutWs2_32TakesWship6) {
    g_folder = dxtest::BesideProgram("..\\doubles\\wship6");
    ASSERT_TRUE(dxtest::FileExists(g_folder + "\\wship6.dll"));
    legacy::ResolverBinding binding(kEmulation);
    void* found = binding.Bind(kFolderLoader, legacy::kGetAddrInfo);
    HMODULE helper = GetModuleHandleA((g_folder + "\\wship6.dll").c_str());
    ASSERT_NE(nullptr, helper);
    EXPECT_EQ(Untyped(GetProcAddress(helper, "getaddrinfo")), found);
    EXPECT_EQ(Untyped(GetProcAddress(helper, "getnameinfo")), binding.Bind(kFolderLoader, legacy::kGetNameInfo));
    EXPECT_EQ(Untyped(GetProcAddress(helper, "freeaddrinfo")), binding.Bind(kFolderLoader, legacy::kFreeAddrInfo));
    addrinfo* chain = nullptr;
    EXPECT_EQ(60001, reinterpret_cast<decltype(&LegacyGetAddrInfo)>(found)("x", "1", nullptr, &chain));
}

TEST(ResolverBindingTest, AFolderWithNeitherLibraryLeavesTheEmulation) {
    g_folder = dxtest::MakeTempDirectory("no-resolver");
    legacy::ResolverBinding binding(kEmulation);
    EXPECT_EQ(kEmulation[0], binding.Bind(kFolderLoader, legacy::kGetAddrInfo));
    EXPECT_EQ(kEmulation[2], binding.Bind(kFolderLoader, legacy::kFreeAddrInfo));
    dxtest::RemoveTree(g_folder);
}

// Inputs on which the emulation and Wine's functions agree. Where they part (an IPv6 family, flags that
// contradict each other, no buffer at all) the emulation's answers are those of its own tests.
struct AddrCase {
    const char* node;
    const char* service;
    int flags;
    int family;
    int socketType;
};

TEST(ResolverBindingTest, TheEmulationAnswersAsWinesGetaddrinfo) {
    const AddrCase cases[] = {
        {"127.0.0.1", "80", 0, AF_INET, SOCK_STREAM},   {"10.1.2.3", "1080", 0, AF_INET, SOCK_STREAM},
        {"localhost", "8080", 0, AF_INET, SOCK_STREAM}, {nullptr, "443", 0, AF_INET, SOCK_STREAM},
        {nullptr, "443", AI_PASSIVE, AF_INET, SOCK_STREAM}, {"127.0.0.1", "0", 0, 0, SOCK_STREAM},
        {"no-such-host.invalid", "80", 0, AF_INET, SOCK_STREAM},
        {"127.0.0.1", "80", 0, AF_INET, 7},             {nullptr, nullptr, 0, AF_INET, SOCK_STREAM},
        {"host", "80", AI_NUMERICHOST, AF_INET, SOCK_STREAM}, {"192.168.0.1", nullptr, 0, AF_INET, SOCK_STREAM},
    };
    for (const AddrCase& c : cases) {
        const std::string label = std::string(c.node ? c.node : "(null)") + " " + (c.service ? c.service : "(null)") +
                                  " family " + std::to_string(c.family) + " type " + std::to_string(c.socketType);
        addrinfo hints = {};
        hints.ai_flags = c.flags;
        hints.ai_family = c.family;
        hints.ai_socktype = c.socketType;
        addrinfo* wine = nullptr;
        addrinfo* ours = nullptr;
        const int wineCode = getaddrinfo(c.node, c.service, &hints, &wine);
        const int ourCode = LegacyGetAddrInfo(c.node, c.service, &hints, &ours);
        EXPECT_EQ(wineCode, ourCode) << label;
        if (wineCode == 0 && ourCode == 0) {
            ASSERT_NE(nullptr, wine);
            ASSERT_NE(nullptr, ours);
            EXPECT_EQ(wine->ai_family, ours->ai_family) << label;
            EXPECT_EQ(wine->ai_socktype, ours->ai_socktype) << label;
            EXPECT_EQ(wine->ai_addrlen, ours->ai_addrlen) << label;
            const auto* w = reinterpret_cast<const sockaddr_in*>(wine->ai_addr);
            const auto* o = reinterpret_cast<const sockaddr_in*>(ours->ai_addr);
            EXPECT_EQ(w->sin_port, o->sin_port) << label;
            EXPECT_EQ(w->sin_addr.s_addr, o->sin_addr.s_addr) << label;
        }
        if (wine != nullptr) freeaddrinfo(wine);
        LegacyFreeAddrInfo(ours);
    }
}

struct NameCase {
    const char* dotted;
    unsigned short port;
    DWORD hostSize;
    DWORD serviceSize;
    int flags;
};

TEST(ResolverBindingTest, TheEmulationAnswersAsWinesGetnameinfo) {
    const NameCase cases[] = {
        {"127.0.0.1", 80, 64, 16, NI_NUMERICHOST | NI_NUMERICSERV},
        {"10.20.30.40", 65535, 64, 16, NI_NUMERICHOST | NI_NUMERICSERV},
        {"10.20.30.40", 1080, 0, 16, NI_NUMERICSERV},
        {"192.168.100.200", 1, 64, 0, NI_NUMERICHOST},
    };
    for (const NameCase& c : cases) {
        sockaddr_in address = dxtest::Address(c.dotted, c.port);
        char wineHost[64] = {}, wineService[16] = {}, ourHost[64] = {}, ourService[16] = {};
        const auto* record = reinterpret_cast<const sockaddr*>(&address);
        const int wineCode = getnameinfo(record, sizeof address, c.hostSize ? wineHost : nullptr, c.hostSize,
                                         c.serviceSize ? wineService : nullptr, c.serviceSize, c.flags);
        const int ourCode = LegacyGetNameInfo(record, sizeof address, c.hostSize ? ourHost : nullptr, c.hostSize,
                                              c.serviceSize ? ourService : nullptr, c.serviceSize, c.flags);
        EXPECT_EQ(wineCode, ourCode) << c.dotted << " flags " << c.flags;
        EXPECT_STREQ(wineHost, ourHost) << c.dotted;
        EXPECT_STREQ(wineService, ourService) << c.dotted;
    }
}

// Processes of their own: the binding of the process happens once.
TEST(ResolverFirstUseTest, ThreadsBindingAtOnceEndWithWs2_32sFunctions) {
    ASSERT_FALSE(ResolverBound());
    std::atomic<bool> go{false};
    void* seen[6][3] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < 3; ++i) seen[t][(t + i) % 3] = BindResolverFunction((t + i) % 3);
        });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    for (int t = 0; t < 6; ++t) {
        EXPECT_EQ(Ws2_32("getaddrinfo"), seen[t][0]);
        EXPECT_EQ(Ws2_32("getnameinfo"), seen[t][1]);
        EXPECT_EQ(Ws2_32("freeaddrinfo"), seen[t][2]);
    }
}

TEST(ResolverEmulationTest, ASocks4ConnectByNameOnTheEmulation) {
    ASSERT_FALSE(ResolverBound());
    g_folder = dxtest::MakeTempDirectory("emulated-resolver");
    SetResolverLoader(&kFolderLoader);
    SOCKET s = dxtest::MakeTcpSocket();
    ASSERT_NE(INVALID_SOCKET, s);
    const uint16_t echo = dxtest::BenchPort("ECHO_PORT");
    const sockaddr_in fake = dxtest::Loopback(dxtest::BenchPort("FAKE_PORT"));
    const int id = FakeScript("read=13 send=005a000000000000 drain=3000");
    {
        CSocksSocket object(s);
        object.SetProxy(&fake, sizeof fake, "user", 4);
        unsigned error = 99;
        object.StartConnect(kCommandConnect, "localhost", echo, nullptr, &error);
        EXPECT_EQ(0u, error);
        EXPECT_EQ(kEstablished, object.state);
    }
    closesocket(s);
    const std::string request = {4, 1, static_cast<char>(echo >> 8), static_cast<char>(echo & 0xff), 127, 0, 0, 1};
    EXPECT_EQ(request + "user" + std::string(1, '\0'), FakeReceived(id).bytes);
    EXPECT_EQ(kEmulation[0], BindResolverFunction(legacy::kGetAddrInfo));
    EXPECT_EQ(kEmulation[2], BindResolverFunction(legacy::kFreeAddrInfo));
    SetResolverLoader(nullptr);
    dxtest::RemoveTree(g_folder);
}

}  // namespace
