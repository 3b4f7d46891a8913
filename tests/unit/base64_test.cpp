#include "base64.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Encoded {
    int result;
    std::string text;
};

Encoded Encode(const std::string& input, size_t capacity = 1024) {
    std::string buffer(capacity, '\0');
    buffer.replace(0, input.size(), input);
    int result = Base64Encode(&buffer[0], capacity);
    return {result, buffer.c_str()};
}

TEST(Base64Test, UserColonPassword) {
    Encoded e = Encode("alice:x");
    EXPECT_EQ(e.result, 1);
    EXPECT_EQ(e.text, "YWxpY2U6eA==");
}

TEST(Base64Test, PaddingByRemainder) {
    EXPECT_EQ(Encode("a").text, "YQ==");
    EXPECT_EQ(Encode("ab").text, "YWI=");
    EXPECT_EQ(Encode("abc").text, "YWJj");
    EXPECT_EQ(Encode(":x").text, "Ong=");
    EXPECT_EQ(Encode("alice").text, "YWxpY2U=");
}

TEST(Base64Test, EmptyTextStaysEmptyWithResultOne) {
    Encoded e = Encode("");
    EXPECT_EQ(e.result, 1);
    EXPECT_EQ(e.text, "");
}

TEST(Base64Test, AHighByteLeavesTheTextAsItStands) {
    Encoded e = Encode("alice:\xe9t\xe9");
    EXPECT_EQ(e.result, 0);
    EXPECT_EQ(e.text, "alice:\xe9t\xe9");
}

TEST(Base64Test, AllBytesOfTheAlphabet) {
    std::string input;
    for (int i = 0; i < 0x80; ++i) input += static_cast<char>(i == 0 ? 1 : i);
    Encoded e = Encode(input);
    EXPECT_EQ(e.result, 1);
    EXPECT_EQ(e.text.size(), (input.size() + 2) / 3 * 4);
    EXPECT_EQ(e.text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
              std::string::npos);
}

TEST(Base64Test, LongestTextThatFitsTheCredentialBuffer) {
    // 765 bytes encode to 1020 characters and a terminator; 768 would need 1025.
    EXPECT_EQ(Encode(std::string(765, 'a')).result, 1);
    EXPECT_EQ(Encode(std::string(765, 'a')).text.size(), 1020u);
    Encoded refused = Encode(std::string(768, 'a'));
    EXPECT_EQ(refused.result, 0);
    EXPECT_EQ(refused.text, std::string(768, 'a'));
}

}  // namespace
