#include "support/Concurrency.h"
#include "support/ObjectEventsTest.h"
#include "support/ReflectiveClasses.h"

#include <atomic>
#include <list>

// Observers of one class that come and go in several threads at the same time.

namespace {

using Testing::eventually;
using Watcher = Testing::ObjectWatcher;

class NotificationOverlapTest : public Testing::ObjectEventsTest {
protected:
    NotificationOverlapTest() {
        appear(kPeer);
        appear(kOther);
    }
    /** Who sends such a message to the first broker waits there. */
    void holdTheFirst(TreflectMessage::type_t type) {
        unit.meanwhile = [this, type](const Testing::FakeUnit::Asked &asked) {
            if (asked.type == type && asked.target == kPeer) {
                inside.open();
                EXPECT_TRUE(goOn.pass());
            }
        };
    }
    /** Until a thread that has begun with the run permission has done, or waits for another one. */
    void awaitRest() {
        EXPECT_TRUE(eventually([&] { return tid != 0; }));
        { const TreflectHandlerState given(true); }
        EXPECT_TRUE(eventually([&] { return done || Testing::isAsleep(tid); }));
    }

    Testing::Gate inside;
    Testing::Gate goOn;
    std::atomic<int> tid{0};
    std::atomic<bool> done{false};
    std::list<Testing::TestThread> threads;
};

TEST_F(NotificationOverlapTest, WhoComesSubscribesAfterWhoGoes) {
    Watcher going("going");
    Watcher coming("coming");
    orb.observeCreations(kClass, going, false);
    EXPECT_EQ("42:tOCNSU(77) 43:tOCNSU(77)", unit.summary());
    holdTheFirst(TreflectMessage::tOCNUN);
    {
        const TreflectReleaseHandlerState released;
        Testing::TestThread remover([&] {
            const TreflectHandlerState own(true);
            orb.removeObserver(kClass, going);
        });
        ASSERT_TRUE(inside.pass());
        Testing::TestThread comer([&] {
            const TreflectHandlerState own(true);
            tid = OSWrap::Thread::getCurrentTid();
            EXPECT_TRUE(orb.observeCreations(kClass, coming, false));
            done = true;
        });
        awaitRest();
        goOn.open();
    }
    EXPECT_EQ("42:tOCNUN(77) 43:tOCNUN(77) 42:tODNUN(77) 43:tODNUN(77) 42:tOCNSU(77) 43:tOCNSU(77)", unit.summary());
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

TEST_F(NotificationOverlapTest, WhoGoesLooksAgainWhenItsTurnComes) {
    Watcher going("going");
    Watcher coming("coming");
    Watcher other("other");
    orb.observeDeletions(kClass, other);
    unit.summary();
    holdTheFirst(TreflectMessage::tOCNSU);
    {
        const TreflectReleaseHandlerState released;
        Testing::TestThread first([&] {
            const TreflectHandlerState own(true);
            orb.observeCreations(0x78, other, false);
        });
        ASSERT_TRUE(inside.pass());
        for (const bool comes : {false, true}) {
            tid = 0;
            threads.emplace_back([this, comes, &going, &coming] {
                const TreflectHandlerState own(true);
                tid = OSWrap::Thread::getCurrentTid();
                comes ? static_cast<void>(orb.observeCreations(kClass, coming, false))
                      : orb.removeObserver(kClass, going);
                done = true;
            });
            awaitRest();
        }
        EXPECT_FALSE(done);
        goOn.open();
        threads.clear();
    }
    EXPECT_EQ("42:tOCNSU(78) 43:tOCNSU(78) 42:tOCNSU(77) 43:tOCNSU(77)", unit.summary());
}

} // namespace
