// CSharedList: a list that host threads and the hidden threads read and change at once. A slim lock
// is held inside each list operation and nowhere else. Each node lives in a counted block: the list
// holds one use of it, every lookup takes one more, and the last use to go frees the block, so that
// a node unlinked while another thread still works on it stays valid until that thread lets go.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "linked_list.h"

// A counted block: the number of uses, then the node, whose record stays as its class lays it out.
// Returns zeroed room for a node of `nodeSize` bytes with one use, its maker's; null when out of
// memory. Nodes kept in such blocks must be trivially destructible: the block is freed, not the node.
void* AllocateCountedBlock(size_t nodeSize);
// Frees the block that holds `node`, whatever its uses.
void FreeCountedBlock(CListNode* node);
void AddUse(CListNode* node);
// Drops one use; the last one frees the block. Returns whether it did.
bool DropUse(CListNode* node);
int32_t UseCountOf(const CListNode* node);
// The room the block holds for its node: the `nodeSize` it was made with.
size_t RoomOf(const CListNode* node);

// One use of a node in a counted block, dropped when it goes out of scope. Move only: a second use
// comes from a second lookup.
template <typename T>
class SharedUse {
public:
    SharedUse() = default;
    SharedUse(std::nullptr_t) {}
    SharedUse(SharedUse&& other) noexcept : node(other.node) { other.node = nullptr; }
    SharedUse& operator=(SharedUse&& other) noexcept {
        if (this != &other) {
            Reset();
            node = other.node;
            other.node = nullptr;
        }
        return *this;
    }
    SharedUse(const SharedUse&) = delete;
    SharedUse& operator=(const SharedUse&) = delete;
    ~SharedUse() { Reset(); }

    // Takes over a use already counted for `counted`.
    static SharedUse Adopt(T* counted) {
        SharedUse use;
        use.node = counted;
        return use;
    }
    // The same use, as the class the caller knows the node to be.
    template <typename U>
    SharedUse<U> As() && {
        U* cast = static_cast<U*>(node);
        node = nullptr;
        return SharedUse<U>::Adopt(cast);
    }

    T* get() const { return node; }
    T* operator->() const { return node; }
    T& operator*() const { return *node; }
    explicit operator bool() const { return node != nullptr; }
    friend bool operator==(const SharedUse& use, std::nullptr_t) { return use.node == nullptr; }
    friend bool operator!=(const SharedUse& use, std::nullptr_t) { return use.node != nullptr; }

    void Reset() {
        if (node != nullptr) DropUse(node);
        node = nullptr;
    }

private:
    T* node = nullptr;
};

class CSharedList {
public:
    CSharedList() = default;
    CSharedList(const CSharedList&) = delete;
    CSharedList& operator=(const CSharedList&) = delete;
    // Drops the list's use of every node. Takes no lock: only the thread that ends the list runs then.
    ~CSharedList();

    // Links `node` (in a counted block, with its maker's use) at the tail. The maker's use becomes
    // the list's; the one returned is the caller's.
    SharedUse<CListNode> Append(CListNode* node);

    // As Append, unless `match` finds a node already linked: then `node` is dropped and the one
    // found is returned, so that two threads adding the same key at once keep one node.
    template <typename Match>
    SharedUse<CListNode> AppendUnlessFound(CListNode* node, Match match) {
        SharedUse<CListNode> found;
        {
            std::lock_guard<std::mutex> hold(lock);
            found = FindLocked(match);
            if (found == nullptr) {
                list.Append(node);
                AddUse(node);
                return SharedUse<CListNode>::Adopt(node);
            }
        }
        DropUse(node);
        return found;
    }

    // The first node that `match` accepts, with a use of the caller's; null if none does.
    template <typename Match>
    SharedUse<CListNode> Find(Match match) const {
        std::lock_guard<std::mutex> hold(lock);
        return FindLocked(match);
    }

    // Unlinks the first node that `match` accepts and drops the list's use of it. Returns whether
    // one was linked.
    template <typename Match>
    bool UnlinkFirst(Match match) {
        CListNode* gone = nullptr;
        {
            std::lock_guard<std::mutex> hold(lock);
            for (CListNode* node = list.First(); node != nullptr; node = CLinkedList::Next(node)) {
                if (match(static_cast<const CListNode*>(node))) {
                    gone = node;
                    break;
                }
            }
            if (gone != nullptr) list.Remove(gone);
        }
        if (gone != nullptr) DropUse(gone);
        return gone != nullptr;
    }
    // Unlinks `node` itself if it is still linked. Of two threads unlinking one node, one drops the
    // list's use.
    bool Unlink(const CListNode* node) {
        return UnlinkFirst([node](const CListNode* linked) { return linked == node; });
    }

    uint32_t Count() const;
    bool Empty() const;
    // The node at `index` from the head, with a use; null past the end.
    SharedUse<CListNode> At(uint32_t index) const;

private:
    template <typename Match>
    SharedUse<CListNode> FindLocked(Match match) const {
        for (CListNode* node = list.First(); node != nullptr; node = CLinkedList::Next(node)) {
            if (match(static_cast<const CListNode*>(node))) {
                // Linked, so the list's use keeps it alive while this one is added.
                AddUse(node);
                return SharedUse<CListNode>::Adopt(node);
            }
        }
        return nullptr;
    }

    mutable std::mutex lock;
    CLinkedList list;
};
