// CSocksConfig: the SOCKS family's set of proxy maps.
#pragma once

#include <cstdint>

#include "proxy_map_set.h"

class CSocksConfig : public CProxyMapSet {
public:
    // An empty set, MigrationState -1.
    CSocksConfig();

    // A record of this family: proxy port and DefaultPort "1080", user "Guest", version 4.
    static CProxyMap* NewMap();

    // The first map whose host is `host` without regard to case, or "*", and whose port is `port` (host
    // order), or 0 or "*"; null when none is. Logs each comparison. The map stays the set's.
    CProxyMap* PickProxy(const char* host, uint32_t port) const;
};
