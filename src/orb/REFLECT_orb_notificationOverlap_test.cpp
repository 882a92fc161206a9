#include "support/Concurrency.h"
#include "support/ObjectEventsTest.h"
#include "support/ReflectiveClasses.h"

#include <utility>

// Observers of one class that come and go in several threads at the same time.

namespace {

using Watcher = Testing::ObjectWatcher;

class NotificationOverlapTest : public Testing::ObjectEventsTest {
protected:
    NotificationOverlapTest() {
        appear(kPeer);
        appear(kOther);
    }
    /** One observer goes, and while the first broker is told of that, another one comes. */
    void comeWhileTheFirstIsToldOf(TreflectMessage::type_t end, Watcher &going, Watcher &coming) {
        unit.meanwhile = [this, end](const Testing::FakeUnit::Asked &asked) {
            if (asked.type == end && asked.target == kPeer) {
                inside.open();
                EXPECT_TRUE(goOn.pass());
            }
        };
        const TreflectReleaseHandlerState released;
        Testing::TestThread remover([&] {
            const TreflectHandlerState own(true);
            orb.removeObserver(kClass, going);
        });
        ASSERT_TRUE(inside.pass());
        Testing::TestThread([&] {
            const TreflectHandlerState own(true);
            EXPECT_TRUE(orb.observeCreations(kClass, coming, false));
        });
        goOn.open();
    }

    Testing::Gate inside;
    Testing::Gate goOn;
};

/** Nobody waits for another thread's turn, which may wait for a broker that does not answer. */
TEST_F(NotificationOverlapTest, WhoComesHasTheSubscriptionThatWhoGoesIsEnding) {
    Watcher going("going");
    Watcher coming("coming");
    orb.observeCreations(kClass, going, false);
    EXPECT_EQ("42:tOCNSU(77) 43:tOCNSU(77)", unit.summary());
    comeWhileTheFirstIsToldOf(TreflectMessage::tOCNUN, going, coming);
    EXPECT_EQ("42:tOCNUN(77) 42:tOCNSU(77) 43:tOCNSU(77)", unit.summary());
}

/** Which a broker would take for the end of both. */
TEST_F(NotificationOverlapTest, NorDoesWhoGoesEndTheOtherSubscriptionThen) {
    Watcher going("going");
    Watcher coming("coming");
    orb.observeDeletions(kClass, going);
    EXPECT_EQ("42:tODNSU(77) 43:tODNSU(77)", unit.summary());
    comeWhileTheFirstIsToldOf(TreflectMessage::tODNUN, going, coming);
    EXPECT_EQ("42:tOCNUN(77) 43:tOCNUN(77) 42:tODNUN(77) 42:tOCNSU(77) 43:tOCNSU(77)", unit.summary());
}

/** The one that goes is the last in the list until the one that comes is. */
TEST_F(NotificationOverlapTest, WhoGoesDoesNotEndTheSubscriptionOfWhoComes) {
    Watcher going("going");
    Watcher coming("coming");
    Watcher other("other");
    orb.observeCreations(kClass, going, false);
    orb.observeDeletions(kClass, other);
    unit.summary();
    theyHave({0x500});
    coming.reaction = [&] {
        const TreflectHandlerState own(true);
        orb.removeObserver(kClass, going);
    };
    EXPECT_TRUE(orb.observeCreations(kClass, coming, true));
    EXPECT_EQ("42:tOCNSU(77,existing) 43:tOCNSU(77,existing)", unit.summary());
    EXPECT_EQ((std::vector<unsigned>{0x500}), coming.told);
    orb.removeObserver(kClass, coming);
    EXPECT_EQ("42:tOCNUN(77) 43:tOCNUN(77)", unit.summary()) << "it is the last one now";
}

/** It is registered by then. */
TEST_F(NotificationOverlapTest, WhoGoesWhileObjectsOfAMissedBrokerAreToldEndsTheSubscription) {
    vanish(kOther);
    Watcher watcher("watcher");
    theyHave({0x500});
    bool first = true;
    unit.meanwhile = [&](const Testing::FakeUnit::Asked &) {
        if (std::exchange(first, false)) {
            appear(kOther);
        }
    };
    watcher.reaction = [&] {
        if (watcher.told.size() == 2) { // by the second broker
            const TreflectHandlerState own(true);
            orb.removeObserver(kClass, watcher);
        }
    };
    EXPECT_TRUE(orb.observeCreations(kClass, watcher, true));
    EXPECT_EQ("42:tOCNSU(77,existing) 43:tOCNSU(77,existing) 42:tOCNUN(77) 43:tOCNUN(77) 42:tODNUN(77) 43:tODNUN(77)",
              unit.summary());
}

} // namespace
