// The identity table's layout on a plain block: what a fresh block holds, where entries go, how
// highWater and addCount move, and that a damaged or foreign block is refused or bounded.
#include "identity_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

class IdentityTableTest : public ::testing::Test {
protected:
    void SetUp() override { IdentityInitialize(block.data()); }

    uint32_t Word(size_t offset) const { return IdentityWord(block.data(), offset); }
    void SetWord(size_t offset, uint32_t value) {
        for (int i = 0; i < 4; ++i) block[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
    static size_t Entry(int slot) { return kIdentityHeaderSize + kIdentityEntrySize * slot; }
    uint32_t HighWater() const { return Word(kIdentityHighWaterAt); }
    uint32_t AddCount() const { return Word(kIdentityAddCountAt); }
    std::string NameAt(int slot) const {
        return std::string(reinterpret_cast<const char*>(&block[Entry(slot) + kIdentityUserNameAt]));
    }
    bool Add(uint32_t local, uint32_t remote, const char* user = "u") {
        return IdentityAddEntry(block.data(), local, remote, user);
    }
    // Entries at slots 0, 1 and 2.
    void AddThree() {
        for (uint32_t local : {10u, 11u, 12u}) ASSERT_TRUE(Add(local, 1));
    }
    std::string Lookup(uint32_t local, uint32_t remote, IdentityLookupResult expected = IdentityLookupResult::kFound) {
        char name[kIdentityNameSize];
        std::memset(name, 'x', sizeof name);
        EXPECT_EQ(IdentityLookupEntry(block.data(), local, remote, name, sizeof name), expected);
        return expected == IdentityLookupResult::kFound ? std::string(name) : std::string();
    }

    std::vector<uint8_t> block = std::vector<uint8_t>(kIdentityTableSize, 0xEE);
};

TEST_F(IdentityTableTest, FreshBlockHoldsItsHeaderAndNothingElse) {
    EXPECT_EQ(Word(0), 0x1DE8u);
    EXPECT_EQ(Word(4), 1u);
    EXPECT_EQ(Word(8), 0u);
    EXPECT_EQ(Word(12), 0u);
    for (size_t i = 16; i < 48; ++i) EXPECT_EQ(block[i], 0) << i;
    EXPECT_EQ(Word(48), 76u);
    EXPECT_EQ(Word(52), 100u);
    for (size_t i = kIdentityHeaderSize; i < kIdentityTableSize; ++i) ASSERT_EQ(block[i], 0) << i;
    EXPECT_TRUE(IdentityLayoutValid(block.data()));
}

TEST_F(IdentityTableTest, AnAddFillsTheFirstSlotFieldByField) {
    ASSERT_TRUE(Add(1234, 1080, "alice"));
    EXPECT_EQ(Word(Entry(0) + kIdentityInUseAt), 1u);
    EXPECT_EQ(Word(Entry(0) + kIdentityLocalPortAt), 1234u);
    EXPECT_EQ(Word(Entry(0) + kIdentityRemotePortAt), 1080u);
    EXPECT_EQ(NameAt(0), "alice");
    // The entry's reserved tail is never written.
    for (size_t i = 44; i < kIdentityEntrySize; ++i) EXPECT_EQ(block[Entry(0) + i], 0) << i;
    EXPECT_EQ(HighWater(), 1u);
    EXPECT_EQ(AddCount(), 1u);
    EXPECT_EQ(IdentityFindEntry(block.data(), 1234, 1080), 0);
    EXPECT_EQ(IdentityFindEntry(block.data(), 1080, 1234), -1);
    EXPECT_EQ(Lookup(1234, 1080), "alice");
}

TEST_F(IdentityTableTest, AnEmptyNameIsAnEntryToo) {
    ASSERT_TRUE(Add(5, 6, ""));
    EXPECT_EQ(Lookup(5, 6), "");
}

TEST_F(IdentityTableTest, AFullTableRefusesANewKeyAndReusesAnExistingOne) {
    for (uint32_t i = 0; i < 100; ++i) ASSERT_TRUE(Add(1000 + i, 1080)) << i;
    std::vector<uint8_t> full = block;
    EXPECT_FALSE(Add(2000, 1080));
    EXPECT_EQ(block, full);
    EXPECT_TRUE(Add(1050, 1080, "bob"));
    EXPECT_EQ(AddCount(), 101u);
    EXPECT_EQ(NameAt(50), "bob");
    EXPECT_EQ(HighWater(), 100u);
}

TEST_F(IdentityTableTest, ReuseOfAKeyReplacesTheNameAndRaisesAddCount) {
    ASSERT_TRUE(Add(7, 8, "first-user"));
    ASSERT_TRUE(Add(7, 8, "second"));
    EXPECT_EQ(IdentityFindEntry(block.data(), 7, 8), 0);
    EXPECT_EQ(Word(Entry(1) + kIdentityInUseAt), 0u);
    EXPECT_EQ(AddCount(), 2u);
    EXPECT_EQ(HighWater(), 1u);
    EXPECT_EQ(Lookup(7, 8), "second");
    // The copy ends the name with its terminator; bytes behind it stay.
    EXPECT_EQ(block[Entry(0) + kIdentityUserNameAt + 6], 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&block[Entry(0) + kIdentityUserNameAt + 7])), "ser");
}

TEST_F(IdentityTableTest, ALongNameKeepsThirtyCharactersAndTheLastByteCleared) {
    std::string longName(40, 'n');
    for (size_t i = 0; i < longName.size(); ++i) longName[i] = static_cast<char>('a' + i % 26);
    for (const std::string& user : {longName.substr(0, 31), longName}) {
        SetUp();
        ASSERT_TRUE(Add(1, 2, user.c_str()));
        EXPECT_EQ(NameAt(0), user.substr(0, 30));
        EXPECT_EQ(block[Entry(0) + kIdentityUserNameAt + 30], 0);
        EXPECT_EQ(block[Entry(0) + kIdentityUserNameAt + 31], 0);
        EXPECT_EQ(Lookup(1, 2), user.substr(0, 30));
    }
    std::string thirty = longName.substr(0, 30);
    SetUp();
    ASSERT_TRUE(Add(1, 2, thirty.c_str()));
    EXPECT_EQ(Lookup(1, 2), thirty);
}

TEST_F(IdentityTableTest, ByteThirtyOneIsClearedEvenWhenTheNameIsShort) {
    block[Entry(0) + kIdentityUserNameAt + 31] = 'z';
    ASSERT_TRUE(Add(1, 2, "ab"));
    EXPECT_EQ(block[Entry(0) + kIdentityUserNameAt + 31], 0);
}

TEST_F(IdentityTableTest, RemovingAMiddleSlotKeepsHighWaterAndTheNextKeyTakesTheHole) {
    AddThree();
    IdentityRemoveEntry(block.data(), 11, 1);
    EXPECT_EQ(HighWater(), 3u);
    ASSERT_TRUE(Add(13, 1));
    EXPECT_EQ(IdentityFindEntry(block.data(), 13, 1), 1);
    EXPECT_EQ(HighWater(), 3u);
}

TEST_F(IdentityTableTest, RemovingFromTheTopStepsHighWaterDownOneAtATime) {
    AddThree();
    IdentityRemoveEntry(block.data(), 12, 1);
    EXPECT_EQ(HighWater(), 2u);
    IdentityRemoveEntry(block.data(), 11, 1);
    EXPECT_EQ(HighWater(), 1u);
    EXPECT_EQ(AddCount(), 3u);
}

TEST_F(IdentityTableTest, HighWaterMayStandAboveAFreeSlot) {
    AddThree();
    IdentityRemoveEntry(block.data(), 11, 1);
    IdentityRemoveEntry(block.data(), 12, 1);
    EXPECT_EQ(HighWater(), 2u);
    EXPECT_EQ(Word(Entry(1) + kIdentityInUseAt), 0u);
}

TEST_F(IdentityTableTest, ARemoveClearsTheKeyAndOnlyTheFirstByteOfTheName) {
    ASSERT_TRUE(Add(20, 30, "charlie"));
    IdentityRemoveEntry(block.data(), 20, 30);
    EXPECT_EQ(Word(Entry(0) + kIdentityInUseAt), 0u);
    EXPECT_EQ(Word(Entry(0) + kIdentityLocalPortAt), 0u);
    EXPECT_EQ(Word(Entry(0) + kIdentityRemotePortAt), 0u);
    EXPECT_EQ(block[Entry(0) + kIdentityUserNameAt], 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&block[Entry(0) + kIdentityUserNameAt + 1])), "harlie");
    EXPECT_EQ(HighWater(), 0u);
    Lookup(20, 30, IdentityLookupResult::kNotFound);
}

TEST_F(IdentityTableTest, RemovingAnUnknownKeyChangesNothing) {
    ASSERT_TRUE(Add(20, 30));
    std::vector<uint8_t> before = block;
    IdentityRemoveEntry(block.data(), 20, 31);
    EXPECT_EQ(block, before);
}

TEST_F(IdentityTableTest, OtherLayoutsAreRefusedByEveryOperationAndLeftAlone) {
    ASSERT_TRUE(Add(20, 30, "dora"));
    struct Damage {
        size_t offset;
        uint32_t value;
    };
    for (Damage damage : {Damage{kIdentityVersionAt, 2}, Damage{kIdentityEntrySizeAt, 80}, Damage{kIdentityEntryCountAt, 0}}) {
        std::vector<uint8_t> saved = block;
        SetWord(damage.offset, damage.value);
        std::vector<uint8_t> before = block;
        EXPECT_FALSE(IdentityLayoutValid(block.data()));
        EXPECT_FALSE(Add(40, 50));
        IdentityRemoveEntry(block.data(), 20, 30);
        Lookup(20, 30, IdentityLookupResult::kRefused);
        EXPECT_EQ(block, before) << damage.offset;
        block = saved;
    }
}

TEST_F(IdentityTableTest, AHugeEntryCountStillWalksOnlyTheHundredSlotsOfTheBlock) {
    SetWord(kIdentityEntryCountAt, 5000);
    for (uint32_t i = 0; i < 100; ++i) ASSERT_TRUE(Add(100 + i, 1)) << i;
    EXPECT_FALSE(Add(999, 1));
    SetWord(kIdentityHighWaterAt, 4000);
    EXPECT_EQ(IdentityFindEntry(block.data(), 199, 1), 99);
    EXPECT_EQ(IdentityFindEntry(block.data(), 999, 1), -1);
}

TEST_F(IdentityTableTest, TheSearchEndsAtTheSmallerOfHighWaterAndEntryCountComparedAsSigned) {
    ASSERT_TRUE(Add(10, 1));
    ASSERT_TRUE(Add(11, 1));
    SetWord(kIdentityHighWaterAt, 1);
    EXPECT_EQ(IdentityFindEntry(block.data(), 11, 1), -1);
    SetWord(kIdentityHighWaterAt, 2);
    SetWord(kIdentityEntryCountAt, 1);
    EXPECT_EQ(IdentityFindEntry(block.data(), 11, 1), -1);
    SetWord(kIdentityEntryCountAt, 100);
    // Negative as a signed number: nothing is searched.
    SetWord(kIdentityHighWaterAt, 0x80000000u);
    EXPECT_EQ(IdentityFindEntry(block.data(), 10, 1), -1);
    SetWord(kIdentityHighWaterAt, 2);
    SetWord(kIdentityEntryCountAt, 0xFFFFFFFFu);
    EXPECT_EQ(IdentityFindEntry(block.data(), 10, 1), -1);
    // No slot is filled that no search would reach.
    std::vector<uint8_t> before = block;
    EXPECT_FALSE(Add(50, 1));
    EXPECT_EQ(block, before);
}

TEST_F(IdentityTableTest, ANameWithoutTerminatorReadsAsThirtyCharacters) {
    ASSERT_TRUE(Add(1, 2, "x"));
    std::memset(&block[Entry(0) + kIdentityUserNameAt], 'q', kIdentityEntrySize - kIdentityUserNameAt);
    EXPECT_EQ(Lookup(1, 2), std::string(30, 'q'));
    char small[5];
    EXPECT_EQ(IdentityLookupEntry(block.data(), 1, 2, small, sizeof small), IdentityLookupResult::kFound);
    EXPECT_EQ(std::string(small), "qqqq");
}

}  // namespace
