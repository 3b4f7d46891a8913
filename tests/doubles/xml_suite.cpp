// See xml_suite.h. Until a test names a path, the settings file entry answers 0. The recording
// registry opens every key, names one value ("Recorded") and two subkeys ("First", "Second"), and
// answers every query with the scripted value.
#include "xml_suite.h"

#include <cstring>

#include "suite_entries.h"

namespace {

XmlSuiteRecord g_record = {};
LONG g_createResult = 0;
bool g_handOut = true;
bool g_hasPath = false;
char g_path[MAX_PATH] = {};
DWORD g_pathAnswer = 0;
LONG g_valueResult = 0;
DWORD g_valueType = REG_DWORD;
BYTE g_value[64] = {7, 0, 0, 0};
DWORD g_valueSize = 4;

void Keep(char* out, size_t size, const char* text) {
    if (text == nullptr) text = "(null)";
    std::strncpy(out, text, size - 1);
    out[size - 1] = '\0';
}

HKEY FakeKey() { return reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x5000)); }

LONG CopyName(const char* name, DWORD index, DWORD count, char* out, DWORD* size) {
    if (index >= count) return ERROR_NO_MORE_ITEMS;
    DWORD length = static_cast<DWORD>(std::strlen(name));
    if (out == nullptr || size == nullptr || *size <= length) return ERROR_MORE_DATA;
    std::memcpy(out, name, length + 1);
    *size = length;
    return ERROR_SUCCESS;
}

class RecordingRegistry : public IXmlRegistry {
public:
    LONG OpenKey(HKEY key, const char* subKey, DWORD options, REGSAM access, HKEY* result) override {
        Note(1, key, subKey);
        g_record.options = options;
        g_record.access = access;
        if (result != nullptr) *result = FakeKey();
        return ERROR_SUCCESS;
    }
    LONG CreateKey(HKEY key, const char* subKey, DWORD reserved, char* keyClass, DWORD options, REGSAM access,
                   SECURITY_ATTRIBUTES*, HKEY* result, DWORD* disposition) override {
        Note(2, key, subKey);
        g_record.reserved = reserved;
        g_record.options = options;
        g_record.access = access;
        Keep(g_record.keyClass, sizeof g_record.keyClass, keyClass);
        if (result != nullptr) *result = FakeKey();
        if (disposition != nullptr) *disposition = REG_CREATED_NEW_KEY;
        return ERROR_SUCCESS;
    }
    LONG CloseKey(HKEY key) override {
        Note(3, key, nullptr);
        return ERROR_SUCCESS;
    }
    LONG QueryValue(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size) override {
        Note(4, key, name);
        g_record.reserved = reserved != nullptr ? *reserved : 0xFFFFFFFF;
        if (g_valueResult != ERROR_SUCCESS) return g_valueResult;
        if (type != nullptr) *type = g_valueType;
        if (size == nullptr) return ERROR_SUCCESS;
        g_record.size = *size;
        if (data != nullptr && *size < g_valueSize) {
            *size = g_valueSize;
            return ERROR_MORE_DATA;
        }
        if (data != nullptr) std::memcpy(data, g_value, g_valueSize);
        *size = g_valueSize;
        return ERROR_SUCCESS;
    }
    LONG EnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, DWORD* type, BYTE* data,
                   DWORD* dataSize) override {
        Note(5, key, nullptr);
        g_record.index = index;
        return CopyName("Recorded", index, 1, name, nameSize);
    }
    LONG EnumKey(HKEY key, DWORD index, char* name, DWORD nameSize) override {
        Note(6, key, nullptr);
        g_record.index = index;
        g_record.size = nameSize;
        return CopyName(index == 0 ? "First" : "Second", index, 2, name, &nameSize);
    }
    LONG EnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD*, char*, DWORD*, FILETIME*) override {
        Note(7, key, nullptr);
        g_record.index = index;
        return CopyName(index == 0 ? "First" : "Second", index, 2, name, nameSize);
    }
    LONG DeleteKey(HKEY key, const char* subKey) override {
        Note(8, key, subKey);
        return ERROR_SUCCESS;
    }
    LONG DeleteValue(HKEY key, const char* name) override {
        Note(9, key, name);
        return ERROR_SUCCESS;
    }
    LONG SetValue(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE*, DWORD size) override {
        Note(10, key, name);
        g_record.reserved = reserved;
        g_record.type = type;
        g_record.size = size;
        return ERROR_SUCCESS;
    }
    LONG QueryInfoKey(HKEY key, char*, DWORD*, DWORD*, DWORD* subKeys, DWORD*, DWORD*, DWORD* values, DWORD*, DWORD*,
                      DWORD*, FILETIME*) override {
        Note(11, key, nullptr);
        if (subKeys != nullptr) *subKeys = 2;
        if (values != nullptr) *values = 1;
        return ERROR_SUCCESS;
    }
    const char* GetXml() override {
        Note(12, nullptr, nullptr);
        return "<Registry/>";
    }

private:
    static void Note(int operation, HKEY key, const char* name) {
        g_record.operation = operation;
        ++g_record.operationCalls;
        g_record.key = key;
        Keep(g_record.name, sizeof g_record.name, name);
    }
};

RecordingRegistry g_registry;

}  // namespace

extern "C" {

LONG WINAPI XmlCreateReg(DWORD family, const char* text, IXmlRegistry** registry) {
    ++g_record.createCalls;
    g_record.family = family;
    g_record.textWasNull = text == nullptr;
    Keep(g_record.text, sizeof g_record.text, text);
    g_record.pointerAtCreate = registry != nullptr ? *registry : nullptr;
    if (g_handOut && registry != nullptr) *registry = &g_registry;
    return g_createResult;
}

LONG WINAPI XmlReleaseReg(IXmlRegistry* registry) {
    ++g_record.releaseCalls;
    g_record.released = registry;
    return 0;
}

DWORD WINAPI PXMMSIgetGlobalSettingsFile(char* buffer, DWORD size) {
    if (!g_hasPath || buffer == nullptr || size <= std::strlen(g_path)) return 0;
    std::strcpy(buffer, g_path);
    return g_pathAnswer;
}

void WINAPI XmlSuiteScript(LONG createResult, BOOL handOut) {
    g_createResult = createResult;
    g_handOut = handOut != FALSE;
}

void WINAPI XmlSuiteSettingsPath(const char* path, DWORD answer) {
    g_hasPath = path != nullptr;
    g_pathAnswer = answer;
    Keep(g_path, sizeof g_path, path);
}

void WINAPI XmlSuiteValue(LONG result, DWORD type, const BYTE* data, DWORD size) {
    g_valueResult = result;
    g_valueType = type;
    g_valueSize = size < sizeof g_value ? size : sizeof g_value;
    if (data != nullptr) std::memcpy(g_value, data, g_valueSize);
}

void WINAPI XmlSuiteRecording(XmlSuiteRecord* out) { *out = g_record; }

IXmlRegistry* WINAPI XmlSuiteObject() { return &g_registry; }

}  // extern "C"

// The factory's signatures are the ones the library expects.
[[maybe_unused]] static const PFN_XmlCreateReg kCreateSignature = &XmlCreateReg;
[[maybe_unused]] static const PFN_XmlReleaseReg kReleaseSignature = &XmlReleaseReg;
[[maybe_unused]] static const PFN_PXMMSIgetGlobalSettingsFile kPathSignature = &PXMMSIgetGlobalSettingsFile;
