// Any text through the dialogs' trim of a user name and the bound of a list cell: the trim never
// lengthens, keeps a prefix, ends after a byte that is above 32 as a signed byte (or leaves nothing);
// a cell holds at most 63 bytes, the input's first ones, terminated, and nothing is written outside.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dialog_text.h"
#include "guarded_field.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The text as a dialog field gives it: up to the first zero byte.
    std::string text(reinterpret_cast<const char*>(data), size);
    text = text.c_str();

    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    size_t length = TrimUserTrailing(buffer.data());
    if (length > text.size() || std::strlen(buffer.data()) != length) std::abort();
    if (std::memcmp(buffer.data(), text.data(), length) != 0) std::abort();
    if (length > 0 && static_cast<int8_t>(buffer[length - 1]) <= 32) std::abort();
    for (size_t i = length; i < text.size(); ++i) {
        if (static_cast<int8_t>(text[i]) > 32) std::abort();
    }

    dxtest::GuardedField<kCellTextSize> cell;
    size_t copied = BoundCell(cell.field, text.c_str());
    if (!cell.GuardsIntact() || !cell.Terminated()) std::abort();
    if (copied > kCellTextSize - 1 || copied != std::strlen(cell.field)) std::abort();
    if (copied != std::min(text.size(), kCellTextSize - 1)) std::abort();
    if (std::memcmp(cell.field, text.data(), copied) != 0) std::abort();
    return 0;
}
