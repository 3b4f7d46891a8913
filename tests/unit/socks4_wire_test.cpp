#include "socks4_wire.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Socks4WireTest, HeaderCarriesVersionCommandPortAndAddressAsOnTheWire) {
    uint8_t packet[kSocks4PacketSize] = {};
    uint16_t port = 0x3412;          // network order for port 0x1234
    uint32_t address = 0x0100007f;   // 127.0.0.1 in network order
    BuildSocks4Header(packet, 2, port, address);
    const uint8_t expected[] = {4, 2, 0x12, 0x34, 127, 0, 0, 1};
    EXPECT_EQ(std::memcmp(packet, expected, sizeof expected), 0);
}

TEST(Socks4WireTest, ReplyCodesAndTheirReports) {
    struct Case {
        uint8_t code;
        bool granted;
        unsigned reportId;
        bool reportsCode;
        unsigned error;
    };
    const Case cases[] = {
        {90, true, 2002, false, 0},       {91, false, 2003, false, 10061}, {92, false, 2004, false, 10061},
        {93, false, 2005, false, 10061},  {94, false, 2006, true, 10061},  {0, false, 2006, true, 10061},
        {255, false, 2006, true, 10061},
    };
    for (const Case& c : cases) {
        uint8_t reply[kSocks4PacketSize] = {0x55, c.code, 0, 0, 0, 0, 0, 0};
        Socks4Verdict verdict = JudgeSocks4Reply(reply);
        EXPECT_EQ(verdict.granted, c.granted) << int(c.code);
        EXPECT_EQ(verdict.reportId, c.reportId) << int(c.code);
        EXPECT_EQ(verdict.reportsCode, c.reportsCode) << int(c.code);
        EXPECT_EQ(verdict.error, c.error) << int(c.code);
    }
}

TEST(Socks4WireTest, ByteZeroOfTheReplyIsIgnored) {
    for (int first : {0, 4, 0xff}) {
        uint8_t reply[kSocks4PacketSize] = {static_cast<uint8_t>(first), 90};
        EXPECT_TRUE(JudgeSocks4Reply(reply).granted);
    }
}

}  // namespace
