// The identity table: a block of 7656 bytes that an ident server in another process reads to learn
// which user owns a connection between a local port and a proxy's port. Its layout, byte by byte,
// free of the Windows API, so that the library's writer and the responder's reader share one
// description. Every operation takes a view of the whole block and tests its header first.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr char kIdentityTableName[] = "KVT_Verdane_IdentD";

constexpr uint32_t kIdentityTableSize = 7656;
constexpr uint32_t kIdentityVersion = 1;
constexpr uint32_t kIdentityHeaderSize = 56;
constexpr uint32_t kIdentityEntrySize = 76;
// The slots that fit in the block: no walk goes beyond them, whatever the header says.
constexpr uint32_t kIdentitySlots = 100;
static_assert(kIdentityHeaderSize + kIdentityEntrySize * kIdentitySlots == kIdentityTableSize,
              "the header and 100 entries fill the block");

// Header fields, all 32-bit little-endian words.
constexpr size_t kIdentityTotalSizeAt = 0;
constexpr size_t kIdentityVersionAt = 4;
constexpr size_t kIdentityHighWaterAt = 8;
constexpr size_t kIdentityAddCountAt = 12;
constexpr size_t kIdentityEntrySizeAt = 48;
constexpr size_t kIdentityEntryCountAt = 52;

// Entry fields, from the start of an entry.
constexpr size_t kIdentityInUseAt = 0;
constexpr size_t kIdentityLocalPortAt = 4;
constexpr size_t kIdentityRemotePortAt = 8;
constexpr size_t kIdentityUserNameAt = 12;
constexpr size_t kIdentityUserNameField = 32;

// A stored name keeps at most 30 characters; a reader's buffer holds them and the terminator.
constexpr size_t kIdentityNameLength = 30;
constexpr size_t kIdentityNameSize = kIdentityNameLength + 1;

enum class IdentityLookupResult { kNotFound, kFound, kRefused };

// A 32-bit word of the block.
uint32_t IdentityWord(const uint8_t* view, size_t offset);

// Zeroes the block and writes a fresh header: 7656, version 1, entries of 76 bytes, 100 of them.
void IdentityInitialize(uint8_t* view);
// The header test every operation makes: entryCount not 0, version 1, entrySize 76.
bool IdentityLayoutValid(const uint8_t* view);
// The slot with the key among the first highWater slots (compared as signed, and within the block's
// 100), or -1.
int IdentityFindEntry(const uint8_t* view, uint32_t localPort, uint32_t remotePort);
// Enters the key and the user's first 30 characters: the key's own slot, else the first free one.
// False on a refused layout or a full table, which change nothing.
bool IdentityAddEntry(uint8_t* view, uint32_t localPort, uint32_t remotePort, const char* user);
// Takes the key out, if the layout is accepted and the key is there.
void IdentityRemoveEntry(uint8_t* view, uint32_t localPort, uint32_t remotePort);
// Copies the key's name, at most 30 characters and never more than size - 1, into `name`.
IdentityLookupResult IdentityLookupEntry(const uint8_t* view, uint32_t localPort, uint32_t remotePort, char* name,
                                         size_t size);

// One slot as it stands, for a listing; the name bounded to 30 characters.
struct IdentityEntry {
    uint32_t inUse;
    uint32_t localPort;
    uint32_t remotePort;
    char userName[kIdentityNameSize];
};
// `slot` is taken modulo the block's 100 slots.
IdentityEntry IdentityEntryAt(const uint8_t* view, uint32_t slot);
