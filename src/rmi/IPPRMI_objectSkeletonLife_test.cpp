#include "rmi/IPPRMI_objectSkeleton.h"

#include "objects/REFLECT_objectStub.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>

namespace {

using Testing::hex;

TipprmiOID name(const char *text, unsigned ns = 1) {
    return TipprmiOID(text, NamespaceId(ns));
}

/** Notes its end, and whether the run permission was held then. */
class WatchedClient : public TipprmiObjectClient {
public:
    explicit WatchedClient(const TipprmiObjectSkeleton *object) : TipprmiObjectClient(object) {}
    ~WatchedClient() override {
        ++ends;
        withPermission = TreflectORB::hasRunPermission();
    }
    static int ends;
    static bool withPermission;
};
int WatchedClient::ends = 0;
bool WatchedClient::withPermission = false;

class Watched : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
    TipprmiObjectClient *getClient() const override {
        TreflectHandlerState state(true);
        if (client_slot_() == nullptr) {
            client_slot_(new (std::nothrow) WatchedClient(this));
        }
        return client_slot_();
    }
};

/** Its exception container is another one than that of its responses. */
class OwnContainer : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
    void setExceptionContainer(const TipprmiExceptionContainer &container) const override { own = container; }
    TipprmiExceptionContainer getExceptionContainer() const override { return own; }
    mutable TipprmiExceptionContainer own;
};

class SkeletonLifeTest : public Testing::BrokerTest {
protected:
    SkeletonLifeTest() { WatchedClient::ends = 0; }
};

TEST_F(SkeletonLifeTest, AMoveToAnotherBrokerEndsTheClientWithoutThePermission) {
    TreflectORB *const node = TreflectORB::getInstance(NSID_NODE);
    Watched object(name("object"));
    const unsigned number = object.getInternalOID();
    object.getClient();
    object.connect(&orb, name("object"));
    object.connect(nullptr, name("whatever"));
    EXPECT_EQ(0, WatchedClient::ends);
    object.connect(node, name("object"));
    EXPECT_EQ(1, WatchedClient::ends);
    EXPECT_FALSE(WatchedClient::withPermission);
    EXPECT_EQ(node, object.getORB());
    EXPECT_EQ(node->orbId(), object.orbId());
    EXPECT_EQ(number, object.getInternalOID());
    EXPECT_EQ(0U, orb.locateObject(name("object")).getInternalOID()) << "it has left";
    const TreflectHandlerState state(true);
    EXPECT_EQ(node->orbId(), object.getClient()->getStub_()->orbId());
    EXPECT_EQ(&object, object.getClient()->getServer());
}

TEST_F(SkeletonLifeTest, WhoHasThePermissionKeepsTheClientDuringAMove) {
    TreflectORB *const node = TreflectORB::getInstance(NSID_NODE);
    TipprmiObjectSkeleton object(name("object"));
    std::atomic<bool> enough{false};
    Testing::TestThread mover([&] {
        while (!enough) {
            object.connect(node, name("object"));
            object.connect(&orb, name("object"));
        }
    });
    for (int round = 0; round < 3000 && !HasFailure(); ++round) { // the mover must be told in any case
        const TreflectHandlerState state(true);
        const TipprmiObjectClient *const client = object.getClient();
        EXPECT_EQ(object.orbId(), client->getStub_()->orbId()) << "that of the registration before";
        EXPECT_EQ(client, object.getClient());
    }
    enough = true;
}

TEST_F(SkeletonLifeTest, WithoutABrokerItIsNotRegistered) {
    Watched object(name("object"));
    object.getClient();
    object.connect(nullptr, name("object", 300)); // there is none for this namespace
    EXPECT_EQ(nullptr, object.getORB());
    EXPECT_EQ(0U, object.orbId().value());
    EXPECT_EQ(1, WatchedClient::ends);
    EXPECT_EQ(0U, orb.locateObject(name("object")).getInternalOID());
    object.connect(nullptr, name("object"));
    EXPECT_EQ(&object, orb.locateObject(name("object")).getServer());

    const TipprmiObjectSkeleton never(name("never", 300));
    EXPECT_EQ(nullptr, never.getORB());
    EXPECT_EQ(300U, never.getInternalOID()) << "the namespace stands in for a number until there is one";
}

TEST_F(SkeletonLifeTest, ItsEndTakesItsClientAlong) {
    auto object = std::make_unique<Watched>(name("object"));
    object->getClient();
    const TipprmiObjectClient other(object.get());
    object.reset();
    EXPECT_EQ(1, WatchedClient::ends);
    EXPECT_TRUE(WatchedClient::withPermission);
    EXPECT_FALSE(TreflectORB::hasRunPermission());
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    EXPECT_FALSE(other.isConnected());
    EXPECT_EQ(0U, orb.locateObject(name("object")).getInternalOID());
}

/** Whatever they know it by: its place now, one of before, or a number that somebody gave it. */
TEST_F(SkeletonLifeTest, ItsEndMakesAllItsHandlesInvalid) {
    TreflectORB *const node = TreflectORB::getInstance(NSID_NODE);
    const std::function<void(TipprmiObjectSkeleton &)> changes[] = {
        [](TipprmiObjectSkeleton &) {},
        [](TipprmiObjectSkeleton &object) { object.setOID(name("renamed")); },
        [](TipprmiObjectSkeleton &object) { object.setInternalOID(7); },
        [node](TipprmiObjectSkeleton &object) { object.connect(node, name("object")); },
        [this, node](TipprmiObjectSkeleton &object) {
            object.connect(node, name("object"));
            object.connect(&orb, name("object"));
        },
    };
    for (const char *text : {"object", static_cast<const char *>(nullptr)}) {
        for (unsigned space : {1U, 2U}) {
            for (const auto &change : changes) {
                auto object = std::make_unique<TipprmiObjectSkeleton>(name(text, space));
                TipprmiObjectSkeleton other(name("other", space));
                const TipprmiObjectClient before(object.get());
                TipprmiStream reference(100);
                reference << before;
                change(*object);
                const TipprmiObjectClient after(object.get());
                TipprmiObjectClient received;
                reference >> received;
                EXPECT_TRUE(before.isConnected());
                EXPECT_TRUE(after.isConnected());
                object.reset();
                EXPECT_FALSE(before.isConnected());
                EXPECT_FALSE(after.isConnected());
                EXPECT_EQ(nullptr, received.getServer());
                EXPECT_TRUE(TipprmiObjectClient(&other).isConnected());
            }
        }
    }
}

TEST_F(SkeletonLifeTest, AnObjectThatWasNowhereAtFirstMakesItsHandlesInvalidToo) {
    auto object = std::make_unique<TipprmiObjectSkeleton>();
    const TipprmiObjectClient before(object.get());
    object->connect(&orb, name("late"));
    const TipprmiObjectClient after(object.get());
    EXPECT_EQ(object.get(), before.getServer());
    EXPECT_EQ(object.get(), after.getServer());
    object.reset();
    EXPECT_EQ(nullptr, before.getServer());
    EXPECT_EQ(nullptr, after.getServer());
}

TEST_F(SkeletonLifeTest, ANewObjectAtTheSameAddressHasAFreshStub) {
    alignas(TipprmiObjectSkeleton) unsigned char room[sizeof(TipprmiObjectSkeleton)];
    auto *object = new (room) TipprmiObjectSkeleton(name("object"));
    const unsigned number = object->getInternalOID();
    const TipprmiObjectClient before(object);
    object->~TipprmiObjectSkeleton();
    object = new (room) TipprmiObjectSkeleton(name("object"));
    EXPECT_EQ(number, object->getInternalOID());
    const TipprmiObjectClient after(object);
    EXPECT_NE(before.getStub_(), after.getStub_());
    EXPECT_FALSE(before.isConnected());
    EXPECT_EQ(object, after.getServer());
    object->~TipprmiObjectSkeleton();
}

TEST_F(SkeletonLifeTest, TheContainerIsThatOfTheMostDerivedClass) {
    OwnContainer object(name("object"));
    TipprmiExceptionContainer container;
    container.setExceptionType(9);
    TipprmiStream request(100);
    request << container;
    TipprmiStream response(100);
    EXPECT_TRUE(object.dispatch(true, 1, 2100, request, response));
    EXPECT_EQ(9U, object.own.getExceptionType());
    EXPECT_EQ("00 00 00 00 00 00 00 00", hex(response)) << "responses still begin with the skeleton's";
    response.clear();
    EXPECT_TRUE(object.dispatch(false, 77, 2101, request, response));
    EXPECT_EQ("00 00 00 00 00 00 00 00 00 00 00 09 00 00 00 00", hex(response));
}

// --- objects that outlive the brokers -------------------------------------------------------------------------------

TipprmiObjectSkeleton &connectedLater() {
    static TipprmiObjectSkeleton object;
    return object;
}

/** The broker is made, and its end is arranged, after the first object; so the object goes after the broker. */
SCENARIO(staticObjectsAtExit) {
    Transport::FakeLink::install();
    TipprmiObjectSkeleton &later = connectedLater();
    later.setOID(name("later"));
    later.connect(nullptr, name("later"));
    static const TipprmiObjectSkeleton atOnce(name("at once"));
    static const TipprmiObjectClient client(&later);
    SCENARIO_CHECK(later.getClient() != nullptr && atOnce.getClient() != nullptr);
    SCENARIO_CHECK(client.getServer() == &later);
    SCENARIO_CHECK(TreflectORB::getInstance(1)->locateObject(name("later")).getServer() == &later);
    std::exit(0);
}

TEST_F(SkeletonLifeTest, StaticObjectsMayGoBeforeOrAfterTheBrokers) {
    const Testing::ProcessResult result = Testing::runScenario("staticObjectsAtExit");
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ(0, result.signal) << result.output;
}

} // namespace
