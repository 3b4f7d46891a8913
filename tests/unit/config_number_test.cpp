#include "config_number.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>

namespace {

TEST(ConfigNumberTest, ReadsAsStoiDoes) {
    struct Case {
        const char* text;
        int value;
    };
    const Case cases[] = {
        {"0", 0},           {"1080", 1080},   {"2x", 2},        {" \t\n\v\f\r42", 42}, {"+7", 7},
        {"-3", -3},         {"0012", 12},     {"0x1A", 0},      {"1.5", 1},            {"12 34", 12},
        {"2147483647", INT_MAX}, {"-2147483648", INT_MIN}, {"-0", 0}, {"00000000000000000000001", 1},
    };
    for (const Case& c : cases) EXPECT_EQ(ConvertConfigNumber(c.text), c.value) << '"' << c.text << '"';
}

void ExpectInvalid(const char* text) {
    try {
        ConvertConfigNumber(text);
        ADD_FAILURE() << "no exception for \"" << (text != nullptr ? text : "(null)") << '"';
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "invalid stoi argument");
    }
}

void ExpectOutOfRange(const char* text) {
    try {
        ConvertConfigNumber(text);
        ADD_FAILURE() << "no exception for \"" << text << '"';
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "stoi argument out of range");
    }
}

TEST(ConfigNumberTest, NoDigitRaisesInvalidArgument) {
    for (const char* text : {"", " ", "x", "yes", "-", "+", "--1", "+-1", "- 1", "\xa0" "1", "x12"}) ExpectInvalid(text);
    ExpectInvalid(nullptr);
}

TEST(ConfigNumberTest, BeyondSigned32BitsRaisesOutOfRange) {
    for (const char* text : {"2147483648", "-2147483649", "99999999999", "4294967295",
                             "123456789012345678901234567890", "  -99999999999x"}) {
        ExpectOutOfRange(text);
    }
}

TEST(ConfigNumberTest, BothAreStandardExceptions) {
    // The entry routine catches what derives from std::exception; both texts reach its what().
    EXPECT_THROW(ConvertConfigNumber("x"), std::logic_error);
    EXPECT_THROW(ConvertConfigNumber("99999999999"), std::logic_error);
    EXPECT_NO_THROW(ConvertConfigNumber(std::string("7 maps").c_str()));
}

}  // namespace
