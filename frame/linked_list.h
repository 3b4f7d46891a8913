// CLinkedList: singly linked, intrusive, head pointer only. Every operation walks from the head.
#pragma once

#include <cstdint>

// A node begins with its link, so that a record derived from it keeps `next` as its first field.
struct CListNode {
    CListNode* next = nullptr;
};

class CLinkedList {
public:
    CLinkedList() = default;
    CLinkedList(const CLinkedList&) = delete;
    CLinkedList& operator=(const CLinkedList&) = delete;

    CListNode* Append(CListNode* node);
    CListNode* First() const { return head; }
    static CListNode* Next(const CListNode* node) { return node->next; }
    uint32_t Count() const;
    CListNode* At(uint32_t index) const;
    int32_t IndexOf(const CListNode* node) const;
    CListNode* InsertAt(int32_t index, CListNode* node);
    void Remove(CListNode* node);

    // Frees every node through `release`, which knows the nodes' concrete type, then empties the list.
    void Clear(void (*release)(CListNode*));

protected:
    CListNode* head = nullptr;
};
