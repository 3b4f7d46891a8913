#include "store_fixture.h"

#include <windows.h>

#include <ostream>

#include "settings_file.h"
#include "suite_library.h"
#include "test_helpers.h"

namespace dxtest {

void ResetSettingsDocument() { SettingsDocument = nullptr; }

bool MapFields::operator==(const MapFields& o) const {
    return destination == o.destination && destinationPort == o.destinationPort && proxy == o.proxy &&
           proxyPort == o.proxyPort && user == o.user && useProxy == o.useProxy && isDefault == o.isDefault &&
           version == o.version && basic == o.basic;
}

std::ostream& operator<<(std::ostream& out, const MapFields& f) {
    return out << "{" << f.destination << ":" << f.destinationPort << " via " << f.proxy << ":" << f.proxyPort
               << " user[" << f.user.size() << "]=" << f.user.substr(0, 40) << " use " << f.useProxy << " default "
               << f.isDefault << " version " << f.version << " basic " << f.basic << "}";
}

MapFields FieldsOf(const CProxyMap& map) {
    return MapFields{map.Destination.Host, map.Destination.Port, map.Proxy.Host, map.Proxy.Port, map.ProxyUser,
                     map.UseProxy,         map.IsDefaultMap,     map.ProtocolVersion, map.BasicAuthentication};
}

std::vector<MapFields> FieldsOf(const CLinkedList& set) {
    std::vector<MapFields> fields;
    for (const CListNode* node = set.First(); node != nullptr; node = CLinkedList::Next(node)) {
        fields.push_back(FieldsOf(*static_cast<const CProxyMap*>(node)));
    }
    return fields;
}

namespace {

// The resource library held as the entry routine holds it: once found, for good. Unset, every map's
// host would look for it again, through the suite library, at each write of a host.
class ResourceLibraryAsAtAttach : public ::testing::Environment {
public:
    void SetUp() override { g_resourceLibrary.Initialise(GetModuleHandleA(nullptr), "DXSOCKS.DLL"); }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new ResourceLibraryAsAtAttach);

}  // namespace

void ProxyStoreTest::SetUp() {
    ClearSettingsStore();
    ResetSettingsDocument();
}

void ProxyStoreTest::TearDown() {
    ClearSettingsStore();
    ResetSettingsDocument();
}

}  // namespace dxtest
