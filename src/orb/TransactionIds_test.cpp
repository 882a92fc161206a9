#include "orb/TransactionIds.h"

#include <gtest/gtest.h>

#include <set>

namespace {

constexpr TreflectOrbId kOrb(0x1234, 3, 1);

bool nothingTaken(unsigned) {
    return false;
}

TEST(TransactionIdsTest, TheFirstIdHasCounterOne) {
    TransactionIds ids(kOrb);
    EXPECT_EQ(0x00031234U, ids.last());
    unsigned id = 0;
    EXPECT_TRUE(ids.next(nothingTaken, id));
    EXPECT_EQ(0x00131234U, id);
    EXPECT_EQ(id, ids.last());
    EXPECT_TRUE(ids.next(nothingTaken, id));
    EXPECT_EQ(0x00231234U, id);
}

TEST(TransactionIdsTest, OnlyFourBitsOfTheSlotCount) {
    EXPECT_EQ(0x000FFFFFU, TransactionIds(TreflectOrbId(0xFFFF, 0xFF, 0xFFU)).last());
    EXPECT_EQ(TransactionIds(TreflectOrbId(5, 1, 1)).last(), TransactionIds(TreflectOrbId(5, 17, 2)).last());
    EXPECT_EQ(0U, TransactionIds().last());
}

TEST(TransactionIdsTest, TheCounterWrapsAndNothingElseChanges) {
    TransactionIds ids(kOrb);
    std::set<unsigned> seen;
    unsigned id = 0;
    for (unsigned counter = 1; counter <= 4096; ++counter) {
        ASSERT_TRUE(ids.next(nothingTaken, id));
        ASSERT_EQ(counter % 4096, id >> 20);
        ASSERT_EQ(0x31234U, id & 0xFFFFFU);
        seen.insert(id);
    }
    EXPECT_EQ(4096U, seen.size());
    EXPECT_EQ(0x00031234U, id) << "counter 0 comes last";
    ids.next(nothingTaken, id);
    EXPECT_EQ(0x00131234U, id);
}

TEST(TransactionIdsTest, PendingIdsAreSkipped) {
    TransactionIds ids(kOrb);
    const std::set<unsigned> pending{0x00131234U, 0x00231234U, 0x00431234U};
    const auto taken = [&pending](unsigned id) { return pending.count(id) != 0; };
    unsigned id = 0;
    EXPECT_TRUE(ids.next(taken, id));
    EXPECT_EQ(0x00331234U, id);
    EXPECT_TRUE(ids.next(taken, id));
    EXPECT_EQ(0x00531234U, id);
}

TEST(TransactionIdsTest, WhenAllArePendingNothingChanges) {
    TransactionIds ids(kOrb);
    unsigned id = 0;
    ids.next(nothingTaken, id);
    unsigned asked = 0;
    unsigned untouched = 77;
    EXPECT_FALSE(ids.next(
        [&asked](unsigned) {
            ++asked;
            return true;
        },
        untouched));
    EXPECT_EQ(4096U, asked);
    EXPECT_EQ(77U, untouched);
    EXPECT_EQ(0x00131234U, ids.last());

    const auto onlyLastFree = [](unsigned candidate) { return candidate != 0x00131234U; };
    EXPECT_TRUE(ids.next(onlyLastFree, id)) << "the last of the 4096 that are tried";
    EXPECT_EQ(0x00131234U, id);
}

} // namespace
