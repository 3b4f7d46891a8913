#include "registry_fixture.h"

#include <vector>

namespace dxtest {

namespace {

HKEY Root(Hive hive) { return hive == Hive::kUser ? HKEY_CURRENT_USER : HKEY_USERS; }

std::string Path(Hive hive, const std::string& subPath) {
    return std::string(hive == Hive::kUser ? "" : ".Default\\") + "Software\\Verdane\\" + subPath;
}

}  // namespace

bool PutValue(Hive hive, const std::string& subPath, const char* name, DWORD type, const std::string& bytes) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(Root(hive), Path(hive, subPath).c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
        return false;
    }
    LONG result = RegSetValueExA(key, name, 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                                 static_cast<DWORD>(bytes.size()));
    RegCloseKey(key);
    return result == ERROR_SUCCESS;
}

bool PutNumber(Hive hive, const std::string& subPath, const char* name, DWORD value) {
    return PutValue(hive, subPath, name, REG_DWORD, std::string(reinterpret_cast<const char*>(&value), sizeof value));
}

bool PutText(Hive hive, const std::string& subPath, const char* name, const std::string& text) {
    return PutValue(hive, subPath, name, REG_SZ, std::string(text.c_str(), text.size() + 1));
}

bool MakeKey(Hive hive, const std::string& subPath) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(Root(hive), Path(hive, subPath).c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
        return false;
    }
    RegCloseKey(key);
    return true;
}

StoredValue GetValue(Hive hive, const std::string& subPath, const char* name) {
    StoredValue value;
    HKEY key = nullptr;
    if (RegOpenKeyExA(Root(hive), Path(hive, subPath).c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return value;
    std::vector<char> data(65536);
    DWORD size = static_cast<DWORD>(data.size());
    if (RegQueryValueExA(key, name, nullptr, &value.type, reinterpret_cast<BYTE*>(data.data()), &size) ==
        ERROR_SUCCESS) {
        value.found = true;
        value.bytes.assign(data.data(), size);
    }
    RegCloseKey(key);
    return value;
}

bool KeyExists(Hive hive, const std::string& subPath) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(Root(hive), Path(hive, subPath).c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

std::string KeyClass(Hive hive, const std::string& subPath) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(Root(hive), Path(hive, subPath).c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return "";
    char keyClass[256] = {};
    DWORD size = sizeof keyClass;
    LONG result = RegQueryInfoKeyA(key, keyClass, &size, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr);
    RegCloseKey(key);
    return result == ERROR_SUCCESS ? std::string(keyClass, size) : "";
}

}  // namespace dxtest
