// KVTSOCK2.DLL's entry: once loaded, it stays for the life of the process.
//
// DXSOCKS.DLL loads and releases this library around every use, each read of the settings file
// among them. A release that unloaded it would make the next use load it again: a few milliseconds
// each time, and memory that its runtime keeps across an unload, growing with every connection.
// Pinned, each later load is a reference count, and each release gives it back.
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        HMODULE pinned = nullptr;
        // A failed pin leaves the library unloading with its last release, as before.
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCWSTR>(&DllMain), &pinned);
    }
    return TRUE;
}
