// Which build of the library a host has, and the true version of the operating system, which
// GetVersion and GetVersionExA no longer tell from version 6.2 on.
#pragma once

#include <windows.h>

#include "dxsocks_types.h"
#include "version_text.h"

extern OsVersionCache g_osVersion;
// The file whose product version tells the true version; null: KERNEL32.DLL of the system folder.
// Tests point it elsewhere.
extern const char* g_versionSourceFile;

DWORD GetTrueVersion();
BOOL GetTrueVersionEx(OSVERSIONINFOEXA* info);
// Fills the cache from the system file once; falls back on GetVersion when the file has no version.
DWORD ReadSystemFileVersion(OSVERSIONINFOA* info);
void GetNativeInfo(SYSTEM_INFO* info);

// GetVersionInfo of both families, `name` being the export's: copies the smaller of `size` (taken
// without its sign, so a negative one copies all) and the record's 74 bytes. 1, or 0 for a null
// `out`; the success path logs no end line.
int CopyVersionRecord(const char* name, void* out, int size);
