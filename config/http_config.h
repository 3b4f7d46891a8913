// CHttpConfig: the HTTP family's set of proxy maps.
#pragma once

#include <cstdint>

#include "proxy_map_set.h"

class CHttpConfig : public CProxyMapSet {
public:
    // An empty set, MigrationState -1.
    CHttpConfig();

    // A record of this family: proxy port and DefaultPort "80", no user, version 4.
    static CProxyMap* NewMap();

    // As CSocksConfig::PickProxy, logged with this class's name.
    CProxyMap* PickProxy(const char* host, uint32_t port) const;

    // Reads the family's maps from the older registry store (registry_store.h). 0, with the list as it was,
    // when the user's family key cannot be opened for writing; else the numbered maps and the default
    // map, and 1.
    int ReadFromRegistry();
    // One map: `index` -1 is the default map, else its number from 1. Returns 1.
    int ReadMapFromRegistry(CProxyMap* map, int index);
    // The writing twin: the default map when the record is one or `index` is -1. Returns 1.
    int WriteMapToRegistry(CProxyMap* map, int index);
};
