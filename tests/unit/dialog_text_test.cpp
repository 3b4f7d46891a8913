#include "dialog_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string Trimmed(std::string text) {
    std::string buffer = text + '\0';
    size_t length = TrimUserTrailing(&buffer[0]);
    EXPECT_EQ(length, std::strlen(buffer.c_str()));
    return buffer.c_str();
}

TEST(DialogTextTest, TrimTakesBlanksAndControlsFromTheEnd) {
    EXPECT_EQ(Trimmed("guest   "), "guest");
    EXPECT_EQ(Trimmed("guest\t\r\n"), "guest");
    EXPECT_EQ(Trimmed("  guest"), "  guest");
    EXPECT_EQ(Trimmed("gu est "), "gu est");
    EXPECT_EQ(Trimmed("guest!"), "guest!");
    EXPECT_EQ(Trimmed("   "), "");
    EXPECT_EQ(Trimmed(""), "");
    EXPECT_EQ(Trimmed(std::string("a") + '\x7f'), std::string("a") + '\x7f');
}

TEST(DialogTextTest, TrimTakesBytesAbove127AsSignedBytesDo) {
    EXPECT_EQ(Trimmed("Jos\xe9"), "Jos");
    EXPECT_EQ(Trimmed("Ren\xe9\xe9 \xff"), "Ren");
    EXPECT_EQ(Trimmed("\xe9t\xe9"), "\xe9t");
    EXPECT_EQ(Trimmed("\x80"), "");
}

TEST(DialogTextTest, TrimOfNullIsNothing) { EXPECT_EQ(TrimUserTrailing(nullptr), 0u); }

TEST(DialogTextTest, CellHoldsAtMost63Bytes) {
    char cell[kCellTextSize];
    std::memset(cell, 'x', sizeof cell);
    EXPECT_EQ(BoundCell(cell, "short"), 5u);
    EXPECT_STREQ(cell, "short");
    const std::string longText(1023, 'h');
    EXPECT_EQ(BoundCell(cell, longText.c_str()), 63u);
    EXPECT_EQ(std::string(cell), std::string(63, 'h'));
    EXPECT_EQ(BoundCell(cell, std::string(63, 'k').c_str()), 63u);
    EXPECT_EQ(std::string(cell), std::string(63, 'k'));
    EXPECT_EQ(BoundCell(cell, nullptr), 0u);
    EXPECT_STREQ(cell, "");
}

TEST(DialogTextTest, ColumnsTakeThreeAndTwoSeventhsAndTheRest) {
    struct Case {
        int32_t width;
        ColumnWidths columns;
    };
    const Case cases[] = {
        {700, {300, 200, 200}}, {706, {300, 200, 206}}, {6, {0, 0, 6}}, {0, {0, 0, 0}}, {7, {3, 2, 2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.width);
        ColumnWidths got = MapListColumnWidths(c.width);
        EXPECT_EQ(got.destination, c.columns.destination);
        EXPECT_EQ(got.proxy, c.columns.proxy);
        EXPECT_EQ(got.user, c.columns.user);
        EXPECT_EQ(got.destination + got.proxy + got.user, c.width);
    }
}

TEST(DialogTextTest, SimpleViewEndsUnderTheSwitchWithTheFullViewsMargin) {
    // A window 400 high whose line ends at 390 on screen and whose switch ends at 150.
    EXPECT_EQ(SimpleViewHeight(400, 390, 150), 160);
    EXPECT_EQ(SimpleViewHeight(400, 400, 400), 400);
    EXPECT_EQ(SimpleViewHeight(300, 520, 320), 100);
}

}  // namespace
