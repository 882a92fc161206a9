#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "support/Concurrency.h"
#include "support/FakeUnit.h"
#include "support/ManualPeer.h"
#include "support/ReflectiveClasses.h"
#include "support/Scenario.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>

namespace {

using Testing::Gate;
using Testing::PortImpl;
using Testing::TestThread;
using Transport::FakeLink;
using Transport::TerminationId;

constexpr unsigned kClass = 0x77;
constexpr TerminationId kPeer(0x0042, 2, 1);

/** What the threads of a scenario use until the process is gone. */
template <class T>
T &immortal() {
    return *new T;
}

void ends(const char *scenario, int status) {
    const Testing::ProcessResult result = Testing::runScenario(scenario);
    EXPECT_EQ(status, result.exitStatus) << (result.timedOut ? "timed out\n" : "") << result.output;
}

class Watcher : public TreflectObserver {
public:
    explicit Watcher(std::function<void()> reaction)
        : TreflectObserver(TipprmiOID("watcher", NamespaceId(1)), nullptr, "watcher"), reaction_(std::move(reaction)) {}
    bool detected() override {
        reaction_();
        return true;
    }

private:
    const std::function<void()> reaction_;
};

/** Other brokers have one object of the class, if they are asked. */
FakeLink &unitWithAnObject() {
    FakeLink &link = FakeLink::install();
    const TreflectORB *const orb = TreflectORB::getInstance(1);
    Testing::FakeUnit &unit = *new Testing::FakeUnit(link);
    unit.objects = [orb](TipprmiStream &body) {
        body << 1U
             << TreflectORB::TreflectObjectLocation(0x500, orb->convertId(kPeer), nullptr,
                                                    TipprmiOID(nullptr, NamespaceId(1)));
    };
    return link;
}

/** The broker reacts to what is created from now on. */
void watch(std::function<void()> reaction) {
    const TreflectHandlerState state(true);
    SCENARIO_CHECK(TreflectORB::getInstance(1)->observeCreations(kClass, *new Watcher(std::move(reaction)), false));
}

// --- threads that do not come back ----------------------------------------------------------------------------------

SCENARIO(exitBesidesAStuckCreationObserver) {
    FakeLink &link = unitWithAnObject();
    static Gate &inside = immortal<Gate>();
    static Gate &never = immortal<Gate>();
    watch([] {
        inside.open();
        never.pass();
    });
    link.peerAppears(kPeer); // the membership thread asks it for its objects
    SCENARIO_CHECK(inside.pass());
    std::exit(4);
}

SCENARIO(exitWhileABrokersDisappearanceWaits) {
    FakeLink &link = FakeLink::install();
    TreflectORB::getInstance(1);
    link.peerAppears(kPeer);
    static Gate &holds = immortal<Gate>();
    static Gate &never = immortal<Gate>();
    new TestThread([] {
        const TreflectHandlerState state(true);
        holds.open();
        never.pass();
    });
    SCENARIO_CHECK(holds.pass());
    link.peerVanishes(kPeer);
    SCENARIO_CHECK(Testing::eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
    std::exit(4);
}

TEST(ExitCallbacks, AMembershipThreadThatDoesNotReturnIsNotWaitedForForEver) {
    ends("exitBesidesAStuckCreationObserver", 4);
    ends("exitWhileABrokersDisappearanceWaits", 4);
}

/** Another thread stops the broker, and waits. */
SCENARIO(exitWhileABrokerIsBeingStopped) {
    FakeLink &link = unitWithAnObject();
    static Gate &inside = immortal<Gate>();
    static Gate &never = immortal<Gate>();
    watch([] {
        inside.open();
        never.pass();
    });
    link.peerAppears(kPeer);
    SCENARIO_CHECK(inside.pass());
    new TestThread([] { TreflectORB::getInstance(1)->stop(); });
    SCENARIO_CHECK(Testing::eventually([] { return !TreflectORB::getInstance(1)->started(); }));
    std::exit(4);
}

TEST(ExitCallbacks, AThreadThatStopsABrokerIsNotWaitedForForEver) {
    ends("exitWhileABrokerIsBeingStopped", 4);
}

// --- exit() in a callback -------------------------------------------------------------------------------------------

SCENARIO(exitInACreationObserverOfTheOwnThread) {
    FakeLink::install();
    TreflectORB::getInstance(1);
    watch([] { std::exit(4); });
    const TreflectHandlerState state(true);
    PortImpl port("port");
    TreflectORB::getInstance(1)->notifyCreation(kClass, port);
}

SCENARIO(exitInADeletionObserver) {
    FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const TreflectHandlerState state(true);
    Watcher watcher([] { std::exit(4); });
    SCENARIO_CHECK(orb.observeDeletions(kClass, watcher));
    PortImpl port("port");
    orb.notifyDeletion(kClass, port);
}

SCENARIO(exitInACreationObserverOfAWorker) {
    FakeLink &link = FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    watch([] { std::exit(4); });
    const Testing::ManualPeer peer(link, orb, kPeer);
    TipprmiStream body = peer.message(TreflectMessage::tOCN, TreflectMessage::kMsg, 0x2A);
    body << kClass
         << TreflectORB::TreflectObjectLocation(0x500, orb.convertId(kPeer), nullptr,
                                                TipprmiOID(nullptr, NamespaceId(1)));
    peer.send(body);
    immortal<Gate>().pass();
}

SCENARIO(exitInACreationObserverOfTheMembershipThread) {
    FakeLink &link = unitWithAnObject();
    watch([] { std::exit(4); });
    link.peerAppears(kPeer);
    immortal<Gate>().pass();
}

SCENARIO(exitInACreationObserverOfTheSubscriber) {
    FakeLink &link = unitWithAnObject();
    link.peerAppears(kPeer);
    const TreflectHandlerState state(true);
    Watcher watcher([] { std::exit(4); });
    TreflectORB::getInstance(1)->observeCreations(kClass, watcher, true);
}

TEST(ExitCallbacks, AnObserverOfObjectsMayEndTheProcessInAnyThread) {
    ends("exitInACreationObserverOfTheOwnThread", 4);
    ends("exitInADeletionObserver", 4);
    ends("exitInACreationObserverOfAWorker", 4);
    ends("exitInACreationObserverOfTheMembershipThread", 4);
    ends("exitInACreationObserverOfTheSubscriber", 4);
}

// --- brokers that others still use ----------------------------------------------------------------------------------

/** A broker that is reached through a pointer which may be old. */
SCENARIO(exitWhileAKnownBrokerIsInUse) {
    FakeLink::install();
    static TreflectORB *orb = nullptr;
    SCENARIO_CHECK(std::atexit([] {
                       SCENARIO_CHECK(SingletonInstances::Pin(orb).get() == nullptr);
                       SCENARIO_CHECK(orb->getMetaData(7)->remoteCreationObservers.size() == 1); // still what it was
                   }) == 0);
    orb = TreflectORB::getInstance(1);
    orb->getMetaData(7)->remoteCreationObservers.insert(orb->orbId());
    SCENARIO_CHECK(SingletonInstances::Pin(orb).get() == orb);
    SCENARIO_CHECK(SingletonInstances::Pin(static_cast<TreflectORB *>(nullptr)).get() == nullptr);
    static Gate &pinned = immortal<Gate>();
    static Gate &never = immortal<Gate>();
    new TestThread([] {
        const SingletonInstances::Pin pin(orb);
        pinned.open();
        never.pass();
    });
    SCENARIO_CHECK(pinned.pass());
    std::exit(4);
}

TEST(ExitCallbacks, ABrokerIsKeptForWhoReachesItByItsAddress) {
    ends("exitWhileAKnownBrokerIsInUse", 4);
}

SCENARIO(exitWhileSkeletonsComeAndGo) {
    FakeLink::install();
    TreflectORB::getInstance(1);
    static std::atomic<unsigned> rounds{0};
    for (int i = 0; i < 3; ++i) {
        new TestThread([] {
            for (;;) {
                const TreflectHandlerState state(true);
                const auto port = std::make_unique<PortImpl>("port");
                static_cast<void>(port->orbId());
                port->sendCreationEvent(Testing::PortMeta::instance());
                ++rounds;
            }
        });
    }
    SCENARIO_CHECK(Testing::eventually([] { return rounds > 200; }));
    std::exit(4);
}

TEST(ExitCallbacks, ObjectsComeAndGoInOtherThreadsMeanwhile) {
    for (int round = 0; round < 3; ++round) {
        ends("exitWhileSkeletonsComeAndGo", 4);
    }
}

// --- static objects -------------------------------------------------------------------------------------------------

/** They go before the broker, and wait for the permission; it does not come. */
SCENARIO(exitWithStaticObjectsAndABusyThread) {
    FakeLink::install();
    static Gate &holds = immortal<Gate>();
    static Gate &never = immortal<Gate>();
    {
        const TreflectHandlerState state(true);
        static PortImpl parent("parent");
        static const TreflectObject handle(&parent);
        static PortImpl child("child", &handle, "kid");
        static Watcher watcher([] {});
        static_cast<void>(child.getClient());
    }
    new TestThread([] {
        const TreflectHandlerState state(true);
        holds.open();
        never.pass();
    });
    SCENARIO_CHECK(holds.pass());
    std::exit(4);
}

TEST(ExitCallbacks, StaticObjectsDoNotWaitForEver) {
    ends("exitWithStaticObjectsAndABusyThread", 4);
}

} // namespace
