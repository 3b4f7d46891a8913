#include "socks4_wire.h"

#include <cstring>

namespace {
constexpr unsigned kConnectionRefused = 10061;
}

void BuildSocks4Header(uint8_t packet[kSocks4PacketSize], uint8_t command, uint16_t networkPort,
                       uint32_t networkAddress) {
    packet[0] = 4;
    packet[1] = command;
    std::memcpy(packet + 2, &networkPort, 2);
    std::memcpy(packet + 4, &networkAddress, 4);
}

Socks4Verdict JudgeSocks4Reply(const uint8_t packet[kSocks4PacketSize]) {
    switch (packet[1]) {
        case kSocks4Granted: return {true, 2002, false, 0};
        case 91: return {false, 2003, false, kConnectionRefused};
        case 92: return {false, 2004, false, kConnectionRefused};
        case 93: return {false, 2005, false, kConnectionRefused};
        default: return {false, 2006, true, kConnectionRefused};
    }
}
