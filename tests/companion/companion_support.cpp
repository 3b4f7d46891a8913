#include "companion_support.h"

#include <vector>

namespace ctest {

std::string ProgramFolder() {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string full(path, length);
    return full.substr(0, full.find_last_of('\\'));
}

HMODULE LoadBeside(const char* name) { return LoadLibraryA((ProgramFolder() + "\\" + name).c_str()); }

DWORD RunChildCases(const std::string& filter, DWORD timeoutMs) {
    char program[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, program, sizeof program);
    if (length == 0 || length >= sizeof program) return static_cast<DWORD>(-1);
    std::string command = std::string("\"") + program + "\" --gtest_also_run_disabled_tests --gtest_filter=" + filter;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child = {};
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr, &startup,
                        &child)) {
        return static_cast<DWORD>(-1);
    }
    DWORD exitCode = static_cast<DWORD>(-1);
    if (WaitForSingleObject(child.hProcess, timeoutMs) == WAIT_OBJECT_0) {
        GetExitCodeProcess(child.hProcess, &exitCode);
    } else {
        TerminateProcess(child.hProcess, 1);
        WaitForSingleObject(child.hProcess, timeoutMs);
    }
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    return exitCode;
}

std::string ModulePath(HMODULE module) {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(module, path, MAX_PATH);
    return std::string(path, length < MAX_PATH ? length : 0);
}

namespace {

// Wide, so that names outside the ANSI code page go too.
void RemoveTree(const std::wstring& folder) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            std::wstring name = found.cFileName;
            if (name == L"." || name == L"..") continue;
            std::wstring path = folder + L"\\" + name;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
                RemoveTree(path);
            } else {
                DeleteFileW(path.c_str());
            }
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(folder.c_str());
}

}  // namespace

TempFolder::TempFolder() {
    char base[MAX_PATH] = {};
    GetTempPathA(MAX_PATH, base);
    path_ = std::string(base) + "companion-" + std::to_string(GetCurrentProcessId()) + "-" +
            std::to_string(GetTickCount64());
    static int serial = 0;
    path_ += "-" + std::to_string(++serial);
    CreateDirectoryA(path_.c_str(), nullptr);
}

// The path is ASCII: made from the temporary folder, a process id and counters.
TempFolder::~TempFolder() { RemoveTree(std::wstring(path_.begin(), path_.end())); }

bool Exists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

bool IsFolder(const std::string& path) {
    DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool SamePath(const std::string& a, const std::string& b) { return lstrcmpiA(a.c_str(), b.c_str()) == 0; }

std::string Environment(const char* name) {
    DWORD size = GetEnvironmentVariableA(name, nullptr, 0);
    if (size == 0) return "";
    std::vector<char> value(size);
    DWORD length = GetEnvironmentVariableA(name, value.data(), size);
    return std::string(value.data(), length < size ? length : 0);
}

HWND MakeTopWindow(const char* title, const RECT& rect) {
    return CreateWindowExA(0, "STATIC", title, WS_OVERLAPPEDWINDOW | WS_VISIBLE, rect.left, rect.top,
                           rect.right - rect.left, rect.bottom - rect.top, nullptr, nullptr,
                           GetModuleHandleA(nullptr), nullptr);
}

RECT WorkAreaOf(const RECT& rect) {
    MONITORINFO info = {};
    info.cbSize = sizeof info;
    GetMonitorInfoA(MonitorFromRect(&rect, MONITOR_DEFAULTTONEAREST), &info);
    return info.rcWork;
}

}  // namespace ctest
