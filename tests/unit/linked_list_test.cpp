#include "linked_list.h"

#include <gtest/gtest.h>

namespace {

struct Node : CListNode {};

class LinkedListTest : public ::testing::Test {
protected:
    void Fill(int count) {
        for (int i = 0; i < count; ++i) list.Append(&nodes[i]);
    }
    Node nodes[4];
    Node stranger;
    CLinkedList list;
};

TEST_F(LinkedListTest, AppendLinksBehindTheLastAndAnEmptyListTakesTheHead) {
    EXPECT_EQ(list.First(), nullptr);
    EXPECT_EQ(list.Append(&nodes[0]), &nodes[0]);
    EXPECT_EQ(list.First(), &nodes[0]);
    list.Append(&nodes[1]);
    EXPECT_EQ(CLinkedList::Next(&nodes[0]), &nodes[1]);
    EXPECT_EQ(CLinkedList::Next(&nodes[1]), nullptr);
}

TEST_F(LinkedListTest, CountAtAndIndexOfWalkFromTheHead) {
    Fill(3);
    EXPECT_EQ(list.Count(), 3u);
    EXPECT_EQ(list.At(0), &nodes[0]);
    EXPECT_EQ(list.At(2), &nodes[2]);
    EXPECT_EQ(list.At(3), nullptr);
    EXPECT_EQ(list.IndexOf(&nodes[2]), 2);
    EXPECT_EQ(list.IndexOf(&stranger), -1);
}

TEST_F(LinkedListTest, IndexOfNullGivesTheCount) {
    EXPECT_EQ(list.IndexOf(nullptr), 0);
    Fill(3);
    EXPECT_EQ(list.IndexOf(nullptr), 3);
}

TEST_F(LinkedListTest, InsertAtNullNodeReturnsNullAndChangesNothing) {
    Fill(2);
    EXPECT_EQ(list.InsertAt(1, nullptr), nullptr);
    EXPECT_EQ(list.Count(), 2u);
}

TEST_F(LinkedListTest, InsertAtIndexBelowOneMakesTheHead) {
    Fill(2);
    EXPECT_EQ(list.InsertAt(0, &nodes[2]), &nodes[2]);
    EXPECT_EQ(list.First(), &nodes[2]);
    EXPECT_EQ(list.InsertAt(-7, &nodes[3]), &nodes[3]);
    EXPECT_EQ(list.First(), &nodes[3]);
    EXPECT_EQ(list.At(1), &nodes[2]);
    EXPECT_EQ(list.Count(), 4u);
}

TEST_F(LinkedListTest, InsertAtGoesBehindTheNodeAtIndexMinusOne) {
    Fill(3);
    EXPECT_EQ(list.InsertAt(2, &stranger), &stranger);
    EXPECT_EQ(list.At(1), &nodes[1]);
    EXPECT_EQ(list.At(2), &stranger);
    EXPECT_EQ(list.At(3), &nodes[2]);
}

TEST_F(LinkedListTest, InsertAtPastTheEndLeavesTheListButReturnsTheNode) {
    Fill(2);
    EXPECT_EQ(list.InsertAt(5, &stranger), &stranger);
    EXPECT_EQ(list.Count(), 2u);
    EXPECT_EQ(list.IndexOf(&stranger), -1);
    // Index 2 is just behind the last node, which exists.
    EXPECT_EQ(list.InsertAt(2, &nodes[2]), &nodes[2]);
    EXPECT_EQ(list.At(2), &nodes[2]);
}

TEST_F(LinkedListTest, RemovedHeadKeepsItsLinkOthersGetNull) {
    Fill(3);
    list.Remove(&nodes[0]);
    EXPECT_EQ(list.First(), &nodes[1]);
    EXPECT_EQ(CLinkedList::Next(&nodes[0]), &nodes[1]);
    list.Remove(&nodes[2]);
    EXPECT_EQ(CLinkedList::Next(&nodes[2]), nullptr);
    EXPECT_EQ(list.Count(), 1u);
}

TEST_F(LinkedListTest, RemoveOfAnUnknownNodeChangesNothing) {
    Fill(2);
    stranger.next = &nodes[3];
    list.Remove(&stranger);
    EXPECT_EQ(list.Count(), 2u);
    EXPECT_EQ(stranger.next, &nodes[3]);
}

int g_released;
void CountRelease(CListNode*) { ++g_released; }

TEST_F(LinkedListTest, ClearFreesEveryNodeAndEmptiesTheList) {
    Fill(3);
    g_released = 0;
    list.Clear(CountRelease);
    EXPECT_EQ(g_released, 3);
    EXPECT_EQ(list.First(), nullptr);
    EXPECT_EQ(list.Count(), 0u);
}

}  // namespace
