// A suite library that lacks some entries of the table (see partial_suite.def), for the tests of
// how the library binds what is missing. It answers the entries it has with values a test can tell
// from any default, and counts its loads and its language calls (partial_suite.h).
#include "partial_suite.h"

#include <windows.h>

#include <cstring>

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) PartialSuiteCounted(kPartialSuiteLoads);
    return TRUE;
}

extern "C" {

DWORD WINAPI PXMMSIgetLangID() {
    PartialSuiteCounted(kPartialSuiteLangIdCalls);
    return 0x1234;
}

DWORD WINAPI PXMMSIgetGlobalSettingsFile(char* buffer, DWORD size) {
    const char path[] = "C:\\partial-suite\\settings.xml";
    if (buffer == nullptr || size < sizeof path) return 0;
    std::memcpy(buffer, path, sizeof path);
    return 1;
}

// Names no resource library, except for a base name that ends in "partial-suite-self", for which
// it offers itself (with a reference of the caller's own).
HMODULE WINAPI PXMMSIloadResourceLibrary(const char* baseName, DWORD* language) {
    if (language != nullptr) *language = 0x0407;
    const char self[] = "partial-suite-self";
    size_t length = baseName != nullptr ? std::strlen(baseName) : 0;
    if (length < sizeof self - 1 || std::strcmp(baseName + length - (sizeof self - 1), self) != 0) return nullptr;
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const char*>(&PXMMSIloadResourceLibrary), &module);
    char path[MAX_PATH];
    DWORD pathLength = GetModuleFileNameA(module, path, MAX_PATH);
    return pathLength > 0 && pathLength < MAX_PATH ? LoadLibraryA(path) : nullptr;
}

DWORD WINAPI PXMMSIisUserAdmin(void*) { return 7; }

}  // extern "C"
