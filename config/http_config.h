// CHttpConfig: the HTTP family's set of proxy maps.
#pragma once

#include <cstdint>

#include "proxy_map_set.h"

class CHttpConfig : public CProxyMapSet {
public:
    // Reads the settings file (MigrationState 0), else the registry (1), else stays empty (-1).
    CHttpConfig();

    // A record of this family: proxy port and DefaultPort "80", no user, version 4.
    static CProxyMap* NewMap();

    // The settings file into SettingsDocument, then ReadFromXml: 1, or 0 when there is no file to read
    // or it does not parse. A number that is none raises (config_number.h).
    int ReadSettingsFile();
    // The family's maps from SettingsDocument, in one walk of it (CMapIndex): 0 without a document, else
    // 1, also when the family has no maps there. `store` reads through another store of the document.
    int ReadFromXml();
    int ReadFromXml(CMapStore& store);
    // The maps into SettingsDocument (made when missing), renumbered from 1, and the count. 1 for an
    // empty set, which leaves the document alone.
    int WriteToXml();
    int WriteToXml(CMapStore& store);
    // WriteToXml, with the other family's registry maps when this set came from the registry, and the
    // document into the settings file; after a written file both registry trees go.
    int WriteConfiguration();

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
