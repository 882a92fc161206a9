#include "orb/ObjectLocation.h"

#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"

#include <type_traits>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;

Location at(unsigned ns, unsigned number, unsigned orb, const char *text) {
    return Location(number, TreflectOrbId(orb), nullptr, TipprmiOID(text, NamespaceId(ns)));
}

class ObjectLocationTest : public Testing::BrokerTest {
protected:
    static void expectOrder(const Location &lower, const Location &higher) {
        EXPECT_TRUE(lower < higher);
        EXPECT_FALSE(higher < lower);
    }
    static void expectEquivalent(const Location &one, const Location &other) {
        EXPECT_FALSE(one < other);
        EXPECT_FALSE(other < one);
    }
};

TEST_F(ObjectLocationTest, TheOrderGoesByNamespaceNumberNameAndBroker) {
    expectOrder(at(0x80000000, 9, 9, "b"), at(1, 1, 1, "a")); // namespaces are signed
    expectOrder(at(1, 9, 9, "b"), at(2, 1, 1, "a"));
    expectOrder(at(1, 1, 9, "b"), at(1, 0x80000000, 1, "a")); // numbers are not
    expectOrder(at(1, 1, 1, "a"), at(1, 1, 1, "b"));
    expectOrder(at(1, 1, 1, "b"), at(1, 1, 2, "a")); // names only count in one broker
    expectOrder(at(1, 1, 1, "b"), at(1, 1, 0x80000000, "a"));
    expectEquivalent(at(1, 1, 1, "a"), at(1, 1, 1, "a"));
    expectEquivalent(at(1, 1, 1, "a"), at(1, 1, 1, nullptr));
    expectEquivalent(at(1, 1, 1, nullptr), at(1, 1, 1, nullptr));
    expectOrder(at(1, 1, 1, nullptr), at(1, 1, 2, "a"));
    expectOrder(at(1, 1, 1, "a"), at(1, 1, 2, nullptr));
}

TEST_F(ObjectLocationTest, ALocationIsAValue) {
    static_assert(std::is_move_constructible_v<Location> && std::is_move_assignable_v<Location>);
    static_assert(!std::is_abstract_v<Location> && std::is_abstract_v<TreflectObjectLocationIf>);
    Location location = at(3, 4, 5, "x");
    const Location moved = std::move(location);
    EXPECT_EQ(3U, moved.getNamespaceId());
    EXPECT_EQ(4U, moved.getInternalOID());
    EXPECT_EQ(5U, moved.orbId().value());
    EXPECT_STREQ("x", moved.getOID().getIdString());
    EXPECT_TRUE(moved.hasOID());
    EXPECT_FALSE(at(3, 4, 5, "").hasOID());
}

TEST_F(ObjectLocationTest, AGeneratedNameIsABrokerAndANumber) {
    struct Case {
        const char *text;
        unsigned orb;
        unsigned number;
    };
    // As scanf reads them: what follows two numbers does not count.
    for (const Case &good : {Case{"rmi_1A2B_10", 0x1A2B, 0x10}, Case{"rmi_1a2b_10xyz", 0x1A2B, 0x10},
                             Case{"rmi_0x10_0x20", 0x10, 0x20}, Case{"rmi_ 1_ 2", 1, 2},
                             // Numbers have 32 bits; larger ones are the largest.
                             Case{"rmi_FFFFFFFE_FFFFFFFF", 0xFFFFFFFE, 0xFFFFFFFF},
                             Case{"rmi_123456789_1FFFFFFFFFFFFFFFF", 0xFFFFFFFF, 0xFFFFFFFF},
                             Case{"rmi_100000000_FFFFFFFFFFFFFFFE", 0xFFFFFFFF, 0xFFFFFFFF},
                             Case{"rmi_-2_-100000000", 0xFFFFFFFE, 0xFFFFFFFF}, Case{"rmi_1_-FFFFFFFF", 1, 1}}) {
        const Location location(TipprmiOID(good.text, NamespaceId(7)));
        EXPECT_EQ(good.orb, location.orbId().value()) << good.text;
        EXPECT_EQ(good.number, location.getInternalOID()) << good.text;
        EXPECT_FALSE(location.hasOID()) << good.text;
        EXPECT_EQ(location.orbId().namespaceId(), location.getNamespaceId()) << "that of the broker";
        EXPECT_EQ(nullptr, location.getServer());
    }
    for (const char *text :
         {"rmi_", "rmi_1A2B", "rmi_1A2B_", "rmi_1A2B_-", "rmi_1 _1", "rmi__1", "rmi_x_1", "RMI_1_1", " rmi_1_1", "x"}) {
        const Location location(TipprmiOID(text, NamespaceId(7)));
        EXPECT_EQ(0U, location.orbId().value()) << text;
        EXPECT_EQ(0U, location.getInternalOID()) << text;
        EXPECT_STREQ(text, location.getOID().getIdString());
        EXPECT_EQ(7U, location.getNamespaceId());
    }
    EXPECT_FALSE(Location(TipprmiOID(nullptr, NamespaceId(7))).hasOID());
}

TEST_F(ObjectLocationTest, AGeneratedNameWithNumberZeroIsAName) {
    const TipprmiObjectSkeleton object(TipprmiOID("rmi_1_0", NamespaceId(1)));
    EXPECT_EQ(&object, orb.locateObject(TipprmiOID("rmi_1_0", NamespaceId(1))).getServer());
}

TEST_F(ObjectLocationTest, ItTravelsAsIdentifierNumberAndBroker) {
    TipprmiStream stream(100);
    stream << at(9, 5, 0x01020304, "ab");
    EXPECT_EQ("00 00 00 02 61 62 00 00 00 09 00 00 00 05 01 02 03 04", hex(stream));
    stream.clear();
    stream << at(9, 5, 0x01020304, nullptr);
    EXPECT_EQ("00 00 00 00 00 00 00 09 00 00 00 05 01 02 03 04", hex(stream));
}

TEST_F(ObjectLocationTest, ReadingKeepsTheNamespaceAndForgetsTheObject) {
    TipprmiObjectSkeleton object(TipprmiOID("x", NamespaceId(1)));
    TipprmiStream stream(100);
    // Of an object of this very process: nobody can say so in a message.
    stream << at(9, object.getInternalOID(), orb.orbId().value(), "ab") << 0xCAFEU;
    Location location(1, TreflectOrbId(1), &object, TipprmiOID("before", NamespaceId(3)));
    unsigned behind = 0;
    stream >> location >> behind;
    EXPECT_EQ(0xCAFEU, behind);
    EXPECT_STREQ("ab", location.getOID().getIdString());
    EXPECT_EQ(3U, location.getNamespaceId());
    EXPECT_EQ(object.getInternalOID(), location.getInternalOID());
    EXPECT_EQ(orb.orbId(), location.orbId());
    EXPECT_EQ(nullptr, location.getServer());
}

TEST_F(ObjectLocationTest, WhereverAReferenceIsCutItIsNone) {
    TipprmiStream whole(100);
    whole << at(1, 5, 6, "name");
    TipprmiObjectSkeleton object(TipprmiOID("before", NamespaceId(1)));
    for (int size = 0; size < whole.getDataSize(); ++size) {
        TipprmiStream cut(whole.getDataPtr(), size);
        Location location(1, TreflectOrbId(1), &object, TipprmiOID("before", NamespaceId(3)));
        cut >> location;
        EXPECT_TRUE(cut.hasUnmarshallingFailed()) << size;
        EXPECT_FALSE(location.hasOID()) << size;
        EXPECT_EQ(0U, location.getInternalOID()) << size;
        EXPECT_EQ(0U, location.orbId().value()) << size;
        EXPECT_EQ(nullptr, location.getServer()) << size;
        EXPECT_EQ(3U, location.getNamespaceId()) << size;
    }
}

} // namespace
