// KVTSOCK2.DLL: the suite's table of PXMMSI services, in the order of the suite function table.
// DXSOCKS.DLL calls PXMMSIgetGlobalSettingsFile, PXMMSIloadResourceLibrary, PXMMSIcenterWindow,
// PXMMSIshowHelpViewer and PXMMSIgetLangID; the others serve the suite's other members and answer
// plainly where this suite has nothing behind them (no features, no about box, no elevation, no PKI).
// Text is narrow, in the ANSI code page. Getters of text return its length, or 0 with an empty buffer
// if it does not fit; setters return 1 on success, 0 on failure.
#include <windows.h>

#include <atomic>
#include <string>
#include <type_traits>

#include "help_viewer.h"
#include "module_path.h"
#include "resource_lookup.h"
#include "suite_entries.h"
#include "suite_folders.h"
#include "window_placement.h"

namespace {

constexpr char kProductName[] = "DXSOCKS";
constexpr char kProductVersion[] = DX_VERSION_TEXT;

// Set by PXMMSIsetLangOverrideRegKey for this process; 0 means the user's UI language.
std::atomic<LANGID> g_languageOverride{0};

DWORD PutFolder(const std::wstring& folder, char* buffer, DWORD size) {
    std::string narrow;
    if (folder.empty() || !suite::PathToAnsi(folder, &narrow)) {
        if (buffer != nullptr && size > 0) buffer[0] = '\0';
        return 0;
    }
    return suite::PutText(narrow, buffer, size);
}

bool IsAdministrator() {
    SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
    PSID administrators = nullptr;
    if (!AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0,
                                  &administrators)) {
        return false;
    }
    BOOL member = FALSE;
    if (!CheckTokenMembership(nullptr, administrators, &member)) member = FALSE;
    FreeSid(administrators);
    return member != FALSE;
}

}  // namespace

extern "C" {

// Replaces %appdatafolder% and %commonappdatafolder% in `text` and puts the result into `buffer`.
DWORD WINAPI PXMMSIexpandFolder(void* text, void* buffer, DWORD size) {
    auto* out = static_cast<char*>(buffer);
    if (text == nullptr) return suite::PutText("", out, size);
    std::wstring expanded;
    std::string narrow;
    if (!suite::ExpandFolderVocabulary(companion::FromAnsi(static_cast<const char*>(text)), &expanded) ||
        !suite::PathToAnsi(expanded, &narrow)) {
        return suite::PutText("", out, size);
    }
    return suite::PutText(narrow, out, size);
}

// The folder in which the suite's libraries are installed.
DWORD WINAPI PXMMSIgetInstallDirectory(char* buffer, DWORD size) {
    return PutFolder(companion::ModuleFolder(companion::ThisModule()), buffer, size);
}

DWORD WINAPI PXMMSIgetLogDirectory(char* buffer, DWORD size) { return PutFolder(suite::LogFolder(), buffer, size); }

const char* WINAPI PXMMSIgetProductName() { return kProductName; }

const char* WINAPI PXMMSIgetProductVersionString() { return kProductVersion; }

// INSTALLSTATE_UNKNOWN: the suite installs no optional features.
int WINAPI PXMMSIgetPXMFeatureState(void*) { return -1; }

DWORD WINAPI PXMMSIgetUserDirectory(char* buffer, DWORD size) { return PutFolder(suite::UserFolder(), buffer, size); }

// ERROR_UNKNOWN_FEATURE, for the same reason.
DWORD WINAPI PXMMSIinstallPXMFeature(void*, void*) { return ERROR_UNKNOWN_FEATURE; }

HMODULE WINAPI PXMMSIloadResourceLibrary(const char* baseName, DWORD* language) {
    LANGID override = g_languageOverride.load();
    return suite::LoadResourceLibrary(baseName, language, override != 0 ? override : GetUserDefaultUILanguage());
}

// The suite shows no about box; 0 says that none was shown.
DWORD WINAPI PXMMSIshowAboutBoxViewer(void*, void*, void*, void*, DWORD) { return 0; }
DWORD WINAPI PXMMSIshowAboutBoxViewerEx(void*) { return 0; }
DWORD WINAPI PXMMSIshowAboutBoxViewerW(void*, void*, void*, void*, DWORD) { return 0; }
DWORD WINAPI PXMMSIshowAboutBoxViewerExW(void*) { return 0; }

// Any command opens the page of the help id; 1 if the page was found and handed on.
DWORD WINAPI PXMMSIshowHelpViewer(HWND window, DWORD helpId, DWORD command) {
    return suite::ShowHelpPage(window, helpId) ? 1 : 0;
}

// The product name into a buffer.
DWORD WINAPI PXMMSIgetProductNameFTP(void* buffer, DWORD size) {
    return suite::PutText(kProductName, static_cast<char*>(buffer), size);
}

// The language that PXMMSIgetLangID reports from now on in this process; 0 returns to the user's.
DWORD WINAPI PXMMSIsetLangOverrideRegKey(DWORD language) {
    g_languageOverride.store(LANGIDFROMLCID(language));
    return 1;
}

// The folder for this process only; an empty text returns to the data folder.
DWORD WINAPI PXMMSIsetUserDirectory(void* folder) {
    return suite::SetUserFolder(static_cast<const char*>(folder)) ? 1 : 0;
}
DWORD WINAPI PXMMSIsetUserDirReg(void* folder) { return PXMMSIsetUserDirectory(folder); }
DWORD WINAPI PXMMSIsetLogDirectory(void* folder) {
    return suite::SetLogFolder(static_cast<const char*>(folder)) ? 1 : 0;
}
DWORD WINAPI PXMMSIsetLogDirReg(void* folder) { return PXMMSIsetLogDirectory(folder); }

void WINAPI PXMMSIcenterWindow(HWND window, HWND parent) { companion::CenterWindowOn(window, parent); }

// `window` one caption lower and right of `reference`.
void WINAPI PXMMSIcascadeWindow(void* window, void* reference) {
    companion::CascadeWindowFrom(static_cast<HWND>(window), static_cast<HWND>(reference));
}

// Moves a screen rectangle (RECT*) onto the work area of its monitor; 1 if one was given.
DWORD WINAPI PXMMSIoffsetRectOnScreen(void* rect) {
    if (rect == nullptr) return 0;
    auto* r = static_cast<RECT*>(rect);
    *r = companion::KeepOn(*r, companion::WorkAreaFor(*r));
    return 1;
}

// Makes the folder `path` and every missing folder above it, with optional SECURITY_ATTRIBUTES for
// the new ones. 1 if it is a folder afterwards, else 0 with the Windows error set.
DWORD WINAPI PXMMSIcreateDirectory(void* path, void* security) {
    if (path == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::wstring folder = companion::FromAnsi(static_cast<const char*>(path));
    return suite::CreateFolderTree(folder, static_cast<SECURITY_ATTRIBUTES*>(security)) ? 1 : 0;
}

DWORD WINAPI PXMMSIgetLangID() {
    LANGID override = g_languageOverride.load();
    return override != 0 ? override : GetUserDefaultUILanguage();
}

// Nothing of the suite needs administrator rights: no elevation is ever asked for.
DWORD WINAPI PXMMSIelevateUAC(void*) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return 0;
}

DWORD WINAPI PXMMSIisKerberosEnabled() { return 0; }

// <per-user application data>\Zelmont\Verdane\Settings.xml; the folder is made if missing.
DWORD WINAPI PXMMSIgetGlobalSettingsFile(char* buffer, DWORD size) {
    return PutFolder(suite::SettingsFilePath(), buffer, size);
}

// The path of file `name` (may be null: the folder itself) in the data folder, which is made if missing.
DWORD WINAPI PXMMSIgetAppDataFileFolder(void* name, void* buffer, DWORD size) {
    std::wstring folder = suite::DataFolder();
    const char* file = static_cast<const char*>(name);
    if (!folder.empty() && file != nullptr && *file != '\0') {
        folder = companion::JoinPath(folder, companion::FromAnsi(file));
    }
    return PutFolder(folder, static_cast<char*>(buffer), size);
}

// The suite keeps no certificates.
DWORD WINAPI PXMMSIgetPKIAppDataFileFolder(void*, DWORD, void*, void*, DWORD) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return 0;
}

DWORD WINAPI PXMMSIisUserAdmin(void*) { return IsAdministrator() ? 1 : 0; }

}  // extern "C"

// Each entry has exactly the type through which DXSOCKS.DLL calls it.
#define DX_SAME_TYPE(name) static_assert(std::is_same_v<decltype(&name), PFN_##name>, #name)
DX_SAME_TYPE(PXMMSIexpandFolder);
DX_SAME_TYPE(PXMMSIgetInstallDirectory);
DX_SAME_TYPE(PXMMSIgetLogDirectory);
DX_SAME_TYPE(PXMMSIgetProductName);
DX_SAME_TYPE(PXMMSIgetProductVersionString);
DX_SAME_TYPE(PXMMSIgetPXMFeatureState);
DX_SAME_TYPE(PXMMSIgetUserDirectory);
DX_SAME_TYPE(PXMMSIinstallPXMFeature);
DX_SAME_TYPE(PXMMSIloadResourceLibrary);
DX_SAME_TYPE(PXMMSIshowAboutBoxViewer);
DX_SAME_TYPE(PXMMSIshowAboutBoxViewerEx);
DX_SAME_TYPE(PXMMSIshowAboutBoxViewerW);
DX_SAME_TYPE(PXMMSIshowAboutBoxViewerExW);
DX_SAME_TYPE(PXMMSIshowHelpViewer);
DX_SAME_TYPE(PXMMSIgetProductNameFTP);
DX_SAME_TYPE(PXMMSIsetLangOverrideRegKey);
DX_SAME_TYPE(PXMMSIsetUserDirectory);
DX_SAME_TYPE(PXMMSIsetUserDirReg);
DX_SAME_TYPE(PXMMSIsetLogDirectory);
DX_SAME_TYPE(PXMMSIsetLogDirReg);
DX_SAME_TYPE(PXMMSIcenterWindow);
DX_SAME_TYPE(PXMMSIcascadeWindow);
DX_SAME_TYPE(PXMMSIoffsetRectOnScreen);
DX_SAME_TYPE(PXMMSIcreateDirectory);
DX_SAME_TYPE(PXMMSIgetLangID);
DX_SAME_TYPE(PXMMSIelevateUAC);
DX_SAME_TYPE(PXMMSIisKerberosEnabled);
DX_SAME_TYPE(PXMMSIgetGlobalSettingsFile);
DX_SAME_TYPE(PXMMSIgetAppDataFileFolder);
DX_SAME_TYPE(PXMMSIgetPKIAppDataFileFolder);
DX_SAME_TYPE(PXMMSIisUserAdmin);
