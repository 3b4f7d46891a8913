#include "decimal_text.h"

#include <cstdint>
#include <limits>

namespace {

bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

int ReadDecimal(const char* text) { return ReadDecimal(text, std::numeric_limits<size_t>::max()); }

int ReadDecimal(const char* text, size_t length) {
    if (text == nullptr) return 0;
    size_t i = 0;
    while (i < length && IsBlank(text[i])) ++i;
    bool negative = false;
    if (i < length && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    // The magnitude stops growing at the bound, so no digit count can overflow it.
    const uint64_t bound = negative ? uint64_t{1} << 31 : (uint64_t{1} << 31) - 1;
    uint64_t magnitude = 0;
    for (; i < length && IsDigit(text[i]); ++i) {
        magnitude = magnitude * 10 + static_cast<uint64_t>(text[i] - '0');
        if (magnitude > bound) magnitude = bound;
    }
    return negative ? static_cast<int>(-static_cast<int64_t>(magnitude)) : static_cast<int>(magnitude);
}
