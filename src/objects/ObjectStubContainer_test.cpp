#include "objects/ObjectStubContainer.h"

#include "objects/ObjectHandler.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace {

using Location = TreflectORB::TreflectObjectLocation;

constexpr unsigned kPeerOrb = 0x00420201;

TipprmiOID name(const char *text, unsigned ns = 1) {
    return TipprmiOID(text, NamespaceId(ns));
}

Location remote(unsigned number, const char *text = nullptr) {
    return Location(number, TreflectOrbId(kPeerOrb), nullptr, name(text));
}

class ContainerTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
    TreflectObjectHandler &handler = *TreflectObjectHandler::getInstance();
};

TEST_F(ContainerTest, TheFirstValidStubOfALocationIsFound) {
    TreflectObjectStubContainer container;
    EXPECT_EQ(nullptr, container.find(remote(1)));
    TreflectObjectStub one(remote(1, "a"));
    TreflectObjectStub two(remote(1, "a"));
    TreflectObjectStub other(remote(2, "a"));
    for (TreflectObjectStub *stub : {&one, &two, &other}) {
        EXPECT_TRUE(container.insert(stub));
    }
    EXPECT_TRUE(container.insert(nullptr));
    EXPECT_EQ(&one, container.find(remote(1, "a")));
    one.setInvalid();
    EXPECT_EQ(&two, container.find(remote(1, "a")));
    EXPECT_EQ(&two, container.find(remote(1))) << "a nameless location of the same object";
    EXPECT_EQ(nullptr, container.find(remote(1, "b")));
    EXPECT_EQ(nullptr, container.find(Location(1, TreflectOrbId(1), nullptr, name("a"))));
    EXPECT_TRUE(container.erase(&two)) << "this one and not its equal";
    EXPECT_FALSE(container.erase(&two));
    EXPECT_EQ(nullptr, container.find(remote(1, "a")));
    EXPECT_TRUE(container.erase(&one));
    EXPECT_EQ(&other, container.find(remote(2, "a")));
}

TEST_F(ContainerTest, AStubWhoseNumberWasChangedInsideIsNotLeftBehind) {
    TreflectObjectStubContainer container;
    TreflectObjectStub first(remote(1));
    TreflectObjectStub stub(remote(5, "a"));
    TreflectObjectStub last(remote(9));
    for (TreflectObjectStub *each : {&first, &stub, &last}) {
        container.insert(each);
    }
    stub.setInternalOID(100);
    EXPECT_TRUE(container.erase(&stub));
    EXPECT_EQ(nullptr, container.find(remote(100, "a")));
    EXPECT_EQ(nullptr, container.find(remote(5, "a")));
    EXPECT_FALSE(container.erase(&stub));
}

TEST_F(ContainerTest, InvalidStubsStay) {
    TreflectObjectStubContainer container;
    TreflectObjectStub stub(remote(1));
    TreflectObjectStub other(remote(2));
    container.insert(&stub);
    container.insert(&other);
    container.invalidateStubs([&](const TreflectObjectStub &each) { return &each == &stub; });
    EXPECT_FALSE(stub.isValid());
    EXPECT_TRUE(other.isValid());
    EXPECT_TRUE(container.erase(&stub));
}

/** Counts how often its name is compared. */
class CountingLocation : public Location {
public:
    using Location::Location;
    TipprmiOID getOID() const override {
        ++comparisons;
        return Location::getOID();
    }
    mutable unsigned comparisons = 0;
};

TEST_F(ContainerTest, ANameIsNotSearchedForAmongAllOthers) {
    constexpr unsigned kStubs = 1000;
    TreflectObjectStubContainer container;
    std::vector<std::unique_ptr<TreflectObjectStub>> stubs; // known by name only
    for (unsigned i = 0; i < kStubs; ++i) {
        stubs.push_back(std::make_unique<TreflectObjectStub>(
            Location(0, TreflectOrbId(), nullptr, name(std::to_string(i).c_str()))));
        ASSERT_TRUE(container.insert(stubs.back().get()));
    }
    const CountingLocation known(0, TreflectOrbId(), nullptr, name("999"));
    EXPECT_EQ(stubs.back().get(), container.find(known));
    EXPECT_LT(known.comparisons, 100U);
    const CountingLocation unknown(0, TreflectOrbId(), nullptr, name("x"));
    EXPECT_EQ(nullptr, container.find(unknown));
    EXPECT_LT(unknown.comparisons, 100U);
}

TEST_F(ContainerTest, AStubIsFoundAtItsNewPlaceWithoutMemoryForIt) {
    TreflectObjectStubContainer container;
    TreflectObjectStub first(remote(1));
    TreflectObjectStub stub(remote(5, "a"));
    TreflectObjectStub elsewhere(remote(5, "a"));
    container.insert(&first);
    container.insert(&stub);
    const Testing::HeapProbe probe;
    EXPECT_TRUE(container.change(&stub, [&] { stub.setInternalOID(100); }));
    EXPECT_FALSE(container.change(&elsewhere, [&] { elsewhere.setInternalOID(101); }));
    EXPECT_EQ(0U, probe.allocations());
    EXPECT_EQ(101U, elsewhere.getInternalOID());
    EXPECT_EQ(&stub, container.find(remote(100, "a")));
    EXPECT_EQ(nullptr, container.find(remote(5, "a")));
    EXPECT_EQ(nullptr, container.find(remote(101, "a")));
}

// --- what the handler makes of it -----------------------------------------------------------------------------------

TEST_F(ContainerTest, ObjectsThatAreNotRegisteredHaveStubsOfTheirOwn) {
    TreflectObjectStub *const unknown = handler.adoptStub(name("Foo")); // which is nowhere either
    ASSERT_FALSE(unknown->isConnected());
    TipprmiObjectSkeleton one;
    TipprmiObjectSkeleton two;
    {
        const TipprmiObjectClient ofOne(&one);
        const TipprmiObjectClient ofTwo(&two);
        const TipprmiObjectClient again(&one);
        EXPECT_EQ(&one, ofOne.getServer());
        EXPECT_EQ(&two, ofTwo.getServer());
        EXPECT_EQ(ofOne.getStub_(), again.getStub_());
        EXPECT_FALSE(ofOne.isConnected());
        EXPECT_EQ(nullptr, unknown->getServer());
        EXPECT_EQ(nullptr, TipprmiObjectClient().getServer());
        const TipprmiObjectClient byName(name("Aaa"));
        EXPECT_EQ(nullptr, byName.getServer());
        EXPECT_STREQ("Aaa", byName.getOID().getIdString());
    }
    handler.releaseStub(unknown);
}

TEST_F(ContainerTest, TheStubOfNothingCannotBeMadeToStandForSomething) {
    const TipprmiObjectClient nobody;
    TreflectObjectStub &stub = *nobody.getStub_();
    TipprmiObjectSkeleton object(name("object"));
    stub.connect(&object);
    stub.connect(name("object"));
    stub = TreflectObjectStub(&object);
    EXPECT_FALSE(TipprmiObjectClient().isConnected());
    EXPECT_EQ(nullptr, stub.getServer());
    EXPECT_STREQ("InvalidStub", stub.getOID().getIdString());
    handler.invalidateStubs(TreflectOrbId(0));
    EXPECT_TRUE(stub.isValid()) << "it is nobody's";
    // Whoever has that name: it is found, and the handles of nothing are still those of nothing.
    TipprmiObjectSkeleton impostor(name("InvalidStub"));
    EXPECT_EQ(&impostor, TipprmiObjectClient(&impostor).getServer());
    EXPECT_EQ(nullptr, TipprmiObjectClient().getServer());
}

TEST_F(ContainerTest, NamelessLocationsOfAnotherNamespaceShareAStub) {
    const Location location(name("rmi_420202_10", 2));
    ASSERT_EQ(2U, location.getNamespaceId());
    TreflectObjectStub *const stub = handler.adoptStub(location);
    EXPECT_EQ(stub, handler.adoptStub(Location(name("rmi_420202_10", 2))));
    EXPECT_EQ(2, stub->refCount());
    handler.releaseStub(stub);
    handler.releaseStub(stub);
}

TEST_F(ContainerTest, LocationsOfABrokerThatIsGoneGetFreshStubsAfterwards) {
    const std::size_t lines = log.lines().size();
    std::vector<TreflectObjectStub *> stubs;
    for (int i = 0; i < 3; ++i) {
        stubs.push_back(handler.adoptStub(remote(0x10, "a")));
        EXPECT_TRUE(stubs.back()->isValid());
        handler.invalidateStubs(TreflectOrbId(kPeerOrb));
    }
    EXPECT_NE(stubs[0], stubs[1]);
    EXPECT_NE(stubs[1], stubs[2]);
    for (TreflectObjectStub *stub : stubs) {
        EXPECT_FALSE(stub->isValid());
        EXPECT_EQ(1, stub->refCount());
        handler.releaseStub(stub);
    }
    EXPECT_EQ(lines, log.lines().size());
}

TEST_F(ContainerTest, StubsOfABrokerBecomeInvalidWhenItGoes) {
    const Transport::TerminationId peer(0x0042, 2, 1);
    link.peerAppears(peer);
    TreflectObjectStub *const stub = handler.adoptStub(remote(0x10));
    TreflectObjectStub *const other =
        handler.adoptStub(Location(0x10, TreflectOrbId(0x00430201), nullptr, name(nullptr)));
    TreflectReleaseHandlerState released;
    link.peerVanishes(peer);
    EXPECT_TRUE(Testing::eventually([stub] {
        const TreflectHandlerState own(true);
        return !stub->isValid();
    }));
    EXPECT_TRUE(other->isValid());
    handler.releaseStub(stub);
    handler.releaseStub(other);
}

TEST_F(ContainerTest, WithoutMemoryHandlesAreOfNothing) {
    TipprmiObjectSkeleton object(name("object"));
    std::unique_ptr<TipprmiObjectClient> none;
    {
        const Location location = remote(0x10, "a");
        const Testing::FailingHeap failing;
        EXPECT_EQ(nullptr, handler.adoptStub(location));
        EXPECT_EQ(nullptr, object.getClient());
    }
    EXPECT_NE(nullptr, object.getClient()) << "the next try";
    none = std::make_unique<TipprmiObjectClient>(static_cast<TreflectObjectStub *>(nullptr));
    TipprmiStream request(100);
    TipprmiStream response(100);
    none->prepareRequestStream_(true, 1, 2, request);
    EXPECT_FALSE(none->dispatch(true, 1, 2, request, response));
    EXPECT_FALSE(none->forwardMsg(TreflectOrbId(1), true, request, response));
    none->prepareResponseStream_(true, response);
    EXPECT_EQ(nullptr, none->getServer());
    EXPECT_FALSE(none->isConnected());
    EXPECT_FALSE(none->getOID().getIdString() != nullptr);
    EXPECT_FALSE(*none == TipprmiObjectClient(&object));
    EXPECT_TRUE(*none == TipprmiObjectClient(*none));
    TipprmiStream reference(100);
    reference << *none;
    EXPECT_EQ("00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00", Testing::hex(reference));
    *none = TipprmiObjectClient(&object);
    EXPECT_EQ(&object, none->getServer());
}

SCENARIO(connectWithoutMemory) {
    Transport::FakeLink::install();
    const TreflectHandlerState state(true);
    TreflectObjectHandler &handler = *TreflectObjectHandler::getInstance();
    TreflectObjectStub *const byName = handler.adoptStub(name("object"));
    TreflectObjectStub *const byObject = handler.adoptStub(remote(0x10));
    SCENARIO_CHECK(!byName->isConnected());
    auto object = std::make_unique<TipprmiObjectSkeleton>(name("object"));
    const unsigned number = object->getInternalOID();
    const TipprmiOID oid = name("object");
    Log::setSink([](int, const std::string &, const char *) {});
    {
        const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
        handler.adoptStub(byName);
        byName->connect(oid);
        byObject->connect(object.get());
    }
    SCENARIO_CHECK(byName->refCount() == 2);
    for (const TreflectObjectStub *stub : {byName, byObject}) {
        SCENARIO_CHECK(stub->isConnected());
        SCENARIO_CHECK(stub->getInternalOID() == number);
    }
    object.reset(); // which they must not stand for any more
    for (TreflectObjectStub *stub : {byName, byObject, byName}) {
        SCENARIO_CHECK(stub->getServer() == nullptr);
        handler.releaseStub(stub);
    }
}

TEST_F(ContainerTest, AStubThatConnectsWithoutMemoryKnowsWhereTheObjectIs) {
    const Testing::ProcessResult result = Testing::runScenario("connectWithoutMemory");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** It was last told where its object is in another way each time. */
TEST_F(ContainerTest, NoStubStandsForAnObjectThatIsGone) {
    TipprmiObjectSkeleton other(name("other"));
    auto object = std::make_unique<TipprmiObjectSkeleton>(name("object"));
    const Location reference(object->getInternalOID(), orb.orbId(), nullptr, name(nullptr));
    const Location found = orb.locateObject(name("object"));
    unsigned number = 0x100;
    const auto fresh = [&] { return handler.adoptStub(remote(number++)); };
    TreflectObjectStub *const byReference = handler.adoptStub(reference);
    ASSERT_EQ(nullptr, byReference->getServer());
    EXPECT_EQ(byReference, handler.adoptStub(found));
    TreflectObjectStub *const assigned = fresh();
    *assigned = TreflectObjectStub(object.get());
    TreflectObjectStub *const connected = fresh();
    connected->connect(&other);
    connected->connect(object.get());
    TreflectObjectStub *const byName = fresh();
    byName->connect(name("object"));
    TreflectObjectStub *const revived = fresh();
    revived->connect(object.get());
    revived->setInvalid();
    revived->connect(object.get());
    TreflectObjectStub *const left = fresh();
    left->connect(object.get());
    left->connect(&other);
    TreflectObjectStub *const released = fresh();
    released->connect(object.get());
    handler.releaseStub(released);
    const std::initializer_list<TreflectObjectStub *> stubs{byReference, assigned, connected, byName, revived};
    for (const TreflectObjectStub *stub : stubs) {
        EXPECT_EQ(object.get(), stub->getServer());
    }
    object.reset();
    for (TreflectObjectStub *stub : stubs) {
        EXPECT_FALSE(stub->isValid());
        handler.releaseStub(stub);
    }
    EXPECT_EQ(&other, left->getServer());
    handler.releaseStub(left);
    handler.releaseStub(byReference);
}

SCENARIO(handlerWithoutMemory) {
    Transport::FakeLink::install();
    const TreflectHandlerState state(true);
    {
        const Testing::FailingHeap none;
        SCENARIO_CHECK(TreflectObjectHandler::getInstance() == nullptr);
        SCENARIO_CHECK(TreflectObjectHandler::getExisting() == nullptr);
    }
    TreflectObjectHandler *const handler = TreflectObjectHandler::getInstance();
    SCENARIO_CHECK(handler != nullptr && handler == TreflectObjectHandler::getInstance());
    TreflectObjectStub *const stub = handler->adoptStub(TipprmiOID(nullptr, NamespaceId(1)));
    SCENARIO_CHECK(TreflectObjectHandler::isInvalidStub(*stub));
    SCENARIO_CHECK(stub->refCount() == 3); // two are the handler's
}

TEST_F(ContainerTest, TheHandlerIsMadeWhenThereIsMemory) {
    const Testing::ProcessResult result = Testing::runScenario("handlerWithoutMemory");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
