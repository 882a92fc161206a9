#include "orb/OrbId.h"

#include <gtest/gtest.h>

#include <map>

namespace {

TEST(OrbId, ItsValueHoldsNameSlotAndNamespace) {
    const TreflectOrbId id(0x1234, 3, 1);
    EXPECT_EQ(0x12340301U, id.value());
    const TreflectOrbId back(0x12340301U);
    EXPECT_EQ(0x1234, back.nameId());
    EXPECT_EQ(3, back.slotId());
    EXPECT_EQ(1U, static_cast<unsigned>(back.namespaceId()));
    EXPECT_EQ(0xFEDCBA98U, TreflectOrbId(0xFEDCBA98U).value());
    EXPECT_EQ(0xFFFFFFFFU, TreflectOrbId(0xFFFF, 0xFF, 0xFFU).value());
    EXPECT_EQ(0U, TreflectOrbId().value());
}

TEST(OrbId, TheNamespaceIsCutToEightBits) {
    EXPECT_EQ(0x00010203U, TreflectOrbId(1, 2, 0xABCDEF03U).value());
}

TEST(OrbId, IsComparedAndOrderedByItsValue) {
    const TreflectOrbId low(0x00010203U);
    const TreflectOrbId high(0x80010203U);
    EXPECT_TRUE(low == TreflectOrbId(1, 2, 3));
    EXPECT_FALSE(low == high);
    EXPECT_TRUE(low != high);
    EXPECT_FALSE(low != low);
    EXPECT_TRUE(low < high) << "unsigned";
    EXPECT_FALSE(high < low);
    EXPECT_FALSE(low < low);
    EXPECT_TRUE(TreflectOrbId(1, 2, 3) < TreflectOrbId(1, 2, 4));
    EXPECT_TRUE(TreflectOrbId(1, 2, 4) < TreflectOrbId(1, 3, 0U));
    std::map<TreflectOrbId, int> map{{high, 2}, {low, 1}};
    EXPECT_EQ(1, map.begin()->second);
    EXPECT_EQ(2, map[TreflectOrbId(0x8001, 2, 3)]);
}

TEST(NamespaceIds, AreNumbersOfAnyValue) {
    EXPECT_EQ(0U, static_cast<unsigned>(NSID_UNDEF));
    EXPECT_EQ(2U, static_cast<unsigned>(NSID_NODE));
    EXPECT_EQ(0U, static_cast<unsigned>(NamespaceId()));
    const NamespaceId any = 0xFFFFFFFEU;
    EXPECT_TRUE(any == 0xFFFFFFFEU);
    EXPECT_TRUE(any != NSID_NODE);
    EXPECT_TRUE(NamespaceId(2) == NSID_NODE);
}

} // namespace
