// Conversions between host text and the 16-byte IPv4 address record, used by both stacks, and the
// system resolver functions they sit on, bound by name at first use.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>

#include "legacy_resolver.h"

// Resolves host (may be null) and port (host order) into *address. Returns 0, or the lookup's code,
// which is also left as the WinSock last error; on failure *address is untouched.
int ResolveHostPort(const char* host, unsigned port, sockaddr_in* address);

// Writes the dotted quad of address into buffer. Returns 0 or the WinSock last error.
int AddressToNumericText(const sockaddr* address, int length, char* buffer, int size);

// getaddrinfo, getnameinfo and freeaddrinfo of the system directory's ws2_32 (or wship6), all three
// from one library, or else the IPv4 emulation below. The library imports none of them: each goes
// through a pointer of its own, filled at its first call.
int ResolverGetAddrInfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
int ResolverGetNameInfo(const sockaddr* address, int length, char* host, DWORD hostSize, char* service,
                        DWORD serviceSize, int flags);
void ResolverFreeAddrInfo(addrinfo* chain);

// The function of a row of the binding table (legacy::kGetAddrInfo, ...), binding all three rows at the
// first call of the process.
void* BindResolverFunction(int index);
// Whether this process has bound the table (to the system's functions or to the emulation).
bool ResolverBound();

// The emulation, with the system functions' arguments and results.
int WSAAPI LegacyGetAddrInfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
int WSAAPI LegacyGetNameInfo(const sockaddr* address, socklen_t length, char* host, DWORD hostSize, char* service,
                             DWORD serviceSize, int flags);
void WSAAPI LegacyFreeAddrInfo(addrinfo* chain);

// For tests: the loader of the process's binding (null: the system's), effective only before the
// first binding.
void SetResolverLoader(const legacy::Loader* loader);
