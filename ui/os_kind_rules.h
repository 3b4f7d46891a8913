// The kinds of Windows that the dialogs tell apart, free of the Windows API.
#pragma once

#include <cstdint>

struct OsVersionFacts {
    uint32_t platformId;   // dwPlatformId
    uint32_t major;
    uint32_t minor;
    uint8_t productType;   // wProductType: 1 workstation
    bool serverR2;         // GetSystemMetrics(SM_SERVERR2) is not 0
};

// 0 unknown; 1 before NT; 2 NT before 5; 3 5.0; 4 5.1; 5/6 5.2 without/with R2; then a workstation
// and a server value each for 6.0 (7, 8), 6.1 (9, 10), 6.2 (11, 12), 6.3 (13, 14) and 10.0 (15, 16).
int ClassifyOsKind(const OsVersionFacts& facts);
