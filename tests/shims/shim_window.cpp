// Stands in for another program's control window that wraps the socket layer: a top-level window of
// a given class or title, in a process of its own, as the library would meet it on a user's machine.
//
//   shim_window --class NAME | --title TEXT    keeps the window until it is closed (at most 120 s)
//   shim_window --end-leftovers                ends every instance that a test left running
//
// Each instance notes its process id in a folder under %TEMP%, so that a run's clean-up can end what
// a failed test left behind: a control window left over would warn at every later determination.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr UINT_PTR kLifetimeTimer = 1;
constexpr UINT kLifetimeMs = 120000;

std::string PidFolder() {
    char temp[MAX_PATH] = {};
    DWORD length = GetTempPathA(MAX_PATH, temp);
    if (length == 0 || length >= MAX_PATH) return "";
    return std::string(temp) + "dxtest_shim_windows";
}

std::string PidFile(DWORD pid) { return PidFolder() + "\\" + std::to_string(pid); }

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_TIMER && wParam == kLifetimeTimer) {
        DestroyWindow(window);
        return 0;
    }
    if (message == WM_DESTROY) {
        PostQuitMessage(0);
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

int EndLeftovers() {
    std::string folder = PidFolder();
    WIN32_FIND_DATAA found = {};
    HANDLE search = FindFirstFileA((folder + "\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return 0;
    int ended = 0;
    do {
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        DWORD pid = static_cast<DWORD>(std::strtoul(found.cFileName, nullptr, 10));
        HANDLE process = pid != 0 ? OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid) : nullptr;
        if (process != nullptr) {
            if (TerminateProcess(process, 3)) ++ended;
            WaitForSingleObject(process, 5000);
            CloseHandle(process);
        }
        DeleteFileA((folder + "\\" + found.cFileName).c_str());
    } while (FindNextFileA(search, &found));
    FindClose(search);
    std::printf("ended %d leftover shim window(s)\n", ended);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--end-leftovers") == 0) return EndLeftovers();
    if (argc != 3 || (std::strcmp(argv[1], "--class") != 0 && std::strcmp(argv[1], "--title") != 0)) {
        std::fprintf(stderr, "usage: shim_window --class NAME | --title TEXT | --end-leftovers\n");
        return 2;
    }
    const bool byClass = std::strcmp(argv[1], "--class") == 0;
    const char* className = byClass ? argv[2] : "DxTestShimWindow";
    const char* title = byClass ? "" : argv[2];

    CreateDirectoryA(PidFolder().c_str(), nullptr);
    const std::string pidFile = PidFile(GetCurrentProcessId());
    HANDLE file = CreateFileA(pidFile.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);

    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = WindowProcedure;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = className;
    if (RegisterClassA(&windowClass) == 0) return 1;
    HWND window = CreateWindowExA(0, className, title, WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr, nullptr,
                                  windowClass.hInstance, nullptr);
    if (window == nullptr) return 1;
    // Ends by itself should nobody close it.
    SetTimer(window, kLifetimeTimer, kLifetimeMs, nullptr);
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
    DeleteFileA(pidFile.c_str());
    return 0;
}
