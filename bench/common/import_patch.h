// Points one import of a loaded module at a replacement, so that a benchmark can count and time
// what DXSOCKS.DLL asks of the system without the library being changed or rebuilt.
#pragma once

#include <windows.h>

namespace dxbench {

// Replaces `module`'s import of `name` from `dll` (matched without case) by `replacement` and
// returns what the slot held, or null when the module has no such import.
void* PatchImport(HMODULE module, const char* dll, const char* name, void* replacement);

}  // namespace dxbench
