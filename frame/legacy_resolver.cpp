#include "legacy_resolver.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bounded_text.h"

namespace legacy {
namespace {

constexpr short kInet = 2;
constexpr int kStream = 1;
constexpr int kDatagram = 2;
constexpr uint32_t kNoAddress = 0xFFFFFFFFu;
constexpr size_t kNameBuffer = 1025;

uint16_t ToNetwork16(uint16_t value) {
    const unsigned char bytes[2] = {static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
    uint16_t network;
    std::memcpy(&network, bytes, sizeof network);
    return network;
}

uint16_t FromNetwork16(uint16_t network) {
    unsigned char bytes[2];
    std::memcpy(bytes, &network, sizeof bytes);
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

uint32_t ToNetwork32(uint32_t value) {
    const unsigned char bytes[4] = {static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
                                    static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
    uint32_t network;
    std::memcpy(&network, bytes, sizeof network);
    return network;
}

char* CopyOf(const Calls& calls, const char* text) {
    const size_t length = std::strlen(text);
    char* copy = static_cast<char*>(calls.allocateZeroed(length + 1, 1));
    if (copy != nullptr) std::memcpy(copy, text, length);
    return copy;
}

AddrInfo* NewAddrInfo(const Calls& calls, int socketType, int protocol, uint16_t port, uint32_t address) {
    auto* node = static_cast<AddrInfo*>(calls.allocateZeroed(1, sizeof(AddrInfo)));
    if (node == nullptr) return nullptr;
    auto* record = static_cast<SockAddrIn*>(calls.allocateZeroed(1, sizeof(SockAddrIn)));
    if (record == nullptr) {
        calls.release(node);
        return nullptr;
    }
    record->sin_family = kInet;
    record->sin_port = port;
    record->sin_addr = address;
    node->ai_family = kInet;
    node->ai_socktype = socketType;
    node->ai_protocol = protocol;
    node->ai_addrlen = sizeof(SockAddrIn);
    node->ai_addr = reinterpret_cast<SockAddr*>(record);
    return node;
}

uint32_t AddressOf(const AddrInfo* node) {
    return reinterpret_cast<const SockAddrIn*>(node->ai_addr)->sin_addr;
}

int LookupError(const Calls& calls) {
    const int code = calls.lastError();
    return code == kTryAgain || code == kNoRecovery ? code : kHostNotFound;
}

// Kept: every attempt asks for the caller's own text, never for the alias; the alias only tells when
// to stop.
int LookupNode(const Calls& calls, const char* node, int socketType, int protocol, uint16_t port, bool canonical,
               AddrInfo** result) {
    char first[kNameBuffer];
    char second[kNameBuffer];
    CopyText(first, node);
    char* asked = first;
    char* alias = second;
    for (int attempt = 0;;) {
        *result = nullptr;
        alias[0] = '\0';
        const HostEnt* entry = calls.getHostByName(node);
        if (entry == nullptr) return LookupError(calls);
        bool made = false;
        if (entry->h_addrtype == kInet && entry->h_length == 4 && entry->h_addr_list != nullptr) {
            AddrInfo** tail = result;
            for (char** item = entry->h_addr_list; *item != nullptr; ++item) {
                uint32_t address;
                std::memcpy(&address, *item, sizeof address);
                *tail = NewAddrInfo(calls, socketType, protocol, port, address);
                if (*tail == nullptr) return kNotEnoughMemory;
                tail = &(*tail)->ai_next;
                made = true;
            }
        }
        CopyText(alias, kNameBuffer, entry->h_name != nullptr ? entry->h_name : "");
        if (made) break;
        if (alias[0] == '\0' || std::strcmp(alias, asked) == 0 || ++attempt == 16) return kNoRecovery;
        char* swap = asked;
        asked = alias;
        alias = swap;
    }
    if (canonical) {
        (*result)->ai_canonname = CopyOf(calls, alias);
        if ((*result)->ai_canonname == nullptr) return kNotEnoughMemory;
    }
    return 0;
}

// A datagram twin behind each node of the chain; the twins themselves are passed over.
bool AddDatagramClones(const Calls& calls, AddrInfo* chain, uint16_t datagramPort) {
    for (AddrInfo* node = chain; node != nullptr; node = node->ai_next) {
        AddrInfo* clone = NewAddrInfo(calls, kDatagram, node->ai_protocol, datagramPort, AddressOf(node));
        if (clone == nullptr) return false;
        clone->ai_next = node->ai_next;
        node->ai_next = clone;
        node = clone;
    }
    return true;
}

size_t DotCount(const char* text) {
    size_t dots = 0;
    for (; *text != '\0'; ++text) dots += *text == '.';
    return dots;
}

}  // namespace

int AddressInfo(const Calls& calls, const char* node, const char* service, const AddrInfo* hints,
                AddrInfo** result) {
    if (result == nullptr) return kInvalid;
    *result = nullptr;
    if (node == nullptr && service == nullptr) return kHostNotFound;
    int flags = 0;
    int socketType = 0;
    int protocol = 0;
    if (hints != nullptr) {
        if (hints->ai_addrlen != 0 || hints->ai_canonname != nullptr || hints->ai_addr != nullptr ||
            hints->ai_next != nullptr)
            return kNoRecovery;
        if ((hints->ai_flags & kCanonicalName) != 0 && node == nullptr) return kInvalid;
        if (hints->ai_family != 0 && hints->ai_family != kInet) return kFamilyNotSupported;
        if (static_cast<unsigned>(hints->ai_socktype) > 3) return kSocketTypeNotSupported;
        flags = hints->ai_flags;
        socketType = hints->ai_socktype;
        protocol = hints->ai_protocol;
    }

    uint16_t port = 0;
    uint16_t datagramPort = 0;
    bool clone = false;
    if (service != nullptr) {
        char* end = nullptr;
        // The platform's reading: leading blanks and a sign as its strtoul takes them.
        const unsigned long number = std::strtoul(service, &end, 10);
        if (end != service && *end == '\0') {
            // Only the low 16 bits count: "70000" is port 4464.
            port = datagramPort = ToNetwork16(static_cast<uint16_t>(number));
            if (socketType == 0) {
                socketType = kStream;
                clone = true;
            }
        } else {
            bool foundStream = false;
            bool foundDatagram = false;
            if (socketType == 0 || socketType == kDatagram) {
                if (const ServEnt* entry = calls.getServByName(service, "udp")) {
                    datagramPort = port = static_cast<uint16_t>(entry->s_port);
                    foundDatagram = true;
                }
            }
            if (socketType == 0 || socketType == kStream) {
                if (const ServEnt* entry = calls.getServByName(service, "tcp")) {
                    port = static_cast<uint16_t>(entry->s_port);
                    foundStream = true;
                }
            }
            if (!foundStream && !foundDatagram) return socketType != 0 ? kTypeNotFound : kHostNotFound;
            if (socketType == 0) {
                socketType = foundStream ? kStream : kDatagram;
                clone = foundStream && foundDatagram;
            }
        }
    }

    uint32_t address = 0;
    bool numeric = node == nullptr;
    if (node == nullptr) {
        address = ToNetwork32((flags & kPassive) != 0 ? 0 : 0x7F000001u);
    } else if (DotCount(node) == 3) {
        // Kept: only a text of exactly three dots is tried as a number, and 255.255.255.255 is a name.
        address = calls.inetAddr(node);
        numeric = address != kNoAddress;
    }
    if (!numeric) {
        if ((flags & kNumericHost) != 0) return kHostNotFound;
        const int code = LookupNode(calls, node, socketType, protocol, port, (flags & kCanonicalName) != 0, result);
        if (code != 0) {
            FreeAddressInfo(calls, *result);
            *result = nullptr;
            return code;
        }
    } else {
        *result = NewAddrInfo(calls, socketType, protocol, port, address);
        if (*result == nullptr) return kNotEnoughMemory;
        if (node != nullptr) {
            (*result)->ai_flags |= kNumericHost;
            if ((flags & kCanonicalName) != 0) {
                const char* text = calls.inetNtoa(address);
                (*result)->ai_canonname = CopyOf(calls, text != nullptr ? text : "");
                if ((*result)->ai_canonname == nullptr) {
                    FreeAddressInfo(calls, *result);
                    *result = nullptr;
                    return kNotEnoughMemory;
                }
            }
        }
    }
    if (clone && !AddDatagramClones(calls, *result, datagramPort)) {
        FreeAddressInfo(calls, *result);
        *result = nullptr;
        return kNotEnoughMemory;
    }
    return 0;
}

int NameInfo(const Calls& calls, const SockAddr* address, int length, char* host, uint32_t hostSize,
                char* service, uint32_t serviceSize, int flags) {
    // Sized by the longest text it can hold.
    char number[] = "65535";
    if (address == nullptr || length < static_cast<int>(sizeof(SockAddrIn))) return kNoRecovery;
    if (address->sa_family != kInet) return kFamilyNotSupported;
    const bool wantHost = host != nullptr && hostSize != 0;
    const bool wantService = service != nullptr && serviceSize != 0;
    if (!wantHost && !wantService) return kHostNotFound;
    if ((flags & kNameNumericHost) != 0 && (flags & kNameRequired) != 0) return kInvalid;
    SockAddrIn record;
    std::memcpy(&record, address, sizeof record);

    if (wantService) {
        const char* text = nullptr;
        if ((flags & kNameNumericService) == 0) {
            const ServEnt* entry =
                calls.getServByPort(record.sin_port, (flags & kNameDatagram) != 0 ? "udp" : nullptr);
            if (entry != nullptr && entry->s_name != nullptr) text = entry->s_name;
        }
        if (text == nullptr) {
            std::snprintf(number, sizeof number, "%u", static_cast<unsigned>(FromNetwork16(record.sin_port)));
            text = number;
        }
        if (serviceSize <= std::strlen(text)) return kNoRecovery;
        CopyText(service, serviceSize, text);
    }

    if (wantHost) {
        const char* text = nullptr;
        size_t length = 0;
        if ((flags & kNameNumericHost) != 0) {
            text = calls.inetNtoa(record.sin_addr);
        } else {
            const HostEnt* entry =
                calls.getHostByAddr(reinterpret_cast<const char*>(&record.sin_addr), sizeof record.sin_addr, kInet);
            if (entry != nullptr && entry->h_name != nullptr) {
                text = entry->h_name;
                // The name up to its first dot; the system's copy stays as it is.
                if ((flags & kNameNoFqdn) != 0) length = std::strcspn(text, ".") + 1;
            } else if ((flags & kNameRequired) != 0) {
                return LookupError(calls);
            } else {
                text = calls.inetNtoa(record.sin_addr);
            }
        }
        if (text == nullptr) text = "";
        if (length == 0) length = std::strlen(text) + 1;
        if (hostSize < length) return kNoRecovery;
        CopyText(host, length, text);
    }
    return 0;
}

void FreeAddressInfo(const Calls& calls, AddrInfo* chain) {
    while (chain != nullptr) {
        AddrInfo* next = chain->ai_next;
        if (chain->ai_canonname != nullptr) calls.release(chain->ai_canonname);
        if (chain->ai_addr != nullptr) calls.release(chain->ai_addr);
        calls.release(chain);
        chain = next;
    }
}

ResolverBinding::ResolverBinding(void* const (&emulation)[kResolverFunctions])
    : functions_{{emulation[0]}, {emulation[1]}, {emulation[2]}} {}

void* ResolverBinding::Finish(int index) {
    bound_.store(true, std::memory_order_release);
    return functions_[index].load(std::memory_order_acquire);
}

void* ResolverBinding::Bind(const Loader& loader, int index) {
    if (Bound()) return functions_[index].load(std::memory_order_acquire);
    char directory[260] = {};
    const unsigned length = loader.systemDirectory(directory, sizeof directory);
    // A directory longer than the buffer leaves nothing usable in it: as good as none.
    if (length == 0 || length >= sizeof directory) return Finish(index);

    char path[268];
    BoundedWriter(path, sizeof path).Put(directory);
    BoundedWriter(path + length, sizeof path - length).Put("\\ws2_32");
    void* library = loader.load(path);
    if (library != nullptr && loader.lookup(library, "getaddrinfo") == nullptr) {
        loader.unload(library);
        library = nullptr;
    }
    if (library == nullptr) {
        BoundedWriter(path + length, sizeof path - length).Put("\\wship6");
        library = loader.load(path);
        if (library == nullptr) return Finish(index);
    }
    static const char* const kNames[kResolverFunctions] = {"getaddrinfo", "getnameinfo", "freeaddrinfo"};
    void* found[kResolverFunctions] = {};
    bool all = true;
    for (int i = 0; i < kResolverFunctions; ++i) {
        found[i] = loader.lookup(library, kNames[i]);
        all = all && found[i] != nullptr;
    }
    // One library for all three or none: the system's and the emulation's chains are not to be mixed.
    if (!all) {
        loader.unload(library);
        return Finish(index);
    }
    for (int i = 0; i < kResolverFunctions; ++i) functions_[i].store(found[i], std::memory_order_release);
    return Finish(index);
}

}  // namespace legacy
