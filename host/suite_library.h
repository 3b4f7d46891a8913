// The suite library (KVTSOCK2.DLL) and its table of services, the holder of the resource library,
// and the binding of the UI library (pxmSetUI.dll). All three files are found at run time; each
// one missing leaves a safe default.
#pragma once

#include <windows.h>

#include <cstdint>

#include "lifecycle.h"
#include "suite_entries.h"
#include "suite_path.h"

// Loads the suite library from the folder of `anchor` (null: the host's executable) or, with a null
// anchor, from `directory` as given; then by its bare name through the system's search order.
// Returns null when neither finds it.
HMODULE LoadSuiteLibrary(HMODULE anchor, const char* directory);

// The suite's entries, one pointer each, in the order of the table.
struct PxmmsiTable {
    PFN_PXMMSIexpandFolder expandFolder;
    PFN_PXMMSIgetInstallDirectory getInstallDirectory;
    PFN_PXMMSIgetLogDirectory getLogDirectory;
    PFN_PXMMSIgetProductName getProductName;
    PFN_PXMMSIgetProductVersionString getProductVersionString;
    PFN_PXMMSIgetPXMFeatureState getPXMFeatureState;
    PFN_PXMMSIgetUserDirectory getUserDirectory;
    PFN_PXMMSIinstallPXMFeature installPXMFeature;
    PFN_PXMMSIloadResourceLibrary loadResourceLibrary;
    PFN_PXMMSIshowAboutBoxViewer showAboutBoxViewer;
    PFN_PXMMSIshowAboutBoxViewerEx showAboutBoxViewerEx;
    PFN_PXMMSIshowAboutBoxViewerW showAboutBoxViewerW;
    PFN_PXMMSIshowAboutBoxViewerExW showAboutBoxViewerExW;
    PFN_PXMMSIshowHelpViewer showHelpViewer;
    PFN_PXMMSIgetProductNameFTP getProductNameFTP;
    PFN_PXMMSIsetLangOverrideRegKey setLangOverrideRegKey;
    PFN_PXMMSIsetUserDirectory setUserDirectory;
    PFN_PXMMSIsetUserDirReg setUserDirReg;
    PFN_PXMMSIsetLogDirectory setLogDirectory;
    PFN_PXMMSIsetLogDirReg setLogDirReg;
    PFN_PXMMSIcenterWindow centerWindow;
    PFN_PXMMSIcascadeWindow cascadeWindow;
    PFN_PXMMSIoffsetRectOnScreen offsetRectOnScreen;
    PFN_PXMMSIcreateDirectory createDirectory;
    PFN_PXMMSIgetLangID getLangID;
    PFN_PXMMSIelevateUAC elevateUAC;
    PFN_PXMMSIisKerberosEnabled isKerberosEnabled;
    PFN_PXMMSIgetGlobalSettingsFile getGlobalSettingsFile;
    PFN_PXMMSIgetAppDataFileFolder getAppDataFileFolder;
    PFN_PXMMSIgetPKIAppDataFileFolder getPKIAppDataFileFolder;
    PFN_PXMMSIisUserAdmin isUserAdmin;
};

// Typed access to the suite's table, built on the stack for one service and destroyed when it has
// answered. Without a table every operation gives its default. With one, an operation calls its
// entry without looking at it: an entry the suite library does not export is bound to one that
// does nothing and returns 0.
class CPXMMSI {
public:
    // Loads the suite library through LoadSuiteLibrary(anchor, directory) and binds its table.
    CPXMMSI(HMODULE anchor, const char* directory);
    virtual ~CPXMMSI();
    CPXMMSI(const CPXMMSI&) = delete;
    CPXMMSI& operator=(const CPXMMSI&) = delete;

    bool HasTable() const { return table != nullptr; }

    virtual DWORD expandFolder(void* a, void* b, DWORD c);
    virtual DWORD getInstallDirectory(char* buffer, DWORD size);
    virtual DWORD getLogDirectory(char* buffer, DWORD size);
    virtual const char* getProductName();
    virtual const char* getProductVersionString();
    virtual int getPXMFeatureState(void* a);
    virtual DWORD getUserDirectory(char* buffer, DWORD size);
    virtual DWORD installPXMFeature(void* a, void* b);
    virtual HMODULE loadResourceLibrary(const char* baseName, DWORD* language);
    virtual DWORD showAboutBoxViewer(void* a, void* b, void* c, void* d, DWORD e);
    virtual DWORD showAboutBoxViewerEx(void* a);
    virtual DWORD showAboutBoxViewerW(void* a, void* b, void* c, void* d, DWORD e);
    virtual DWORD showAboutBoxViewerExW(void* a);
    virtual DWORD showHelpViewer(HWND window, DWORD helpId, DWORD command);
    virtual DWORD getProductNameFTP(void* a, DWORD b);
    virtual DWORD setLangOverrideRegKey(DWORD a);
    virtual DWORD setUserDirectory(void* a);
    virtual DWORD setUserDirReg(void* a);
    virtual DWORD setLogDirectory(void* a);
    virtual DWORD setLogDirReg(void* a);
    virtual void centerWindow(HWND window, HWND parent);
    virtual void cascadeWindow(void* a, void* b);
    virtual DWORD offsetRectOnScreen(void* a);
    virtual DWORD createDirectory(void* a, void* b);
    virtual DWORD getLangID();
    virtual DWORD elevateUAC(void* a);
    virtual DWORD isKerberosEnabled();
    virtual DWORD getGlobalSettingsFile(char* buffer, DWORD size);
    virtual DWORD getAppDataFileFolder(void* a, void* b, DWORD c);
    virtual DWORD getPKIAppDataFileFolder(void* a, DWORD b, void* c, void* d, DWORD e);
    virtual DWORD isUserAdmin(void* a);

private:
    void BindTable();

    HMODULE library;
    PxmmsiTable* table;
};

// The module that holds the strings and dialog templates. One global instance, g_resourceLibrary.
class CResourceLibrary {
public:
    CResourceLibrary() = default;
    ~CResourceLibrary();
    CResourceLibrary(const CResourceLibrary&) = delete;
    CResourceLibrary& operator=(const CResourceLibrary&) = delete;

    // Keeps `module` as the fall-back and `baseName` (cut to 259 characters) for the suite's lookup.
    // Returns 0, or 87 for a null or empty name, which changes nothing.
    DWORD Initialise(HMODULE module, const char* baseName);
    // The resource library that the suite names. When the suite names none, the default module,
    // for good: the suite is not asked again.
    HMODULE GetHandle();
    int LoadResourceString(UINT id, char* buffer, int size);
    // Both store `language`, forget the cached module and return the former word; the first also
    // releases a loaded resource library.
    DWORD SetLanguage(DWORD language);
    DWORD SetLanguageKeepingModule(DWORD language);

private:
    void ReleaseLoadedModule();

    HMODULE defaultModule = nullptr;
    HMODULE loadedModule = nullptr;
    char baseName[kSuitePathSize] = {};
    DWORD language = 0;
};

extern CResourceLibrary g_resourceLibrary;

// The log's report formats, read from g_resourceLibrary (SetReportFormatSource).
int LoadReportFormat(unsigned id, char* buffer, int size);

// The UI library, loaded on first use from this library's folder only; null until a load succeeded.
extern HMODULE g_hSetUILibrary;

// Address of an export of pxmSetUI.dll beside this library, or null. A failed load is tried again
// at the next call.
FARPROC GetSetUIProc(const char* name);

// GetSetUIProc as the entry's own type.
template <typename Entry>
Entry GetSetUIEntry(const char* name) {
    return reinterpret_cast<Entry>(reinterpret_cast<void*>(GetSetUIProc(name)));
}

// Tells an open prompt of the UI library to close (its OnTimeout); nothing without that entry.
void CloseUIPrompt();

// The window at the top of the parent chain above `window`; null stays null.
HWND TopLevelParent(HWND window);

// The UI library's password prompt for `family` (0 SOCKS, 1 HTTP), in the user's language, owned by
// the top-level window above `parent`. A missing prompt answers 2 with no text. A text that comes
// back goes to `take`, then back to the UI library. Returns the prompt's result.
template <typename Take>
DWORD AskPasswordPrompt(DWORD family, HWND parent, const char* user, const char* address, DWORD maxLength,
                        Take take) {
    CPXMMSI suite(g_hModule, nullptr);
    DWORD language = suite.getLangID();
    HWND owner = TopLevelParent(parent);
    auto prompt = GetSetUIEntry<PFN_PXMSETUIDLL_DxsocksPwd>("PXMSETUIDLL_DxsocksPwd");
    char* text = nullptr;
    DWORD result = prompt != nullptr ? prompt(language, owner, 1, 0, family, user, address, maxLength, &text) : 2;
    if (text != nullptr) {
        take(static_cast<const char*>(text));
        auto freeString = GetSetUIEntry<PFN_PXMSETUIDLL_FreeString>("PXMSETUIDLL_FreeString");
        if (freeString != nullptr) freeString(text);
    }
    return result;
}
