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
};
