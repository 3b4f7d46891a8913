// The kind of Windows the library runs on, computed at process attach and read by the dialogs.
#pragma once

extern int g_osKind;  // -1 until computed

// The cached kind (os_kind_rules.h); the first call reads the version, corrected from the system
// file's product version from 6.2 on.
int GetOsKind();
