// The shared list as the registry uses it, from several threads at once: host threads add, look up,
// change and remove their sockets' nodes while a hidden thread runs steps on nodes that a host
// thread removes under it. Built natively under ThreadSanitizer (a race on the list or a free
// before the last use is a report) and under AddressSanitizer (a use after free, a leak).
#include "shared_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <new>
#include <thread>
#include <utility>
#include <vector>

namespace {

// A socket's object, reduced to what the model needs: the key, a field only the user of the moment
// writes, and a word both sides may touch.
struct SocketNode : CListNode {
    explicit SocketNode(uint64_t k) : key(k) {}
    uint64_t key;
    uint32_t state = 0;
    std::atomic<uint32_t> shared{0};
};

SocketNode* Make(uint64_t key) { return new (AllocateCountedBlock(sizeof(SocketNode))) SocketNode(key); }

auto KeyIs(uint64_t key) {
    return [key](const CListNode* node) { return static_cast<const SocketNode*>(node)->key == key; };
}

SharedUse<SocketNode> Find(const CSharedList& list, uint64_t key) { return list.Find(KeyIs(key)).As<SocketNode>(); }

// Every wait of these tests ends, at the latest, here.
constexpr auto kWaitLimit = std::chrono::seconds(20);

// Waits for `flag` to reach `value`, yielding; false when the limit passed first.
bool AwaitValue(const std::atomic<int>& flag, int value) {
    auto end = std::chrono::steady_clock::now() + kWaitLimit;
    while (flag.load(std::memory_order_acquire) != value) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(SharedListThreadsTest, HostThreadsAddFindChangeAndRemoveTheirOwnNodesSideBySide) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    CSharedList list;
    std::atomic<int> misses{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                uint64_t key = (static_cast<uint64_t>(t) << 32) | static_cast<uint64_t>(round);
                list.Append(Make(key));
                {
                    SharedUse<SocketNode> mine = Find(list, key);
                    if (mine == nullptr) {
                        ++misses;
                        continue;
                    }
                    mine->state = 10;
                }
                // A walk over the other threads' nodes, as a lookup of an unmanaged socket makes.
                if (Find(list, ~key) != nullptr) ++misses;
                if (!list.UnlinkFirst(KeyIs(key))) ++misses;
                if (Find(list, key) != nullptr) ++misses;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(misses.load(), 0);
    EXPECT_TRUE(list.Empty());
}

// SOCKS_CleanupSocket on a host thread while the hidden thread is inside the socket's step: the node
// leaves the list at once and goes when the step lets go of it.
TEST(SharedListThreadsTest, RemovalDuringAStepFreesTheNodeWhenTheStepEnds) {
    constexpr int kRounds = 200;
    CSharedList list;
    std::atomic<int> phase{0};
    std::atomic<int> failures{0};
    std::thread hidden([&] {
        for (int round = 0; round < kRounds; ++round) {
            if (!AwaitValue(phase, 1)) {
                ++failures;
                return;
            }
            SharedUse<SocketNode> object = Find(list, static_cast<uint64_t>(round));
            if (object == nullptr) {
                ++failures;
                phase.store(2, std::memory_order_release);
                continue;
            }
            phase.store(2, std::memory_order_release);  // the host may remove it from here on
            for (uint32_t step = 0; step < 200; ++step) object->state = step;
            object->shared.fetch_add(1, std::memory_order_relaxed);
            if (!AwaitValue(phase, 3)) ++failures;
            object->state = 10;  // after the removal, before the step ends
            phase.store(0, std::memory_order_release);
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        list.Append(Make(static_cast<uint64_t>(round)));
        phase.store(1, std::memory_order_release);
        if (!AwaitValue(phase, 2)) {
            ++failures;
            break;
        }
        EXPECT_TRUE(list.UnlinkFirst(KeyIs(static_cast<uint64_t>(round))));
        EXPECT_EQ(Find(list, static_cast<uint64_t>(round)), nullptr);
        phase.store(3, std::memory_order_release);
        if (!AwaitValue(phase, 0)) {
            ++failures;
            break;
        }
    }
    hidden.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_TRUE(list.Empty());
}

// A host that closes its socket as soon as FD_CONNECT arrives: the hidden thread posts first and
// writes the final state after, into a node the host has removed by then.
TEST(SharedListThreadsTest, CloseOnTheFinalEventLeavesTheStepItsNode) {
    constexpr int kRounds = 300;
    CSharedList list;
    std::atomic<int> phase{0};  // 1: the node is linked; 2: FD_CONNECT is posted
    std::atomic<int> failures{0};
    std::thread hidden([&] {
        for (int round = 0; round < kRounds; ++round) {
            if (!AwaitValue(phase, 1)) {
                ++failures;
                return;
            }
            SharedUse<SocketNode> object = Find(list, static_cast<uint64_t>(round));
            if (object == nullptr) {
                ++failures;
                phase.store(2, std::memory_order_release);
                continue;
            }
            object->state = 9;
            phase.store(2, std::memory_order_release);
            object->state = 10;
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        uint64_t key = static_cast<uint64_t>(round);
        list.Append(Make(key));
        phase.store(1, std::memory_order_release);
        if (!AwaitValue(phase, 2)) {
            ++failures;
            break;
        }
        {
            SharedUse<SocketNode> object = Find(list, key);
            if (object != nullptr) list.Unlink(object.get());
        }
        phase.store(0, std::memory_order_release);
    }
    hidden.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_TRUE(list.Empty());
}

// Several host threads call with one handle at once: one node for it, whichever thread made it.
TEST(SharedListThreadsTest, ConcurrentFindOrAddOfOneKeyKeepsOneNode) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    CSharedList list;
    std::atomic<int> failures{0};
    for (int round = 0; round < kRounds; ++round) {
        uint64_t key = static_cast<uint64_t>(round);
        std::atomic<int> ready{0};
        std::vector<SocketNode*> seen(kThreads, nullptr);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                ready.fetch_add(1);
                if (!AwaitValue(ready, kThreads)) ++failures;
                SharedUse<SocketNode> object = Find(list, key);
                if (object == nullptr) object = list.AppendUnlessFound(Make(key), KeyIs(key)).As<SocketNode>();
                object->shared.fetch_add(1, std::memory_order_relaxed);
                seen[t] = object.get();
            });
        }
        for (auto& thread : threads) thread.join();
        for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[t], seen[0]) << round;
        EXPECT_EQ(list.Count(), static_cast<uint32_t>(round + 1));
        SharedUse<SocketNode> object = Find(list, key);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->shared.load(), static_cast<uint32_t>(kThreads));
    }
    EXPECT_EQ(failures.load(), 0);
}

// Lookups of many threads and removals of another: every node is freed exactly once, by whoever
// holds its last use.
TEST(SharedListThreadsTest, LastUseFreesWhoeverHoldsIt) {
    constexpr int kNodes = 64;
    constexpr int kReaders = 3;
    CSharedList list;
    for (int i = 0; i < kNodes; ++i) list.Append(Make(static_cast<uint64_t>(i)));
    std::atomic<int> start{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            if (!AwaitValue(start, 1)) return;
            for (int pass = 0; pass < 20; ++pass) {
                for (int i = 0; i < kNodes; ++i) {
                    SharedUse<SocketNode> object = Find(list, static_cast<uint64_t>(i));
                    if (object != nullptr) object->shared.fetch_add(1, std::memory_order_relaxed);
                }
            }
        });
    }
    std::thread remover([&] {
        if (!AwaitValue(start, 1)) return;
        for (int i = 0; i < kNodes; ++i) list.UnlinkFirst(KeyIs(static_cast<uint64_t>(i)));
    });
    start.store(1, std::memory_order_release);
    for (auto& reader : readers) reader.join();
    remover.join();
    EXPECT_TRUE(list.Empty());
}

}  // namespace
