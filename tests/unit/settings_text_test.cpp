#include "settings_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(SettingsTextTest, CharactersBelow256BecomeOneByteEach) {
    EXPECT_EQ(SettingsFileBytes(L"Gu\u00e9st \u00ff\u0001"), std::string("Gu\xe9st \xff\x01"));
    EXPECT_EQ(SettingsFileBytes(L""), std::string());
}

TEST(SettingsTextTest, TheFirstCharacterOf256OrAboveEndsTheBytes) {
    EXPECT_EQ(SettingsFileBytes(L"<a value=\"\u20ac\"/>"), std::string("<a value=\""));
    EXPECT_EQ(SettingsFileBytes(L"ab\u0100cd\u00e9"), std::string("ab"));
    EXPECT_EQ(SettingsFileBytes(L"\u0141"), std::string());
}

TEST(SettingsTextTest, EachByteIsWidenedToItsValue) {
    std::wstring text = SettingsFileText(std::string("\xef\xbb\xbf<S/>\x80\xe9", 9));
    ASSERT_EQ(text.size(), 9u);
    EXPECT_EQ(text[0], static_cast<wchar_t>(0xEF));
    EXPECT_EQ(text[1], static_cast<wchar_t>(0xBB));
    EXPECT_EQ(text[2], static_cast<wchar_t>(0xBF));
    EXPECT_EQ(text.substr(3, 4), L"<S/>");
    EXPECT_EQ(text[7], static_cast<wchar_t>(0x80));
    EXPECT_EQ(text[8], static_cast<wchar_t>(0xE9));
}

TEST(SettingsTextTest, BytesAndTextGoBackAndForth) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
    EXPECT_EQ(SettingsFileBytes(SettingsFileText(bytes)), bytes);
}

TEST(SettingsTextTest, FileHeadIsTheDeclarationAndTheDoctype) {
    EXPECT_EQ(SettingsFileBytes(kSettingsFileHead),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE Settings>\r\n");
}

TEST(SettingsTextTest, ErrorLineCarriesTheCodeAndTheMessageWithoutItsLineEnd) {
    wchar_t line[kErrorLineSize];
    FormatErrorLine(L"CXML() failed.", 0x80070057u, L"The parameter is incorrect.\r\n", line);
    EXPECT_EQ(std::wstring(line), L"CXML() failed. (0x80070057: The parameter is incorrect.)");
    FormatErrorLine(L"CXML() failed.", 0x1u, nullptr, line);
    EXPECT_EQ(std::wstring(line), L"CXML() failed. (0x00000001)");
    FormatErrorLine(L"x", 0xABCDEF12u, L"\r\n", line);
    EXPECT_EQ(std::wstring(line), L"x (0xabcdef12: \r\n)");
    FormatErrorLine(L"x", 0u, L"", line);
    EXPECT_EQ(std::wstring(line), L"x (0x00000000)");
}

TEST(SettingsTextTest, ErrorLineSetsItsFormatDownUnexpanded) {
    wchar_t line[kErrorLineSize];
    FormatErrorLine(L"CXML::GetNamedItem(): Error finding named item '%s'.", 0x80004005u, L"Failure\r\n", line);
    EXPECT_EQ(std::wstring(line), L"CXML::GetNamedItem(): Error finding named item '%s'. (0x80004005: Failure)");
}

TEST(SettingsTextTest, ErrorLineStopsAt2047Characters) {
    wchar_t line[kErrorLineSize + 4];
    for (wchar_t& c : line) c = L'#';
    std::wstring text(5000, L'a');
    FormatErrorLine(text.c_str(), 1u, L"message\r\n", reinterpret_cast<wchar_t(&)[kErrorLineSize]>(line));
    EXPECT_EQ(std::wstring(line).size(), kErrorLineSize - 1);
    for (size_t i = kErrorLineSize; i < kErrorLineSize + 4; ++i) EXPECT_EQ(line[i], L'#');
}

}  // namespace
