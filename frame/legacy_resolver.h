// The IPv4 stand-ins for getaddrinfo, getnameinfo and freeaddrinfo, for a system whose socket library
// lacks them, and the binding that prefers the system's own three. Free of the Windows API: the records
// below have the system's layout (the Windows build checks it field by field), and the old WinSock
// calls, the allocator and the library loader come in through tables that tests replace.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace legacy {

// Port and address in network order.
struct SockAddrIn {
    int16_t sin_family;
    uint16_t sin_port;
    uint32_t sin_addr;
    char sin_zero[8];
};

struct SockAddr {
    uint16_t sa_family;
    char sa_data[14];
};

struct AddrInfo {
    int ai_flags;
    int ai_family;
    int ai_socktype;
    int ai_protocol;
    size_t ai_addrlen;
    char* ai_canonname;
    SockAddr* ai_addr;
    AddrInfo* ai_next;
};

struct HostEnt {
    char* h_name;
    char** h_aliases;
    short h_addrtype;
    short h_length;
    char** h_addr_list;
};

struct ServEnt {
    char* s_name;
    char** s_aliases;
    char* s_proto;
    short s_port;
};

constexpr int kPassive = 1;
constexpr int kCanonicalName = 2;
constexpr int kNumericHost = 4;

constexpr int kNameNoFqdn = 1;
constexpr int kNameNumericHost = 2;
constexpr int kNameRequired = 4;
constexpr int kNameNumericService = 8;
constexpr int kNameDatagram = 16;

constexpr int kNotEnoughMemory = 8;
constexpr int kInvalid = 10022;
constexpr int kSocketTypeNotSupported = 10044;
constexpr int kFamilyNotSupported = 10047;
constexpr int kTypeNotFound = 10109;
constexpr int kHostNotFound = 11001;
constexpr int kTryAgain = 11002;
constexpr int kNoRecovery = 11003;

// WinSock's old calls and the allocator, as the emulation reaches them. Addresses in network order.
struct Calls {
    const HostEnt* (*getHostByName)(const char* name);
    const HostEnt* (*getHostByAddr)(const char* address, int length, int family);
    const ServEnt* (*getServByName)(const char* name, const char* protocol);
    const ServEnt* (*getServByPort)(int port, const char* protocol);
    uint32_t (*inetAddr)(const char* text);
    const char* (*inetNtoa)(uint32_t address);
    int (*lastError)();
    void* (*allocateZeroed)(size_t count, size_t size);
    void (*release)(void* block);
};

int AddressInfo(const Calls& calls, const char* node, const char* service, const AddrInfo* hints, AddrInfo** result);
int NameInfo(const Calls& calls, const SockAddr* address, int length, char* host, uint32_t hostSize,
                char* service, uint32_t serviceSize, int flags);
void FreeAddressInfo(const Calls& calls, AddrInfo* chain);

// The binding table's rows.
enum ResolverFunction { kGetAddrInfo = 0, kGetNameInfo = 1, kFreeAddrInfo = 2, kResolverFunctions = 3 };

// How the binder reaches the system: its directory (the length written, 0 on failure) and a library's
// load, lookup and release.
struct Loader {
    unsigned (*systemDirectory)(char* buffer, unsigned size);
    void* (*load)(const char* path);
    void* (*lookup)(void* library, const char* name);
    void (*unload)(void* library);
};

// The three functions, the emulation's until the system's are bound; bound once, never unbound.
// Threads may bind at once: each stores the same values.
class ResolverBinding {
public:
    explicit ResolverBinding(void* const (&emulation)[kResolverFunctions]);

    void* Bind(const Loader& loader, int index);
    bool Bound() const { return bound_.load(std::memory_order_acquire); }

private:
    void* Finish(int index);

    std::atomic<void*> functions_[kResolverFunctions];
    std::atomic<bool> bound_{false};
};

}  // namespace legacy
