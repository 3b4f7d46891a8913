// Loading the companion libraries as DXSOCKS.DLL does: by name, from the folder of the program
// (build/bin), with their entries resolved by GetProcAddress.
#pragma once

#include <windows.h>

#include <string>

namespace ctest {

// Folder of this test program, without a trailing backslash.
std::string ProgramFolder();

// Loads `name` from the program's folder; null if it is not there.
HMODULE LoadBeside(const char* name);

// Entry `name` of `module` as type F; null if missing.
template <typename F>
F Entry(HMODULE module, const char* name) {
    return reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// Runs this program again, alone with the disabled cases that `filter` names, in a process of its own
// and without a console; its exit code (0: all passed), or -1 when it could not start or was still
// running after `timeoutMs` (then it is ended).
DWORD RunChildCases(const std::string& filter, DWORD timeoutMs);

// Path of `module`'s file; empty on failure.
std::string ModulePath(HMODULE module);

// A fresh empty folder under the temporary folder, removed with its files by the destructor.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "\\" + name; }

private:
    std::string path_;
};

bool Exists(const std::string& path);
bool IsFolder(const std::string& path);
// Case-insensitive equality, as Windows compares paths.
bool SamePath(const std::string& a, const std::string& b);
std::string Environment(const char* name);

// A visible top-level window of this thread at the given screen rectangle.
HWND MakeTopWindow(const char* title, const RECT& rect);
// The work area of the monitor of `rect`.
RECT WorkAreaOf(const RECT& rect);

}  // namespace ctest
