#include "suite_library.h"

#include <cstring>
#include <cwchar>
#include <new>
#include <type_traits>

#include "bounded_text.h"
#include "lifecycle.h"

CResourceLibrary g_resourceLibrary;
HMODULE g_hSetUILibrary = nullptr;

namespace {

bool IsLeadByteOfProcessCodePage(unsigned char byte) { return IsDBCSLeadByte(byte) != FALSE; }

// The folder of `module` (null: the host's executable) with its trailing backslash, or false.
bool ModuleDirectory(HMODULE module, char (&directory)[kSuitePathSize]) {
    char path[kSuitePathSize];
    DWORD length = GetModuleFileNameA(module, path, kSuitePathSize);
    if (length == 0 || length >= kSuitePathSize) return false;
    char* filePart = nullptr;
    DWORD full = GetFullPathNameA(path, kSuitePathSize, directory, &filePart);
    if (full == 0 || full >= kSuitePathSize) return false;
    if (filePart != nullptr) *filePart = '\0';
    return true;
}

// What an entry that the suite library lacks does instead: nothing, and 0.
template <typename Entry>
struct MissingEntry;

template <typename Result, typename... Arguments>
struct MissingEntry<Result(WINAPI*)(Arguments...)> {
    static Result WINAPI Call(Arguments...) {
        if constexpr (!std::is_void_v<Result>) return Result();
    }
};

template <typename Entry>
void Bind(HMODULE library, const char* name, Entry& entry) {
    entry = reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(library, name)));
    if (entry == nullptr) entry = &MissingEntry<Entry>::Call;
}

}  // namespace

HMODULE LoadSuiteLibrary(HMODULE anchor, const char* directory) {
    char moduleDirectory[kSuitePathSize];
    const char* chosen = directory;
    if (anchor != nullptr || directory == nullptr) {
        if (ModuleDirectory(anchor, moduleDirectory)) chosen = moduleDirectory;
    }
    char path[kSuiteJoinedSize];
    JoinSuitePath(chosen, IsLeadByteOfProcessCodePage, path);

    UINT oldMode = SetErrorMode(SEM_NOOPENFILEERRORBOX);
    HMODULE library = LoadLibraryA(path);
    if (library == nullptr) library = LoadLibraryA(kSuiteLibraryName);
    SetErrorMode(oldMode);
    return library;
}

CPXMMSI::CPXMMSI(HMODULE anchor, const char* directory) : library(nullptr), table(nullptr) {
    library = LoadSuiteLibrary(anchor, directory);
    BindTable();
}

CPXMMSI::~CPXMMSI() {
    delete table;
    if (library != nullptr) FreeLibrary(library);
}

void CPXMMSI::BindTable() {
    if (library == nullptr) return;
    table = new (std::nothrow) PxmmsiTable();
    if (table == nullptr) return;
    Bind(library, "PXMMSIexpandFolder", table->expandFolder);
    Bind(library, "PXMMSIgetInstallDirectory", table->getInstallDirectory);
    Bind(library, "PXMMSIgetLogDirectory", table->getLogDirectory);
    Bind(library, "PXMMSIgetProductName", table->getProductName);
    Bind(library, "PXMMSIgetProductVersionString", table->getProductVersionString);
    Bind(library, "PXMMSIgetPXMFeatureState", table->getPXMFeatureState);
    Bind(library, "PXMMSIgetUserDirectory", table->getUserDirectory);
    Bind(library, "PXMMSIinstallPXMFeature", table->installPXMFeature);
    Bind(library, "PXMMSIloadResourceLibrary", table->loadResourceLibrary);
    Bind(library, "PXMMSIshowAboutBoxViewer", table->showAboutBoxViewer);
    Bind(library, "PXMMSIshowAboutBoxViewerEx", table->showAboutBoxViewerEx);
    Bind(library, "PXMMSIshowAboutBoxViewerW", table->showAboutBoxViewerW);
    Bind(library, "PXMMSIshowAboutBoxViewerExW", table->showAboutBoxViewerExW);
    Bind(library, "PXMMSIshowHelpViewer", table->showHelpViewer);
    Bind(library, "PXMMSIgetProductNameFTP", table->getProductNameFTP);
    Bind(library, "PXMMSIsetLangOverrideRegKey", table->setLangOverrideRegKey);
    Bind(library, "PXMMSIsetUserDirectory", table->setUserDirectory);
    Bind(library, "PXMMSIsetUserDirReg", table->setUserDirReg);
    Bind(library, "PXMMSIsetLogDirectory", table->setLogDirectory);
    Bind(library, "PXMMSIsetLogDirReg", table->setLogDirReg);
    Bind(library, "PXMMSIcenterWindow", table->centerWindow);
    Bind(library, "PXMMSIcascadeWindow", table->cascadeWindow);
    Bind(library, "PXMMSIoffsetRectOnScreen", table->offsetRectOnScreen);
    Bind(library, "PXMMSIcreateDirectory", table->createDirectory);
    Bind(library, "PXMMSIgetLangID", table->getLangID);
    Bind(library, "PXMMSIelevateUAC", table->elevateUAC);
    Bind(library, "PXMMSIisKerberosEnabled", table->isKerberosEnabled);
    Bind(library, "PXMMSIgetGlobalSettingsFile", table->getGlobalSettingsFile);
    Bind(library, "PXMMSIgetAppDataFileFolder", table->getAppDataFileFolder);
    Bind(library, "PXMMSIgetPKIAppDataFileFolder", table->getPKIAppDataFileFolder);
    Bind(library, "PXMMSIisUserAdmin", table->isUserAdmin);
}

DWORD CPXMMSI::expandFolder(void* a, void* b, DWORD c) { return table ? table->expandFolder(a, b, c) : 0; }
DWORD CPXMMSI::getInstallDirectory(char* buffer, DWORD size) {
    return table ? table->getInstallDirectory(buffer, size) : 0;
}
DWORD CPXMMSI::getLogDirectory(char* buffer, DWORD size) { return table ? table->getLogDirectory(buffer, size) : 0; }
const char* CPXMMSI::getProductName() { return table ? table->getProductName() : nullptr; }
const char* CPXMMSI::getProductVersionString() { return table ? table->getProductVersionString() : nullptr; }
int CPXMMSI::getPXMFeatureState(void* a) { return table ? table->getPXMFeatureState(a) : -1; }
DWORD CPXMMSI::getUserDirectory(char* buffer, DWORD size) { return table ? table->getUserDirectory(buffer, size) : 0; }
DWORD CPXMMSI::installPXMFeature(void* a, void* b) { return table ? table->installPXMFeature(a, b) : 0; }
HMODULE CPXMMSI::loadResourceLibrary(const char* baseName, DWORD* language) {
    return table ? table->loadResourceLibrary(baseName, language) : nullptr;
}
DWORD CPXMMSI::showAboutBoxViewer(void* a, void* b, void* c, void* d, DWORD e) {
    return table ? table->showAboutBoxViewer(a, b, c, d, e) : 0;
}
DWORD CPXMMSI::showAboutBoxViewerEx(void* a) { return table ? table->showAboutBoxViewerEx(a) : 0; }
DWORD CPXMMSI::showAboutBoxViewerW(void* a, void* b, void* c, void* d, DWORD e) {
    return table ? table->showAboutBoxViewerW(a, b, c, d, e) : 0;
}
DWORD CPXMMSI::showAboutBoxViewerExW(void* a) { return table ? table->showAboutBoxViewerExW(a) : 0; }
DWORD CPXMMSI::showHelpViewer(HWND window, DWORD helpId, DWORD command) {
    return table ? table->showHelpViewer(window, helpId, command) : 0;
}
DWORD CPXMMSI::getProductNameFTP(void* a, DWORD b) { return table ? table->getProductNameFTP(a, b) : 0; }
DWORD CPXMMSI::setLangOverrideRegKey(DWORD a) { return table ? table->setLangOverrideRegKey(a) : 1; }
DWORD CPXMMSI::setUserDirectory(void* a) { return table ? table->setUserDirectory(a) : 1; }
DWORD CPXMMSI::setUserDirReg(void* a) { return table ? table->setUserDirReg(a) : 1; }
DWORD CPXMMSI::setLogDirectory(void* a) { return table ? table->setLogDirectory(a) : 1; }
DWORD CPXMMSI::setLogDirReg(void* a) { return table ? table->setLogDirReg(a) : 1; }
void CPXMMSI::centerWindow(HWND window, HWND parent) {
    if (table) table->centerWindow(window, parent);
}
void CPXMMSI::cascadeWindow(void* a, void* b) {
    if (table) table->cascadeWindow(a, b);
}
DWORD CPXMMSI::offsetRectOnScreen(void* a) { return table ? table->offsetRectOnScreen(a) : 0; }
DWORD CPXMMSI::createDirectory(void* a, void* b) {
    if (table) return table->createDirectory(a, b);
    SetLastError(ERROR_INVALID_FUNCTION);
    return 0;
}
DWORD CPXMMSI::getLangID() { return table ? table->getLangID() : 0; }
DWORD CPXMMSI::elevateUAC(void* a) { return table ? table->elevateUAC(a) : 1; }
DWORD CPXMMSI::isKerberosEnabled() { return table ? table->isKerberosEnabled() : 0; }
DWORD CPXMMSI::getGlobalSettingsFile(char* buffer, DWORD size) {
    return table ? table->getGlobalSettingsFile(buffer, size) : 0;
}
DWORD CPXMMSI::getAppDataFileFolder(void* a, void* b, DWORD c) {
    return table ? table->getAppDataFileFolder(a, b, c) : 0;
}
DWORD CPXMMSI::getPKIAppDataFileFolder(void* a, DWORD b, void* c, void* d, DWORD e) {
    return table ? table->getPKIAppDataFileFolder(a, b, c, d, e) : 0;
}
DWORD CPXMMSI::isUserAdmin(void* a) { return table ? table->isUserAdmin(a) : 0; }

CResourceLibrary::~CResourceLibrary() { ReleaseLoadedModule(); }

void CResourceLibrary::ReleaseLoadedModule() {
    if (loadedModule != nullptr && loadedModule != defaultModule) FreeLibrary(loadedModule);
}

DWORD CResourceLibrary::Initialise(HMODULE module, const char* name) {
    if (name == nullptr || name[0] == '\0') return ERROR_INVALID_PARAMETER;
    defaultModule = module;
    CopyText(baseName, name);
    return 0;
}

HMODULE CResourceLibrary::GetHandle() {
    if (loadedModule != nullptr) return loadedModule;
    {
        CPXMMSI suite(defaultModule, nullptr);
        loadedModule = suite.loadResourceLibrary(baseName, &language);
    }
    // Kept: for the life of the process; a suite library that turns up later is not asked.
    if (loadedModule == nullptr) loadedModule = defaultModule;
    return loadedModule;
}

int CResourceLibrary::LoadResourceString(UINT id, char* buffer, int size) { return LoadStringA(GetHandle(), id, buffer, size); }

int LoadReportFormat(unsigned id, char* buffer, int size) {
    return g_resourceLibrary.LoadResourceString(id, buffer, size);
}

DWORD CResourceLibrary::SetLanguage(DWORD newLanguage) {
    ReleaseLoadedModule();
    return SetLanguageKeepingModule(newLanguage);
}

DWORD CResourceLibrary::SetLanguageKeepingModule(DWORD newLanguage) {
    DWORD old = language;
    language = newLanguage;
    loadedModule = nullptr;
    return old;
}

FARPROC GetSetUIProc(const char* name) {
    constexpr DWORD kSize = 260;
    constexpr size_t kFileNameSize = 13;  // "pxmSetUI.dll" and its terminator
    if (g_hSetUILibrary == nullptr) {
        wchar_t modulePath[kSize];
        wchar_t path[kSize];
        DWORD length = GetModuleFileNameW(g_hModule, modulePath, kSize);
        if (length == 0 || length >= kSize) return nullptr;
        wchar_t* filePart = nullptr;
        DWORD full = GetFullPathNameW(modulePath, kSize, path, &filePart);
        if (full == 0 || full >= kSize) return nullptr;
        if (filePart != nullptr) *filePart = L'\0';
        size_t directoryLength = wcslen(path);
        if (directoryLength == 0 || path[directoryLength - 1] != L'\\') {
            if (directoryLength + 1 >= kSize) return nullptr;
            path[directoryLength++] = L'\\';
            path[directoryLength] = L'\0';
        }
        size_t needed = directoryLength + kFileNameSize;
        if (needed > kSize) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return nullptr;
        }
        WideBoundedWriter joined(path + directoryLength, kSize - directoryLength);
        joined.Put(L"pxmSetUI.dll");
        SetLastError(0);
        if (needed < kSize) {
            UINT oldMode = SetErrorMode(SEM_NOOPENFILEERRORBOX);
            g_hSetUILibrary = LoadLibraryW(path);
            SetErrorMode(oldMode);
        }
    }
    if (g_hSetUILibrary == nullptr) return nullptr;
    return GetProcAddress(g_hSetUILibrary, name);
}

void CloseUIPrompt() {
    auto onTimeout = GetSetUIEntry<PFN_PXMSETUIDLL_OnTimeout>("PXMSETUIDLL_OnTimeout");
    if (onTimeout != nullptr) onTimeout();
}

HWND TopLevelParent(HWND window) {
    if (window == nullptr) return nullptr;
    for (HWND parent = GetParent(window); parent != nullptr; parent = GetParent(window)) window = parent;
    return window;
}
