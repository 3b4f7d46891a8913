#include "module_path.h"

#include <vector>

namespace companion {

HMODULE ThisModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&ThisModule), &module);
    return module;
}

std::wstring ModuleFolder(HMODULE module) {
    // Long paths: grow the buffer until the name fits.
    std::vector<wchar_t> buffer(MAX_PATH);
    for (;;) {
        DWORD length = GetModuleFileNameW(module, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0) return L"";
        if (length < buffer.size()) {
            std::wstring path(buffer.data(), length);
            size_t slash = path.find_last_of(L"\\/");
            return slash == std::wstring::npos ? L"" : path.substr(0, slash);
        }
        if (buffer.size() >= 32768) return L"";
        buffer.resize(buffer.size() * 2);
    }
}

std::wstring JoinPath(const std::wstring& folder, const std::wstring& name) {
    if (folder.empty()) return name;
    if (folder.back() == L'\\' || folder.back() == L'/') return folder + name;
    return folder + L'\\' + name;
}

std::wstring FromAnsi(const char* text) {
    if (text == nullptr || *text == '\0') return L"";
    int length = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (length <= 0) return L"";
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), length);
    wide.resize(static_cast<size_t>(length) - 1);
    return wide;
}

bool ToAnsi(const std::wstring& text, std::string* out) {
    out->clear();
    if (text.empty()) return true;
    // A UTF-8 code page holds every character and takes neither the flag nor the default-character test.
    bool utf8 = GetACP() == CP_UTF8;
    DWORD flags = utf8 ? 0 : WC_NO_BEST_FIT_CHARS;
    BOOL lossy = FALSE;
    BOOL* lossyOut = utf8 ? nullptr : &lossy;
    int length = WideCharToMultiByte(CP_ACP, flags, text.c_str(), -1, nullptr, 0, nullptr, lossyOut);
    if (length <= 0 || lossy) return false;
    std::string narrow(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, flags, text.c_str(), -1, narrow.data(), length, nullptr, lossyOut);
    if (lossy) return false;
    narrow.resize(static_cast<size_t>(length) - 1);
    *out = narrow;
    return true;
}

}  // namespace companion
