#include "proxy_map_set.h"

namespace {

void ReleaseMap(CListNode* node) { delete static_cast<CProxyMap*>(node); }

MapDestination StoredDestination(const CListNode* node) {
    const auto* map = static_cast<const CProxyMap*>(node);
    return {map->GetDestinationAddress(), map->GetDestinationPort()};
}

}  // namespace

CProxyMapSet::~CProxyMapSet() { Clear(); }

void CProxyMapSet::Clear() { CLinkedList::Clear(ReleaseMap); }

CProxyMap* CProxyMapSet::NewFamilyMap(const char* defaultPort, const char* user) {
    auto* map = new CProxyMap();
    // The constructor has run it already; a second run changes nothing.
    map->ResetToDefaults();
    map->SetDefaultPort(defaultPort);
    map->SetProxyUser(user);
    return map;
}

CProxyMap* CProxyMapSet::PickFirst(const char* host, uint32_t port, const PickLog& log) const {
    const CListNode* picked = PickFirstMap(head, host, port, StoredDestination, CompareByUserLocale, log);
    return static_cast<CProxyMap*>(const_cast<CListNode*>(picked));
}
