// A suite library that records how the configuration dialogs centre themselves and ask for help
// (recording_suite.h), and offers our English resource library from its own folder.
#include "recording_suite.h"

#include <windows.h>

#include <string>

namespace {

void Record(const std::string& line) {
    SetEnvironmentVariableA(kRecordingSuiteCalls, (RecordingSuiteCalls() + line + "\n").c_str());
}

std::string OwnFolder() {
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const char*>(&Record), &module);
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(module, path, MAX_PATH);
    std::string text(path, length < MAX_PATH ? length : 0);
    return text.substr(0, text.find_last_of('\\') + 1);
}

}  // namespace

extern "C" {

DWORD WINAPI PXMMSIgetLangID() { return 0x0409; }

HMODULE WINAPI PXMMSIloadResourceLibrary(const char*, DWORD* language) {
    if (language != nullptr) *language = 0x0409;
    return LoadLibraryA((OwnFolder() + "DXSOCKS_0409.DLL").c_str());
}

void WINAPI PXMMSIcenterWindow(HWND window, HWND parent) {
    Record("center " + RecordedWindow(window) + " " + RecordedWindow(parent));
}

DWORD WINAPI PXMMSIshowHelpViewer(HWND window, DWORD helpId, DWORD command) {
    Record("help " + RecordedWindow(window) + " " + std::to_string(helpId) + " " + std::to_string(command));
    return 1;
}

}  // extern "C"
