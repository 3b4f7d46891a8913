// Proxy determination: for one destination, does a proxy apply, and which address, user and version
// (SOCKS) or Basic flag (HTTP). Each call reads the settings file again, asks the user to configure
// when the family has no maps, and picks a map. One body for both families, told apart by a table.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstdint>

#include "shim_detection.h"

// A determination is running in that family; a second one pumps its own queue until it ends.
extern int32_t g_socksBusy;
extern int32_t g_httpBusy;
// A shim was seen and the warning given: the family does not look again.
extern int32_t g_socksShimsFound;
extern int32_t g_httpShimsFound;

struct DeterminationFamily;
extern const DeterminationFamily kSocksDetermination;
extern const DeterminationFamily kHttpDetermination;

// SOCKS_DetermineProxyEx and HTTP_DetermineProxyEx. `extra` is the SOCKS version (may be null,
// written only when a proxy applies) or the HTTP Basic flag (written 0, then the map's). `proxy`
// receives the address over at most `proxySize` bytes, `userId` the map's user cut to `userIdSize`;
// a null or non-positive buffer is not written, nor is a null `extra` or `family`. Returns 1 when a
// proxy applies, else 0; a declined first-use prompt leaves 1223. What a reader of the settings file
// raises (a number that is none) passes to the caller, the family free again.
int DetermineProxyEx(const DeterminationFamily& family, const char* host, unsigned port, sockaddr_in* proxy,
                     int proxySize, char* userId, int userIdSize, unsigned* extra, int* addressFamily);

// SOCKS_DetermineProxy and HTTP_DetermineProxy: the destination as an address record (may be null:
// an empty host, port 0; shorter than 4 bytes: port 0).
int DetermineProxyByAddress(const DeterminationFamily& family, const sockaddr* destination, int destinationLength,
                            sockaddr_in* proxy, int proxySize, char* userId, int userIdSize, unsigned* extra);

// SOCKS_UseAddressFamily and HTTP_UseAddressFamily: the determination's result, and `*addressFamily`
// as it turns it (2).
int UseAddressFamily(const DeterminationFamily& family, const char* exportName, const char* host, unsigned port,
                     int* addressFamily);
