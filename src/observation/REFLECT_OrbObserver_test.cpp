#include "observation/REFLECT_OrbObserver.h"

#include "objects/ObjectHandler.h"
#include "orb/REFLECT_orb.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace {

using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_OrbObserver";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr TerminationId kForeign(0x0050, 3, 2);

class Watcher : public TreflectOrbObserverIf {
public:
    void orbAppearance(const TerminationId &id, const Appear_t &type) override {
        permission = TreflectORB::hasRunPermission();
        reaction(type);
        const std::lock_guard<std::mutex> lock(lock_);
        told_ += LogMakeString("%s%X:%u", told_.empty() ? "" : " ", id.nameId(), type);
    }
    std::string told() {
        const std::lock_guard<std::mutex> lock(lock_);
        return told_;
    }
    bool willBeTold(const std::string &all) {
        return Testing::eventually([&] { return told() == all; });
    }
    /** The broker's own observer may still have to tell of what came and went in the test before. */
    bool willBeToldAtLast(const std::string &end) {
        return Testing::eventually([&] {
            const std::string all = told();
            return all.size() >= end.size() && all.compare(all.size() - end.size(), end.size(), end) == 0;
        });
    }
    std::atomic<bool> permission{false};
    std::function<void(Appear_t)> reaction = [](Appear_t) {};

private:
    std::mutex lock_;
    std::string told_;
};

class OrbObserverTest : public Testing::BrokerTest {
protected:
    /** A subscriber of a test's own shows when all events before have been told: it is the last in the list. */
    TreflectOrbObserver observer;
};

TEST_F(OrbObserverTest, MasksAddUpAndSelect) {
    Watcher both;
    Watcher appearances;
    Watcher disappearances;
    Watcher last;
    EXPECT_TRUE(observer.subscribe(&both, 1, false));
    EXPECT_TRUE(observer.subscribe(&both, 2, false));
    EXPECT_TRUE(observer.subscribe(&appearances, 1, false));
    EXPECT_TRUE(observer.subscribe(&disappearances, 2, false));
    EXPECT_TRUE(observer.subscribe(&last, 3, false));
    EXPECT_FALSE(observer.subscribe(nullptr, 1, true));
    observer.notify(kPeer, 1);
    observer.notify(kPeer, 2);
    EXPECT_TRUE(last.willBeTold("42:1 42:2"));
    EXPECT_EQ("42:1 42:2", both.told());
    EXPECT_EQ("42:1", appearances.told());
    EXPECT_EQ("42:2", disappearances.told());
    EXPECT_TRUE(both.permission);
}

TEST_F(OrbObserverTest, WhoLeavesInACallbackStillGetsTheCurrentEvent) {
    Watcher first;
    Watcher second;
    Watcher last;
    observer.subscribe(&first, 1, false);
    observer.subscribe(&second, 1, false);
    observer.subscribe(&last, 1, false);
    first.reaction = [&](TreflectOrbObserverIf::Appear_t) { EXPECT_TRUE(observer.unsubscribe(&second)); };
    observer.notify(kPeer, 1);
    observer.notify(kForeign, 1);
    EXPECT_TRUE(last.willBeTold("42:1 50:1"));
    EXPECT_EQ("42:1", second.told());
    EXPECT_TRUE(observer.unsubscribe(&second)) << "also who is not there";
}

TEST_F(OrbObserverTest, WhoLeavesInItsOwnCallbackIsToldNoMore) {
    Watcher leaving;
    Watcher last;
    observer.subscribe(&leaving, 1, false);
    observer.subscribe(&leaving, 2, false);
    observer.subscribe(&last, 3, false);
    leaving.reaction = [&](TreflectOrbObserverIf::Appear_t) { EXPECT_TRUE(observer.unsubscribe(&leaving)); };
    observer.notify(kPeer, 1);
    observer.notify(kPeer, 2);
    observer.notify(kForeign, 1);
    EXPECT_TRUE(last.willBeTold("42:1 42:2 50:1"));
    EXPECT_EQ("42:1", leaving.told());
}

TEST_F(OrbObserverTest, TheyAreToldInTheOrderOfTheirSubscription) {
    std::string order;
    Watcher first;
    Watcher second;
    Watcher third;
    Watcher last;
    const auto name = [&order](char letter) {
        return [&order, letter](TreflectOrbObserverIf::Appear_t) { order += letter; };
    };
    first.reaction = name('1');
    second.reaction = name('2');
    third.reaction = name('3');
    for (Watcher *each : {&second, &third, &first}) {
        observer.subscribe(each, 1, false);
    }
    observer.subscribe(&second, 2, false); // which does not change its place
    observer.subscribe(&last, 3, false);
    observer.notify(kPeer, 1);
    observer.notify(kForeign, 1);
    observer.notify(kPeer, 2);
    EXPECT_TRUE(last.willBeTold("42:1 50:1 42:2"));
    EXPECT_EQ("2312312", order);
}

TEST_F(OrbObserverTest, TheSubscriptionsAreShown) {
    Watcher one;
    Watcher two;
    Watcher three;
    observer.subscribe(&one, 1, false);
    observer.subscribe(&two, 2, false);
    observer.subscribe(&three, 3, false);
    log.clear();
    observer.display();
    const std::vector<Testing::LogLine> lines = log.lines();
    ASSERT_EQ(4U, lines.size());
    EXPECT_EQ(LogMakeString("ORB (termId=0x%X) has 3 observer registered:", orb.termId().value()), lines[0].text);
    EXPECT_EQ(LogMakeString("   Observer 0x%p registered for Appear", static_cast<void *>(&one)), lines[1].text);
    EXPECT_EQ(LogMakeString("   Observer 0x%p registered for Disappear", static_cast<void *>(&two)), lines[2].text);
    EXPECT_EQ(LogMakeString("   Observer 0x%p registered for All", static_cast<void *>(&three)), lines[3].text);
    for (const Testing::LogLine &line : lines) {
        EXPECT_EQ(5, line.level);
        EXPECT_EQ(kSource, line.source);
    }
    EXPECT_STREQ("ERROR", TreflectOrbObserver::typeStr(0));
    EXPECT_STREQ("ERROR", TreflectOrbObserver::typeStr(4));
}

TEST_F(OrbObserverTest, ItEndsWhileItWaits) {
    Watcher watcher;
    Testing::Gate ended;
    Testing::TestThread thread([&] {
        {
            TreflectOrbObserver other;
            other.subscribe(&watcher, 1, false);
            other.notify(kPeer, 1);
            EXPECT_TRUE(watcher.willBeTold("42:1"));
            EXPECT_TRUE(Testing::eventually([&] { return other.isIdle(); }));
        }
        ended.open();
    });
    EXPECT_TRUE(ended.pass());
}

TEST_F(OrbObserverTest, ItEndsWhileItWaitsForThePermission) {
    // The thread that sees brokers come and go has nothing left to do for which it would wait for the permission, too.
    link.peerAppears(kForeign);
    ASSERT_TRUE(log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), kForeign.value()),
                            "REFLECT_orb"));
    Watcher watcher;
    auto other = std::make_unique<TreflectOrbObserver>();
    other->subscribe(&watcher, 1, false);
    std::atomic<int> destroyerTid{0};
    {
        Testing::Gate held;
        const auto waiters = [] { return TreflectORB::handlerThreads()->waitingForPermission(); };
        Testing::TestThread holder([&] {
            const TreflectHandlerState state(true);
            held.open();
            // Nothing makes it sleep but the end that it waits for.
            EXPECT_TRUE(Testing::eventually([&] { return destroyerTid != 0 && Testing::isAsleep(destroyerTid); }));
            EXPECT_EQ(1U, waiters()) << "its end does not end the wait";
        });
        ASSERT_TRUE(held.pass());
        other->notify(kPeer, 1);
        ASSERT_TRUE(Testing::eventually([&] { return waiters() == 1; }));
        Testing::TestThread destroyer([&] {
            destroyerTid = OSWrap::Thread::getCurrentTid();
            other.reset();
        });
    }
    EXPECT_EQ("42:1", watcher.told()) << "the callback that was due ran";
}

/** The end of the thread is a cancellation, which no callback may feel. */
TEST_F(OrbObserverTest, ACallbackRunsToItsEndWhateverItWaitsFor) {
    Watcher watcher;
    auto other = std::make_unique<TreflectOrbObserver>();
    other->subscribe(&watcher, 1, false);
    Testing::Gate inside;
    Testing::Gate ending;
    watcher.reaction = [&](TreflectOrbObserverIf::Appear_t) {
        inside.open();
        EXPECT_TRUE(ending.pass());
        for (int i = 0; i < 20; ++i) { // the request to end comes in the midst of these
            OSWrap::Thread::sleep(OSWrap::TimeSpec(0, 10000000));
        }
    };
    other->notify(kPeer, 1);
    ASSERT_TRUE(inside.pass());
    Testing::TestThread destroyer([&] {
        ending.open();
        other.reset();
    });
    destroyer.join();
    EXPECT_EQ("42:1", watcher.told());
}

TEST_F(OrbObserverTest, WhoLeavesFromElsewhereIsToldNoMore) {
    Watcher first;
    Watcher second;
    Watcher last;
    observer.subscribe(&first, 1, false);
    observer.subscribe(&second, 1, false);
    observer.subscribe(&last, 1, false);
    Testing::Gate inside;
    Testing::Gate go;
    first.reaction = [&](TreflectOrbObserverIf::Appear_t) {
        inside.open();
        EXPECT_TRUE(go.pass());
    };
    observer.notify(kPeer, 1);
    ASSERT_TRUE(inside.pass());
    EXPECT_TRUE(observer.unsubscribe(&second)) << "it is to be told of this event, too";
    go.open();
    EXPECT_TRUE(last.willBeTold("42:1"));
    EXPECT_EQ("", second.told());
}

TEST_F(OrbObserverTest, WhoLeavesFromElsewhereWaitsForItsCallback) {
    Watcher watcher;
    observer.subscribe(&watcher, 1, false);
    Testing::Gate inside;
    Testing::Gate go;
    std::atomic<bool> left{false};
    bool leftTooEarly = false;
    watcher.reaction = [&](TreflectOrbObserverIf::Appear_t) {
        inside.open();
        EXPECT_TRUE(go.pass());
        for (int i = 0; i < 20; ++i) {
            OSWrap::Thread::sleep(OSWrap::TimeSpec(0, 10000000));
            leftTooEarly = leftTooEarly || left;
        }
    };
    observer.notify(kPeer, 1);
    ASSERT_TRUE(inside.pass());
    Testing::TestThread thread([&] {
        go.open();
        EXPECT_TRUE(observer.unsubscribe(&watcher));
        left = true;
    });
    thread.join();
    EXPECT_FALSE(leftTooEarly);
    EXPECT_EQ("42:1", watcher.told());
}

TEST_F(OrbObserverTest, WithoutMemoryNobodySubscribesAndNothingIsTold) {
    Watcher watcher;
    Watcher there;
    observer.subscribe(&there, 1, false);
    bool subscribed = true;
    bool more = false;
    bool queued = true;
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        subscribed = observer.subscribe(&watcher, 1, false);
        more = observer.subscribe(&there, 2, false);
        queued = observer.notify(kPeer, 1);
    }
    EXPECT_FALSE(subscribed);
    EXPECT_TRUE(more) << "it has a place";
    EXPECT_FALSE(queued);
    EXPECT_TRUE(observer.notify(kForeign, 2));
    EXPECT_TRUE(there.willBeTold("50:2"));
    EXPECT_EQ("", watcher.told());
}

/** Two callbacks of one observer, told by two brokers, that each would wait for the other. */
TEST_F(OrbObserverTest, ACallbackWaitsForThatOfNoOtherBroker) {
    TreflectOrbObserver other;
    Watcher watcher;
    std::atomic<int> inside{0};
    std::atomic<int> left{0};
    watcher.reaction = [&](TreflectOrbObserverIf::Appear_t) {
        const TreflectReleaseHandlerState released;
        ++inside;
        EXPECT_TRUE(Testing::eventually([&] { return inside == 2; }));
        EXPECT_TRUE(observer.unsubscribe(&watcher));
        EXPECT_TRUE(other.unsubscribe(&watcher));
        ++left;
    };
    for (TreflectOrbObserver *each : {&observer, &other}) {
        EXPECT_TRUE(each->subscribe(&watcher, 1, false));
        EXPECT_TRUE(each->notify(kPeer, 1));
    }
    EXPECT_TRUE(Testing::eventually([&] { return left == 2; }));
    observer.unsubscribe(&watcher); // which waits for the rest of the callbacks
    other.unsubscribe(&watcher);
}

/** Counts in a place that outlives it. */
class Counting : public TreflectOrbObserverIf {
public:
    explicit Counting(std::atomic<int> &calls) : calls_(calls) {}
    void orbAppearance(const TerminationId &, const Appear_t &) override { ++calls_; }

private:
    std::atomic<int> &calls_;
};

TEST_F(OrbObserverTest, WhoIsDestroyedIsForgotten) {
    Watcher first;
    Watcher last;
    std::atomic<int> calls{0};
    std::optional<Counting> gone; // whose memory stays: a call after the end would be one of a pure virtual function
    std::optional<Counting> goesInACallback;
    gone.emplace(calls);
    goesInACallback.emplace(calls);
    first.reaction = [&](TreflectOrbObserverIf::Appear_t) { goesInACallback.reset(); };
    // What came up in the test before is told by then.
    orb.registerOrbCreation(&last, false);
    link.peerAppears(kForeign);
    ASSERT_TRUE(last.willBeToldAtLast("50:1"));
    orb.unregisterOrbNotifications(&last);
    orb.registerOrbCreation(&first, false);
    orb.registerOrbCreation(&*gone, false);
    orb.registerOrbCreation(&*goesInACallback, false);
    orb.registerOrbCreation(&last, false);
    {
        const TreflectHandlerState state(true); // it is not being told
        gone.reset();
    }
    link.peerAppears(kPeer);
    EXPECT_TRUE(Testing::eventually([&] { return last.told().find("42:1") != std::string::npos; }));
    EXPECT_FALSE(goesInACallback);
    EXPECT_EQ(0, calls);
    orb.unregisterOrbNotifications(&first);
    orb.unregisterOrbNotifications(&last);
}

#ifndef NDEBUG
SCENARIO(endOfAnObserverWithThePermission) {
    Transport::FakeLink::install();
    TreflectORB::getInstance(1);
    auto other = std::make_unique<TreflectOrbObserver>();
    const TreflectHandlerState state(true);
    other.reset();
}

TEST(OrbObserverMisuse, ItDoesNotEndWithThePermission) {
    EXPECT_EQ(SIGABRT, Testing::runScenario("endOfAnObserverWithThePermission").signal);
}
#endif

TEST_F(OrbObserverTest, WhoAsksIsToldOfThoseThatAreThereAtOnceAndWithoutThePermission) {
    Watcher early;
    orb.registerOrbCreation(&early, false);
    link.peerAppears(kPeer);
    link.peerAppears(kForeign);
    // What its thread has told by now it does not tell the next observer, too.
    ASSERT_TRUE(Testing::eventually([&] { return early.told().find("42:1 50:1") != std::string::npos; }));
    orb.unregisterOrbNotifications(&early);
    Watcher watcher;
    Watcher later;
    {
        const TreflectHandlerState state(true);
        std::size_t calls = 0;
        bool permitted = true;
        watcher.reaction = [&](TreflectOrbObserverIf::Appear_t) {
            ++calls;
            permitted = TreflectORB::hasRunPermission();
        };
        orb.registerOrbCreation(&watcher, true);
        EXPECT_EQ(3U, calls) << "this broker is there, too";
        EXPECT_FALSE(permitted);
        EXPECT_TRUE(TreflectORB::hasRunPermission());
        orb.registerOrbDeletion(&later);
        EXPECT_EQ("", later.told());
        watcher.reaction = [](TreflectOrbObserverIf::Appear_t) {};
    }
    link.peerVanishes(kPeer);
    EXPECT_TRUE(later.willBeToldAtLast("42:2"));
    orb.unregisterOrbNotifications(&later);
    orb.unregisterOrbNotifications(&watcher);
}

TEST_F(OrbObserverTest, WhoLeavesWhileItIsToldOfThoseThatAreThereIsToldNothingLater) {
    Watcher last;
    orb.registerOrbCreation(&last, false);
    link.peerAppears(kPeer);
    ASSERT_TRUE(last.willBeToldAtLast("42:1")) << "what its thread has told by now it tells nobody else";
    Watcher leaving;
    unsigned calls = 0;
    leaving.reaction = [&](TreflectOrbObserverIf::Appear_t) {
        ++calls;
        orb.unregisterOrbNotifications(&leaving);
    };
    orb.registerOrbCreation(&leaving, true);
    EXPECT_EQ(2U, calls) << "of this broker, and of the peer";
    link.peerAppears(kForeign);
    EXPECT_TRUE(last.willBeToldAtLast("50:1"));
    EXPECT_EQ(2U, calls);
    orb.unregisterOrbNotifications(&last);
}

TEST_F(OrbObserverTest, TheBrokerTellsOfAllWhateverTheirNamespace) {
    Watcher watcher;
    orb.registerOrbCreation(&watcher, false);
    orb.registerOrbDeletion(&watcher);
    link.peerAppears(kPeer);
    link.peerAppears(kForeign);
    link.peerVanishes(kForeign);
    ASSERT_TRUE(Testing::eventually([&] { return watcher.told().find("42:1 50:1 50:2") != std::string::npos; }))
        << watcher.told();
    EXPECT_TRUE(watcher.permission);
    orb.unregisterOrbNotifications(&watcher);
}

/** Stubs first, then the observers: who is told of the end meets no stub that still looks good. */
TEST_F(OrbObserverTest, StubsAreInvalidWhenTheEndIsTold) {
    link.peerAppears(kPeer);
    TreflectObjectStub *stub = nullptr;
    {
        const TreflectHandlerState state(true);
        stub = TreflectObjectHandler::getInstance()->adoptStub(TreflectORB::TreflectObjectLocation(
            0x30, orb.convertId(kPeer), nullptr, TipprmiOID(nullptr, NamespaceId(1))));
    }
    Watcher watcher;
    std::atomic<bool> valid{true};
    watcher.reaction = [&](TreflectOrbObserverIf::Appear_t) { valid = stub->isValid(); };
    orb.registerOrbDeletion(&watcher);
    link.peerVanishes(kPeer);
    EXPECT_TRUE(watcher.willBeToldAtLast("42:2"));
    EXPECT_FALSE(valid);
    orb.unregisterOrbNotifications(&watcher);
    const TreflectHandlerState state(true);
    TreflectObjectHandler::getInstance()->releaseStub(stub);
}

class Exiting : public TreflectOrbObserverIf {
public:
    void orbAppearance(const TerminationId &, const Appear_t &) override { std::exit(5); }
};

/** An observer may end the process. */
SCENARIO(exitInOrbAppearance) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    static Exiting exiting;
    TreflectORB::getInstance(1)->registerOrbCreation(&exiting, false);
    link.peerAppears(kPeer);
    Testing::Gate never;
    never.pass();
}

/** One that is stuck does not keep the process from ending. */
SCENARIO(exitBesidesAStuckOrbAppearance) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    // In use until the end, so none of them is destroyed.
    static Watcher &stuck = *new Watcher;
    static Testing::Gate &inside = *new Testing::Gate;
    static Testing::Gate &never = *new Testing::Gate;
    stuck.reaction = [](TreflectOrbObserverIf::Appear_t) {
        inside.open();
        TreflectReleaseHandlerState released;
        never.pass();
    };
    TreflectORB::getInstance(1)->registerOrbCreation(&stuck, false);
    link.peerAppears(kPeer);
    inside.pass();
    std::exit(6);
}

TEST(OrbObserverExit, ACallbackMayEndTheProcess) {
    EXPECT_EQ(5, Testing::runScenario("exitInOrbAppearance").exitStatus);
}

TEST(OrbObserverExit, AStuckCallbackDoesNotHoldTheProcess) {
    EXPECT_EQ(6, Testing::runScenario("exitBesidesAStuckOrbAppearance").exitStatus);
}

} // namespace
