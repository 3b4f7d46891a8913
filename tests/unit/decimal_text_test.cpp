#include "decimal_text.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

TEST(DecimalTextTest, ReadsAsAtoiDoes) {
    struct Case {
        const char* text;
        int value;
    };
    const Case cases[] = {
        {"1080", 1080},         {"0", 0},           {"", 0},          {"x12", 0},       {"12x3", 12},
        {" \t\n\v\f\r42", 42},  {"+7", 7},          {"-7", -7},       {"--7", 0},       {"+-7", 0},
        {"- 7", 0},             {"  -0012", -12},   {"0x1A", 0},      {"1.5", 1},       {"2147483647", INT_MAX},
        {"-2147483648", INT_MIN},
    };
    for (const Case& c : cases) EXPECT_EQ(ReadDecimal(c.text), c.value) << '"' << c.text << '"';
}

TEST(DecimalTextTest, BeyondTheRangeOfIntSaturatesInsteadOfWrapping) {
    // Wrapped at 32 bits these would be 1215752191, -2147483648 and 200.
    EXPECT_EQ(ReadDecimal("99999999999"), INT_MAX);
    EXPECT_EQ(ReadDecimal("2147483648"), INT_MAX);
    EXPECT_EQ(ReadDecimal("4294967496"), INT_MAX);
    EXPECT_EQ(ReadDecimal("-2147483649"), INT_MIN);
    EXPECT_EQ(ReadDecimal("-99999999999999999999999999"), INT_MIN);
    EXPECT_EQ(ReadDecimal(std::string(5000, '9').c_str()), INT_MAX);
    // Leading zeros are no overflow.
    EXPECT_EQ(ReadDecimal((std::string(5000, '0') + "70000").c_str()), 70000);
}

TEST(DecimalTextTest, NullReadsAsZero) { EXPECT_EQ(ReadDecimal(nullptr), 0); }

TEST(DecimalTextTest, ALengthStopsTheRead) {
    EXPECT_EQ(ReadDecimal("12345", 3), 123);
    EXPECT_EQ(ReadDecimal("12345", 0), 0);
    EXPECT_EQ(ReadDecimal("  -", 3), 0);
    EXPECT_EQ(ReadDecimal("-5", 1), 0);
    // The characters beyond the length are never looked at: no terminator is needed.
    const char unterminated[] = {'4', '2', '7'};
    EXPECT_EQ(ReadDecimal(unterminated, 2), 42);
}

}  // namespace
