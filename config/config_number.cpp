#include "config_number.h"

#include <cstdint>
#include <stdexcept>

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

int ConvertConfigNumber(const char* text) {
    // MinGW's own stoi names neither the argument nor the range in its texts: ours do.
    if (text == nullptr) throw std::invalid_argument(kConfigNumberInvalid);
    const char* p = text;
    while (IsBlank(*p)) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    if (!IsDigit(*p)) throw std::invalid_argument(kConfigNumberInvalid);
    const int64_t limit = negative ? INT64_C(2147483648) : INT64_C(2147483647);
    int64_t value = 0;
    bool beyond = false;
    for (; IsDigit(*p); ++p) {
        // Every digit is read, as the runtime's reader does, but the value stops growing past the limit.
        if (!beyond) {
            value = value * 10 + (*p - '0');
            if (value > limit) beyond = true;
        }
    }
    if (beyond) throw std::out_of_range(kConfigNumberOutOfRange);
    return static_cast<int>(negative ? -value : value);
}
