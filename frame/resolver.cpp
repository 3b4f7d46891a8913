#include "resolver.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The emulation works on records of the system's layout.
static_assert(sizeof(legacy::AddrInfo) == sizeof(addrinfo), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_flags) == offsetof(addrinfo, ai_flags), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_family) == offsetof(addrinfo, ai_family), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_socktype) == offsetof(addrinfo, ai_socktype), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_protocol) == offsetof(addrinfo, ai_protocol), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_addrlen) == offsetof(addrinfo, ai_addrlen), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_canonname) == offsetof(addrinfo, ai_canonname), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_addr) == offsetof(addrinfo, ai_addr), "addrinfo layout");
static_assert(offsetof(legacy::AddrInfo, ai_next) == offsetof(addrinfo, ai_next), "addrinfo layout");
static_assert(sizeof(legacy::SockAddrIn) == sizeof(sockaddr_in), "sockaddr_in layout");
static_assert(offsetof(legacy::SockAddrIn, sin_port) == offsetof(sockaddr_in, sin_port), "sockaddr_in layout");
static_assert(offsetof(legacy::SockAddrIn, sin_addr) == offsetof(sockaddr_in, sin_addr), "sockaddr_in layout");
static_assert(sizeof(legacy::SockAddr) == sizeof(sockaddr), "sockaddr layout");
static_assert(sizeof(legacy::HostEnt) == sizeof(hostent), "hostent layout");
static_assert(offsetof(legacy::HostEnt, h_addrtype) == offsetof(hostent, h_addrtype), "hostent layout");
static_assert(offsetof(legacy::HostEnt, h_length) == offsetof(hostent, h_length), "hostent layout");
static_assert(offsetof(legacy::HostEnt, h_addr_list) == offsetof(hostent, h_addr_list), "hostent layout");
static_assert(sizeof(legacy::ServEnt) == sizeof(servent), "servent layout");
static_assert(offsetof(legacy::ServEnt, s_proto) == offsetof(servent, s_proto), "servent layout");
static_assert(offsetof(legacy::ServEnt, s_port) == offsetof(servent, s_port), "servent layout");

const legacy::HostEnt* SystemHostByName(const char* name) {
    return reinterpret_cast<const legacy::HostEnt*>(gethostbyname(name));
}
const legacy::HostEnt* SystemHostByAddr(const char* address, int length, int family) {
    return reinterpret_cast<const legacy::HostEnt*>(gethostbyaddr(address, length, family));
}
const legacy::ServEnt* SystemServByName(const char* name, const char* protocol) {
    return reinterpret_cast<const legacy::ServEnt*>(getservbyname(name, protocol));
}
const legacy::ServEnt* SystemServByPort(int port, const char* protocol) {
    return reinterpret_cast<const legacy::ServEnt*>(getservbyport(port, protocol));
}
uint32_t SystemInetAddr(const char* text) { return inet_addr(text); }
const char* SystemInetNtoa(uint32_t address) {
    in_addr record;
    record.s_addr = address;
    return inet_ntoa(record);
}
int SystemLastError() { return WSAGetLastError(); }

constexpr legacy::Calls kSystemCalls = {SystemHostByName, SystemHostByAddr, SystemServByName, SystemServByPort,
                                        SystemInetAddr,   SystemInetNtoa,   SystemLastError,  std::calloc,
                                        std::free};

unsigned SystemDirectory(char* buffer, unsigned size) { return GetSystemDirectoryA(buffer, size); }
void* SystemLoad(const char* path) { return LoadLibraryA(path); }
void* SystemLookup(void* library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
void SystemUnload(void* library) { FreeLibrary(static_cast<HMODULE>(library)); }

constexpr legacy::Loader kSystemLoader = {SystemDirectory, SystemLoad, SystemLookup, SystemUnload};
std::atomic<const legacy::Loader*> g_loader{&kSystemLoader};

template <typename F>
void* Untyped(F function) {
    return reinterpret_cast<void*>(function);
}

legacy::ResolverBinding& Binding() {
    static void* const emulation[legacy::kResolverFunctions] = {
        Untyped(&LegacyGetAddrInfo), Untyped(&LegacyGetNameInfo), Untyped(&LegacyFreeAddrInfo)};
    static legacy::ResolverBinding binding(emulation);
    return binding;
}

// One cached pointer per function: the first call of each passes through the binding, even when
// another function has bound the table already.
template <typename F>
F Cached(std::atomic<F>& cache, int index) {
    F function = cache.load(std::memory_order_acquire);
    if (function == nullptr) {
        function = reinterpret_cast<F>(BindResolverFunction(index));
        cache.store(function, std::memory_order_release);
    }
    return function;
}

using GetAddrInfoFunction = int(WSAAPI*)(const char*, const char*, const addrinfo*, addrinfo**);
using GetNameInfoFunction = int(WSAAPI*)(const sockaddr*, socklen_t, char*, DWORD, char*, DWORD, int);
using FreeAddrInfoFunction = void(WSAAPI*)(addrinfo*);
std::atomic<GetAddrInfoFunction> g_getAddrInfo{nullptr};
std::atomic<GetNameInfoFunction> g_getNameInfo{nullptr};
std::atomic<FreeAddrInfoFunction> g_freeAddrInfo{nullptr};

}  // namespace

bool ResolverBound() { return Binding().Bound(); }

void* BindResolverFunction(int index) { return Binding().Bind(*g_loader.load(std::memory_order_acquire), index); }

int ResolverGetAddrInfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    return Cached(g_getAddrInfo, legacy::kGetAddrInfo)(node, service, hints, result);
}

int ResolverGetNameInfo(const sockaddr* address, int length, char* host, DWORD hostSize, char* service,
                        DWORD serviceSize, int flags) {
    return Cached(g_getNameInfo, legacy::kGetNameInfo)(address, length, host, hostSize, service, serviceSize, flags);
}

void ResolverFreeAddrInfo(addrinfo* chain) { Cached(g_freeAddrInfo, legacy::kFreeAddrInfo)(chain); }

int WSAAPI LegacyGetAddrInfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    return legacy::AddressInfo(kSystemCalls, node, service,
                               reinterpret_cast<const legacy::AddrInfo*>(hints),
                               reinterpret_cast<legacy::AddrInfo**>(result));
}

int WSAAPI LegacyGetNameInfo(const sockaddr* address, socklen_t length, char* host, DWORD hostSize, char* service,
                             DWORD serviceSize, int flags) {
    return legacy::NameInfo(kSystemCalls,
                               reinterpret_cast<const legacy::SockAddr*>(address), length, host, hostSize, service,
                               serviceSize, flags);
}

void WSAAPI LegacyFreeAddrInfo(addrinfo* chain) {
    legacy::FreeAddressInfo(kSystemCalls, reinterpret_cast<legacy::AddrInfo*>(chain));
}

void SetResolverLoader(const legacy::Loader* loader) { g_loader.store(loader != nullptr ? loader : &kSystemLoader); }

int ResolveHostPort(const char* host, unsigned port, sockaddr_in* address) {
    char service[16];
    std::snprintf(service, sizeof service, "%u", port);
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    int code = ResolverGetAddrInfo(host, service, &hints, &result);
    WSASetLastError(code);
    if (code != 0) return code;
    // Only the first answer is used; there is no second attempt at another address.
    size_t length = result->ai_addrlen < sizeof *address ? result->ai_addrlen : sizeof *address;
    std::memcpy(address, result->ai_addr, length);
    ResolverFreeAddrInfo(result);
    return 0;
}

int AddressToNumericText(const sockaddr* address, int length, char* buffer, int size) {
    char service[32] = {};
    int code = ResolverGetNameInfo(address, length, buffer, size, service, sizeof service,
                                   NI_NUMERICHOST | NI_NUMERICSERV);
    WSASetLastError(code);
    return code == 0 ? 0 : WSAGetLastError();
}
