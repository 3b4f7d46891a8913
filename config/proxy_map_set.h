// What the two families' sets of proxy maps share: the list of maps in order, which owns them, and
// the walk that picks a map for a destination. CSocksConfig and CHttpConfig add their family's
// defaults and log texts.
#pragma once

#include <cstdint>

#include "linked_list.h"
#include "map_rules.h"
#include "proxy_map.h"

class CProxyMapSet : public CLinkedList {
public:
    // The maps go with the set, also when a derived constructor raises.
    ~CProxyMapSet();

    // Frees every map and empties the list.
    void Clear();

    // 0: read from the settings file; 1: read from the registry, a move to the settings file due;
    // -1: neither store gave anything.
    int32_t MigrationState = -1;

protected:
    CProxyMapSet() = default;

    // A record with the family's defaults: `ResetToDefaults` once more, then the family's port and user.
    static CProxyMap* NewFamilyMap(const char* defaultPort, const char* user);
    // The first map that takes the destination (map_rules.h: PickFirstMap), or null; `log` names the
    // family.
    CProxyMap* PickFirst(const char* host, uint32_t port, const PickLog& log) const;
};
