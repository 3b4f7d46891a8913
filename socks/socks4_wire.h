// SOCKS version 4 packets: the request header and the judgement of the 8-byte reply. No 4a.
#pragma once

#include <cstdint>

constexpr int kSocks4PacketSize = 8;
constexpr uint8_t kSocks4Granted = 90;

// Request header: version 4, command, then port and address as on the wire (network order).
void BuildSocks4Header(uint8_t packet[kSocks4PacketSize], uint8_t command, uint16_t networkPort,
                       uint32_t networkAddress);

struct Socks4Verdict {
    bool granted;
    unsigned reportId;   // the numbered report the reply code issues
    bool reportsCode;    // the report takes the code before the socket
    unsigned error;      // 0 or 10061
};

// Byte 0 of the reply is ignored; byte 1 is the code.
Socks4Verdict JudgeSocks4Reply(const uint8_t packet[kSocks4PacketSize]);
