#include "socks5_wire.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Socks5WireTest, MethodSelection) {
    uint8_t bytes[kMethodSelectMaxSize];
    ASSERT_EQ(BuildSocks5MethodSelect(false, bytes), 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 3), std::string("\x05\x01\x00", 3));
    ASSERT_EQ(BuildSocks5MethodSelect(true, bytes), 4u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 4), std::string("\x05\x02\x02\x00", 4));
}

TEST(Socks5WireTest, RequestByAddressAndByName) {
    Socks5RequestLayout byAddress = LayoutSocks5Request(0x0100007f, 9);
    EXPECT_EQ(byAddress.addressType, kAddressTypeIPv4);
    EXPECT_EQ(byAddress.size, 10u);
    uint8_t request[16];
    WriteSocks5Request(byAddress, 2, 0x0100007f, 0x5000, "localhost", 9, 80, request);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(request), 10), std::string("\x05\x02\x00\x01\x7f\0\0\x01\x00\x50", 10));

    Socks5RequestLayout byName = LayoutSocks5Request(0, 3);
    EXPECT_EQ(byName.addressType, kAddressTypeName);
    EXPECT_EQ(byName.size, 10u);
    WriteSocks5Request(byName, 1, 0, 0, "abc", 3, 0x1234, request);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(request), 10), std::string("\x05\x01\x00\x03\x03" "abc\x12\x34", 10));
}

TEST(Socks5WireTest, NameLengthByteKeepsTheLowEightBits) {
    std::string name(256 + 44, 'x');
    Socks5RequestLayout layout = LayoutSocks5Request(0, name.size());
    ASSERT_EQ(layout.size, name.size() + 7);
    std::string request(layout.size, '\0');
    WriteSocks5Request(layout, 1, 0, 0, name.c_str(), name.size(), 80, reinterpret_cast<uint8_t*>(&request[0]));
    EXPECT_EQ(static_cast<unsigned char>(request[4]), 44);
    EXPECT_EQ(request.substr(5, name.size()), name);
    EXPECT_EQ(request.substr(5 + name.size()), std::string("\x00\x50", 2));
}

}  // namespace
