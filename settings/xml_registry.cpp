#include "xml_registry.h"

#include <cstring>

#include "bounded_text.h"
#include "log.h"
#include "registry_value.h"
#include "suite_library.h"

// Ready before any constructor of the library runs; the compiler refuses a dynamic initialiser here.
__constinit CPXMXMLREG g_xmlRegistry;

namespace {

constexpr char kRootPath[] = "Software\\Verdane\\";
constexpr char kDefaultProfilePath[] = ".Default\\Software\\Verdane\\";
constexpr char kKeyClass[] = "DXS Application Data";
constexpr BYTE kTrueByte = 1;
constexpr DWORD kBlobSize = 16;
// The longest accepted sub-path under the longer prefix, and a terminator.
constexpr size_t kKeyPathSize = sizeof kDefaultProfilePath + kSubPathLimit;
// A key or value name of the registry is at most 255 characters.
constexpr DWORD kNameSize = 256;

int CompareIgnoringCase(const char* left, const char* right) { return lstrcmpiA(left, right); }

// Holds the layer's lock for one operation: shared to use the object, alone to replace it.
template <void(WINAPI* Acquire)(PSRWLOCK), void(WINAPI* Release)(PSRWLOCK)>
class Hold {
public:
    explicit Hold(SRWLOCK& lock) : lock_(lock) { Acquire(&lock_); }
    ~Hold() { Release(&lock_); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    SRWLOCK& lock_;
};
using SharedHold = Hold<AcquireSRWLockShared, ReleaseSRWLockShared>;
using ExclusiveHold = Hold<AcquireSRWLockExclusive, ReleaseSRWLockExclusive>;

// Lists the names that `enumerate(index, name, &length)` gives from index 0 up, as far as they fit;
// the bytes used.
template <typename Enumerate>
DWORD ListNames(char* buffer, DWORD size, Enumerate enumerate) {
    NameListWriter list(buffer, size);
    for (DWORD index = 0;; ++index) {
        char name[kNameSize];
        DWORD length = sizeof name;
        // Decided: a name that won't fit ends the list.
        if (enumerate(index, name, &length) != ERROR_SUCCESS || length >= sizeof name || !list.Add(name, length)) {
            break;
        }
    }
    return static_cast<DWORD>(list.Finish());
}

template <typename Entry>
Entry Resolve(HMODULE library, const char* name) {
    return reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

}  // namespace

CPXMXMLREG::~CPXMXMLREG() {
    if (releaseRegistry != nullptr) releaseRegistry(registry);
    registry = nullptr;
    if (library != nullptr) FreeLibrary(library);
    library = nullptr;
}

// Published face. The object's operations stand in another order for the enumerations: its value
// enumeration comes before the two key enumerations.

LONG CPXMXMLREG::RegOpenKeyEx(HKEY key, const char* subKey, DWORD options, REGSAM access, HKEY* result) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->OpenKey(key, subKey, options, access, result);
    return ::RegOpenKeyExA(key, subKey, options, access, result);
}

LONG CPXMXMLREG::RegCreateKeyEx(HKEY key, const char* subKey, DWORD reserved, char* keyClass, DWORD options,
                                REGSAM access, SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition) {
    SharedHold hold(lock);
    if (registry != nullptr) {
        return registry->CreateKey(key, subKey, reserved, keyClass, options, access, security, result, disposition);
    }
    return ::RegCreateKeyExA(key, subKey, reserved, keyClass, options, access, security, result, disposition);
}

LONG CPXMXMLREG::RegCloseKey(HKEY key) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->CloseKey(key);
    return ::RegCloseKey(key);
}

LONG CPXMXMLREG::RegQueryValueEx(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->QueryValue(key, name, reserved, type, data, size);
    return ::RegQueryValueExA(key, name, reserved, type, data, size);
}

LONG CPXMXMLREG::RegEnumKey(HKEY key, DWORD index, char* name, DWORD nameSize) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->EnumKey(key, index, name, nameSize);
    return ::RegEnumKeyA(key, index, name, nameSize);
}

LONG CPXMXMLREG::RegEnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, char* keyClass,
                              DWORD* classSize, FILETIME* lastWrite) {
    SharedHold hold(lock);
    if (registry != nullptr) {
        return registry->EnumKeyEx(key, index, name, nameSize, reserved, keyClass, classSize, lastWrite);
    }
    return ::RegEnumKeyExA(key, index, name, nameSize, reserved, keyClass, classSize, lastWrite);
}

LONG CPXMXMLREG::RegEnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, DWORD* type,
                              BYTE* data, DWORD* dataSize) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->EnumValue(key, index, name, nameSize, reserved, type, data, dataSize);
    return ::RegEnumValueA(key, index, name, nameSize, reserved, type, data, dataSize);
}

LONG CPXMXMLREG::RegDeleteKey(HKEY key, const char* subKey) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->DeleteKey(key, subKey);
    return ::RegDeleteKeyA(key, subKey);
}

LONG CPXMXMLREG::RegDeleteValue(HKEY key, const char* name) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->DeleteValue(key, name);
    return ::RegDeleteValueA(key, name);
}

LONG CPXMXMLREG::RegSetValueEx(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data,
                               DWORD size) {
    SharedHold hold(lock);
    if (registry != nullptr) return registry->SetValue(key, name, reserved, type, data, size);
    return ::RegSetValueExA(key, name, 0, type, data, size);
}

LONG CPXMXMLREG::RegQueryInfoKey(HKEY key, char* keyClass, DWORD* classSize, DWORD* reserved, DWORD* subKeys,
                                 DWORD* maxSubKeyLength, DWORD* maxClassLength, DWORD* values,
                                 DWORD* maxValueNameLength, DWORD* maxValueLength, DWORD* securityDescriptor,
                                 FILETIME* lastWrite) {
    SharedHold hold(lock);
    if (registry != nullptr) {
        return registry->QueryInfoKey(key, keyClass, classSize, reserved, subKeys, maxSubKeyLength, maxClassLength,
                                      values, maxValueNameLength, maxValueLength, securityDescriptor, lastWrite);
    }
    return ::RegQueryInfoKeyA(key, keyClass, classSize, reserved, subKeys, maxSubKeyLength, maxClassLength, values,
                              maxValueNameLength, maxValueLength, securityDescriptor, lastWrite);
}

const char* CPXMXMLREG::GetXml() {
    SharedHold hold(lock);
    return registry != nullptr ? registry->GetXml() : nullptr;
}

int CPXMXMLREG::CreateXmlRegistry(DWORD family, const char* text) {
    ExclusiveHold hold(lock);
    if (library == nullptr) {
        library = LoadSuiteLibrary(anchor, nullptr);
        if (library == nullptr) return 0;
        createRegistry = Resolve<PFN_XmlCreateReg>(library, "XmlCreateReg");
        releaseRegistry = Resolve<PFN_XmlReleaseReg>(library, "XmlReleaseReg");
    }
    // A library without both entries stays loaded, and every later call ends here.
    if (createRegistry == nullptr || releaseRegistry == nullptr) return 0;
    // Kept: the old object goes before it is known whether a new one can be made.
    releaseRegistry(registry);
    registry = nullptr;
    // A failed factory leaves the pointer as it left it.
    return createRegistry(family, text, &registry) == 0 ? 1 : 0;
}

// The typed operations go straight to the object or the platform, not through the published face.

LONG CPXMXMLREG::Open(HKEY key, const char* subKey, REGSAM access, HKEY* result) {
    if (registry != nullptr) return registry->OpenKey(key, subKey, 0, access, result);
    return ::RegOpenKeyExA(key, subKey, 0, access, result);
}

LONG CPXMXMLREG::Create(HKEY key, const char* subKey, REGSAM access, HKEY* result) {
    char keyClass[sizeof kKeyClass];
    CopyText(keyClass, kKeyClass);
    DWORD disposition = 0;
    if (registry != nullptr) {
        return registry->CreateKey(key, subKey, 0, keyClass, 0, access, nullptr, result, &disposition);
    }
    return ::RegCreateKeyExA(key, subKey, 0, keyClass, 0, access, nullptr, result, &disposition);
}

LONG CPXMXMLREG::Close(HKEY key) {
    if (registry != nullptr) return registry->CloseKey(key);
    return ::RegCloseKey(key);
}

LONG CPXMXMLREG::Query(HKEY key, const char* name, DWORD* type, BYTE* data, DWORD* size) {
    if (registry != nullptr) return registry->QueryValue(key, name, nullptr, type, data, size);
    return ::RegQueryValueExA(key, name, nullptr, type, data, size);
}

LONG CPXMXMLREG::SetValue(HKEY key, const char* name, DWORD type, const BYTE* data, DWORD size) {
    if (registry != nullptr) return registry->SetValue(key, name, 0, type, data, size);
    return ::RegSetValueExA(key, name, 0, type, data, size);
}

int CPXMXMLREG::OpenConfigKey(ConfigKey& key, DWORD scope, const char* subPath, REGSAM access) {
    key = ConfigKey{};
    HKEY hive = scope == kMachineScope ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
    if (subPath == nullptr || std::strlen(subPath) + 1 >= kSubPathLimit) return 0;
    char path[kKeyPathSize];
    BoundedWriter userPath(path, sizeof path);
    userPath.Put(kRootPath);
    userPath.Put(subPath);
    if (Open(hive, path, access, &key.user) != ERROR_SUCCESS) {
        key.user = nullptr;
        if ((access & KEY_SET_VALUE) != 0 && Create(hive, path, access, &key.user) != ERROR_SUCCESS) {
            key.user = nullptr;
        }
    }
    if (scope != kMachineScope && (access & KEY_QUERY_VALUE) != 0) {
        BoundedWriter defaultPath(path, sizeof path);
        defaultPath.Put(kDefaultProfilePath);
        defaultPath.Put(subPath);
        if (Open(HKEY_USERS, path, access, &key.defaultProfile) != ERROR_SUCCESS) key.defaultProfile = nullptr;
    }
    return key.user != nullptr || key.defaultProfile != nullptr ? 1 : 0;
}

void CPXMXMLREG::CloseConfigKey(ConfigKey& key) {
    if (key.user != nullptr) Close(key.user);
    if (key.defaultProfile != nullptr) Close(key.defaultProfile);
    key = ConfigKey{};
}

int CPXMXMLREG::QueryValue(ConfigKey& key, const char* name, DWORD* type, BYTE* data, DWORD size, DWORD* read) {
    if (name == nullptr) {
        DWORD used = EnumValues(key, reinterpret_cast<char*>(data), size);
        if (read != nullptr) *read = used;
        return 1;
    }
    // Any failure in the user's key, a value too long for the buffer among them, falls to the
    // default profile's; the type is not looked at.
    DWORD count = size;
    LONG outcome = key.user != nullptr ? Query(key.user, name, type, data, &count) : ERROR_FILE_NOT_FOUND;
    if (outcome != ERROR_SUCCESS) {
        if (key.defaultProfile == nullptr) return 0;
        count = size;
        if (Query(key.defaultProfile, name, type, data, &count) != ERROR_SUCCESS) return 0;
    }
    if (read != nullptr) *read = count;
    return 1;
}

DWORD CPXMXMLREG::EnumValues(ConfigKey& key, char* buffer, DWORD size) {
    if (!NameListWriter(buffer, size).Usable() || key.user == nullptr) return 0;
    return ListNames(buffer, size, [&](DWORD index, char* name, DWORD* length) {
        return registry != nullptr
                   ? registry->EnumValue(key.user, index, name, length, nullptr, nullptr, nullptr, nullptr)
                   : ::RegEnumValueA(key.user, index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

DWORD CPXMXMLREG::ReadFlag(DWORD scope, const char* subPath, const char* name, DWORD fallback) {
    SharedHold hold(lock);
    ConfigKey key;
    if (!OpenConfigKey(key, scope, subPath, KEY_READ)) return fallback;
    BYTE data[kFlagBufferSize] = {};
    DWORD type = 0;
    DWORD read = 0;
    int found = QueryValue(key, name, &type, data, sizeof data, &read);
    CloseConfigKey(key);
    if (!found) return fallback;
    return FlagFromValue(type, data, read, fallback, CompareIgnoringCase);
}

DWORD CPXMXMLREG::ReadDword(DWORD scope, const char* subPath, const char* name, DWORD fallback) {
    SharedHold hold(lock);
    ConfigKey key;
    if (!OpenConfigKey(key, scope, subPath, KEY_READ)) return fallback;
    BYTE data[sizeof(DWORD)] = {};
    DWORD read = 0;
    int found = QueryValue(key, name, nullptr, data, sizeof data, &read);
    CloseConfigKey(key);
    // Kept: a value of one to four bytes of any type reads as a number.
    return found ? NumberFromValue(data, read) : fallback;
}

void CPXMXMLREG::ReadBlob16(DWORD scope, const char* subPath, const char* name, const BYTE* fallback,
                            BYTE* destination) {
    if (destination == nullptr) return;
    SharedHold hold(lock);
    ConfigKey key;
    int found = 0;
    if (OpenConfigKey(key, scope, subPath, KEY_READ)) {
        BYTE data[kBlobSize] = {};
        DWORD read = 0;
        found = QueryValue(key, name, nullptr, data, sizeof data, &read);
        CloseConfigKey(key);
        if (found) {
            ByteWriter writer(destination, kBlobSize);
            writer.Put(data, read < kBlobSize ? read : kBlobSize);
        }
    }
    if (!found && fallback != nullptr) {
        ByteWriter writer(destination, kBlobSize);
        writer.Put(fallback, kBlobSize);
    }
}

DWORD CPXMXMLREG::ReadString(DWORD scope, const char* subPath, const char* name, const char* fallback, char* buffer,
                             DWORD size) {
    SharedHold hold(lock);
    ConfigKey key;
    int found = 0;
    DWORD read = 0;
    if (buffer != nullptr && size > 0 && OpenConfigKey(key, scope, subPath, KEY_READ)) {
        found = QueryValue(key, name, nullptr, reinterpret_cast<BYTE*>(buffer), size, &read);
        CloseConfigKey(key);
    }
    return FinishStringRead(found != 0, read, fallback, buffer, size);
}

int CPXMXMLREG::WriteValue(DWORD scope, const char* subPath, const char* name, DWORD type, const BYTE* data,
                           DWORD size) {
    SharedHold hold(lock);
    ConfigKey key;
    if (!OpenConfigKey(key, scope, subPath, KEY_WRITE)) return 0;
    int written = key.user != nullptr && SetValue(key.user, name, type, data, size) == ERROR_SUCCESS ? 1 : 0;
    CloseConfigKey(key);
    return written;
}

int CPXMXMLREG::WriteFlag(DWORD scope, const char* subPath, const char* name, DWORD flag) {
    const BYTE data = flag != 0 ? kTrueByte : 0;
    return WriteValue(scope, subPath, name, REG_BINARY, &data, sizeof data);
}

int CPXMXMLREG::WriteDword(DWORD scope, const char* subPath, const char* name, DWORD value) {
    return WriteValue(scope, subPath, name, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

int CPXMXMLREG::WriteBlob16(DWORD scope, const char* subPath, const char* name, const BYTE* data) {
    if (data == nullptr) return 0;
    return WriteValue(scope, subPath, name, REG_BINARY, data, kBlobSize);
}

int CPXMXMLREG::WriteString(DWORD scope, const char* subPath, const char* name, const char* text) {
    if (text == nullptr) return 0;
    size_t length = std::strlen(text);
    if (length >= MAXDWORD) return 0;
    return WriteValue(scope, subPath, name, REG_SZ, reinterpret_cast<const BYTE*>(text),
                      static_cast<DWORD>(length + 1));
}

DWORD CPXMXMLREG::EnumSubkeys(DWORD scope, const char* subPath, char* buffer, DWORD size) {
    if (!NameListWriter(buffer, size).Usable()) return 0;
    SharedHold hold(lock);
    ConfigKey key;
    if (!OpenConfigKey(key, scope, subPath, KEY_READ)) return 0;
    DWORD used = 0;
    if (key.user != nullptr) {
        used = ListNames(buffer, size, [&](DWORD index, char* name, DWORD* length) {
            return registry != nullptr
                       ? registry->EnumKeyEx(key.user, index, name, length, nullptr, nullptr, nullptr, nullptr)
                       : ::RegEnumKeyExA(key.user, index, name, length, nullptr, nullptr, nullptr, nullptr);
        });
    }
    CloseConfigKey(key);
    return used;
}

int CPXMXMLREG::DeleteSubkey(DWORD scope, const char* subPath) {
    if (subPath == nullptr) return 0;
    SharedHold hold(lock);
    ConfigKey key;
    if (!OpenConfigKey(key, scope, "", KEY_WRITE)) return 0;
    LONG outcome = ERROR_FILE_NOT_FOUND;
    if (key.user != nullptr) {
        outcome = registry != nullptr ? registry->DeleteKey(key.user, subPath) : ::RegDeleteKeyA(key.user, subPath);
    }
    CloseConfigKey(key);
    return outcome == ERROR_SUCCESS ? 1 : 0;
}

int CPXMXMLREG::DeleteValue(DWORD scope, const char* subPath, const char* name) {
    SharedHold hold(lock);
    ConfigKey key;
    if (!OpenConfigKey(key, scope, subPath, KEY_WRITE)) return 0;
    LONG outcome = ERROR_FILE_NOT_FOUND;
    if (key.user != nullptr) {
        outcome = registry != nullptr ? registry->DeleteValue(key.user, name) : ::RegDeleteValueA(key.user, name);
    }
    CloseConfigKey(key);
    return outcome == ERROR_SUCCESS ? 1 : 0;
}

int SetXmlConfigExport(const char* exportName, DWORD family, const char* text) {
    ExportLog log(exportName);
    int result = g_xmlRegistry.CreateXmlRegistry(family, text);
    log.End(result);
    return result;
}

const char* GetXmlConfigExport(const char* exportName) {
    ExportLog log(exportName);
    const char* document = g_xmlRegistry.GetXml();
    log.End(document != nullptr ? 1 : 0);
    return document;
}
