#include "resource_lookup.h"

#include <algorithm>
#include <cwchar>

#include "module_path.h"

namespace suite {

std::wstring ResourceFileName(const std::wstring& baseName, LANGID language) {
    size_t slash = baseName.find_last_of(L"\\/");
    std::wstring name = slash == std::wstring::npos ? baseName : baseName.substr(slash + 1);
    size_t dot = name.find_last_of(L'.');
    std::wstring stem = dot == std::wstring::npos ? name : name.substr(0, dot);
    std::wstring extension = dot == std::wstring::npos ? L".DLL" : name.substr(dot);
    wchar_t suffix[8];
    swprintf(suffix, 8, L"_%04x", static_cast<unsigned>(language));
    return stem + suffix + extension;
}

std::vector<LANGID> CandidateLanguages(LANGID language) {
    std::vector<LANGID> candidates;
    auto add = [&candidates](LANGID candidate) {
        if (candidate != 0 && std::find(candidates.begin(), candidates.end(), candidate) == candidates.end()) {
            candidates.push_back(candidate);
        }
    };
    add(language);
    add(MAKELANGID(PRIMARYLANGID(language), SUBLANG_DEFAULT));
    add(kFallbackLanguage);
    return candidates;
}

std::wstring ResourceFolder(const std::wstring& baseName) {
    HMODULE named = baseName.empty() ? nullptr : GetModuleHandleW(baseName.c_str());
    std::wstring folder = named != nullptr ? companion::ModuleFolder(named) : L"";
    return folder.empty() ? companion::ModuleFolder(companion::ThisModule()) : folder;
}

HMODULE LoadResourceLibrary(const char* baseName, DWORD* language, LANGID userLanguage) {
    if (baseName == nullptr || *baseName == '\0') return nullptr;
    std::wstring base = companion::FromAnsi(baseName);
    if (base.empty()) return nullptr;
    // A locale id in the word gives its language.
    LANGID asked = language != nullptr && *language != 0 ? LANGIDFROMLCID(*language) : userLanguage;
    std::wstring folder = ResourceFolder(base);
    for (LANGID candidate : CandidateLanguages(asked)) {
        std::wstring path = companion::JoinPath(folder, ResourceFileName(base, candidate));
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) continue;
        DWORD oldMode = 0;
        SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &oldMode);
        // The file lies beside the modules we ship; it holds resources only and runs no code.
        HMODULE module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
        SetThreadErrorMode(oldMode, nullptr);
        if (module == nullptr) continue;
        if (language != nullptr) *language = candidate;
        return module;
    }
    return nullptr;
}

}  // namespace suite
