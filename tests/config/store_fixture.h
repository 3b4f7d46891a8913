// What the proxy-store tests share beside the settings files (settings_files.h): the maps' fields
// compared, and a clean store around each case (the settings_store lock is held by their groups).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http_config.h"
#include "settings_files.h"
#include "socks_config.h"

namespace dxtest {

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
