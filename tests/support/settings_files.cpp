#include "settings_files.h"

#include <windows.h>

#include <fstream>
#include <iterator>

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

bool WriteDirectSettings() {
    const std::string direct = FullMap("Default", "", "", "", "", "", "4", "0", "0");
    return WriteSettingsBytes(kSettingsHead + SettingsElement(ProxyElement("SOCKS", "0", direct) +
                                                              ProxyElement("HTTP", "0", direct)));
}

}  // namespace dxtest
