// The determination's copies into the host's out-parameters: each stays inside the size the host
// gave, a null buffer or a size of 0 or less takes nothing, and the port of a record too short to
// hold one is 0.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "determination_copies.h"

namespace {

constexpr char kGuard = 0x5a;

// A buffer of guard bytes with the host's part at offset 8.
struct Guarded {
    char bytes[40];
    Guarded() { std::memset(bytes, kGuard, sizeof bytes); }
    char* Part() { return bytes + 8; }
    // The bytes outside [8, 8 + size) are all guards.
    bool GuardsStand(int size) const {
        const size_t end = 8 + static_cast<size_t>(size > 0 ? size : 0);
        for (size_t i = 0; i < sizeof bytes; ++i) {
            if ((i < 8 || i >= end) && bytes[i] != kGuard) return false;
        }
        return true;
    }
};

TEST(DeterminationCopiesTest, ClearOutZeroesOnlyTheGivenSize) {
    for (int size : {-1, 0, 1, 8, 16}) {
        SCOPED_TRACE(size);
        Guarded out;
        ClearOut(out.Part(), size);
        EXPECT_TRUE(out.GuardsStand(size));
        for (int i = 0; i < size; ++i) EXPECT_EQ(out.Part()[i], 0);
    }
    ClearOut(nullptr, 16);
}

TEST(DeterminationCopiesTest, CopyOutTakesTheRecordsFirstBytesUpToTheSize) {
    const unsigned char record[16] = {2, 0, 0x04, 0x38, 127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    for (int size : {-1, 0, 1, 8, 16, 24}) {
        SCOPED_TRACE(size);
        Guarded out;
        CopyOut(out.Part(), size, record, sizeof record);
        const int copied = size < 0 ? 0 : (size < 16 ? size : 16);
        EXPECT_EQ(std::memcmp(out.Part(), record, static_cast<size_t>(copied)), 0);
        // Beyond the record, within the size, the buffer is as it was.
        EXPECT_TRUE(out.GuardsStand(copied));
    }
    CopyOut(nullptr, 16, record, sizeof record);
    Guarded out;
    CopyOut(out.Part(), 16, nullptr, 16);
    EXPECT_TRUE(out.GuardsStand(0));
}

TEST(DeterminationCopiesTest, CopyTextOutCutsAndClosesTheLastByte) {
    struct Case {
        int size;
        std::string expected;
    };
    const Case cases[] = {
        {-1, ""}, {0, ""}, {1, std::string(1, '\0')}, {4, std::string("abc\0", 4)},
        // Shorter text: the bytes between its end and the last byte stay.
        {10, std::string("abcdef\0", 7) + kGuard + kGuard + '\0'},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        Guarded out;
        CopyTextOut(out.Part(), c.size, "abcdef");
        EXPECT_EQ(std::string(out.Part(), c.expected.size()), c.expected);
        EXPECT_TRUE(out.GuardsStand(c.size));
    }
    Guarded empty;
    CopyTextOut(empty.Part(), 4, nullptr);
    EXPECT_EQ(std::string(empty.Part(), 4), std::string(1, '\0') + kGuard + kGuard + '\0');
    CopyTextOut(nullptr, 4, "abc");
}

TEST(DeterminationCopiesTest, ClearTextOutWritesOneTerminatorWithinTheSize) {
    for (int size : {-1, 0, 1, 8}) {
        SCOPED_TRACE(size);
        Guarded out;
        ClearTextOut(out.Part(), size);
        if (size > 0) {
            EXPECT_EQ(out.Part()[0], '\0');
        }
        EXPECT_TRUE(out.GuardsStand(size > 0 ? 1 : 0));
    }
    ClearTextOut(nullptr, 8);
}

TEST(DeterminationCopiesTest, PortOfRecordReadsBytesTwoAndThreeOnlyWhenTheyAreThere) {
    const unsigned char record[4] = {2, 0, 0x1f, 0x90};
    EXPECT_EQ(PortOfRecord(record, 4), 8080);
    EXPECT_EQ(PortOfRecord(record, 16), 8080);
    EXPECT_EQ(PortOfRecord(record, 3), 0);
    EXPECT_EQ(PortOfRecord(record, 2), 0);
    EXPECT_EQ(PortOfRecord(record, -1), 0);
    EXPECT_EQ(PortOfRecord(nullptr, 16), 0);
}

}  // namespace
