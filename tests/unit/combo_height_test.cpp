// The height a combo box's window gets so that its list shows its items: lines of text, and nearly two
// more for the edit part.
#include <gtest/gtest.h>

#include <climits>

#include "combo_height.h"

namespace {

TEST(ComboDropHeightTest, ManyItemsShowTheLimit) {
    // (16 * 8 + 15) * 13 / 8 = 232.375
    EXPECT_EQ(ComboDropHeight(20, 16, 13), 232);
    EXPECT_EQ(ComboDropHeight(16, 16, 13), 232);
}

TEST(ComboDropHeightTest, FewerItemsShowThemAll) {
    EXPECT_EQ(ComboDropHeight(3, 16, 16), (3 * 8 + 15) * 16 / 8);
}

TEST(ComboDropHeightTest, NoItemsShowOneLine) {
    // (8 + 15) * 13 / 8 = 37.375
    EXPECT_EQ(ComboDropHeight(0, 16, 13), 37);
    EXPECT_EQ(ComboDropHeight(0, 16, 13), ComboDropHeight(1, 16, 13));
}

TEST(ComboDropHeightTest, TruncatesTowardsZero) {
    EXPECT_EQ(ComboDropHeight(1, 16, 1), 2);    // 23 / 8
    EXPECT_EQ(ComboDropHeight(1, 16, -1), -2);  // -23 / 8
}

TEST(ComboDropHeightTest, ExtremesStayWithinInt) {
    EXPECT_EQ(ComboDropHeight(INT_MAX, INT_MAX, INT_MAX), INT_MAX);
    EXPECT_EQ(ComboDropHeight(INT_MAX, INT_MAX, INT_MIN), INT_MIN);
    EXPECT_EQ(ComboDropHeight(INT_MIN, 16, INT_MAX), INT_MIN);
    EXPECT_EQ(ComboDropHeight(5, INT_MIN, 10), INT_MIN);
    // A limit of 0 leaves the edit part alone: 15 * 8 / 8.
    EXPECT_EQ(ComboDropHeight(5, 0, 8), 15);
}

}  // namespace
