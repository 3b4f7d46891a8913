// The library's entry routine: sets up the process-wide objects at attach and frees them at detach. It
// sits above every layer (cmake/sources.cmake): it is the one file that hands each its seams.
#include <winsock2.h>
#include <windows.h>

#include "config_sets.h"
#include "lifecycle.h"
#include "log.h"
#include "os_kind.h"
#include "dxsocks_ids.h"
#include "image_button.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "suite_library.h"

namespace {

constexpr DWORD kPathSize = 256;

// Reports 1005 or 1006 with the host program's path and this library's path.
void ReportPaths(unsigned id) {
    char host[kPathSize];
    char library[kPathSize];
    if (GetModuleFileNameA(nullptr, host, kPathSize) != 0 && GetModuleFileNameA(g_hModule, library, kPathSize) != 0) {
        ReportMessage(0, id, host, library);
    }
}

// Runs under the loader lock. Report 1005 loads the suite library and through it the resource
// library; that is safe here because the lock is re-entrant on this thread, both libraries import
// only system DLLs that are loaded already, and neither entry routine starts or waits on a thread.
// A suite library whose entry routine waited on another thread would hang the host's load.
void OnProcessAttach(HMODULE module) {
    g_resourceLibrary.Initialise(module, "DXSOCKS.DLL");
    SetReportFormatSource(LoadReportFormat);
    RegisterImageButtonClass(module);
    ReportPaths(IDR_ATTACHED);
    GetOsKind();
    if (g_pProxySocketManager == nullptr) g_pProxySocketManager = new CProxySocketManager(MakeProxySocket);
    CreateConfigSets();
}

// No socket is closed and no hidden thread is touched here: the host owns them.
void OnProcessDetach(HMODULE module, bool processEnding) {
    ReportPaths(IDR_DETACHED);
    UnregisterImageButtonClass(module);
    delete g_pProxySocketManager;
    g_pProxySocketManager = nullptr;
    DeleteConfigSets();
    // At process end the system takes the UI library down with everything else.
    if (!processEnding && g_hSetUILibrary != nullptr) {
        FreeLibrary(g_hSetUILibrary);
        g_hSetUILibrary = nullptr;
    }
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved) {
    g_hModule = module;
    try {
        if (reason == DLL_PROCESS_ATTACH) OnProcessAttach(module);
        if (reason == DLL_PROCESS_DETACH) OnProcessDetach(module, reserved != nullptr);
    } catch (...) {
        // Nothing raised here may fail the load.
    }
    return TRUE;
}
