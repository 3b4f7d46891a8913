#include "identity_table.h"

#include <atomic>
#include <cstring>

#include "bounded_text.h"

namespace {

void PutWord(uint8_t* view, size_t offset, uint32_t value) {
    uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                        static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    std::memcpy(view + offset, bytes, sizeof bytes);
}

size_t EntryAt(int slot) { return kIdentityHeaderSize + kIdentityEntrySize * static_cast<size_t>(slot); }

// Another process reads the block while we write it, without a lock: the compiler must keep the
// stores in the order that a reader can live with.
void KeepStoreOrder() { std::atomic_signal_fence(std::memory_order_seq_cst); }

// The header's entryCount as the search reads it, signed, and limited to the slots that fit in the
// block: a slot the search can't reach is never filled.
int32_t WalkableSlots(const uint8_t* view) {
    int32_t count = static_cast<int32_t>(IdentityWord(view, kIdentityEntryCountAt));
    return count < static_cast<int32_t>(kIdentitySlots) ? count : static_cast<int32_t>(kIdentitySlots);
}

}  // namespace

uint32_t IdentityWord(const uint8_t* view, size_t offset) {
    uint8_t bytes[4];
    std::memcpy(bytes, view + offset, sizeof bytes);
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

void IdentityInitialize(uint8_t* view) {
    std::memset(view, 0, kIdentityTableSize);
    PutWord(view, kIdentityTotalSizeAt, kIdentityTableSize);
    PutWord(view, kIdentityVersionAt, kIdentityVersion);
    PutWord(view, kIdentityEntrySizeAt, kIdentityEntrySize);
    PutWord(view, kIdentityEntryCountAt, kIdentitySlots);
}

bool IdentityLayoutValid(const uint8_t* view) {
    return IdentityWord(view, kIdentityEntryCountAt) != 0 && IdentityWord(view, kIdentityVersionAt) == kIdentityVersion &&
           IdentityWord(view, kIdentityEntrySizeAt) == kIdentityEntrySize;
}

int IdentityFindEntry(const uint8_t* view, uint32_t localPort, uint32_t remotePort) {
    int32_t highWater = static_cast<int32_t>(IdentityWord(view, kIdentityHighWaterAt));
    int32_t count = WalkableSlots(view);
    int32_t end = highWater < count ? highWater : count;
    for (int slot = 0; slot < end; ++slot) {
        size_t entry = EntryAt(slot);
        if (IdentityWord(view, entry + kIdentityInUseAt) != 0 &&
            IdentityWord(view, entry + kIdentityLocalPortAt) == localPort &&
            IdentityWord(view, entry + kIdentityRemotePortAt) == remotePort) {
            return slot;
        }
    }
    return -1;
}

bool IdentityAddEntry(uint8_t* view, uint32_t localPort, uint32_t remotePort, const char* user) {
    if (!IdentityLayoutValid(view)) return false;
    int slot = IdentityFindEntry(view, localPort, remotePort);
    if (slot < 0) {
        int32_t slots = WalkableSlots(view);
        for (int i = 0; i < slots; ++i) {
            if (IdentityWord(view, EntryAt(i) + kIdentityInUseAt) == 0) {
                slot = i;
                break;
            }
        }
        // A full table is a plain failure: nothing is evicted.
        if (slot < 0) return false;
    }
    uint8_t* entry = view + EntryAt(slot);
    // inUse and localPort in one store, then remotePort, then the name: a reader may see the entry
    // live before its name is there.
    uint8_t live[8];
    PutWord(live, 0, 1);
    PutWord(live, 4, localPort);
    std::memcpy(entry + kIdentityInUseAt, live, sizeof live);
    KeepStoreOrder();
    PutWord(entry, kIdentityRemotePortAt, remotePort);
    KeepStoreOrder();
    char* name = reinterpret_cast<char*>(entry + kIdentityUserNameAt);
    CopyText(name, kIdentityNameSize, user);
    name[kIdentityUserNameField - 1] = '\0';
    KeepStoreOrder();
    int32_t highWater = static_cast<int32_t>(IdentityWord(view, kIdentityHighWaterAt));
    if (highWater < slot + 1) PutWord(view, kIdentityHighWaterAt, static_cast<uint32_t>(slot + 1));
    // Raised on a reused slot too: it tells a reader that the table changed.
    PutWord(view, kIdentityAddCountAt, IdentityWord(view, kIdentityAddCountAt) + 1);
    return true;
}

void IdentityRemoveEntry(uint8_t* view, uint32_t localPort, uint32_t remotePort) {
    if (!IdentityLayoutValid(view)) return;
    int slot = IdentityFindEntry(view, localPort, remotePort);
    if (slot < 0) return;
    uint8_t* entry = view + EntryAt(slot);
    PutWord(entry, kIdentityInUseAt, 0);
    PutWord(entry, kIdentityLocalPortAt, 0);
    PutWord(entry, kIdentityRemotePortAt, 0);
    // Only the first byte of the name goes; the rest of it stays in the block.
    entry[kIdentityUserNameAt] = 0;
    // Steps down by one at most, so highWater may stand above free slots.
    uint32_t highWater = IdentityWord(view, kIdentityHighWaterAt);
    if (highWater != 0 && static_cast<uint32_t>(slot) + 1 == highWater) {
        PutWord(view, kIdentityHighWaterAt, highWater - 1);
    }
}

IdentityLookupResult IdentityLookupEntry(const uint8_t* view, uint32_t localPort, uint32_t remotePort, char* name,
                                         size_t size) {
    if (!IdentityLayoutValid(view)) return IdentityLookupResult::kRefused;
    int slot = IdentityFindEntry(view, localPort, remotePort);
    if (slot < 0) return IdentityLookupResult::kNotFound;
    // A name without its terminator in a damaged block ends after 30 characters, inside the entry.
    const char* stored = reinterpret_cast<const char*>(view + EntryAt(slot) + kIdentityUserNameAt);
    char copy[kIdentityNameSize];
    CopyText(copy, stored);
    CopyText(name, size, copy);
    return IdentityLookupResult::kFound;
}

IdentityEntry IdentityEntryAt(const uint8_t* view, uint32_t slot) {
    size_t entry = EntryAt(static_cast<int>(slot % kIdentitySlots));
    IdentityEntry result = {};
    result.inUse = IdentityWord(view, entry + kIdentityInUseAt);
    result.localPort = IdentityWord(view, entry + kIdentityLocalPortAt);
    result.remotePort = IdentityWord(view, entry + kIdentityRemotePortAt);
    CopyText(result.userName, reinterpret_cast<const char*>(view + entry + kIdentityUserNameAt));
    return result;
}
