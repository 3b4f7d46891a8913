#include "log_format.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Format(const std::string& text, size_t count = 255) {
    char buffer[300];
    size_t length = FormatWithoutArguments(text.c_str(), buffer, count);
    EXPECT_EQ(length, std::string(buffer).size());
    return buffer;
}

struct Case {
    const char* text;
    const char* expected;
};

TEST(LogFormatTest, ConversionsWithoutArgumentsPrintZeroOrNull) {
    const Case cases[] = {
        {"plain text", "plain text"},
        {"100%%", "100%"},
        {"a%db", "a0b"},
        {"%u %i %x %X %o", "0 0 0 0 0"},
        {"%5d|%-3u|%03x", "    0|0  |000"},
        {"%ld %lu %I64d %hd %llx", "0 0 0 0 0"},
        {"%s", "(null)"},
        {"[%8s]", "[  (null)]"},
        {"[%-8s]", "[(null)  ]"},
        {"[%.3s]", "[(nu]"},
        {"%p", "0000000000000000"},
        {"%*d", "0"},
        {"%.*d|%-*s", "|(null)"},  // as printf("%.*d", 0, 0): a zero precision prints no digit
        {"%.0d|% d|%+d", "| 0|+0"},
        {"%f", "0.000000"},
        {"%.2f", "0.00"},
        {"x%cy", "xy"},
        {"x%ny", "xy"},
        {"x%5ny", "xy"},
        {"trailing %", "trailing %"},
        {"trailing %5", "trailing %5"},
        {"trailing %-", "trailing %-"},
        {"unknown %y and %5k", "unknown %y and %5k"},
        {"host a%nb%sc%xd%*de%cf%", "host ab(null)c0d0ef%"},
    };
    for (const Case& c : cases) EXPECT_EQ(Format(c.text), c.expected) << "text: " << c.text;
}

TEST(LogFormatTest, CutsToCountMinusOne) {
    EXPECT_EQ(Format(std::string(300, 'a')), std::string(254, 'a'));
    EXPECT_EQ(Format("abcdef", 4), "abc");
    EXPECT_EQ(Format("%s", 4), "(nu");
    EXPECT_EQ(Format("%20d", 6), "     ");
}

TEST(LogFormatTest, HugeWidthsStayInsideTheBuffer) {
    std::string line = Format("%999999999999d|%.999999999s|%999999999p");
    EXPECT_EQ(line, std::string(254, ' '));
}

TEST(LogFormatTest, EmptyBufferAndNullText) {
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(FormatWithoutArguments("abc", buffer, 1), 0u);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(FormatWithoutArguments(nullptr, buffer, 4), 0u);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(FormatWithoutArguments("abc", buffer, 0), 0u);
}

}  // namespace
