#include "module_files.h"

#include <shellapi.h>

#include <vector>

namespace dxtest {

std::string ProgramDirectory() {
    std::string path = ModulePath(nullptr);
    return path.substr(0, path.find_last_of('\\') + 1);
}

std::string BesideProgram(const std::string& relative) {
    std::string joined = ProgramDirectory() + relative;
    char full[MAX_PATH];
    DWORD length = GetFullPathNameA(joined.c_str(), MAX_PATH, full, nullptr);
    return length > 0 && length < MAX_PATH ? std::string(full, length) : joined;
}

std::string MakeTempDirectory(const std::string& tag) {
    char temp[MAX_PATH];
    GetTempPathA(MAX_PATH, temp);
    for (unsigned n = GetTickCount() & 0xFFFF;; ++n) {
        std::string directory = std::string(temp) + "dxtest-" + tag + "-" + std::to_string(n);
        if (CreateDirectoryA(directory.c_str(), nullptr)) return directory + "\\";
        if (GetLastError() != ERROR_ALREADY_EXISTS) return std::string();
    }
}

void RemoveTree(const std::string& directory) {
    if (directory.empty()) return;
    std::string from = directory;
    if (from.back() == '\\') from.pop_back();
    from.push_back('\0');  // the operation takes a list ended by an empty name
    SHFILEOPSTRUCTA operation = {};
    operation.wFunc = FO_DELETE;
    operation.pFrom = from.c_str();
    operation.fFlags = FOF_NO_UI;
    SHFileOperationA(&operation);
}

bool CopyInto(const std::string& file, const std::string& directory, const std::string& name) {
    return CopyFileA(file.c_str(), (directory + name).c_str(), FALSE) != FALSE;
}

bool FileExists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::string ModulePath(HMODULE module) {
    std::vector<char> path(32768);
    DWORD length = GetModuleFileNameA(module, path.data(), static_cast<DWORD>(path.size()));
    return std::string(path.data(), length);
}

}  // namespace dxtest
