// The shared list on one thread: what each operation does to the uses of a node. Under the native
// AddressSanitizer build a node freed too early shows as a use after free, one never freed as a leak.
#include "shared_list.h"

#include <gtest/gtest.h>

#include <new>
#include <type_traits>
#include <utility>

namespace {

struct KeyedNode : CListNode {
    explicit KeyedNode(int k) : key(k) {}
    int key;
    int value = 0;
};
static_assert(std::is_trivially_destructible_v<KeyedNode>);

KeyedNode* Make(int key) { return new (AllocateCountedBlock(sizeof(KeyedNode))) KeyedNode(key); }

auto KeyIs(int key) {
    return [key](const CListNode* node) { return static_cast<const KeyedNode*>(node)->key == key; };
}

SharedUse<KeyedNode> Keyed(SharedUse<CListNode> use) { return std::move(use).As<KeyedNode>(); }

TEST(CountedBlockTest, StartsWithTheMakersUseAndZeroedRoom) {
    void* room = AllocateCountedBlock(64);
    ASSERT_NE(room, nullptr);
    auto* node = static_cast<CListNode*>(room);
    EXPECT_EQ(UseCountOf(node), 1);
    EXPECT_EQ(RoomOf(node), 64u);
    const auto* bytes = static_cast<const unsigned char*>(room);
    for (int i = 0; i < 64; ++i) ASSERT_EQ(bytes[i], 0) << i;
    EXPECT_TRUE(DropUse(node));
}

TEST(CountedBlockTest, RoomIsAlignedForAnyField) {
    void* room = AllocateCountedBlock(1);
    ASSERT_NE(room, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(room) % alignof(std::max_align_t), 0u);
    DropUse(static_cast<CListNode*>(room));
}

TEST(CountedBlockTest, FreedOnlyAtTheLastRelease) {
    KeyedNode* node = Make(1);
    AddUse(node);
    AddUse(node);
    EXPECT_EQ(UseCountOf(node), 3);
    EXPECT_FALSE(DropUse(node));
    node->value = 5;  // still the caller's
    EXPECT_FALSE(DropUse(node));
    EXPECT_EQ(UseCountOf(node), 1);
    EXPECT_EQ(node->value, 5);
    EXPECT_TRUE(DropUse(node));
}

TEST(SharedUseTest, DropsItsUseAtTheEndOfItsScopeAndMovesWithoutCounting) {
    KeyedNode* node = Make(1);
    AddUse(node);
    {
        auto use = SharedUse<KeyedNode>::Adopt(node);
        EXPECT_EQ(UseCountOf(node), 2);
        SharedUse<KeyedNode> moved = std::move(use);
        EXPECT_EQ(use, nullptr);
        EXPECT_EQ(moved.get(), node);
        EXPECT_EQ(UseCountOf(node), 2);
        SharedUse<CListNode> asBase = std::move(moved).As<CListNode>();
        EXPECT_EQ(moved, nullptr);
        EXPECT_EQ(asBase.get(), static_cast<CListNode*>(node));
        EXPECT_EQ(UseCountOf(node), 2);
    }
    EXPECT_EQ(UseCountOf(node), 1);
    EXPECT_TRUE(DropUse(node));
}

TEST(SharedUseTest, ResetAndAssignmentDropTheUseHeldBefore) {
    KeyedNode* first = Make(1);
    KeyedNode* second = Make(2);
    AddUse(first);
    auto use = SharedUse<KeyedNode>::Adopt(first);
    use = SharedUse<KeyedNode>::Adopt(second);  // the maker's use of second
    EXPECT_EQ(UseCountOf(first), 1);
    use.Reset();
    EXPECT_EQ(use, nullptr);
    EXPECT_TRUE(DropUse(first));
}

class SharedListTest : public ::testing::Test {
protected:
    CSharedList list;
};

TEST_F(SharedListTest, AppendHandsTheMakersUseToTheListAndGivesTheCallerOne) {
    KeyedNode* node = Make(7);
    {
        SharedUse<CListNode> use = list.Append(node);
        EXPECT_EQ(use.get(), node);
        EXPECT_EQ(UseCountOf(node), 2);
    }
    EXPECT_EQ(UseCountOf(node), 1);
    EXPECT_EQ(list.Count(), 1u);
    EXPECT_FALSE(list.Empty());
}

TEST_F(SharedListTest, FindTakesAUseOfTheFirstMatchAndAMissGivesNull) {
    KeyedNode* a = Make(1);
    KeyedNode* b = Make(2);
    KeyedNode* twin = Make(1);
    list.Append(a);
    list.Append(b);
    list.Append(twin);
    {
        auto found = Keyed(list.Find(KeyIs(1)));
        EXPECT_EQ(found.get(), a);
        EXPECT_EQ(UseCountOf(a), 2);
        EXPECT_EQ(UseCountOf(twin), 1);
    }
    EXPECT_EQ(UseCountOf(a), 1);
    EXPECT_EQ(list.Find(KeyIs(3)), nullptr);
    EXPECT_EQ(list.At(1).get(), b);
    EXPECT_EQ(list.At(2).get(), twin);
    EXPECT_EQ(list.At(3), nullptr);
}

TEST_F(SharedListTest, AnUnlinkedNodeIsNotFoundAgainAndLivesWhileItIsUsed) {
    list.Append(Make(4));
    auto held = Keyed(list.Find(KeyIs(4)));
    ASSERT_NE(held, nullptr);
    EXPECT_TRUE(list.UnlinkFirst(KeyIs(4)));
    EXPECT_EQ(list.Find(KeyIs(4)), nullptr);
    EXPECT_TRUE(list.Empty());
    EXPECT_FALSE(list.UnlinkFirst(KeyIs(4)));
    // The list's use is gone; the holder's keeps the node.
    EXPECT_EQ(UseCountOf(held.get()), 1);
    held->value = 9;
    EXPECT_EQ(held->value, 9);
}

TEST_F(SharedListTest, TwoUnlinksOfOneNodeDropTheListsUseOnce) {
    KeyedNode* node = Make(5);
    auto held = Keyed(list.Append(node));
    EXPECT_TRUE(list.Unlink(node));
    EXPECT_FALSE(list.Unlink(node));
    EXPECT_EQ(UseCountOf(node), 1);
}

TEST_F(SharedListTest, UnlinkOfAnotherNodeWithTheSameKeyLeavesTheFirstLinked) {
    KeyedNode* first = Make(6);
    list.Append(first);
    auto gone = Keyed(list.Append(Make(6)));
    EXPECT_TRUE(list.Unlink(gone.get()));
    EXPECT_EQ(list.Find(KeyIs(6)).get(), first);
    EXPECT_EQ(list.Count(), 1u);
}

TEST_F(SharedListTest, AppendUnlessFoundKeepsTheNodeAlreadyLinked) {
    KeyedNode* first = Make(8);
    list.Append(first);
    auto kept = Keyed(list.AppendUnlessFound(Make(8), KeyIs(8)));  // the second one is dropped
    EXPECT_EQ(kept.get(), first);
    EXPECT_EQ(UseCountOf(first), 2);
    EXPECT_EQ(list.Count(), 1u);
    auto added = Keyed(list.AppendUnlessFound(Make(9), KeyIs(9)));
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->key, 9);
    EXPECT_EQ(UseCountOf(added.get()), 2);
    EXPECT_EQ(list.Count(), 2u);
}

TEST(SharedListEndTest, NodesStillUsedOutliveTheList) {
    SharedUse<KeyedNode> held;
    {
        CSharedList list;
        list.Append(Make(1));
        list.Append(Make(2));
        held = Keyed(list.Find(KeyIs(2)));
    }
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(UseCountOf(held.get()), 1);
    held->value = 3;
    EXPECT_EQ(held->key, 2);
}

}  // namespace
