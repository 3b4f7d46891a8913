#include "dialog_text.h"

#include "bounded_text.h"

size_t TrimUserTrailing(char* text) {
    if (text == nullptr) return 0;
    size_t length = 0;
    while (text[length] != '\0') ++length;
    // Kept: the byte is read as signed, so bytes above 127 (accented letters of an ANSI code page)
    // count as trailing blanks and go too.
    while (length > 0 && static_cast<int8_t>(text[length - 1]) <= 32) --length;
    text[length] = '\0';
    return length;
}

size_t BoundCell(char (&cell)[kCellTextSize], const char* source) { return CopyText(cell, source); }

ColumnWidths MapListColumnWidths(int32_t clientWidth) {
    const int32_t unit = clientWidth / 7;
    return {3 * unit, 2 * unit, clientWidth - 5 * unit};
}

int32_t SimpleViewHeight(int32_t fullHeight, int32_t referenceBottom, int32_t switchBottom) {
    return fullHeight - referenceBottom + switchBottom;
}
