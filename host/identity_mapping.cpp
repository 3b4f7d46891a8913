#include "identity_mapping.h"

#include <cstring>

namespace {

// A view of the whole block, unmapped when it goes; the header test is the table code's.
class IdentityView {
public:
    IdentityView(HANDLE mapping, DWORD access)
        : view_(static_cast<uint8_t*>(MapViewOfFile(mapping, access, 0, 0, kIdentityTableSize))) {}
    ~IdentityView() {
        if (view_ != nullptr) UnmapViewOfFile(view_);
    }
    IdentityView(const IdentityView&) = delete;
    IdentityView& operator=(const IdentityView&) = delete;

    uint8_t* Get() const { return view_; }

private:
    uint8_t* view_;
};

}  // namespace

HANDLE IdentityOpen(DWORD access) {
    HANDLE mapping = OpenFileMappingA(access, FALSE, kIdentityTableName);
    if (mapping != nullptr) return mapping;
    // A reader never creates the block.
    if (access != FILE_MAP_WRITE) return nullptr;
    mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kIdentityTableSize,
                                 kIdentityTableName);
    if (mapping == nullptr) return nullptr;
    // Kept: two processes creating the block at once may both lay down a fresh header, the second
    // wiping what the first entered.
    IdentityView view(mapping, FILE_MAP_WRITE);
    if (view.Get() != nullptr) IdentityInitialize(view.Get());
    return mapping;
}

int IdentityAdd(HANDLE mapping, unsigned localPort, unsigned remotePort, const char* user) {
    IdentityView view(mapping, FILE_MAP_WRITE);
    if (view.Get() == nullptr) return 0;
    return IdentityAddEntry(view.Get(), localPort, remotePort, user) ? 1 : 0;
}

void IdentityRemove(HANDLE mapping, unsigned localPort, unsigned remotePort) {
    IdentityView view(mapping, FILE_MAP_WRITE);
    if (view.Get() != nullptr) IdentityRemoveEntry(view.Get(), localPort, remotePort);
}

int IdentityLookup(HANDLE mapping, unsigned localPort, unsigned remotePort, char* name, size_t size) {
    return IdentityRead(mapping, localPort, remotePort, name, size) == IdentityLookupResult::kFound ? 1 : 0;
}

IdentityLookupResult IdentityRead(HANDLE mapping, unsigned localPort, unsigned remotePort, char* name, size_t size) {
    IdentityView view(mapping, FILE_MAP_READ);
    if (view.Get() == nullptr) return IdentityLookupResult::kRefused;
    return IdentityLookupEntry(view.Get(), localPort, remotePort, name, size);
}

bool IdentitySnapshot(HANDLE mapping, uint8_t* copy) {
    IdentityView view(mapping, FILE_MAP_READ);
    if (view.Get() == nullptr) return false;
    std::memcpy(copy, view.Get(), kIdentityTableSize);
    return true;
}
