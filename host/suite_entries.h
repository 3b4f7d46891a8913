// Signatures of the entries that the suite library (KVTSOCK2.DLL) and the UI library (pxmSetUI.dll)
// export. Both files are found at run time, never linked; this header is all they share with
// DXSOCKS.DLL.
#pragma once

#include <windows.h>

extern "C" {

// Suite library, in the order of the suite function table.
typedef DWORD(WINAPI* PFN_PXMMSIexpandFolder)(void*, void*, DWORD);
typedef DWORD(WINAPI* PFN_PXMMSIgetInstallDirectory)(char* buffer, DWORD size);
typedef DWORD(WINAPI* PFN_PXMMSIgetLogDirectory)(char* buffer, DWORD size);
typedef const char*(WINAPI* PFN_PXMMSIgetProductName)();
typedef const char*(WINAPI* PFN_PXMMSIgetProductVersionString)();
typedef int(WINAPI* PFN_PXMMSIgetPXMFeatureState)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIgetUserDirectory)(char* buffer, DWORD size);
typedef DWORD(WINAPI* PFN_PXMMSIinstallPXMFeature)(void*, void*);
typedef HMODULE(WINAPI* PFN_PXMMSIloadResourceLibrary)(const char* baseName, DWORD* language);
typedef DWORD(WINAPI* PFN_PXMMSIshowAboutBoxViewer)(void*, void*, void*, void*, DWORD);
typedef DWORD(WINAPI* PFN_PXMMSIshowAboutBoxViewerEx)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIshowAboutBoxViewerW)(void*, void*, void*, void*, DWORD);
typedef DWORD(WINAPI* PFN_PXMMSIshowAboutBoxViewerExW)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIshowHelpViewer)(HWND window, DWORD helpId, DWORD command);
typedef DWORD(WINAPI* PFN_PXMMSIgetProductNameFTP)(void*, DWORD);
typedef DWORD(WINAPI* PFN_PXMMSIsetLangOverrideRegKey)(DWORD);
typedef DWORD(WINAPI* PFN_PXMMSIsetUserDirectory)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIsetUserDirReg)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIsetLogDirectory)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIsetLogDirReg)(void*);
typedef void(WINAPI* PFN_PXMMSIcenterWindow)(HWND window, HWND parent);
typedef void(WINAPI* PFN_PXMMSIcascadeWindow)(void*, void*);
typedef DWORD(WINAPI* PFN_PXMMSIoffsetRectOnScreen)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIcreateDirectory)(void*, void*);
typedef DWORD(WINAPI* PFN_PXMMSIgetLangID)();
typedef DWORD(WINAPI* PFN_PXMMSIelevateUAC)(void*);
typedef DWORD(WINAPI* PFN_PXMMSIisKerberosEnabled)();
typedef DWORD(WINAPI* PFN_PXMMSIgetGlobalSettingsFile)(char* buffer, DWORD size);
typedef DWORD(WINAPI* PFN_PXMMSIgetAppDataFileFolder)(void*, void*, DWORD);
typedef DWORD(WINAPI* PFN_PXMMSIgetPKIAppDataFileFolder)(void*, DWORD, void*, void*, DWORD);
typedef DWORD(WINAPI* PFN_PXMMSIisUserAdmin)(void*);

}  // extern "C"

// The in-memory registry that the suite library's XmlCreateReg makes from an XML text. A plain abstract
// class without IUnknown, virtual destructor or overloads, so that every compiler lays out its table
// alike: each operation takes the arguments of the registry call it stands for and answers as that
// call does. The hive handles HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE and HKEY_USERS are roots.
class IXmlRegistry {
public:
    virtual LONG OpenKey(HKEY key, const char* subKey, DWORD options, REGSAM access, HKEY* result) = 0;
    virtual LONG CreateKey(HKEY key, const char* subKey, DWORD reserved, char* keyClass, DWORD options,
                           REGSAM access, SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition) = 0;
    virtual LONG CloseKey(HKEY key) = 0;
    virtual LONG QueryValue(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                            DWORD* size) = 0;
    virtual LONG EnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, DWORD* type,
                           BYTE* data, DWORD* dataSize) = 0;
    virtual LONG EnumKey(HKEY key, DWORD index, char* name, DWORD nameSize) = 0;
    virtual LONG EnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, char* keyClass,
                           DWORD* classSize, FILETIME* lastWrite) = 0;
    virtual LONG DeleteKey(HKEY key, const char* subKey) = 0;
    virtual LONG DeleteValue(HKEY key, const char* name) = 0;
    virtual LONG SetValue(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data,
                          DWORD size) = 0;
    virtual LONG QueryInfoKey(HKEY key, char* keyClass, DWORD* classSize, DWORD* reserved, DWORD* subKeys,
                              DWORD* maxSubKeyLength, DWORD* maxClassLength, DWORD* values,
                              DWORD* maxValueNameLength, DWORD* maxValueLength, DWORD* securityDescriptor,
                              FILETIME* lastWrite) = 0;
    // The registry in the grammar XmlCreateReg reads, owned by the object, valid until the next GetXml
    // or the release.
    virtual const char* GetXml() = 0;
};

extern "C" {

// Suite library's factory: family 1 SOCKS, 2 HTTP; text may be null (an empty registry). 0 and
// *registry set on success; a registry code otherwise.
typedef LONG(WINAPI* PFN_XmlCreateReg)(DWORD family, const char* text, IXmlRegistry** registry);
typedef LONG(WINAPI* PFN_XmlReleaseReg)(IXmlRegistry* registry);

// UI library. `family` is 0 for SOCKS and 1 for HTTP; `one` and `zero` are passed as they stand.
// Both prompts return 1 when the user went through with them.
typedef DWORD(WINAPI* PFN_PXMSETUIDLL_DxsocksConfig)(DWORD language, HWND owner, DWORD one, DWORD zero,
                                                     DWORD family);
typedef DWORD(WINAPI* PFN_PXMSETUIDLL_DxsocksPwd)(DWORD language, HWND owner, DWORD one, DWORD zero, DWORD family,
                                                  const char* user, const char* proxyAddress, DWORD maxLength,
                                                  char** password);
typedef void(WINAPI* PFN_PXMSETUIDLL_OnTimeout)();
typedef void(WINAPI* PFN_PXMSETUIDLL_FreeString)(char* text);

}  // extern "C"
