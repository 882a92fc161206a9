#include "orb/MissedOrbs_p.h"

#include "support/HeapProbe.h"
#include "support/ObjectEventsTest.h"

namespace {

using Watcher = Testing::ObjectWatcher;

class MissedOrbsTest : public Testing::ObjectEventsTest {
protected:
    MissedOrbsTest() {
        appear(kPeer);
        appear(kOther);
    }

    TreflectMissedOrbs creations{true};
    TreflectMissedOrbs deletions{false};
    const TreflectOrbId peer = orb.convertId(kPeer);
    const TreflectOrbId other = orb.convertId(kOther);
    Watcher watcher{"watcher"};
};

TEST_F(MissedOrbsTest, WhoIsReachedIsNotMissed) {
    creations.start({orb.termId(), kPeer});
    creations.add(peer);
    EXPECT_TRUE(creations.empty());
    creations.add(other);
    EXPECT_FALSE(creations.empty());
    creations.notify(kClass, watcher, false);
    EXPECT_EQ("43:tOCNSU(77)", unit.summary());
}

TEST_F(MissedOrbsTest, BeforeAnySubscriptionAllAreMissed) {
    EXPECT_TRUE(creations.empty());
    creations.add(peer);
    creations.add(other);
    creations.add(peer); // it came again
    creations.notify(kClass, watcher, false);
    EXPECT_EQ("42:tOCNSU(77) 43:tOCNSU(77)", unit.summary()) << "each is asked once";
}

TEST_F(MissedOrbsTest, TheyAreMissedUntilTheNextSubscriptionStarts) {
    creations.add(peer);
    creations.notify(kClass, watcher, false);
    creations.notify(0x78, watcher, false);
    EXPECT_EQ("42:tOCNSU(77) 42:tOCNSU(78)", unit.summary());
    creations.start({});
    EXPECT_TRUE(creations.empty());
    creations.notify(kClass, watcher, false);
    EXPECT_EQ("", unit.summary());
    creations.add(peer);
    EXPECT_FALSE(creations.empty()) << "the subscription did not reach it";
    creations.start({kPeer});
    creations.start({kOther});
    creations.add(peer);
    EXPECT_FALSE(creations.empty()) << "only the last subscription counts";
}

TEST_F(MissedOrbsTest, TheirObjectsAreToldIfTheyAreWanted) {
    theyHave({0x500, 0x501});
    creations.add(peer);
    creations.notify(kClass, watcher, false);
    EXPECT_EQ("42:tOCNSU(77)", unit.summary());
    EXPECT_EQ(std::vector<unsigned>{}, watcher.told);
    creations.notify(kClass, watcher, true);
    EXPECT_EQ("42:tOCNSU(77,existing)", unit.summary());
    EXPECT_EQ((std::vector<unsigned>{0x500, 0x501}), watcher.told);
    EXPECT_EQ((std::vector<bool>{false, false}), watcher.permission);
}

TEST_F(MissedOrbsTest, DeletionsAreSubscribedToLikewise) {
    theyHave({0x500});
    deletions.add(peer);
    EXPECT_FALSE(deletions.empty());
    deletions.notify(kClass, watcher, true);
    EXPECT_EQ("42:tODNSU(77)", unit.summary());
    EXPECT_EQ(std::vector<unsigned>{}, watcher.told);
}

TEST_F(MissedOrbsTest, WithoutMemoryNobodyIsAskedAndNothingThrown) {
    creations.add(peer);
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        creations.notify(kClass, watcher, false);
    }
    EXPECT_EQ("", unit.summary());
    EXPECT_FALSE(creations.empty());
}

TEST_F(MissedOrbsTest, WhoHasGoneIsNotAsked) {
    creations.add(peer);
    creations.add(other);
    vanish(kPeer);
    creations.notify(kClass, watcher, false);
    EXPECT_EQ("43:tOCNSU(77)", unit.summary());
    EXPECT_EQ(0U, log.with("could not find destination").size());
}

} // namespace
