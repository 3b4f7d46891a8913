#include "linked_list.h"

CListNode* CLinkedList::Append(CListNode* node) {
    if (head == nullptr) {
        head = node;
        return node;
    }
    CListNode* last = head;
    while (last->next != nullptr) last = last->next;
    last->next = node;
    return node;
}

void CLinkedList::Clear(void (*release)(CListNode*)) {
    CListNode* node = head;
    while (node != nullptr) {
        CListNode* following = node->next;
        release(node);
        node = following;
    }
    head = nullptr;
}

uint32_t CLinkedList::Count() const {
    uint32_t count = 0;
    for (CListNode* node = head; node != nullptr; node = node->next) ++count;
    return count;
}

CListNode* CLinkedList::At(uint32_t index) const {
    CListNode* node = head;
    for (uint32_t i = 0; node != nullptr && i < index; ++i) node = node->next;
    return node;
}

// Kept: the walk ends on null, so a null node yields the count.
int32_t CLinkedList::IndexOf(const CListNode* node) const {
    int32_t index = 0;
    for (CListNode* walk = head; walk != node; walk = walk->next) {
        if (walk == nullptr) return -1;
        ++index;
    }
    return index;
}

CListNode* CLinkedList::InsertAt(int32_t index, CListNode* node) {
    if (node == nullptr) return nullptr;
    if (index < 1) {
        node->next = head;
        head = node;
        return node;
    }
    CListNode* before = At(static_cast<uint32_t>(index - 1));
    if (before == nullptr) return node;  // no such position: the list stays as it was
    node->next = before->next;
    before->next = node;
    return node;
}

// Kept: a removed head keeps its own link; any other removed node gets a null link.
void CLinkedList::Remove(CListNode* node) {
    if (node == nullptr || head == nullptr) return;
    if (head == node) {
        head = node->next;
        return;
    }
    for (CListNode* walk = head; walk->next != nullptr; walk = walk->next) {
        if (walk->next == node) {
            walk->next = node->next;
            node->next = nullptr;
            return;
        }
    }
}
