#include "os_kind_rules.h"

#include <gtest/gtest.h>

namespace {

struct Case {
    OsVersionFacts facts;
    int kind;
};

TEST(OsKindRulesTest, EachVersionHasItsKind) {
    const Case cases[] = {
        {{0, 4, 0, 1, false}, 1},   {{1, 4, 10, 1, false}, 1}, {{2, 4, 0, 1, false}, 2},
        {{2, 5, 0, 1, false}, 3},   {{2, 5, 1, 1, false}, 4},  {{2, 5, 2, 3, false}, 5},
        {{2, 5, 2, 3, true}, 6},    {{2, 6, 0, 1, false}, 7},  {{2, 6, 0, 3, false}, 8},
        {{2, 6, 1, 1, false}, 9},   {{2, 6, 1, 2, false}, 10}, {{2, 6, 2, 1, false}, 11},
        {{2, 6, 2, 3, false}, 12},  {{2, 6, 3, 1, false}, 13}, {{2, 6, 3, 3, false}, 14},
        {{2, 10, 0, 1, false}, 15}, {{2, 10, 0, 3, false}, 16},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ClassifyOsKind(c.facts), c.kind)
            << c.facts.platformId << " " << c.facts.major << "." << c.facts.minor << " type " << int(c.facts.productType);
    }
}

TEST(OsKindRulesTest, OtherPlatformsAndVersionsAreNotClassified) {
    EXPECT_EQ(ClassifyOsKind({3, 10, 0, 1, false}), 0);
    EXPECT_EQ(ClassifyOsKind({2, 5, 3, 1, false}), 0);
    EXPECT_EQ(ClassifyOsKind({2, 6, 4, 1, false}), 0);
    EXPECT_EQ(ClassifyOsKind({2, 7, 0, 1, false}), 0);
    EXPECT_EQ(ClassifyOsKind({2, 10, 1, 1, false}), 0);
    EXPECT_EQ(ClassifyOsKind({2, 11, 0, 1, false}), 0);
}

}  // namespace
