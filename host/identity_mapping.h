// The identity table in named shared memory: the mapping `KVT_Verdane_IdentD`, with one view per
// operation, mapped for the block's length and unmapped at once. The layout is identity_table.h's.
#pragma once

#include <windows.h>

#include <cstddef>

#include "identity_table.h"

// FILE_MAP_WRITE (2) may create the block; FILE_MAP_READ (4) only opens one that exists. Null when
// neither works. The caller closes the handle with CloseHandle.
HANDLE IdentityOpen(DWORD access);
// 1, or 0 when the view fails, the layout is refused or the table is full.
int IdentityAdd(HANDLE mapping, unsigned localPort, unsigned remotePort, const char* user);
// An entry whose view fails stays behind, unreported.
void IdentityRemove(HANDLE mapping, unsigned localPort, unsigned remotePort);
// 1 when the key is there, its name (at most 30 characters and size - 1) in `name`; else 0.
int IdentityLookup(HANDLE mapping, unsigned localPort, unsigned remotePort, char* name, size_t size);
// The reader's lookup through a read-only view: a view that fails counts as a refused layout.
IdentityLookupResult IdentityRead(HANDLE mapping, unsigned localPort, unsigned remotePort, char* name, size_t size);
// Copies the whole block, as it stands, into `copy` of kIdentityTableSize bytes; false when the view fails.
bool IdentitySnapshot(HANDLE mapping, uint8_t* copy);
