#include "lifecycle.h"

#include <cstring>

#include "log.h"

HMODULE g_hModule = nullptr;
HWND g_hParentWindow = nullptr;
int32_t g_configPromptActive = 0;
int32_t g_configPromptTimedOut = 0;

int32_t g_socksStartupCount = 0;
HANDLE g_hSocksThread = nullptr;
HWND g_hSocksWindow = nullptr;
int32_t g_socksThreadDone = 0;

int32_t g_httpStartupCount = 0;
HANDLE g_hHttpThread = nullptr;
HWND g_hHttpWindow = nullptr;
int32_t g_httpThreadDone = 0;

namespace {
// The background brush value of the hidden windows' class.
constexpr INT_PTR kHiddenWindowBrush = 16;
}  // namespace

void PumpOneMessage() {
    MSG message;
    if (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
}

LRESULT HiddenWindowProcedure(const HiddenWindowFamily& family, SocketEventHandler onSocketEvent, HWND window,
                              UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case WM_CREATE:
            // Valid before CreateWindowExA returns, for the startup that waits on it.
            *family.window = window;
            return 0;
        case WM_DESTROY:
            PostQuitMessage(0);
            return 0;
        case WM_CLOSE:
            DestroyWindow(window);
            return 0;
        case WM_SOCKET_EVENT: {
            auto select = static_cast<uint32_t>(lParam);
            return onSocketEvent(static_cast<SOCKET>(wParam), WSAGETSELECTERROR(select), WSAGETSELECTEVENT(select));
        }
        default:
            return DefWindowProcA(window, message, wParam, lParam);
    }
}

DWORD RunHiddenWindowThread(const HiddenWindowFamily& family) {
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = family.windowProcedure;
    windowClass.hInstance = g_hModule;
    windowClass.hbrBackground = reinterpret_cast<HBRUSH>(kHiddenWindowBrush);
    windowClass.lpszClassName = family.className;
    if (!RegisterClassA(&windowClass)) return 0;
    SOCKS_LogString("Creating hidden window.");
    *family.window = CreateWindowExA(0, family.className, "", 0, 8000, 8000, 0, 0, nullptr, nullptr, g_hModule,
                                     nullptr);
    if (*family.window == nullptr) {
        SOCKS_LogString("Failed to create window.");
        return 0;
    }
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
    UnregisterClassA(family.className, g_hModule);
    *family.threadDone = 1;
    return 0;
}

int StartFamily(const HiddenWindowFamily& family, const char* name, void* table, int size, const void* dispatch,
                size_t dispatchSize) {
    ExportLog log(name);
    if (table != nullptr) {
        auto wanted = static_cast<size_t>(static_cast<int64_t>(size));
        std::memcpy(table, dispatch, wanted < dispatchSize ? wanted : dispatchSize);
    }
    if (*family.startupCount == 0) {
        *family.thread = CreateThread(nullptr, 0, family.threadRoutine, nullptr, 0, nullptr);
        if (*family.thread == nullptr) return 0;
        // Kept: no time limit; a thread that cannot make its window leaves this wait running.
        while (!IsWindow(*family.window)) PumpOneMessage();
        ShowWindow(*family.window, SW_HIDE);
    }
    ++*family.startupCount;
    log.End();
    return 1;
}
