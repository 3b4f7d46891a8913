// The identity table on a block of exactly its size, so that the sanitizer sees any touch outside it:
// a header and entries taken from the input, then adds, removes and lookups it chooses. A refused
// layout must stay untouched, a found name has at most 30 characters, and what an add entered is
// found again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "identity_table.h"

namespace {

// Input: one byte of mode, then (mode bit 0) 56 header bytes, (bit 1) entry bytes repeated over the
// entries, then operations of 5 bytes: kind, local port, remote port, name length, name letter.
struct Input {
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    bool More(size_t count) const { return size - at >= count; }
    uint8_t Byte() { return at < size ? data[at++] : 0; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input{data, size};
    std::vector<uint8_t> block(kIdentityTableSize);
    IdentityInitialize(block.data());
    uint8_t mode = input.Byte();
    if ((mode & 1) && input.More(kIdentityHeaderSize)) {
        std::memcpy(block.data(), data + input.at, kIdentityHeaderSize);
        input.at += kIdentityHeaderSize;
    }
    if ((mode & 2) && input.More(kIdentityEntrySize)) {
        for (size_t i = kIdentityHeaderSize; i < kIdentityTableSize; ++i) {
            block[i] = data[input.at + (i - kIdentityHeaderSize) % kIdentityEntrySize];
        }
        input.at += kIdentityEntrySize;
    }
    // The only bytes an operation may write are those of the block; the vector's own bound is its size.
    while (input.More(5)) {
        uint8_t kind = input.Byte() % 3;
        uint32_t local = input.Byte() % 8;
        uint32_t remote = input.Byte() % 4;
        char name[48] = {};
        size_t length = input.Byte() % 40;
        std::memset(name, 'a' + input.Byte() % 26, length);

        bool valid = IdentityLayoutValid(block.data());
        std::vector<uint8_t> before = block;
        char found[kIdentityNameSize];
        if (kind == 0) {
            bool added = IdentityAddEntry(block.data(), local, remote, name);
            if (!valid && (added || block != before)) std::abort();
            if (added) {
                if (IdentityLookupEntry(block.data(), local, remote, found, sizeof found) != IdentityLookupResult::kFound)
                    std::abort();
                if (std::strncmp(found, name, kIdentityNameLength) != 0) std::abort();
            }
        } else if (kind == 1) {
            IdentityRemoveEntry(block.data(), local, remote);
            if (!valid && block != before) std::abort();
        } else {
            IdentityLookupResult result = IdentityLookupEntry(block.data(), local, remote, found, sizeof found);
            if (block != before) std::abort();
            if (!valid && result != IdentityLookupResult::kRefused) std::abort();
            if (result == IdentityLookupResult::kFound && std::strlen(found) > kIdentityNameLength) std::abort();
        }
    }
    return 0;
}
