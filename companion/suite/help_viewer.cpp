#include "help_viewer.h"

#include <objbase.h>
#include <shellapi.h>

#include <vector>

#include "module_path.h"

namespace suite {

namespace {

std::wstring ViewerProgram() {
    DWORD size = GetEnvironmentVariableW(kHelpViewerVariable, nullptr, 0);
    if (size == 0) return L"";
    std::vector<wchar_t> buffer(size);
    DWORD length = GetEnvironmentVariableW(kHelpViewerVariable, buffer.data(), size);
    return length == 0 || length >= size ? L"" : std::wstring(buffer.data(), length);
}

bool RunViewer(const std::wstring& program, const std::wstring& page) {
    std::wstring command = L"\"" + program + L"\" \"" + page + L"\"";
    std::vector<wchar_t> line(command.begin(), command.end());
    line.push_back(L'\0');
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process)) {
        return false;
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return true;
}

bool OpenWithShell(HWND window, const std::wstring& page, const std::wstring& folder) {
    // Some handlers that the shell starts need COM on the calling thread.
    HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE);
    HINSTANCE result = ShellExecuteW(window, L"open", page.c_str(), nullptr, folder.c_str(), SW_SHOWNORMAL);
    if (SUCCEEDED(com)) CoUninitialize();
    return reinterpret_cast<INT_PTR>(result) > 32;
}

}  // namespace

std::wstring HelpPageName(DWORD helpId) {
    switch (helpId) {
    case kSocksHelpId:
        return L"help\\socks.html";
    case kHttpHelpId:
        return L"help\\http.html";
    default:
        return L"help\\index.html";
    }
}

bool ShowHelpPage(HWND window, DWORD helpId) {
    std::wstring folder = companion::ModuleFolder(companion::ThisModule());
    if (folder.empty()) return false;
    std::wstring page = companion::JoinPath(folder, HelpPageName(helpId));
    DWORD attributes = GetFileAttributesW(page.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return false;
    if (window != nullptr && !IsWindow(window)) window = nullptr;
    std::wstring viewer = ViewerProgram();
    return viewer.empty() ? OpenWithShell(window, page, folder) : RunViewer(viewer, page);
}

}  // namespace suite
