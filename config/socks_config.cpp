#include "socks_config.h"

#include "log.h"

namespace {

const PickLog kPickLog = {"CSocksConfig::PickProxy - Comparing host name %s vs %s",
                          "CSocksConfig::PickProxy - Comparing ports %04x vs %04x",
                          "CSocksConfig::PickProxy - Ports match use configuration #%d", SOCKS_LogString};

}  // namespace

CSocksConfig::CSocksConfig() = default;

CProxyMap* CSocksConfig::NewMap() { return NewFamilyMap("1080", "Guest"); }

CProxyMap* CSocksConfig::PickProxy(const char* host, uint32_t port) const { return PickFirst(host, port, kPickLog); }
