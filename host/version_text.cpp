#include "version_text.h"

#include "decimal_text.h"

// The build passes the project's version (cmake/sources.cmake).
const VersionRecord g_versionRecord = {DX_VERSION_MAJOR, DX_VERSION_MINOR, DX_VERSION_PATCH, DX_VERSION_TWEAK, 0xFACE,
                                       __DATE__, __TIME__};

void ParseProductVersion(const char* text, OsVersionCache& cache) {
    uint32_t* fields[] = {&cache.osMajor, &cache.osMinor, &cache.osBuild};
    const char* cursor = text;
    for (uint32_t* field : fields) {
        while (*cursor == '.') ++cursor;
        if (*cursor == '\0') return;
        const char* end = cursor;
        while (*end != '\0' && *end != '.') ++end;
        *field = static_cast<uint32_t>(ReadDecimal(cursor, static_cast<size_t>(end - cursor)));
        cursor = end;
    }
}

uint32_t PackVersion(const OsVersionCache& cache) {
    return (cache.osBuild << 16) | ((cache.osMinor & 0xFF) << 8) | (cache.osMajor & 0xFF);
}
