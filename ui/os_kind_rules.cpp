#include "os_kind_rules.h"

int ClassifyOsKind(const OsVersionFacts& facts) {
    if (facts.platformId < 2) return 1;
    if (facts.platformId != 2) return 0;
    if (facts.major < 5) return 2;
    int workstation = facts.productType == 1 ? 0 : 1;
    if (facts.major == 5) {
        switch (facts.minor) {
            case 0: return 3;
            case 1: return 4;
            case 2: return facts.serverR2 ? 6 : 5;
            default: return 0;
        }
    }
    if (facts.major == 6 && facts.minor <= 3) return 7 + 2 * static_cast<int>(facts.minor) + workstation;
    if (facts.major == 10 && facts.minor == 0) return 15 + workstation;
    return 0;
}
