// The library's entry routine: sets up the process-wide objects at attach and frees them at detach.
#include <winsock2.h>
#include <windows.h>

#include <new>

#include "lifecycle.h"
#include "proxy_socket_manager.h"

namespace {

void OnProcessAttach() {
    if (g_pProxySocketManager == nullptr) g_pProxySocketManager = new CProxySocketManager();
}

// No socket is closed here: the host owns them.
void OnProcessDetach() {
    delete g_pProxySocketManager;
    g_pProxySocketManager = nullptr;
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    g_hModule = module;
    try {
        if (reason == DLL_PROCESS_ATTACH) OnProcessAttach();
        if (reason == DLL_PROCESS_DETACH) OnProcessDetach();
    } catch (...) {
        // Nothing raised here may fail the load.
    }
    return TRUE;
}
