// The older registry store of the proxy maps: Software\Verdane\Network Protocols\<family> of the
// current user, each map a subkey, and dxapps.ini behind a map without a proxy address. The sets'
// ReadFromRegistry, ReadMapFromRegistry and WriteMapToRegistry stand in socks_config.h and
// http_config.h; what both families share stands here.
#pragma once

#include "proxy_map.h"
#include "registry_api.h"

// The values of one map under Software\Verdane\<path>, through the registry layer: the flag, then
// either the registry's proxy, user, version and authentication, or, without a proxy address there,
// section DXSOX16 of dxapps.ini, whose address length becomes UseProxy. Returns 1.
int ReadMapValues(CProxyMap* map, const char* path);
// The writing twin: the flag, proxy address ("*" too), port, user, version and authentication. 1.
int WriteMapValues(CProxyMap* map, const char* path);

// Deletes a family's tree ("SOCKS" or "HTTP") from the user's hive: the default map, the maps 1 to
// Count, then each key up to Software\Verdane that is left without subkeys. Results are ignored;
// HKEY_USERS\.Default is never touched. Returns 1.
int DeleteFamilyTree(const char* family);
