/*
 * The older registry configuration of DXSOCKS.DLL, under Software\Verdane\Network Protocols of the
 * current user. Compiles as C and as C++.
 */
#ifndef DXSOCKS_REGISTRY_API_H
#define DXSOCKS_REGISTRY_API_H

#include "dxsocks_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Deletes the HTTP, then the SOCKS proxy maps' keys of the current user: the default map and the maps
 * numbered 1 to Count, then the family's key if nothing else is left in it, then Network Protocols and
 * Software\Verdane if they are left empty of keys. A map beyond Count keeps its family's key, other
 * keys keep theirs; HKEY_USERS\.Default is never touched. Returns 0.
 */
DXSOCKS_API int CleanupRegistry(void);

#ifdef __cplusplus
}
#endif

#endif
