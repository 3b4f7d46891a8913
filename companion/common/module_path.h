// Where the companion libraries lie, in wide text so that any installation folder works.
#pragma once

#include <windows.h>

#include <string>

namespace companion {

// The module that holds the code calling this (the DLL that linked this file).
HMODULE ThisModule();

// Folder of `module`'s file, without a trailing backslash; empty on failure.
std::wstring ModuleFolder(HMODULE module);

// `folder` and `name` joined with one backslash.
std::wstring JoinPath(const std::wstring& folder, const std::wstring& name);

// Narrow text of the ANSI code page to wide and back; `ToAnsi` fails on a character that the code
// page cannot hold, rather than putting a look-alike or '?' in a path.
std::wstring FromAnsi(const char* text);
bool ToAnsi(const std::wstring& text, std::string* out);

}  // namespace companion
