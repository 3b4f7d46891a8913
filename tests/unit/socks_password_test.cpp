#include "socks_password.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string Build(const std::string& user, const std::string& password, size_t count) {
    uint8_t request[kPasswordRequestSize] = {};
    size_t size = BuildPasswordRequest(user.c_str(), user.size(), password.c_str(), password.size(), count, request);
    return std::string(reinterpret_cast<char*>(request), size);
}

TEST(SocksPasswordTest, RequestCarriesVersionUserAndPassword) {
    EXPECT_EQ(Build("dxuser", "dxpass", 6), std::string("\x01\x06" "dxuser" "\x06" "dxpass", 15));
}

TEST(SocksPasswordTest, EmptyPasswordGoesOutWithLengthZero) {
    EXPECT_EQ(Build("u", "", 0), std::string("\x01\x01u\x00", 4));
}

TEST(SocksPasswordTest, LengthBytesKeepTheLowEightBits) {
    // 300 wide characters: the length byte reads 44 and 44 bytes of the password go out.
    std::string password(259, 'p');
    std::string request = Build("me", password, 300);
    ASSERT_EQ(request.size(), 3u + 2u + 44u);
    EXPECT_EQ(static_cast<unsigned char>(request[4]), 44);
    EXPECT_EQ(request.substr(5), std::string(44, 'p'));
}

TEST(SocksPasswordTest, LongUserIsOverwrittenByThePasswordLength) {
    std::string user(300, 'u');
    std::string request = Build(user, "pw", 2);
    // 300 in its low 8 bits is 44: the password's length byte stands at 2 + 44, inside the user.
    ASSERT_EQ(request.size(), 3u + 44u + 2u);
    EXPECT_EQ(static_cast<unsigned char>(request[1]), 44);
    EXPECT_EQ(request.substr(2, 44), std::string(44, 'u'));
    EXPECT_EQ(static_cast<unsigned char>(request[46]), 2);
    EXPECT_EQ(request.substr(47), "pw");
}

TEST(SocksPasswordTest, LongestUserAndPasswordStayInsideTheBuffer) {
    std::string user(510, 'u');
    std::string password(259, 'p');
    uint8_t request[kPasswordRequestSize + 8];
    std::memset(request, 0xee, sizeof request);
    size_t size = BuildPasswordRequest(user.c_str(), user.size(), password.c_str(), password.size(), 259, request);
    EXPECT_EQ(size, 3u + (510u & 0xff) + (259u & 0xff));
    for (size_t i = kPasswordRequestSize; i < sizeof request; ++i) EXPECT_EQ(request[i], 0xee) << i;
}

}  // namespace
