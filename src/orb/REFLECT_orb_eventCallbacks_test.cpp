#include "orb/REFLECT_orb.h"
#include "platform/TransportLayer.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "support/ObjectEventsTest.h"
#include "support/OverrideRoot.h"
#include "support/ReflectiveClasses.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using Watcher = Testing::ObjectWatcher;
using Transport::TerminationId;
using Numbers = std::vector<unsigned>;

/** What observers of objects do while they are told, and what that does to others. */
class EventCallbackTest : public Testing::ObjectEventsTest {
protected:
    /** Nobody observes any more when the others come that the next test must not see. */
    void TearDown() override {
        orb.destroyMetaData();
        ObjectEventsTest::TearDown();
    }
    static void fail() { throw std::runtime_error("application"); }

    Watcher first{"first"};
    std::unique_ptr<Watcher> second = std::make_unique<Watcher>("second");
    Watcher third{"third"};
    std::unique_ptr<Testing::PortImpl> port = std::make_unique<Testing::PortImpl>("port");
    const unsigned number = port->getInternalOID();
};

TEST_F(EventCallbackTest, WhoIsRemovedBeforeItsTurnIsNotTold) {
    for (Watcher *watcher : {&first, second.get(), &third}) {
        orb.observeCreations(kClass, *watcher, false);
        orb.observeDeletions(kClass, *watcher);
    }
    first.reaction = [&] {
        const TreflectHandlerState own(true);
        orb.removeObserver(kClass, *second);
    };
    orb.notifyCreation(kClass, *port);
    EXPECT_EQ(Numbers{number}, first.told);
    EXPECT_EQ(Numbers{}, second->told);
    EXPECT_EQ(Numbers{number}, third.told);
    orb.notifyDeletion(kClass, *port);
    EXPECT_EQ(Numbers{}, second->told) << "it was removed from both";
    EXPECT_EQ(2U, third.told.size());
}

TEST_F(EventCallbackTest, WhoWasToldMayBeRemovedAndComeAgain) {
    orb.observeCreations(kClass, first, false);
    orb.observeCreations(kClass, *second, false);
    second->reaction = [&] {
        const TreflectHandlerState own(true);
        orb.removeObserver(kClass, first);
        orb.observeCreations(kClass, first, false);
        orb.removeObserver(kClass, *second);
        orb.observeCreations(kClass, *second, false);
    };
    orb.notifyCreation(kClass, *port);
    EXPECT_EQ(Numbers{number}, first.told) << "once for each object";
    EXPECT_EQ(Numbers{number}, second->told);
    orb.notifyCreation(kClass, *port);
    EXPECT_EQ(2U, first.told.size());
    EXPECT_EQ(2U, second->told.size());
}

TEST_F(EventCallbackTest, AnObserverMayDestroyOthers) {
    orb.observeCreations(kClass, first, false);
    orb.observeCreations(kClass, *second, false);
    orb.observeCreations(kClass, third, false);
    third.reaction = first.reaction = [&] {
        const TreflectHandlerState own(true);
        second.reset();
    };
    orb.notifyCreation(kClass, *port);
    EXPECT_EQ(Numbers{number}, first.told);
    EXPECT_EQ(Numbers{number}, third.told);
    EXPECT_EQ(2U, orb.getMetaData(kClass)->creationObservers.size());
}

/** As one may whose owner deletes what it is told of. */
TEST_F(EventCallbackTest, AnObjectMayGoWhileItsCreationIsTold) {
    appear(kPeer);
    orb.addRemoteCreationObserver(kClass, orb.convertId(kPeer), nullptr);
    orb.observeCreations(kClass, first, false);
    orb.observeCreations(kClass, third, false);
    unit.summary();
    first.reaction = [&] {
        const TreflectHandlerState own(true);
        port.reset();
    };
    bool valid = true;
    third.reaction = [&] { valid = third.getSource()->getStub()->isValid(); };
    port->sendCreationEvent(nullptr); // nobody observes its own class
    orb.notifyCreation(kClass, *port);
    EXPECT_EQ(nullptr, port);
    EXPECT_EQ(Numbers{number}, third.told) << "there was such an object";
    EXPECT_FALSE(valid);
    EXPECT_EQ("42:tOCN(77)", unit.summary());
    EXPECT_TRUE(orb.getMetaData(kClass)->objects.empty());
}

TEST_F(EventCallbackTest, AnObjectMayGoWhileItsDeletionIsTold) {
    appear(kPeer);
    orb.addRemoteDeletionObserver(kClass, orb.convertId(kPeer));
    orb.observeDeletions(kClass, first);
    orb.observeDeletions(kClass, third);
    orb.notifyCreation(kClass, *port);
    unit.summary();
    first.reaction = [&] {
        const TreflectHandlerState own(true);
        port.reset();
    };
    orb.notifyDeletion(kClass, *port);
    EXPECT_EQ(nullptr, port);
    EXPECT_EQ(Numbers{number}, third.told);
    EXPECT_EQ("42:tODN(77)", unit.summary());
    EXPECT_TRUE(orb.getMetaData(kClass)->objects.empty());
    port = std::make_unique<Testing::PortImpl>("port");
    const unsigned next = port->getInternalOID();
    const TreflectMetaObject *const meta = Testing::PortMeta::instance();
    orb.observeDeletions(meta->getClassId(), first);
    port->sendDeletionEvent(nullptr);
    EXPECT_EQ(nullptr, port);
    EXPECT_EQ((Numbers{number, next}), first.told);
}

/** It is registered at the end: there was nothing to remove yet. */
TEST_F(EventCallbackTest, WhoLeavesWhileItIsToldOfWhatExistsObservesAllTheSame) {
    orb.notifyCreation(kClass, *port);
    first.reaction = [&] {
        const TreflectHandlerState own(true);
        orb.removeObserver(kClass, first);
    };
    EXPECT_TRUE(orb.observeCreations(kClass, first, true));
    EXPECT_EQ(Numbers{number}, first.told);
    EXPECT_EQ(1U, orb.getMetaData(kClass)->creationObservers.size());
    const Testing::PortImpl other("other");
    orb.notifyCreation(kClass, other);
    EXPECT_EQ((Numbers{number, other.TipprmiObjectSkeleton::getInternalOID()}), first.told);
    EXPECT_TRUE(orb.getMetaData(kClass)->creationObservers.empty()) << "this time it was";
}

TEST_F(EventCallbackTest, AnObjectThatIsGoneIsNotToldAsExisting) {
    Testing::PortImpl other("other");
    orb.notifyCreation(kClass, *port);
    orb.notifyCreation(kClass, other);
    // Whichever comes first ends the other one's part in it.
    first.reaction = [&] {
        const TreflectHandlerState own(true);
        orb.notifyDeletion(kClass, first.told[0] == number ? other : *port);
    };
    orb.observeCreations(kClass, first, true);
    EXPECT_EQ(1U, first.told.size());
}

/** It is the caller's own thread; whoever makes objects has to deal with it. */
TEST_F(EventCallbackTest, AnExceptionComesToWhoMadeTheObject) {
    orb.observeCreations(kClass, first, false);
    orb.observeDeletions(kClass, first);
    orb.observeCreations(kClass, third, false);
    orb.observeDeletions(kClass, third);
    first.reaction = &EventCallbackTest::fail;
    EXPECT_THROW(orb.notifyCreation(kClass, *port), std::runtime_error);
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    EXPECT_TRUE(TreflectORB::isHandlerThread());
    EXPECT_EQ(Numbers{}, third.told);
    EXPECT_EQ(1U, orb.getMetaData(kClass)->objects.size()) << "it exists all the same";
    EXPECT_THROW(orb.notifyDeletion(kClass, *port), std::runtime_error);
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    first.reaction = [] {};
    orb.notifyCreation(kClass, *port);
    orb.notifyDeletion(kClass, *port);
    EXPECT_EQ(4U, first.told.size());
    EXPECT_EQ(2U, third.told.size());
    EXPECT_TRUE(orb.getMetaData(kClass)->objects.empty());
}

TEST_F(EventCallbackTest, AnExceptionComesToWhoWantedToKnowWhatExists) {
    orb.notifyCreation(kClass, *port);
    first.reaction = &EventCallbackTest::fail;
    EXPECT_THROW(orb.observeCreations(kClass, first, true), std::runtime_error);
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    EXPECT_TRUE(orb.getMetaData(kClass)->creationObservers.empty()) << "it does not observe";
    first.reaction = [] {};
    EXPECT_TRUE(orb.observeCreations(kClass, first, true));
    EXPECT_EQ((Numbers{number, number}), first.told);
}

// --- members that come and go during a subscription -----------------------------------------------------------------

/** Lets other brokers appear or vanish while the first question to a peer is on its way. */
class SubscriptionTest : public EventCallbackTest {
protected:
    void meanwhile(std::function<void()> act) {
        unit.meanwhile = [this, act = std::move(act)](const Testing::FakeUnit::Asked &asked) {
            if (asked.target == kPeer && first_) {
                first_ = false;
                act();
            }
        };
    }

private:
    bool first_ = true;
};

TEST_F(SubscriptionTest, ABrokerThatComesUpIsAskedForDeletionsToo) {
    appear(kPeer);
    meanwhile([this] { appear(kOther); });
    orb.observeDeletions(kClass, first);
    EXPECT_EQ("42:tODNSU(77) 43:tODNSU(77)", unit.summary());
}

/** Observers that are there already are told when it is seen, the new one when its subscription is through. */
TEST_F(SubscriptionTest, ABrokerThatComesUpIsToldToEachObserver) {
    appear(kPeer);
    orb.observeCreations(kClass, first, false);
    theyHave({0x500});
    unit.summary();
    meanwhile([this] {
        appear(kOther);
        EXPECT_EQ(Numbers{0x500}, first.told);
    });
    orb.observeCreations(kClass, third, true);
    EXPECT_EQ("42:tOCNSU(77,existing) 43:tOCNSU(77,existing) 43:tOCNSU(77,existing)", unit.summary());
    EXPECT_EQ(Numbers{0x500}, first.told);
    EXPECT_EQ((Numbers{0x500, 0x500}), third.told) << "of both brokers";
}

TEST_F(SubscriptionTest, ABrokerThatGoesIsLeftOutAndAskedWhenItComesAgain) {
    appear(kPeer);
    appear(kOther);
    theyHave({0x500});
    meanwhile([this] { vanish(kOther); });
    EXPECT_TRUE(orb.observeCreations(kClass, first, true));
    EXPECT_EQ("42:tOCNSU(77,existing)", unit.summary());
    EXPECT_EQ(Numbers{0x500}, first.told);
    appear(kOther);
    EXPECT_EQ("43:tOCNSU(77,existing)", unit.summary());
    EXPECT_EQ((Numbers{0x500, 0x500}), first.told);
}

TEST_F(SubscriptionTest, TheBrokersOwnAppearanceAsksNobody) {
    appear(kPeer);
    orb.observeCreations(kClass, first, false);
    unit.summary();
    const Transport::TerminationPtr own = Transport::TransportLayer::getTermination(orb.termId());
    ASSERT_TRUE(own);
    orb.appeared(*own);
    EXPECT_EQ("", unit.summary());
    orb.appeared(*Transport::TransportLayer::getTermination(kPeer));
    EXPECT_EQ("42:tOCNSU(77,existing)", unit.summary()) << "as one of another does";
}

/** What a broker counts of requests to another one outlives that. */
TEST_F(SubscriptionTest, CountersStayWhenABrokerGoes) {
    const auto requestsToPeer = [this] {
        const Testing::ManualPeer asking(link, orb, kOther);
        link.takeIssued();
        asking.send(asking.message(TreflectMessage::tPfCnt, TreflectMessage::kRequ, 1));
        std::string actor;
        TipprmiSequence<TreflectORB::PerfCnts> counters;
        {
            const TreflectReleaseHandlerState released;
            TipprmiStream answer(TreflectMessage(asking.next()), false);
            answer >> actor >> counters;
        }
        for (unsigned i = 0; i < counters.getLength(); ++i) {
            if (counters[i].target == kPeer) {
                return counters[i].requests;
            }
        }
        return 0U;
    };
    appear(kPeer);
    const unsigned before = requestsToPeer();
    orb.registerForODN(kClass, nullptr);
    const unsigned after = requestsToPeer();
    EXPECT_EQ(before + 1, after);
    vanish(kPeer);
    EXPECT_EQ(after, requestsToPeer());
}

// --- in processes of their own --------------------------------------------------------------------------------------

/** Who creates must be a handler with the permission; nobody checks who deletes. */
SCENARIO(eventsWithoutPermission) {
    Transport::FakeLink::install();
    const Testing::LogCapture log;
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const Testing::PortImpl port("port");
    orb.notifyDeletion(0x77, port);
    SCENARIO_CHECK(log.with("doing RMI").empty());
    orb.notifyCreation(0x77, port);
    SCENARIO_CHECK(log.with("doing RMI").size() == 1);
    port.sendCreationEvent(nullptr); // it takes the permission itself
    port.sendDeletionEvent(nullptr);
    SCENARIO_CHECK(log.with("doing RMI").size() == 1);
}

TEST(EventMisuse, OnlyTheCreationAsksForThePermission) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("eventsWithoutPermission", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** Nobody is there who could catch it: the thread is the library's. */
SCENARIO(observerThrowsInAWorker) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    Watcher &watcher = *new Watcher("watcher");
    watcher.reaction = [] { throw std::runtime_error("application"); };
    orb.observeCreations(0x77, watcher, false);
    const Testing::ManualPeer peer(link, orb, TerminationId(0x42, 2, 1));
    TipprmiStream body = peer.message(TreflectMessage::tOCN, TreflectMessage::kRequ, 5);
    body << 0x77U
         << TreflectORB::TreflectObjectLocation(7, orb.convertId(peer.id()), nullptr,
                                                TipprmiOID(nullptr, NamespaceId(1)));
    peer.send(body);
    Testing::Gate never;
    never.pass();
}

SCENARIO(observerThrowsWhenABrokerComesUp) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    Watcher &watcher = *new Watcher("watcher");
    watcher.reaction = [] { throw std::runtime_error("application"); };
    orb.observeCreations(0x77, watcher, false);
    Testing::FakeUnit unit(link);
    unit.objects = [&](TipprmiStream &body) {
        body << 1U
             << TreflectORB::TreflectObjectLocation(7, TreflectOrbId(0x420201), nullptr,
                                                    TipprmiOID(nullptr, NamespaceId(1)));
    };
    link.peerAppears(TerminationId(0x42, 2, 1));
    Testing::Gate never;
    never.pass();
}

TEST(EventMisuse, AnExceptionInAThreadOfTheLibraryEndsTheActor) {
    for (const auto &[scenario, line] :
         {std::pair<const char *, const char *>{"observerThrowsInAWorker",
                                                "Thread ReflectWorker ends the actor: application"},
          {"observerThrowsWhenABrokerComesUp", "a callback threw: application"}}) {
        const Testing::ProcessResult result = Testing::runScenario(scenario);
        EXPECT_EQ(SIGABRT, result.signal) << result.output;
        EXPECT_NE(std::string::npos, result.output.find(line)) << result.output;
    }
}

} // namespace
