#include "http_config.h"

#include "log.h"

namespace {

// The HTTP family's lines go through SOCKS_LogString too, with the SOCKS prefix.
const PickLog kPickLog = {"CHttpConfig::PickProxy - Comparing host name %s vs %s",
                          "CHttpConfig::PickProxy - Comparing ports %04x vs %04x",
                          "CHttpConfig::PickProxy - Ports match use configuration #%d", SOCKS_LogString};

}  // namespace

CHttpConfig::CHttpConfig() = default;

CProxyMap* CHttpConfig::NewMap() { return NewFamilyMap("80", ""); }

CProxyMap* CHttpConfig::PickProxy(const char* host, uint32_t port) const { return PickFirst(host, port, kPickLog); }
