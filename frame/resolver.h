// Conversions between host text and the 16-byte IPv4 address record, used by both stacks.
#pragma once

#include <winsock2.h>

// Resolves host (may be null) and port (host order) into *address. Returns 0, or the lookup's code,
// which is also left as the WinSock last error; on failure *address is untouched.
int ResolveHostPort(const char* host, unsigned port, sockaddr_in* address);

// Writes the dotted quad of address into buffer. Returns 0 or the WinSock last error.
int AddressToNumericText(const sockaddr* address, int length, char* buffer, int size);
