// The product version text of a system file: only the first three pieces between dots are read,
// each as atoi reads it, a number beyond the range of int held at its bound; empty pieces are
// skipped; a missing piece leaves its field alone.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "version_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    text = text.c_str();
    OsVersionCache cache = {0xA1, 0xB2, 0xC3};
    ParseProductVersion(text.c_str(), cache);

    std::vector<std::string> pieces;
    size_t start = 0;
    while (start <= text.size() && pieces.size() < 3) {
        size_t dot = text.find('.', start);
        std::string piece = text.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        if (!piece.empty()) pieces.push_back(piece);
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    const uint32_t before[] = {0xA1, 0xB2, 0xC3};
    const uint32_t after[] = {cache.osMajor, cache.osMinor, cache.osBuild};
    for (size_t i = 0; i < 3; ++i) {
        if (i >= pieces.size()) {
            if (after[i] != before[i]) std::abort();
            continue;
        }
        // Every piece reads as strtoll reads it, held to the range of int.
        long long value = std::strtoll(pieces[i].c_str(), nullptr, 10);
        value = std::min<long long>(std::max<long long>(value, INT_MIN), INT_MAX);
        if (after[i] != static_cast<uint32_t>(value)) std::abort();
    }
    uint32_t packed = PackVersion(cache);
    if ((packed & 0xFF) != (cache.osMajor & 0xFF) || ((packed >> 8) & 0xFF) != (cache.osMinor & 0xFF)) std::abort();
    return 0;
}
