// What the configuration dialogs compute without the Windows API: the user name's trailing-byte trim,
// the bound of a list cell, the list's column widths and the height of the simple view.
#pragma once

#include <cstddef>
#include <cstdint>

// A cell of the map list: at most 63 bytes and the terminator.
constexpr size_t kCellTextSize = 64;

// Cuts `text` (terminated, null: nothing) in place after its last byte that, read as a signed 8-bit
// value, is above 32. Returns the new length.
size_t TrimUserTrailing(char* text);

// Copies at most 63 bytes of `source` (null: none) into `cell` and terminates it; the length copied.
size_t BoundCell(char (&cell)[kCellTextSize], const char* source);

struct ColumnWidths {
    int32_t destination;
    int32_t proxy;
    int32_t user;
};

// For a list `clientWidth` wide: u is a seventh of it, truncated; the columns take 3u and 2u, and the
// user's the rest.
ColumnWidths MapListColumnWidths(int32_t clientWidth);

// The window's outer height in the simple view: the full view cut off under the view switch, keeping
// the margin that stands under the reference line in the full view. Screen coordinates.
int32_t SimpleViewHeight(int32_t fullHeight, int32_t referenceBottom, int32_t switchBottom);
