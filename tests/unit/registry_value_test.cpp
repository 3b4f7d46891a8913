#include "registry_value.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "guarded_field.h"

namespace {

uint32_t Flag(uint32_t type, const std::string& bytes, uint32_t fallback) {
    return FlagFromValue(type, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), fallback,
                         dxtest::AsciiCompareNoCase);
}

constexpr uint32_t kMultiText = 7;

TEST(RegistryValueTest, TextFlagsIgnoreCase) {
    EXPECT_EQ(Flag(kValueText, std::string("TRUE\0", 5), 0), 1u);
    EXPECT_EQ(Flag(kValueText, std::string("False\0", 6), 1), 0u);
    EXPECT_EQ(Flag(kValueText, std::string("true", 4), 0), 1u);  // stored without its terminator
}

TEST(RegistryValueTest, OtherTextAndEmptyTextGiveTheFallback) {
    EXPECT_EQ(Flag(kValueText, std::string("yes\0", 4), 7), 7u);
    EXPECT_EQ(Flag(kValueText, std::string("\0", 1), 5), 5u);
    EXPECT_EQ(Flag(kValueText, "", 5), 5u);
    EXPECT_EQ(Flag(kValueText, std::string("true\0x", 6), 0), 1u);  // the text ends at its terminator
}

TEST(RegistryValueTest, BinaryFlagIsItsFirstByteEqualToOne) {
    EXPECT_EQ(Flag(kValueBinary, "\x01", 0), 1u);
    EXPECT_EQ(Flag(kValueBinary, "\x02", 1), 0u);
    EXPECT_EQ(Flag(kValueBinary, std::string("\0\x01", 2), 1), 0u);
    EXPECT_EQ(Flag(kValueBinary, "", 1), 0u);
}

TEST(RegistryValueTest, NumberFlagLooksAtTheLowestByteOnly) {
    EXPECT_EQ(Flag(kValueNumber, std::string("\x01\x01\0\0", 4), 0), 1u);  // 257
    EXPECT_EQ(Flag(kValueNumber, std::string("\x01\0\0\0", 4), 0), 1u);
    EXPECT_EQ(Flag(kValueNumber, std::string("\0\x01\0\0", 4), 1), 0u);  // 256
    EXPECT_EQ(Flag(kValueNumber, std::string("\x02\0\0\0", 4), 1), 0u);
}

TEST(RegistryValueTest, AnyOtherTypeGivesZeroNotTheFallback) {
    EXPECT_EQ(Flag(kMultiText, std::string("true\0\0", 6), 1), 0u);
    EXPECT_EQ(Flag(0, "\x01", 1), 0u);
}

TEST(RegistryValueTest, LongTextIsReadWithinTheFlagBuffer) {
    std::string text(100, 't');
    EXPECT_EQ(Flag(kValueText, text, 9), 9u);
    EXPECT_EQ(FlagFromValue(kValueText, nullptr, 40, 4, dxtest::AsciiCompareNoCase), 4u);
}

TEST(RegistryValueTest, NumberIsTheBytesInTheLowBytesOfAZeroWord) {
    EXPECT_EQ(NumberFromValue(reinterpret_cast<const uint8_t*>("5"), 1), 53u);
    EXPECT_EQ(NumberFromValue(reinterpret_cast<const uint8_t*>("abc"), 3), 6513249u);
    const uint8_t word[] = {0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ(NumberFromValue(word, 4), 0x12345678u);
    EXPECT_EQ(NumberFromValue(word, 0), 0u);
    EXPECT_EQ(NumberFromValue(word, 2), 0x5678u);
    const uint8_t longer[] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(NumberFromValue(longer, sizeof longer), 0x04030201u);
}

TEST(RegistryValueTest, StringReadGivesTheBytesReadAndStaysTerminated) {
    char buffer[8];
    std::memcpy(buffer, "abcdefgh", 8);
    EXPECT_EQ(FinishStringRead(true, 8, nullptr, buffer, sizeof buffer), 8u);
    EXPECT_STREQ(buffer, "abcdefg");
    std::memcpy(buffer, "\0bcdefgh", 8);
    EXPECT_EQ(FinishStringRead(true, 1, "x", buffer, sizeof buffer), 1u);  // an empty value: its terminator
    EXPECT_STREQ(buffer, "");
    std::memcpy(buffer, "abcXXXXX", 8);
    EXPECT_EQ(FinishStringRead(true, 3, nullptr, buffer, sizeof buffer), 3u);
    EXPECT_STREQ(buffer, "abc");
}

TEST(RegistryValueTest, FallbackIsCopiedOnlyWhenShorterThanTheBuffer) {
    char buffer[6];
    std::memcpy(buffer, "zzzzzz", 6);
    EXPECT_EQ(FinishStringRead(false, 0, "abcde", buffer, sizeof buffer), 5u);
    EXPECT_STREQ(buffer, "abcde");
    std::memcpy(buffer, "zzzzzz", 6);
    EXPECT_EQ(FinishStringRead(false, 0, "abcdef", buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
    std::memcpy(buffer, "zzzzzz", 6);
    EXPECT_EQ(FinishStringRead(false, 0, nullptr, buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(FinishStringRead(false, 0, "a", nullptr, 6), 0u);
    char untouched = 'q';
    EXPECT_EQ(FinishStringRead(false, 0, "", &untouched, 0), 0u);
    EXPECT_EQ(untouched, 'q');
}

TEST(RegistryValueTest, NameListBelowThreeBytesIsNoList) {
    char buffer[4] = {'a', 'b', 'c', 'd'};
    NameListWriter two(buffer, 2);
    EXPECT_FALSE(two.Usable());
    EXPECT_FALSE(two.Add("x", 1));
    EXPECT_EQ(two.Finish(), 0u);
    EXPECT_EQ(std::string(buffer, 4), "abcd");
    NameListWriter none(nullptr, 100);
    EXPECT_EQ(none.Finish(), 0u);
}

TEST(RegistryValueTest, NamesFitExactlyOrEndTheList) {
    char buffer[16];
    std::memset(buffer, 'z', sizeof buffer);
    NameListWriter three(buffer, 3);
    EXPECT_TRUE(three.Add("A", 1));
    EXPECT_FALSE(three.Add("B", 1));
    EXPECT_EQ(three.Finish(), 3u);
    EXPECT_EQ(std::string(buffer, 4), std::string("A\0\0z", 4));

    std::memset(buffer, 'z', sizeof buffer);
    NameListWriter list(buffer, 9);
    EXPECT_TRUE(list.Add("One", 3));
    EXPECT_FALSE(list.Add("Four", 4));  // 4 + terminator + final terminator: one byte short
    EXPECT_EQ(list.Finish(), 5u);
    EXPECT_EQ(std::string(buffer, 6), std::string("One\0\0z", 6));

    std::memset(buffer, 'z', sizeof buffer);
    NameListWriter empty(buffer, 3);
    EXPECT_FALSE(empty.Add("Long", 4));
    EXPECT_EQ(empty.Finish(), 1u);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'z');
}

}  // namespace
