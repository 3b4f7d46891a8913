// Stands in for DXSOCKS.DLL at process exit: holds an in-memory registry of the suite library beside
// the program, with a key open, and releases it from its own static destruction, which the loader
// runs after the suite library's detach since this library loaded that one. What happened goes to
// a marker file through kernel32 alone.
#include <windows.h>

#include <string>

#include "suite_entries.h"

namespace {

void Append(const char* path, const std::string& text) {
    HANDLE file = CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                              nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
}

class Holder {
public:
    ~Holder() {
        if (release == nullptr) return;
        LONG code = release(registry);
        Append(marker.c_str(), "; released " + std::to_string(code));
    }
    PFN_XmlReleaseReg release = nullptr;
    IXmlRegistry* registry = nullptr;
    std::string marker;
};

Holder g_holder;

}  // namespace

// 1 once a registry of `text` is held with a key open; the marker file then says "held".
extern "C" __declspec(dllexport) int HoldXmlRegistry(const char* text, const char* marker) {
    g_holder.marker = marker;
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string folder(path, length);
    folder = folder.substr(0, folder.find_last_of('\\') + 1);
    HMODULE suite = LoadLibraryA((folder + "KVTSOCK2.DLL").c_str());
    if (suite == nullptr) return 0;
    auto create = reinterpret_cast<PFN_XmlCreateReg>(reinterpret_cast<void*>(GetProcAddress(suite, "XmlCreateReg")));
    auto release =
        reinterpret_cast<PFN_XmlReleaseReg>(reinterpret_cast<void*>(GetProcAddress(suite, "XmlReleaseReg")));
    if (create == nullptr || release == nullptr || create(1, text, &g_holder.registry) != 0) return 0;
    HKEY key = nullptr;
    if (g_holder.registry->OpenKey(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &key) != 0) return 0;
    g_holder.release = release;
    Append(marker, "held");
    return 1;
}
