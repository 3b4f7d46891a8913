#include "registry_store.h"

#include <windows.h>

#include <cstring>

#include "bounded_text.h"
#include "http_config.h"
#include "log.h"
#include "registry_names.h"
#include "socks_config.h"
#include "xml_registry.h"

namespace {

constexpr REGSAM kWriteAccess = 0x20006;  // KEY_WRITE
constexpr char kRootPath[] = "Software\\Verdane\\";
constexpr char kProtocolsPath[] = "Software\\Verdane\\Network Protocols";
constexpr char kVerdanePath[] = "Software\\Verdane";
constexpr char kIniFile[] = "dxapps.ini";
constexpr char kIniSection[] = "DXSOX16";
constexpr size_t kValueBufferSize = 1025;
constexpr size_t kKeyNameBufferSize = 255;

// What the two families' registry readers differ in besides their record's defaults.
struct RegistryFamily {
    const char* name;
    const char* readingLine;
    // SOCKS empties its list before it looks for the key, HTTP only once the key opened.
    bool clearsBeforeOpen;
    // HTTP's default map sets its flag to 0 before the values are read.
    bool defaultMapClearsFlag;
    CProxyMap* (*newMap)();
};

const RegistryFamily kSocksFamily = {kSocksFamilyName, "Reading SOCKS proxy configuration from registry.", true,
                                     false, CSocksConfig::NewMap};
const RegistryFamily kHttpFamily = {kHttpFamilyName, "Reading HTTP proxy configuration from registry.", false,
                                    true, CHttpConfig::NewMap};

DWORD ReadDwordValue(const char* path, const char* name, DWORD fallback) {
    return g_xmlRegistry.ReadDword(kUserScope, path, name, fallback);
}

int ReadMap(const RegistryFamily& family, CProxyMap* map, int index) {
    char path[kRegistryPathSize];
    map->IsDefaultMap = index == -1 ? 1 : 0;
    if (index == -1) {
        map->SetDestinationAddress("*");
        map->SetDestinationPort("*");
        if (family.defaultMapClearsFlag) map->SetUseProxy(0);
        FormatDefaultMapPath(path, family.name);
    } else {
        FormatMapPath(path, family.name, index);
        char buffer[kValueBufferSize] = {};
        // Kept: a destination too long for the buffer reads empty, which stores as any host.
        g_xmlRegistry.ReadString(kUserScope, path, "Destination Address", "", buffer, sizeof buffer);
        map->SetDestinationAddress(buffer);
        g_xmlRegistry.ReadString(kUserScope, path, "Destination Port", "", buffer, sizeof buffer);
        map->SetDestinationPort(buffer);
    }
    return ReadMapValues(map, path);
}

int WriteMap(const RegistryFamily& family, CProxyMap* map, int index) {
    char path[kRegistryPathSize];
    if (map->IsDefaultMap != 0 || index == -1) {
        map->IsDefaultMap = 1;
        map->SetDestinationAddress("*");
        map->SetDestinationPort("*");
        FormatDefaultMapPath(path, family.name);
    } else {
        map->IsDefaultMap = 0;
        FormatMapPath(path, family.name, index);
        g_xmlRegistry.WriteString(kUserScope, path, "Destination Address", map->Destination.Host);
        g_xmlRegistry.WriteString(kUserScope, path, "Destination Port", map->Destination.Port);
    }
    return WriteMapValues(map, path);
}

int ReadFamily(const RegistryFamily& family, CProxyMapSet& set) {
    SOCKS_LogString(family.readingLine);
    if (family.clearsBeforeOpen) set.Clear();
    char path[kRegistryPathSize];
    FormatFamilyPath(path, family.name);
    char keyPath[sizeof kRootPath + kRegistryPathSize];
    BoundedWriter writer(keyPath, sizeof keyPath);
    writer.Put(kRootPath);
    writer.Put(path);
    // The platform's own call, never the layer's: only a key the user may write counts as a
    // configuration, not one under .Default alone nor one of an in-memory registry.
    HKEY key = nullptr;
    if (::RegOpenKeyExA(HKEY_CURRENT_USER, keyPath, 0, kWriteAccess, &key) != ERROR_SUCCESS) return 0;
    // Kept: the family key stays open.
    if (!family.clearsBeforeOpen) set.Clear();
    const int32_t count = NumberedMapCount(ReadDwordValue(path, "Count", 0));
    for (int64_t index = 1; index <= count; ++index) {
        CProxyMap* map = family.newMap();
        ReadMap(family, map, static_cast<int>(index));
        set.Append(map);
    }
    CProxyMap* defaultMap = family.newMap();
    ReadMap(family, defaultMap, -1);
    set.Append(defaultMap);
    return 1;
}

}  // namespace

int ReadMapValues(CProxyMap* map, const char* path) {
    map->UseProxy = g_xmlRegistry.ReadFlag(kUserScope, path, "Use Proxy", 0);
    char buffer[kValueBufferSize] = {};
    g_xmlRegistry.ReadString(kUserScope, path, "Proxy Address", "", buffer, sizeof buffer);
    if (buffer[0] != '\0') {
        map->SetProxyAddress(buffer);
        char fallback[kMapPortSize];
        CopyText(fallback, map->DefaultPort);
        g_xmlRegistry.ReadString(kUserScope, path, "Proxy Port", fallback, buffer, sizeof buffer);
        map->SetProxyPort(buffer);
        // Straight into the field: a 511-character user fits whole, a longer one fails the read.
        g_xmlRegistry.ReadString(kUserScope, path, "Proxy User", "", map->ProxyUser, sizeof map->ProxyUser);
        map->ProtocolVersion = ReadDwordValue(path, "Protocol Version", 4);
        map->BasicAuthentication = g_xmlRegistry.ReadFlag(kUserScope, path, "Basic Authentication", 0);
        return 1;
    }
    // Kept: each map without an address in the registry takes the ini file's proxy, and the length of
    // its address becomes the flag read above.
    GetPrivateProfileStringA(kIniSection, "Proxy Address", "", buffer, sizeof buffer, kIniFile);
    map->SetProxyAddress(buffer);
    map->SetUseProxy(static_cast<uint32_t>(std::strlen(buffer)));
    GetPrivateProfileStringA(kIniSection, "Proxy Port", map->DefaultPort, buffer, sizeof buffer, kIniFile);
    map->SetProxyPort(buffer);
    // Kept: "Guest" for both families, also for HTTP, whose own default user is empty.
    GetPrivateProfileStringA(kIniSection, "Proxy User", "Guest", buffer, sizeof buffer, kIniFile);
    map->SetProxyUser(buffer);
    return 1;
}

int WriteMapValues(CProxyMap* map, const char* path) {
    g_xmlRegistry.WriteFlag(kUserScope, path, "Use Proxy", map->UseProxy);
    g_xmlRegistry.WriteString(kUserScope, path, "Proxy Address", map->Proxy.Host);
    g_xmlRegistry.WriteString(kUserScope, path, "Proxy Port", map->Proxy.Port);
    g_xmlRegistry.WriteString(kUserScope, path, "Proxy User", map->ProxyUser);
    g_xmlRegistry.WriteDword(kUserScope, path, "Protocol Version", map->ProtocolVersion);
    g_xmlRegistry.WriteFlag(kUserScope, path, "Basic Authentication", map->BasicAuthentication);
    return 1;
}

int DeleteFamilyTree(const char* family) {
    char path[kRegistryPathSize];
    FormatFamilyPath(path, family);
    char keyPath[sizeof kRootPath + kRegistryPathSize];
    BoundedWriter writer(keyPath, sizeof keyPath);
    writer.Put(kRootPath);
    writer.Put(path);
    HKEY key = nullptr;
    if (::RegOpenKeyExA(HKEY_CURRENT_USER, keyPath, 0, kWriteAccess, &key) != ERROR_SUCCESS) key = nullptr;
    const int32_t count = NumberedMapCount(ReadDwordValue(path, "Count", 0));
    if (key != nullptr) {
        ::RegDeleteKeyA(key, "Default Map");
        for (int64_t index = 1; index <= count; ++index) {
            char name[kRegistryPathSize];
            FormatMapKeyName(name, static_cast<int32_t>(index));
            ::RegDeleteKeyA(key, name);
        }
        ::RegCloseKey(key);
    }
    // Enumerating needs more than write access.
    HKEY protocols = nullptr;
    if (::RegOpenKeyExA(HKEY_CURRENT_USER, kProtocolsPath, 0, kWriteAccess | KEY_ENUMERATE_SUB_KEYS, &protocols) !=
        ERROR_SUCCESS) {
        protocols = nullptr;
    }
    char first[kKeyNameBufferSize] = {};
    if (protocols != nullptr) {
        if (family != nullptr) ::RegDeleteKeyA(protocols, family);
        ::RegEnumKeyA(protocols, 0, first, sizeof first);
        ::RegCloseKey(protocols);
    }
    if (first[0] == '\0') {
        // A key that still holds subkeys is not deleted: other products' keys stay.
        HKEY verdane = nullptr;
        if (::RegOpenKeyExA(HKEY_CURRENT_USER, kVerdanePath, 0, kWriteAccess, &verdane) == ERROR_SUCCESS) {
            ::RegDeleteKeyA(verdane, "Network Protocols");
            ::RegCloseKey(verdane);
        }
        HKEY software = nullptr;
        if (::RegOpenKeyExA(HKEY_CURRENT_USER, "Software", 0, kWriteAccess, &software) == ERROR_SUCCESS) {
            ::RegDeleteKeyA(software, "Verdane");
            ::RegCloseKey(software);
        }
    }
    return 1;
}

int CleanupRegistry() {
    ExportLog log("CleanupRegistry");
    DeleteFamilyTree(kHttpFamilyName);
    DeleteFamilyTree(kSocksFamilyName);
    log.End(0);
    return 0;
}

int CSocksConfig::ReadFromRegistry() { return ReadFamily(kSocksFamily, *this); }
int CSocksConfig::ReadMapFromRegistry(CProxyMap* map, int index) { return ReadMap(kSocksFamily, map, index); }
int CSocksConfig::WriteMapToRegistry(CProxyMap* map, int index) { return WriteMap(kSocksFamily, map, index); }

int CHttpConfig::ReadFromRegistry() { return ReadFamily(kHttpFamily, *this); }
int CHttpConfig::ReadMapFromRegistry(CProxyMap* map, int index) { return ReadMap(kHttpFamily, map, index); }
int CHttpConfig::WriteMapToRegistry(CProxyMap* map, int index) { return WriteMap(kHttpFamily, map, index); }
