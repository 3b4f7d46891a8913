// Which resource library serves a module in a language, and its loading. The resource library of
// base name X.DLL for language L is X_<L as four lower-case hex digits>.DLL, e.g. DXSOCKS_0409.DLL.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace suite {

// English (United States): the language that every resource library ships in.
constexpr LANGID kFallbackLanguage = 0x0409;

// "DXSOCKS.DLL" and 0x0409 give "DXSOCKS_0409.DLL"; a folder in the base name is dropped, and a name
// without an extension gets ".DLL".
std::wstring ResourceFileName(const std::wstring& baseName, LANGID language);

// Languages to try, in order and without repeats: the one asked for, the default sublanguage of its
// primary language (so that English (UK) finds the English file), then the fallback.
std::vector<LANGID> CandidateLanguages(LANGID language);

// The folder of the module named `baseName` if one is loaded in this process, else the suite
// library's own folder.
std::wstring ResourceFolder(const std::wstring& baseName);

// Loads the resource library for `baseName` in `*language`, or in `userLanguage` if that is 0, with
// the fallbacks above. Sets `*language` to the language loaded. Null if no file is found or loads.
HMODULE LoadResourceLibrary(const char* baseName, DWORD* language, LANGID userLanguage);

}  // namespace suite
