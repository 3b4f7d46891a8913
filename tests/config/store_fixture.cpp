#include "store_fixture.h"

#include <windows.h>

#include <fstream>
#include <iterator>
#include <ostream>

#include "settings_file.h"
#include "suite_library.h"
#include "test_helpers.h"

namespace dxtest {

const char kSettingsHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE Settings>\r\n";

bool WriteSettingsBytes(const std::string& bytes) {
    const std::string path = SettingsFilePath();
    if (path.empty()) return false;
    // Each folder of the path, from the top.
    for (size_t slash = path.find('\\', 3); slash != std::string::npos; slash = path.find('\\', slash + 1)) {
        CreateDirectoryA(path.substr(0, slash).c_str(), nullptr);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(file);
}

std::string ReadSettingsBytes() {
    std::ifstream file(SettingsFilePath(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool SettingsFileExists() { return GetFileAttributesA(SettingsFilePath().c_str()) != INVALID_FILE_ATTRIBUTES; }

std::string Value(const std::string& name, const std::string& value) {
    return "<" + name + " value=\"" + value + "\"/>";
}

std::string MapElement(const std::string& id, const std::string& elements) {
    return "<Map id=\"" + id + "\">" + elements + "</Map>";
}

std::string FullMap(const std::string& id, const std::string& destination, const std::string& destinationPort,
                    const std::string& proxy, const std::string& proxyPort, const std::string& user,
                    const std::string& version, const std::string& basic, const std::string& use) {
    std::string elements;
    if (id != "Default") elements = Value("DestinationAddress", destination) + Value("DestinationPort", destinationPort);
    elements += Value("BasicAuthentication", basic) + Value("ProtocolVersion", version) + Value("ProxyAddress", proxy) +
                Value("ProxyPort", proxyPort) + Value("ProxyUser", user) + Value("UseProxy", use);
    return MapElement(id, elements);
}

std::string ProxyElement(const std::string& type, const std::string& count, const std::string& maps) {
    return "<Proxy type=\"" + type + "\"><Maps count=\"" + count + "\">" + maps + "</Maps></Proxy>";
}

std::string SettingsElement(const std::string& proxies) {
    return "<Settings version=\"25..2..0\"><Proxies>" + proxies + "</Proxies></Settings>";
}

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
