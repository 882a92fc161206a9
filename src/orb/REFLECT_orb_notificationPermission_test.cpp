#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/FakeUnit.h"
#include "support/ManualPeer.h"
#include "support/OverrideRoot.h"
#include "support/ReflectiveClasses.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <cstdlib>
#include <functional>
#include <memory>

// The run permission of who tells observers, and observers that end the process.

namespace {

constexpr unsigned kClass = 0x77;
constexpr Transport::TerminationId kPeer(0x0042, 2, 1);

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID("watcher", NamespaceId(1)), nullptr, "watcher") {}
    bool detected() override {
        reaction();
        return true;
    }
    std::function<void()> reaction = [] {};
};

/** Never destroyed: the process ends with it. */
Testing::PortImpl &makePort() {
    Transport::FakeLink::install();
    const TreflectHandlerState state(true);
    TreflectORB::getInstance(1);
    return *new Testing::PortImpl("port");
}

/** Held twice, which was reported when it was taken: one level is given up for the observer, and comes back. */
SCENARIO(notificationWithANestedPermission) {
    const Testing::PortImpl &port = makePort();
    const Testing::LogCapture log;
    TreflectORB::enterHandlerState(true);
    TreflectORB::getRunPermission();
    SCENARIO_CHECK(TreflectORB::getRunPermissionCount() == 2);
    Watcher watcher;
    unsigned long inside = 0;
    watcher.reaction = [&] { inside = TreflectORB::getRunPermissionCount(); };
    TreflectORB &orb = *TreflectORB::getInstance(1);
    orb.getMetaData(kClass)->creationObservers.push_back(&watcher);
    orb.gotCreation(kClass, *static_cast<const TreflectServerObject &>(port).getClient());
    SCENARIO_CHECK(inside == 1);
    SCENARIO_CHECK(TreflectORB::getRunPermissionCount() == 2);
    TreflectORB::releaseRunPermission();
    TreflectORB::releaseRunPermission();
    SCENARIO_CHECK(log.with("without being owner").empty());
    TreflectORB::leaveHandlerState(false);
}

TEST(NotificationMisuse, ANestedPermissionIsWholeAfterANotification) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("notificationWithANestedPermission", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** An observer of creations that ends the process; nothing of it is destroyed before that. */
void observeToTheEnd() {
    const TreflectHandlerState state(true);
    auto &watcher = *new Watcher;
    watcher.reaction = [] { std::exit(7); };
    SCENARIO_CHECK(TreflectORB::getInstance(1)->observeCreations(kClass, watcher, false));
}

/** In the membership thread: told of what a broker has that comes up. */
SCENARIO(exitInDetectedOfABrokerThatComesUp) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    auto &unit = *new Testing::FakeUnit(link);
    unit.objects = [&orb](TipprmiStream &body) {
        body << 1U
             << TreflectORB::TreflectObjectLocation(0x500, orb.convertId(kPeer), nullptr,
                                                    TipprmiOID(nullptr, NamespaceId(1)));
    };
    observeToTheEnd();
    link.peerAppears(kPeer);
    Testing::Gate never;
    never.pass();
}

/** In a worker. */
SCENARIO(exitInDetectedOfANotification) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    observeToTheEnd();
    const Testing::ManualPeer peer(link, orb, kPeer);
    TipprmiStream message = peer.message(TreflectMessage::tOCN, TreflectMessage::kRequ, 1);
    message << kClass
            << TreflectORB::TreflectObjectLocation(0x500, orb.convertId(kPeer), nullptr,
                                                   TipprmiOID(nullptr, NamespaceId(1)));
    SCENARIO_CHECK(!link.takeIssued(1).empty()); // it subscribes at the peer that comes up
    peer.send(message);
    Testing::Gate never;
    never.pass();
}

TEST(NotificationExit, AnObserverMayEndTheProcess) {
    EXPECT_EQ(7, Testing::runScenario("exitInDetectedOfABrokerThatComesUp").exitStatus);
    EXPECT_EQ(7, Testing::runScenario("exitInDetectedOfANotification").exitStatus);
}

} // namespace
