#include "suite_folders.h"

#include <shlobj.h>

#include <cwctype>
#include <vector>

#include "module_path.h"

namespace suite {

namespace {

// Folders set by the setters; any thread may set or read them.
SRWLOCK g_foldersLock = SRWLOCK_INIT;
std::wstring g_userFolder;
std::wstring g_logFolder;
// The user's application data folder, once the shell has named it.
std::wstring g_appDataFolder;

std::wstring KnownFolder(int csidl) {
    wchar_t path[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathW(nullptr, csidl | CSIDL_FLAG_CREATE, nullptr, SHGFP_TYPE_CURRENT, path))) return L"";
    return path;
}

std::wstring FullPath(const std::wstring& path) {
    DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (size == 0) return L"";
    std::vector<wchar_t> buffer(size);
    DWORD length = GetFullPathNameW(path.c_str(), size, buffer.data(), nullptr);
    if (length == 0 || length >= size) return L"";
    return std::wstring(buffer.data(), length);
}

bool IsFolder(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// The short (8.3) form of an existing path, if the code page holds that.
bool ShortAnsi(const std::wstring& path, std::string* out) {
    wchar_t shortPath[MAX_PATH] = {};
    DWORD length = GetShortPathNameW(path.c_str(), shortPath, MAX_PATH);
    return length != 0 && length < MAX_PATH && companion::ToAnsi(shortPath, out);
}

std::wstring Created(const std::wstring& folder) { return CreateFolderTree(folder) ? folder : L""; }

bool SetFolder(std::wstring* target, const char* folder) {
    if (folder == nullptr) return false;
    std::wstring full;
    if (*folder != '\0') {
        full = FullPath(companion::FromAnsi(folder));
        if (full.empty()) return false;
    }
    AcquireSRWLockExclusive(&g_foldersLock);
    *target = full;
    ReleaseSRWLockExclusive(&g_foldersLock);
    return true;
}

std::wstring ReadFolder(const std::wstring& source) {
    AcquireSRWLockShared(&g_foldersLock);
    std::wstring copy = source;
    ReleaseSRWLockShared(&g_foldersLock);
    return copy;
}

bool StartsWithToken(const std::wstring& text, size_t at, const std::wstring& token) {
    if (text.size() - at < token.size()) return false;
    for (size_t i = 0; i < token.size(); ++i) {
        if (std::towlower(text[at + i]) != token[i]) return false;
    }
    return true;
}

}  // namespace

bool CreateFolderTree(const std::wstring& path, SECURITY_ATTRIBUTES* security) {
    if (path.empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    std::wstring full = FullPath(path);
    if (full.empty()) return false;
    if (IsFolder(full)) return true;
    int result = SHCreateDirectoryExW(nullptr, full.c_str(), security);
    if (IsFolder(full)) return true;
    // A file that stands where a folder should be reports "already exists" too.
    SetLastError(result == ERROR_SUCCESS || result == ERROR_ALREADY_EXISTS ? ERROR_FILE_EXISTS
                                                                           : static_cast<DWORD>(result));
    return false;
}

// Asked of the shell once per process: its answer costs a few hundred microseconds under Wine, and
// DXSOCKS.DLL asks for the settings file at every read of it. The folder is still made whenever it
// is missing.
namespace {
std::wstring AppDataFolder() {
    std::wstring known = ReadFolder(g_appDataFolder);
    if (!known.empty()) return known;
    known = KnownFolder(CSIDL_APPDATA);
    if (known.empty()) return L"";
    AcquireSRWLockExclusive(&g_foldersLock);
    g_appDataFolder = known;
    ReleaseSRWLockExclusive(&g_foldersLock);
    return known;
}
}  // namespace

std::wstring DataFolder() {
    std::wstring appData = AppDataFolder();
    if (appData.empty()) return L"";
    return Created(companion::JoinPath(appData, kDataSubfolder));
}

std::wstring SettingsFilePath() {
    std::wstring folder = DataFolder();
    return folder.empty() ? L"" : companion::JoinPath(folder, kSettingsFileName);
}

std::wstring UserFolder() {
    std::wstring set = ReadFolder(g_userFolder);
    return set.empty() ? DataFolder() : Created(set);
}

std::wstring LogFolder() {
    std::wstring set = ReadFolder(g_logFolder);
    if (!set.empty()) return Created(set);
    std::wstring data = DataFolder();
    return data.empty() ? L"" : Created(companion::JoinPath(data, kLogSubfolder));
}

bool SetUserFolder(const char* folder) { return SetFolder(&g_userFolder, folder); }
bool SetLogFolder(const char* folder) { return SetFolder(&g_logFolder, folder); }

bool ExpandFolderVocabulary(const std::wstring& text, std::wstring* out) {
    static const std::wstring kPerUser = L"%appdatafolder%";
    static const std::wstring kAllUsers = L"%commonappdatafolder%";
    std::wstring result;
    for (size_t i = 0; i < text.size();) {
        const std::wstring* token = nullptr;
        int csidl = 0;
        if (StartsWithToken(text, i, kPerUser)) {
            token = &kPerUser;
            csidl = CSIDL_APPDATA;
        } else if (StartsWithToken(text, i, kAllUsers)) {
            token = &kAllUsers;
            csidl = CSIDL_COMMON_APPDATA;
        }
        if (token == nullptr) {
            result += text[i++];
            continue;
        }
        std::wstring folder = KnownFolder(csidl);
        if (folder.empty()) return false;
        result += folder;
        i += token->size();
    }
    *out = result;
    return true;
}

bool PathToAnsi(const std::wstring& path, std::string* out) {
    if (companion::ToAnsi(path, out)) return true;
    // An existing path has a short form; a file still to be made takes its folder's.
    if (ShortAnsi(path, out)) return true;
    size_t slash = path.find_last_of(L'\\');
    if (slash == std::wstring::npos) return false;
    std::string folder;
    std::string name;
    if (!companion::ToAnsi(path.substr(slash + 1), &name) || !ShortAnsi(path.substr(0, slash), &folder)) {
        return false;
    }
    *out = folder + "\\" + name;
    return true;
}

DWORD PutText(const std::string& text, char* buffer, DWORD size) {
    if (buffer == nullptr || size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    buffer[0] = '\0';
    if (text.empty()) return 0;
    if (text.size() + 1 > size) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    CopyMemory(buffer, text.c_str(), text.size() + 1);
    return static_cast<DWORD>(text.size());
}

}  // namespace suite
