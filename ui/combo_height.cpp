#include "combo_height.h"

#include <climits>
#include <cstdint>

int ComboDropHeight(int itemCount, int maxLines, int textHeight) {
    int64_t lines = itemCount == 0 ? 1 : itemCount;
    if (lines > maxLines) lines = maxLines;
    // Wide enough for any two ints; only the result is bounded, as the window takes an int.
    __int128 height = static_cast<__int128>(lines * 8 + 15) * textHeight / 8;
    if (height > INT_MAX) return INT_MAX;
    if (height < INT_MIN) return INT_MIN;
    return static_cast<int>(height);
}
