// Values placed in the Wine registry under Software\Verdane of the user's hive or of
// HKEY_USERS\.Default, and read back with the platform's own calls, for the layer's tests.
#pragma once

#include <windows.h>

#include <string>

namespace dxtest {

enum class Hive { kUser, kDefaultProfile };

// Sets `name` under Software\Verdane\<subPath> of `hive`, making the key; false on failure.
bool PutValue(Hive hive, const std::string& subPath, const char* name, DWORD type, const std::string& bytes);
bool PutNumber(Hive hive, const std::string& subPath, const char* name, DWORD value);
bool PutText(Hive hive, const std::string& subPath, const char* name, const std::string& text);
bool MakeKey(Hive hive, const std::string& subPath);

struct StoredValue {
    bool found = false;
    DWORD type = 0;
    std::string bytes;
};
StoredValue GetValue(Hive hive, const std::string& subPath, const char* name);
bool KeyExists(Hive hive, const std::string& subPath);
// The class a key was made with, empty when it has none or is missing.
std::string KeyClass(Hive hive, const std::string& subPath);

}  // namespace dxtest
