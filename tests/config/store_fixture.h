// What the proxy-store tests share: the settings file written and read as bytes, settings texts built
// from maps, and a clean store around each case (the settings_store lock is held by their groups).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http_config.h"
#include "socks_config.h"

namespace dxtest {

// The file's frame ahead of the root element.
extern const char kSettingsHead[];

// Writes `bytes` as the whole settings file, making its folder; false on failure.
bool WriteSettingsBytes(const std::string& bytes);
// The settings file's bytes; empty when there is none.
std::string ReadSettingsBytes();
bool SettingsFileExists();

// One value element: <name value="..."/>, the value set down as it stands.
std::string Value(const std::string& name, const std::string& value);
// <Map id="...">elements</Map>.
std::string MapElement(const std::string& id, const std::string& elements);
// The eight value elements of a numbered map, or the six of the default one, in the writer's order.
std::string FullMap(const std::string& id, const std::string& destination, const std::string& destinationPort,
                    const std::string& proxy, const std::string& proxyPort, const std::string& user,
                    const std::string& version, const std::string& basic, const std::string& use);
// <Proxy type="..."><Maps count="...">maps</Maps></Proxy>.
std::string ProxyElement(const std::string& type, const std::string& count, const std::string& maps);
// <Settings version="25..2..0"><Proxies>proxies</Proxies></Settings>.
std::string SettingsElement(const std::string& proxies);

// The process's document dropped (not released, as the library does) and the store emptied.
void ResetSettingsDocument();

// The fields of a map as the file keeps them, for comparing sets record by record.
struct MapFields {
    std::string destination, destinationPort, proxy, proxyPort, user;
    unsigned useProxy, isDefault, version, basic;
    bool operator==(const MapFields& other) const;
};
std::ostream& operator<<(std::ostream& out, const MapFields& fields);
MapFields FieldsOf(const CProxyMap& map);
std::vector<MapFields> FieldsOf(const CLinkedList& set);

class ProxyStoreTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace dxtest
