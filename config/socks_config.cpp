#include "socks_config.h"

#include "log.h"

namespace {

const PickLog kPickLog = {"CSocksConfig::PickProxy - Comparing host name %s vs %s",
                          "CSocksConfig::PickProxy - Comparing ports %04x vs %04x",
                          "CSocksConfig::PickProxy - Ports match use configuration #%d", SOCKS_LogString};

}  // namespace

CSocksConfig::CSocksConfig() {
    // The settings file, whatever it holds, else the registry, whose maps are then to move into the file.
    // What a reader raises leaves here, and the list goes with the object.
    if (ReadSettingsFile() != 0) {
        MigrationState = 0;
        return;
    }
    MigrationState = -1;
    if (ReadFromRegistry() != 0) MigrationState = 1;
}

CProxyMap* CSocksConfig::NewMap() { return NewFamilyMap("1080", "Guest"); }

CProxyMap* CSocksConfig::PickProxy(const char* host, uint32_t port) const { return PickFirst(host, port, kPickLog); }
