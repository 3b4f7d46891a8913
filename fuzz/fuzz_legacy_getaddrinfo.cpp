// The IPv4 emulation of getaddrinfo on random texts, hints and answers of a scripted resolver: the
// chain it gives is well formed, each node with its own 16-byte record, and freeing it returns every
// block it took; a failure leaves no chain and no block behind.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "legacy_resolver.h"

namespace {

struct Input {
    const uint8_t* data;
    size_t size;
    uint8_t Byte() {
        if (size == 0) return 0;
        --size;
        return *data++;
    }
    std::string Text() {
        std::string text;
        for (size_t n = Byte() % 40; n > 0 && size > 0; --n) text += static_cast<char>(Byte());
        return text.c_str();
    }
};

Input* g_input;
std::set<void*> g_live;
int g_failAt;
int g_allocations;
std::string g_name;
std::vector<uint32_t> g_addresses;
std::vector<char*> g_list;
legacy::HostEnt g_host;
std::string g_serviceName;
legacy::ServEnt g_service;

const legacy::HostEnt* HostByName(const char*) {
    Input& in = *g_input;
    if (in.Byte() % 5 == 0) return nullptr;
    g_name = in.Text();
    g_addresses.assign(in.Byte() % 4, 0);
    for (uint32_t& address : g_addresses) address = in.Byte() * 0x01010101u;
    g_list.clear();
    for (uint32_t& address : g_addresses) g_list.push_back(reinterpret_cast<char*>(&address));
    g_list.push_back(nullptr);
    g_host.h_name = in.Byte() % 7 == 0 ? nullptr : &g_name[0];
    g_host.h_aliases = nullptr;
    g_host.h_addrtype = in.Byte() % 4 == 0 ? 23 : 2;
    g_host.h_length = in.Byte() % 4 == 0 ? 16 : 4;
    g_host.h_addr_list = in.Byte() % 9 == 0 ? nullptr : g_list.data();
    return &g_host;
}
const legacy::HostEnt* HostByAddr(const char*, int, int) { return nullptr; }
const legacy::ServEnt* ServByName(const char* name, const char*) {
    if (g_input->Byte() % 2 == 0) return nullptr;
    g_serviceName = name;
    g_service = legacy::ServEnt{&g_serviceName[0], nullptr, nullptr, static_cast<short>(g_input->Byte() * 257)};
    return &g_service;
}
const legacy::ServEnt* ServByPort(int, const char*) { return nullptr; }
uint32_t InetAddr(const char* text) {
    return g_input->Byte() % 3 == 0 ? 0xFFFFFFFFu : static_cast<uint32_t>(std::strlen(text));
}
const char* InetNtoa(uint32_t) { return "1.2.3.4"; }
int LastError() { return 11000 + g_input->Byte() % 5; }
void* Allocate(size_t count, size_t size) {
    if (g_allocations++ == g_failAt) return nullptr;
    void* block = std::calloc(count, size);
    g_live.insert(block);
    return block;
}
void Release(void* block) {
    if (g_live.erase(block) != 1) std::abort();
    std::free(block);
}

constexpr legacy::Calls kCalls = {HostByName, HostByAddr, ServByName, ServByPort, InetAddr,
                                  InetNtoa,   LastError,  Allocate,   Release};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    g_input = &in;
    g_allocations = 0;
    g_failAt = in.Byte() % 4 == 0 ? in.Byte() % 16 : -1;
    const uint8_t shape = in.Byte();
    const std::string node = in.Text();
    const std::string service = in.Text();
    legacy::AddrInfo hints{};
    hints.ai_flags = in.Byte() % 8;
    hints.ai_family = in.Byte() % 3 == 0 ? 23 : 2 * (in.Byte() % 2);
    hints.ai_socktype = static_cast<int8_t>(in.Byte()) % 5;
    hints.ai_protocol = in.Byte();
    legacy::AddrInfo* chain = nullptr;
    const int code = legacy::AddressInfo(kCalls, shape & 1 ? node.c_str() : nullptr,
                                         shape & 2 ? service.c_str() : nullptr, shape & 4 ? &hints : nullptr, &chain);
    if (code != 0 && (chain != nullptr || !g_live.empty())) std::abort();
    if (code == 0 && chain == nullptr) std::abort();
    size_t nodes = 0;
    for (legacy::AddrInfo* n = chain; n != nullptr; n = n->ai_next) {
        if (++nodes > 64) std::abort();
        if (n->ai_family != 2 || n->ai_addrlen != sizeof(legacy::SockAddrIn) || n->ai_addr == nullptr) std::abort();
        if (n->ai_addr->sa_family != 2 || n->ai_socktype < 0 || n->ai_socktype > 3) std::abort();
        if (n->ai_canonname != nullptr && std::strlen(n->ai_canonname) > 1024) std::abort();
    }
    legacy::FreeAddressInfo(kCalls, chain);
    if (!g_live.empty()) std::abort();
    return 0;
}
