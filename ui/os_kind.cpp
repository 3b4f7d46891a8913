#include "os_kind.h"

#include <windows.h>

#include "os_kind_rules.h"
#include "version_info.h"

int g_osKind = -1;

int GetOsKind() {
    if (g_osKind != -1) return g_osKind;
    g_osKind = 0;
    OSVERSIONINFOEXA info;
    GetTrueVersionEx(&info);  // zeroed first, so a failure classifies what it left
    OsVersionFacts facts = {info.dwPlatformId, info.dwMajorVersion, info.dwMinorVersion, info.wProductType,
                            GetSystemMetrics(SM_SERVERR2) != 0};
    g_osKind = ClassifyOsKind(facts);
    return g_osKind;
}
