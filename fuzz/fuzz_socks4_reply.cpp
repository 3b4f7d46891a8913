// The SOCKS 4 reply: granted exactly for code 90 in byte 1, and every other code a refusal.
#include <cstdint>
#include <cstdlib>

#include "socks4_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kSocks4PacketSize) return 0;
    Socks4Verdict verdict = JudgeSocks4Reply(data);
    bool granted = data[1] == kSocks4Granted;
    if (verdict.granted != granted) std::abort();
    if (verdict.error != (granted ? 0u : 10061u)) std::abort();
    if (verdict.reportId < 2002 || verdict.reportId > 2006) std::abort();
    if (verdict.reportsCode != (verdict.reportId == 2006)) std::abort();
    return 0;
}
