#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ObjectEventsTest.h"
#include "support/ReflectiveClasses.h"

#include <memory>
#include <new>

// What creations and deletions of objects come to when memory is short, and what of it is not for the library to catch.

namespace {

using Testing::FailingHeap;
using Watcher = Testing::ObjectWatcher;

constexpr unsigned kAllocations = 60; // more than any of the operations needs

class NotificationMemoryTest : public Testing::ObjectEventsTest {
protected:
    NotificationMemoryTest() { appear(kPeer); }

    /** Whole messages only: what a peer cannot read is worse than nothing. */
    void expectWholeMessages() {
        unit.meanwhile = [this](const Testing::FakeUnit::Asked &asked) {
            whole = whole && asked.cc == kClass && asked.complete;
        };
    }

    bool whole = true;
};

TEST_F(NotificationMemoryTest, WhoWasNotAskedIsNotDropped) {
    const std::string longName(300, 'n'); // more than the message has room for at first
    Testing::PortImpl port(longName.c_str());
    static_cast<const TreflectServerObject &>(port).getClient();
    const auto subscribed = [&] { return orb.getMetaData(kClass)->remoteCreationObservers.size(); };
    orb.addRemoteCreationObserver(kClass, orb.convertId(kPeer), nullptr);
    orb.notifyCreation(kClass, port);
    EXPECT_EQ("42:tOCN(77)", unit.summary());
    expectWholeMessages();
    std::size_t failures = 0;
    for (unsigned allowed = 0; allowed < kAllocations; ++allowed) {
        {
            const FailingHeap heap(allowed);
            orb.notifyCreation(kClass, port);
        }
        failures += unit.summary().empty() ? 1 : 0;
        ASSERT_EQ(1U, subscribed()) << allowed;
    }
    EXPECT_LT(1U, failures);
    EXPECT_GT(kAllocations, failures);
    EXPECT_TRUE(whole);
}

/** The first request of a thread takes memory for the thread itself. */
TEST_F(NotificationMemoryTest, WhoWasNotAskedByANewThreadIsNotDropped) {
    Testing::PortImpl port("port");
    static_cast<const TreflectServerObject &>(port).getClient();
    orb.addRemoteCreationObserver(kClass, orb.convertId(kPeer), nullptr);
    std::size_t failures = 0;
    for (unsigned allowed = 0; allowed < kAllocations; ++allowed) {
        {
            const TreflectReleaseHandlerState released;
            Testing::TestThread([&] {
                const TreflectHandlerState own(true);
                const FailingHeap heap(allowed);
                orb.notifyCreation(kClass, port);
            });
        }
        failures += unit.summary().empty() ? 1 : 0;
        ASSERT_EQ(1U, orb.getMetaData(kClass)->remoteCreationObservers.size()) << allowed;
    }
    EXPECT_LT(1U, failures);
    EXPECT_GT(kAllocations, failures);
}

TEST_F(NotificationMemoryTest, ClassesAreLearntAllOrNone) {
    std::vector<unsigned> many;
    for (unsigned cc = 1; cc <= 40; ++cc) {
        many.push_back(cc);
    }
    theirClasses(many);
    const TreflectOrbId peer = orb.convertId(kPeer);
    for (unsigned allowed = 0; allowed < kAllocations; ++allowed) {
        {
            const FailingHeap heap(allowed, FailingHeap::Calls::all);
            orb.registerForODN(1, &peer);
        }
        unit.summary();
        for (unsigned cc : many) {
            orb.registerForODN(cc, &peer);
        }
        ASSERT_EQ(many.size(), unit.asked().size()) << allowed;
        vanish(kPeer);
        appear(kPeer);
        unit.summary();
    }
}

TEST_F(NotificationMemoryTest, AnObserverIsRegisteredOrNot) {
    theyHave({0x500, 0x501});
    Watcher watcher("watcher");
    const auto registered = [&] {
        return orb.getMetaData(kClass)->creationObservers.size() + orb.getMetaData(kClass)->deletionObservers.size();
    };
    registered();
    unsigned successes = 0;
    for (unsigned allowed = 0; allowed < 2 * kAllocations; ++allowed) {
        bool created = false;
        bool deleted = false;
        watcher.reaction = [] {};
        {
            const FailingHeap heap(allowed, FailingHeap::Calls::all);
            created = orb.observeCreations(kClass, watcher, false);
            deleted = orb.observeDeletions(kClass, watcher);
        }
        ASSERT_EQ((created ? 1U : 0U) + (deleted ? 1U : 0U), registered()) << allowed;
        successes += registered();
        orb.removeObserver(kClass, watcher);
        ASSERT_EQ(0U, registered());
    }
    EXPECT_LT(0U, successes);
    EXPECT_GT(4 * kAllocations, successes);
}

TEST_F(NotificationMemoryTest, WhatIsAskedOfItEndsInOrder) {
    Testing::PortImpl port("port");
    static_cast<const TreflectServerObject &>(port).getClient();
    const TreflectOrbId peer = orb.convertId(kPeer);
    Watcher watcher("watcher");
    orb.observeCreations(kClass, watcher, false);
    TipprmiSequence<TreflectObject> existing;
    for (unsigned allowed = 0; allowed < kAllocations; ++allowed) {
        const FailingHeap heap(allowed, FailingHeap::Calls::all);
        orb.addRemoteCreationObserver(kClass, peer, &existing);
        orb.addRemoteDeletionObserver(kClass, peer);
        orb.orbAppeared(peer);
        orb.notifyDeletion(kClass, port);
    }
    EXPECT_EQ(1U, orb.getMetaData(kClass)->remoteCreationObservers.size());
    EXPECT_EQ(1U, orb.getMetaData(kClass)->remoteDeletionObservers.size());
    unit.summary();
    orb.orbAppeared(peer);
    EXPECT_EQ("42:tOCNSU(77,existing)", unit.summary());
}

TEST_F(NotificationMemoryTest, WhatAnObserverThrowsComesThrough) {
    Testing::PortImpl port("port");
    Watcher watcher("watcher");
    watcher.reaction = [] { throw std::bad_alloc(); };
    ASSERT_TRUE(orb.observeCreations(kClass, watcher, false));
    const TreflectObject source = *port.getClient();
    EXPECT_THROW(orb.gotCreation(kClass, source), std::bad_alloc);
    EXPECT_THROW(orb.notifyCreation(kClass, port), std::bad_alloc);
    theyHave({0x500});
    EXPECT_THROW(orb.orbAppeared(orb.convertId(kPeer)), std::bad_alloc);
    Watcher other("other");
    other.reaction = watcher.reaction;
    EXPECT_THROW(orb.observeCreations(kClass, other, true), std::bad_alloc);
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    EXPECT_EQ(0U, log.with("no memory").size());
    watcher.reaction = [] {};
}

} // namespace
