#include "version_text.h"

#include <cstdlib>

// The build passes the project's version (cmake/sources.cmake).
const VersionRecord g_versionRecord = {DX_VERSION_MAJOR, DX_VERSION_MINOR, DX_VERSION_PATCH, DX_VERSION_TWEAK, 0xFACE,
                                       __DATE__, __TIME__};

namespace {

// atoi of one piece: leading blanks, a sign, digits; out-of-range values wrap to 32 bits.
uint32_t PieceValue(const char* begin, const char* end) {
    char piece[32] = {};
    size_t length = static_cast<size_t>(end - begin);
    if (length >= sizeof piece) length = sizeof piece - 1;
    for (size_t i = 0; i < length; ++i) piece[i] = begin[i];
    return static_cast<uint32_t>(std::strtoll(piece, nullptr, 10));
}

}  // namespace

void ParseProductVersion(const char* text, OsVersionCache& cache) {
    uint32_t* fields[] = {&cache.osMajor, &cache.osMinor, &cache.osBuild};
    const char* cursor = text;
    for (uint32_t* field : fields) {
        while (*cursor == '.') ++cursor;
        if (*cursor == '\0') return;
        const char* end = cursor;
        while (*end != '\0' && *end != '.') ++end;
        *field = PieceValue(cursor, end);
        cursor = end;
    }
}

uint32_t PackVersion(const OsVersionCache& cache) {
    return (cache.osBuild << 16) | ((cache.osMinor & 0xFF) << 8) | (cache.osMajor & 0xFF);
}
