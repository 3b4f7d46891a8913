#include "shared_list.h"

#include <atomic>
#include <cstring>
#include <new>

namespace {

// Sized to the strictest alignment, so that the node behind it is aligned as a block of its own.
struct alignas(alignof(std::max_align_t)) BlockHeader {
    std::atomic<int32_t> uses;
    size_t room;
};

BlockHeader* HeaderOf(const CListNode* node) {
    return reinterpret_cast<BlockHeader*>(
        const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(node)) - sizeof(BlockHeader));
}

}  // namespace

void* AllocateCountedBlock(size_t nodeSize) {
    void* block = ::operator new(sizeof(BlockHeader) + nodeSize, std::nothrow);
    if (block == nullptr) return nullptr;
    auto* header = new (block) BlockHeader{};
    header->uses.store(1, std::memory_order_relaxed);
    header->room = nodeSize;
    unsigned char* room = static_cast<unsigned char*>(block) + sizeof(BlockHeader);
    std::memset(room, 0, nodeSize);
    return room;
}

void FreeCountedBlock(CListNode* node) {
    BlockHeader* header = HeaderOf(node);
    header->~BlockHeader();
    ::operator delete(static_cast<void*>(header));
}

// A new use always comes from one that is held (the list's or the caller's), so nothing needs ordering here.
void AddUse(CListNode* node) { HeaderOf(node)->uses.fetch_add(1, std::memory_order_relaxed); }

// Whatever each user wrote into the node happens before the last user frees it.
bool DropUse(CListNode* node) {
    if (HeaderOf(node)->uses.fetch_sub(1, std::memory_order_acq_rel) != 1) return false;
    FreeCountedBlock(node);
    return true;
}

int32_t UseCountOf(const CListNode* node) { return HeaderOf(node)->uses.load(std::memory_order_acquire); }

size_t RoomOf(const CListNode* node) { return HeaderOf(node)->room; }

CSharedList::~CSharedList() {
    CListNode* node = list.First();
    while (node != nullptr) {
        CListNode* following = CLinkedList::Next(node);
        DropUse(node);
        node = following;
    }
}

SharedUse<CListNode> CSharedList::Append(CListNode* node) {
    std::lock_guard<std::mutex> hold(lock);
    list.Append(node);
    AddUse(node);
    return SharedUse<CListNode>::Adopt(node);
}

uint32_t CSharedList::Count() const {
    std::lock_guard<std::mutex> hold(lock);
    return list.Count();
}

bool CSharedList::Empty() const {
    std::lock_guard<std::mutex> hold(lock);
    return list.First() == nullptr;
}

SharedUse<CListNode> CSharedList::At(uint32_t index) const {
    std::lock_guard<std::mutex> hold(lock);
    CListNode* node = list.At(index);
    if (node == nullptr) return nullptr;
    AddUse(node);
    return SharedUse<CListNode>::Adopt(node);
}
