#include "socks4_wire.h"

#include "bounded_text.h"
#include "dxsocks_ids.h"
#include "result_codes.h"

namespace {
constexpr unsigned kRefused = dxcode::kConnectionRefused;
}  // namespace

void BuildSocks4Header(uint8_t packet[kSocks4PacketSize], uint8_t command, uint16_t networkPort,
                       uint32_t networkAddress) {
    ByteWriter out(packet, kSocks4PacketSize);
    out.Put(4);
    out.Put(command);
    out.Put(&networkPort, 2);
    out.Put(&networkAddress, 4);
}

Socks4Verdict JudgeSocks4Reply(const uint8_t packet[kSocks4PacketSize]) {
    switch (packet[1]) {
        case kSocks4Granted: return {true, IDR_SOCKS4_GRANTED, false, 0};
        case 91: return {false, IDR_SOCKS4_REJECTED, false, kRefused};
        case 92: return {false, IDR_SOCKS4_NO_IDENT, false, kRefused};
        case 93: return {false, IDR_SOCKS4_IDENT_MISMATCH, false, kRefused};
        default: return {false, IDR_SOCKS4_UNKNOWN_CODE, true, kRefused};
    }
}
