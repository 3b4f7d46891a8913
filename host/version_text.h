// The library's version record and the reading of a product version text, free of the Windows API.
#pragma once

#include <cstdint>

struct VersionRecord {
    uint16_t major;
    uint16_t minor;
    uint16_t build;
    uint16_t revision;
    uint16_t signature;
    char buildDate[32];  // "Nov 22 2026"
    char buildTime[32];  // "15:18:46"
};
static_assert(sizeof(VersionRecord) == 74, "the version record is 74 bytes");

extern const VersionRecord g_versionRecord;

// The true version of the operating system, read from its own files once; osMajor 0: not read.
struct OsVersionCache {
    uint32_t osMajor;
    uint32_t osMinor;
    uint32_t osBuild;
};

// Takes "major.minor.build..." apart at its dots as strtok does (empty pieces are skipped) and
// stores each of the first three pieces, as atoi reads it (ReadDecimal: beyond the range of int it
// saturates), into its field. A missing piece leaves its field as it was; what follows the third is
// ignored.
void ParseProductVersion(const char* text, OsVersionCache& cache);

// The cache in the form of a GetVersion result: build in the upper word, then minor and major.
uint32_t PackVersion(const OsVersionCache& cache);
