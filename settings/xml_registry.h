// CPXMXMLREG: the layer every configuration read goes through. While no in-memory registry is set,
// each operation is the platform's registry call; once a host has handed an XML registry text to
// SOCKS_SetXMLConfig or HTTP_SetXMLConfig, the same operation goes to the object the suite library
// made of it. It also holds the suite's key conventions: every key lies under Software\Verdane\,
// and reads fall back from the user's key to HKEY_USERS\.Default's.
#pragma once

#include <windows.h>

#include "suite_entries.h"

// Families as the suite library's factory numbers them.
constexpr DWORD kXmlRegistrySocks = 1;
constexpr DWORD kXmlRegistryHttp = 2;

// The scope that means HKEY_LOCAL_MACHINE; any other means HKEY_CURRENT_USER.
constexpr DWORD kMachineScope = 4;
// The scope every caller passes.
constexpr DWORD kUserScope = 1;

// A sub-path whose length + 1 reaches this is refused.
constexpr size_t kSubPathLimit = 1024;

// The user's key and the default profile's, of one operation.
struct ConfigKey {
    HKEY user = nullptr;
    HKEY defaultProfile = nullptr;
};

class CPXMXMLREG {
public:
    // Constant-initialised: usable before any constructor of the library has run.
    constexpr CPXMXMLREG() {}
    // Releases the object through XmlReleaseReg when that was bound, then the suite library.
    ~CPXMXMLREG();
    CPXMXMLREG(const CPXMXMLREG&) = delete;
    CPXMXMLREG& operator=(const CPXMXMLREG&) = delete;

    // The published face: each goes to the object when one is set, else to the platform.
    virtual LONG RegOpenKeyEx(HKEY key, const char* subKey, DWORD options, REGSAM access, HKEY* result);
    virtual LONG RegCreateKeyEx(HKEY key, const char* subKey, DWORD reserved, char* keyClass, DWORD options,
                                REGSAM access, SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition);
    virtual LONG RegCloseKey(HKEY key);
    virtual LONG RegQueryValueEx(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                                 DWORD* size);
    virtual LONG RegEnumKey(HKEY key, DWORD index, char* name, DWORD nameSize);
    virtual LONG RegEnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, char* keyClass,
                              DWORD* classSize, FILETIME* lastWrite);
    virtual LONG RegEnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, DWORD* type,
                              BYTE* data, DWORD* dataSize);
    virtual LONG RegDeleteKey(HKEY key, const char* subKey);
    virtual LONG RegDeleteValue(HKEY key, const char* name);
    virtual LONG RegSetValueEx(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data, DWORD size);
    virtual LONG RegQueryInfoKey(HKEY key, char* keyClass, DWORD* classSize, DWORD* reserved, DWORD* subKeys,
                                 DWORD* maxSubKeyLength, DWORD* maxClassLength, DWORD* values,
                                 DWORD* maxValueNameLength, DWORD* maxValueLength, DWORD* securityDescriptor,
                                 FILETIME* lastWrite);
    // The object's registry as text, owned by it until the next call or its release; null without one.
    virtual const char* GetXml();

    // Releases the object (set or not), then has the suite library make one of `text` for `family`.
    // 1 when it did. A suite library that cannot be found is sought again at the next call; one that
    // lacks a factory entry fails every call from then on.
    int CreateXmlRegistry(DWORD family, const char* text);

    // Typed reads under Software\Verdane\<subPath>, falling back to the default profile.
    DWORD ReadFlag(DWORD scope, const char* subPath, const char* name, DWORD fallback);
    DWORD ReadDword(DWORD scope, const char* subPath, const char* name, DWORD fallback);
    void ReadBlob16(DWORD scope, const char* subPath, const char* name, const BYTE* fallback, BYTE* destination);
    // Bytes read with the terminator, or the fallback's length; the buffer is always terminated.
    DWORD ReadString(DWORD scope, const char* subPath, const char* name, const char* fallback, char* buffer,
                     DWORD size);
    // Typed writes into the user's key, made when missing: 1 or 0.
    int WriteFlag(DWORD scope, const char* subPath, const char* name, DWORD flag);
    int WriteDword(DWORD scope, const char* subPath, const char* name, DWORD value);
    int WriteBlob16(DWORD scope, const char* subPath, const char* name, const BYTE* data);
    int WriteString(DWORD scope, const char* subPath, const char* name, const char* text);
    // The names of the user key's subkeys, each terminated, and a final terminator: the bytes used.
    DWORD EnumSubkeys(DWORD scope, const char* subPath, char* buffer, DWORD size);
    // Deletes the key `subPath` below Software\Verdane of the user's hive: 1 or 0.
    int DeleteSubkey(DWORD scope, const char* subPath);
    int DeleteValue(DWORD scope, const char* subPath, const char* name);

private:
    LONG Open(HKEY key, const char* subKey, REGSAM access, HKEY* result);
    LONG Create(HKEY key, const char* subKey, REGSAM access, HKEY* result);
    LONG Close(HKEY key);
    LONG Query(HKEY key, const char* name, DWORD* type, BYTE* data, DWORD* size);
    LONG SetValue(HKEY key, const char* name, DWORD type, const BYTE* data, DWORD size);

    int OpenConfigKey(ConfigKey& key, DWORD scope, const char* subPath, REGSAM access);
    void CloseConfigKey(ConfigKey& key);
    int QueryValue(ConfigKey& key, const char* name, DWORD* type, BYTE* data, DWORD size, DWORD* read);
    DWORD EnumValues(ConfigKey& key, char* buffer, DWORD size);
    int WriteValue(DWORD scope, const char* subPath, const char* name, DWORD type, const BYTE* data, DWORD size);

    HMODULE library = nullptr;
    // Nothing sets it: the suite library is sought beside the host's executable first.
    HMODULE anchor = nullptr;
    PFN_XmlCreateReg createRegistry = nullptr;
    PFN_XmlReleaseReg releaseRegistry = nullptr;
    IXmlRegistry* registry = nullptr;
    // Shared by every operation while it uses the object, taken alone to replace it.
    SRWLOCK lock = SRWLOCK_INIT;
};

// The one layer of the process, for both families.
extern CPXMXMLREG g_xmlRegistry;

// The SetXMLConfig and GetXMLConfig exports of both families, in their log frame under `exportName`.
int SetXmlConfigExport(const char* exportName, DWORD family, const char* text);
const char* GetXmlConfigExport(const char* exportName);
