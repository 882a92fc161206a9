#include "support/Concurrency.h"
#include "support/ObjectEventsTest.h"
#include "support/ReflectiveClasses.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <functional>
#include <memory>

namespace {

using Transport::TerminationId;
using Watcher = Testing::ObjectWatcher;

class NotificationTest : public Testing::ObjectEventsTest {};

TEST_F(NotificationTest, ObserversHearFirstThenTheBrokersThatSubscribed) {
    appear(kPeer);
    appear(kOther);
    Watcher watcher("watcher");
    Testing::PortImpl port("port");
    orb.getMetaData(kClass)->creationObservers.push_back(&watcher);
    orb.addRemoteCreationObserver(kClass, orb.convertId(kPeer), nullptr);
    orb.addRemoteCreationObserver(kClass, orb.convertId(kOther), nullptr);
    std::vector<std::size_t> toldBefore;
    unit.meanwhile = [&](const Testing::FakeUnit::Asked &) { toldBefore.push_back(watcher.told.size()); };
    EXPECT_TRUE(orb.notifyCreation(kClass, port));
    EXPECT_EQ((std::vector<unsigned>{port.getInternalOID()}), watcher.told);
    EXPECT_EQ("42:tOCN(77) 43:tOCN(77)", unit.summary());
    EXPECT_EQ((std::vector<std::size_t>{1, 1}), toldBefore);
    EXPECT_EQ(1U, orb.getMetaData(kClass)->objects.count(&port));
}

TEST_F(NotificationTest, ObserversRunWithoutThePermissionAndAsHandlers) {
    Watcher watcher("watcher");
    Testing::PortImpl port("port");
    orb.getMetaData(kClass)->creationObservers.push_back(&watcher);
    bool otherRan = false;
    watcher.reaction = [&] {
        Testing::TestThread([&] {
            const TreflectHandlerState own(true);
            otherRan = true;
        });
        TreflectORB::leaveHandlerState(false); // whatever it does is put right
    };
    orb.notifyCreation(kClass, port);
    EXPECT_EQ((std::vector<bool>{false}), watcher.permission);
    EXPECT_TRUE(watcher.handler);
    EXPECT_TRUE(otherRan);
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    EXPECT_TRUE(TreflectORB::isHandlerThread());
}

TEST_F(NotificationTest, ABrokerThatDoesNotAnswerIsToldNoMore) {
    appear(kPeer);
    appear(kOther);
    unit.mute(kPeer);
    Testing::PortImpl port("port");
    orb.addRemoteCreationObserver(kClass, orb.convertId(kPeer), nullptr);
    orb.addRemoteCreationObserver(kClass, orb.convertId(kOther), nullptr);
    orb.addRemoteDeletionObserver(kClass, orb.convertId(kPeer));
    orb.notifyCreation(kClass, port);
    EXPECT_EQ("42:tOCN(77) 43:tOCN(77)", unit.summary());
    orb.notifyCreation(kClass, port);
    EXPECT_EQ("43:tOCN(77)", unit.summary());
    EXPECT_EQ(1U, orb.getMetaData(kClass)->remoteDeletionObservers.size()) << "only of what failed";
}

/** Nothing changes when it goes: the next notification that does not reach it ends its subscription. */
TEST_F(NotificationTest, ABrokerThatHasGoneIsToldNoMore) {
    appear(kPeer);
    Testing::PortImpl port("port");
    const TreflectOrbId peer = orb.convertId(kPeer);
    orb.addRemoteCreationObserver(kClass, peer, nullptr);
    orb.addRemoteDeletionObserver(kClass, peer);
    vanish(kPeer);
    const TreflectORB::MetaData &data = *orb.getMetaData(kClass);
    EXPECT_EQ((std::set<TreflectOrbId>{peer}), data.remoteCreationObservers);
    EXPECT_EQ((std::set<TreflectOrbId>{peer}), data.remoteDeletionObservers);
    orb.notifyCreation(kClass, port);
    EXPECT_TRUE(data.remoteCreationObservers.empty());
    EXPECT_EQ((std::set<TreflectOrbId>{peer}), data.remoteDeletionObservers);
    orb.notifyDeletion(kClass, port);
    EXPECT_TRUE(data.remoteDeletionObservers.empty());
    appear(kPeer);
    orb.notifyCreation(kClass, port);
    orb.notifyDeletion(kClass, port);
    EXPECT_EQ("", unit.summary()) << "the next broker at this place has not subscribed";
}

TEST_F(NotificationTest, AnObjectCountsUntilItsDeletionIsTold) {
    appear(kPeer);
    Testing::PortImpl port("port");
    orb.notifyCreation(kClass, port);
    orb.addRemoteDeletionObserver(kClass, orb.convertId(kPeer));
    bool there = false;
    unit.meanwhile = [&](const Testing::FakeUnit::Asked &) { there = orb.getMetaData(kClass)->objects.count(&port); };
    orb.notifyDeletion(kClass, port);
    EXPECT_EQ("42:tODN(77)", unit.summary());
    EXPECT_TRUE(there);
    EXPECT_EQ(0U, orb.getMetaData(kClass)->objects.count(&port));
}

TEST_F(NotificationTest, EachObserverIsToldOnceWhateverTheyDoToTheList) {
    Watcher first("first");
    Watcher second("second");
    Watcher third("third");
    Testing::PortImpl port("port");
    orb.observeCreations(kClass, first, false);
    orb.observeCreations(kClass, second, false);
    first.reaction = [&] {
        const TreflectHandlerState own(true);
        orb.removeObserver(kClass, first);
        orb.observeCreations(kClass, third, false);
    };
    orb.gotCreation(kClass, *port.getClient());
    EXPECT_EQ(1U, first.told.size());
    EXPECT_EQ(1U, second.told.size());
    EXPECT_EQ(1U, third.told.size());
}

TEST_F(NotificationTest, ObjectsThatGoWhileOthersAreToldAreNotTold) {
    std::vector<std::unique_ptr<Testing::PortImpl>> ports;
    for (int i = 0; i < 3; ++i) {
        ports.push_back(std::make_unique<Testing::PortImpl>("port"));
        orb.notifyCreation(kClass, *ports.back());
    }
    std::sort(ports.begin(), ports.end()); // in the order in which they are told of
    const unsigned first = ports[0]->getInternalOID();
    const unsigned last = ports[2]->getInternalOID();
    Watcher watcher("watcher");
    watcher.reaction = [&] {
        const TreflectHandlerState own(true);
        ports[0].reset(); // the one that is being told of
        ports[1].reset();
    };
    orb.observeCreations(kClass, watcher, true);
    EXPECT_EQ((std::vector<unsigned>{first, last}), watcher.told);
}

TEST_F(NotificationTest, TheFirstObserverSubscribesAndTheLastToGoUnsubscribes) {
    appear(kPeer);
    appear(kOther);
    Watcher first("first");
    Watcher second("second");
    EXPECT_TRUE(orb.observeCreations(kClass, first, false));
    EXPECT_EQ("42:tOCNSU(77) 43:tOCNSU(77)", unit.summary());
    EXPECT_TRUE(orb.observeCreations(kClass, second, false));
    EXPECT_EQ("", unit.summary());
    EXPECT_TRUE(orb.observeDeletions(kClass, first));
    EXPECT_EQ("42:tODNSU(77) 43:tODNSU(77)", unit.summary());
    EXPECT_TRUE(orb.observeDeletions(kClass, second));
    orb.removeObserver(kClass, first);
    EXPECT_EQ("", unit.summary());
    unit.mute(kOther);
    log.clear();
    orb.removeObserver(kClass, second);
    EXPECT_EQ("42:tOCNUN(77) 43:tOCNUN(77) 42:tODNUN(77) 43:tODNUN(77)", unit.summary());
    EXPECT_EQ(2U, log.count(3, LogMakeString("could not unregister from 0x%X", kOther.value()), "REFLECT_orb"));
    orb.removeObserver(0x78, first);
    EXPECT_EQ("42:tOCNUN(78) 43:tOCNUN(78) 42:tODNUN(78) 43:tODNUN(78)", unit.summary()) << "also without observers";
}

TEST_F(NotificationTest, ExistingObjectsAreToldOnceEach) {
    appear(kPeer);
    appear(kOther); // says that it has the same objects
    theyHave({0x500, 0x501, 0x500});
    Testing::PortImpl own("own");
    orb.notifyCreation(kClass, own);
    Watcher watcher("watcher");
    orb.observeCreations(kClass, watcher, true);
    EXPECT_EQ("42:tOCNSU(77,existing) 43:tOCNSU(77,existing)", unit.summary());
    EXPECT_EQ((std::vector<unsigned>{own.getInternalOID(), 0x500, 0x501}), watcher.told);
    EXPECT_EQ((std::vector<bool>{false, false, false}), watcher.permission);
    Watcher later("later");
    orb.observeCreations(kClass, later, true);
    EXPECT_EQ("42:tOCNSU(77,existing) 43:tOCNSU(77,existing)", unit.summary()) << "asked again";
    EXPECT_EQ(3U, later.told.size());
}

/** The second object is there when the first one is told of. */
TEST_F(NotificationTest, ObjectsThatComeWhileOthersAreToldAreToldToo) {
    Testing::PortImpl one("one");
    Testing::PortImpl two("two");
    orb.notifyCreation(kClass, one);
    Watcher watcher("watcher");
    watcher.reaction = [&] {
        const TreflectHandlerState own(true);
        orb.notifyCreation(kClass, two);
    };
    orb.observeCreations(kClass, watcher, true);
    EXPECT_EQ((std::vector<unsigned>{one.getInternalOID(), two.getInternalOID()}), watcher.told);
}

TEST_F(NotificationTest, WhatCouldNotBeReadIsNoObject) {
    appear(kPeer);
    unit.objects = [this](TipprmiStream &body) { body << 3U << at(kPeer, 0x500) << 0U; };
    Watcher watcher("watcher");
    orb.observeCreations(kClass, watcher, true);
    EXPECT_EQ((std::vector<unsigned>{0x500}), watcher.told);
}

TEST_F(NotificationTest, ABrokerThatToldItsClassesIsAskedForTheseOnly) {
    appear(kPeer);
    theirClasses({0x70, kClass});
    Watcher watcher("watcher");
    orb.observeCreations(kClass, watcher, false);
    EXPECT_EQ("42:tOCNSU(77)", unit.summary());
    orb.observeDeletions(0x78, watcher);
    EXPECT_EQ("", unit.summary()) << "a class that it does not have";
    orb.observeDeletions(0x70, watcher);
    EXPECT_EQ("42:tODNSU(70)", unit.summary());
    // The next broker at this place has classes of its own.
    vanish(kPeer);
    appear(kPeer);
    EXPECT_EQ("42:tODNSU(70) 42:tOCNSU(77,existing)", unit.summary());
}

/** Between its answer and the end of the subscription, which looks up an object that the answer only names. */
TEST_F(NotificationTest, WhatABrokerSaidThatGoesMeanwhileIsNotKept) {
    appear(kPeer);
    appear(kOther);
    unit.objects = [](TipprmiStream &body) {
        body << 1U << TreflectORB::TreflectObjectLocation(TipprmiOID("named", NamespaceId(1)));
    };
    theirClasses({kClass});
    const TreflectOrbId peer = orb.convertId(kPeer);
    bool gone = false;
    unit.meanwhile = [&](const Testing::FakeUnit::Asked &asked) {
        if (asked.type == TreflectMessage::tRslve && !gone) {
            gone = true;
            vanish(kPeer);
        }
    };
    orb.registerForOCN(kClass, nullptr, &peer);
    ASSERT_TRUE(gone);
    appear(kPeer);
    unit.summary();
    orb.registerForODN(0x78, &peer);
    EXPECT_EQ("42:tODNSU(78)", unit.summary()) << "what its predecessor had does not count";
}

/** What was counted was said, though it did not arrive. */
TEST_F(NotificationTest, ACountOfClassesIsBelieved) {
    appear(kPeer);
    unit.classes = [](TipprmiStream &body) { body << 3U << 0x70U; };
    const TreflectOrbId peer = orb.convertId(kPeer);
    orb.registerForODN(0x70, &peer);
    orb.registerForODN(0x71, &peer);
    orb.registerForODN(0x70, &peer);
    EXPECT_EQ("42:tODNSU(70) 42:tODNSU(70)", unit.summary());
}

TEST_F(NotificationTest, AnAnswerWhoseObjectsAreCutTeachesNothing) {
    appear(kPeer);
    const TreflectOrbId peer = orb.convertId(kPeer);
    const auto subscribe = [&] {
        std::vector<TreflectObject> existing;
        orb.registerForOCN(kClass, &existing, &peer);
        orb.registerForOCN(0x78, &existing, &peer);
        EXPECT_EQ("42:tOCNSU(77,existing) 42:tOCNSU(78,existing)", unit.summary());
        return existing.size();
    };
    unit.objects = [](TipprmiStream &) {}; // not even their number
    EXPECT_EQ(0U, subscribe());
    unit.objects = [this](TipprmiStream &body) { body << 2U << at(kPeer, 0x500); };
    EXPECT_EQ(1U, subscribe());
    unit.objects = [](TipprmiStream &body) { body << 0xFFFFFFFFU; };
    unit.classes = [](TipprmiStream &body) { body << 0U; };
    EXPECT_EQ(0U, subscribe());
}

TEST_F(NotificationTest, AnAnswerWithoutClassesTeachesNothing) {
    appear(kPeer);
    Watcher watcher("watcher");
    orb.observeDeletions(kClass, watcher); // an empty answer
    unit.classes = [](TipprmiStream &body) { body << 0xFFFFFFFFU; };
    orb.observeDeletions(0x78, watcher); // a count that cannot be
    unit.summary();
    theirClasses({});
    orb.observeDeletions(0x79, watcher);
    EXPECT_EQ("42:tODNSU(79)", unit.summary());
    orb.observeDeletions(0x7A, watcher); // it has said that it has none
    EXPECT_EQ("", unit.summary());
}

TEST_F(NotificationTest, ABrokerThatComesUpIsAskedForTheObservedClasses) {
    Watcher creations("creations");
    Watcher deletions("deletions");
    orb.observeCreations(0x71, creations, false);
    orb.observeDeletions(0x72, deletions);
    EXPECT_EQ("", unit.summary());
    theyHave({0x500, 0x501});
    appear(kPeer);
    EXPECT_EQ("42:tOCNSU(71,existing) 42:tODNSU(72)", unit.summary());
    EXPECT_EQ((std::vector<unsigned>{0x500, 0x501}), creations.told);
    EXPECT_TRUE(deletions.told.empty());
    const TerminationId foreign(0x0050, 2, Transport::GRPID_NODE);
    appear(foreign);
    EXPECT_EQ("", unit.summary()) << "it is of another namespace";
    orb.orbAppeared(orb.convertId(foreign));
    EXPECT_EQ("50:tOCNSU(71,existing) 50:tODNSU(72)", unit.summary()) << "though it can be reached";
}

/** The tables of classes may change under the walk that asks it for them. */
TEST_F(NotificationTest, ClassesThatAreObservedWhileABrokerIsAskedAreNotLeftOut) {
    appear(kOther);
    Watcher watcher("watcher");
    Watcher late("late");
    orb.observeCreations(0x71, watcher, false);
    theyHave({0x500});
    bool first = true;
    watcher.reaction = [&] {
        if (first) {
            first = false;
            const TreflectHandlerState own(true);
            orb.removeObserver(0x71, watcher);
            for (unsigned cc : {0x60U, 0x70U, 0x7FU}) {
                orb.getMetaData(cc)->deletionObservers.push_back(&late);
            }
        }
    };
    unit.summary();
    const TreflectOrbId peer = orb.convertId(kOther);
    orb.orbAppeared(peer);
    EXPECT_EQ("43:tOCNSU(71,existing) 43:tOCNUN(71) 43:tODNUN(71) 43:tODNSU(7F) 43:tODNSU(60) 43:tODNSU(70)",
              unit.summary());
}

/** It is in no list of members that the subscription knows, so the subscription makes up for it at its end. */
TEST_F(NotificationTest, ABrokerThatComesUpDuringASubscriptionIsNotMissed) {
    appear(kPeer);
    Watcher watcher("watcher");
    bool first = true;
    theyHave({0x500});
    unit.meanwhile = [&](const Testing::FakeUnit::Asked &asked) {
        if (asked.target == kPeer && first) {
            first = false;
            appear(kOther);
        }
    };
    orb.observeCreations(kClass, watcher, true);
    EXPECT_EQ("42:tOCNSU(77,existing) 43:tOCNSU(77,existing)", unit.summary());
    EXPECT_EQ((std::vector<unsigned>{0x500, 0x500}), watcher.told) << "from each broker";
    Watcher later("later");
    orb.observeCreations(kClass, later, false);
    EXPECT_EQ("43:tOCNSU(77)", unit.summary()) << "it is missed until the next subscription at all";
}

TEST_F(NotificationTest, ABrokerThatComesUpDuringASubscriptionToDeletionsIsNotMissed) {
    appear(kPeer);
    Watcher watcher("watcher");
    bool first = true;
    unit.meanwhile = [&](const Testing::FakeUnit::Asked &) {
        if (first) {
            first = false;
            appear(kOther);
        }
    };
    orb.observeDeletions(kClass, watcher);
    EXPECT_EQ("42:tODNSU(77) 43:tODNSU(77)", unit.summary());
    orb.observeDeletions(kClass, watcher);
    EXPECT_EQ("43:tODNSU(77)", unit.summary());
}

TEST_F(NotificationTest, WhatIsDestroyedIsForgotten) {
    {
        Watcher watcher("watcher");
        Testing::PortImpl port("port");
        orb.observeCreations(kClass, watcher, false);
        orb.observeDeletions(kClass, watcher);
        orb.notifyCreation(kClass, port);
    }
    const TreflectORB::MetaData &data = *orb.getMetaData(kClass);
    EXPECT_TRUE(data.creationObservers.empty());
    EXPECT_TRUE(data.deletionObservers.empty());
    EXPECT_TRUE(data.objects.empty());
}

TEST_F(NotificationTest, ObjectsSendTheirEvents) {
    Watcher watcher("watcher");
    Testing::PortImpl port("port");
    Testing::PortMeta::instance()->observeCreations(&watcher, false);
    Testing::EquipmentMeta::instance()->observeDeletions(&watcher);
    EXPECT_FALSE(Testing::PortMeta::instance()->observeCreations(nullptr, true));
    EXPECT_FALSE(Testing::PortMeta::instance()->observeDeletions(nullptr));
    Testing::PortMeta::instance()->removeObserver(nullptr);
    port.sendCreationEvent(nullptr);
    EXPECT_EQ(1U, watcher.told.size()) << "of its own class";
    port.sendDeletionEvent(nullptr);
    EXPECT_EQ(1U, watcher.told.size()) << "only deletions of the parent class are observed";
    port.sendDeletionEvent(Testing::EquipmentMeta::instance());
    EXPECT_EQ(2U, watcher.told.size());
    Testing::PortMeta::instance()->removeObserver(&watcher);
    port.sendCreationEvent(nullptr);
    EXPECT_EQ(2U, watcher.told.size());
    log.clear();
    watcher.sendDeletionEvent(nullptr); // an observer is of no class that anybody knows
    EXPECT_EQ(1U, log.count(3, "TreflectServerObject::sendCreationEvent(): no meta object", "REFLECT_serverObject"));
}

} // namespace
