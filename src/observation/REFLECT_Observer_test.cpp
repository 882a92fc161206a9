#include "observation/REFLECT_Observer.h"

#include "objects/REFLECT_objectStub.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <typeinfo>

namespace {

using Parameters = TipprmiSequence<TipprmiAny>;
using Testing::Gate;

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

/** Does what a test wants when it is told. */
class Watcher : public TreflectObserver {
public:
    explicit Watcher(const char *text) : TreflectObserver(::name(text), nullptr, "watcher") {}
    bool detected() override { return reaction(); }
    std::function<bool()> reaction = [] { return true; };
};

class Sight : public TreflectServerObject {
public:
    explicit Sight(const char *text) : TreflectServerObject(::name(text), nullptr, text) {}
    unsigned getServerClassId() const override { return 1; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override { return {}; }
};

Parameters parameters(unsigned value) {
    Parameters sequence;
    sequence.push_back(TipprmiAny());
    TipprmiAny any;
    any.insert(value);
    sequence.push_back(any);
    return sequence;
}

class ObserverTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
    Sight sight{"sight"};
    Watcher watcher{"watcher"};
};

TEST_F(ObserverTest, IsOfTheClassOfObservers) {
    EXPECT_EQ(0x641E8FCDU, watcher.getServerClassId());
    const TipprmiSequence<unsigned> ids = watcher.getServerClassIdSeq();
    ASSERT_EQ(1U, ids.getLength());
    EXPECT_EQ(0x641E8FCDU, ids[0]);
    const TipprmiObjectSkeleton &skeleton = watcher;
    const TipprmiObjectClient &client = *skeleton.getClient();
    EXPECT_EQ(typeid(TreflectObserverClient), typeid(client));
    const Sight parent("parent");
    class Child : public TreflectObserver {
    public:
        explicit Child(const TreflectObject *above) : TreflectObserver(::name(nullptr), above, "child") {}
    };
    const Child child(parent.getClient());
    const TipprmiObjectSkeleton &withParent = child;
    const TipprmiObjectClient &own = *withParent.getClient();
    EXPECT_EQ(typeid(TreflectObserverClient), typeid(own)) << "the parent was given a plain one";
    EXPECT_EQ(&child, parent.getChild("child").getServer());
    EXPECT_EQ(nullptr, watcher.getClient()->meta());
}

TEST_F(ObserverTest, KnowsWhatItIsToldOf) {
    watcher.reaction = [&] {
        EXPECT_EQ(sight.getClient(), watcher.getSource());
        const TreflectObserver::SValue *const value = watcher.getsvalue();
        EXPECT_TRUE(value->detailed);
        EXPECT_EQ(2U, value->parameters->getLength());
        EXPECT_TRUE((*value->parameters)[0].empty());
        unsigned read = 0;
        (*value->parameters)[1].extract(read);
        EXPECT_EQ(77U, read);
        (*value->parameters)[1].insert(78U);
        return false;
    };
    const Parameters given = parameters(77);
    bool delivered = false;
    EXPECT_FALSE(watcher.getClient()->notify(*sight.getClient(), 5, 6, given, delivered));
    EXPECT_TRUE(delivered) << "it was told, though it refuses";
    unsigned kept = 0;
    Parameters copy = given;
    copy[1].extract(kept);
    EXPECT_EQ(77U, kept) << "each observer has parameters of its own";
}

TEST_F(ObserverTest, IsToldOfAnObjectWithoutMore) {
    watcher.reaction = [&] {
        EXPECT_EQ(sight.getClient(), watcher.getSource());
        EXPECT_FALSE(watcher.getsvalue()->detailed);
        EXPECT_EQ(nullptr, watcher.getsvalue()->parameters);
        return false;
    };
    EXPECT_FALSE(watcher.notify(*sight.getClient()));
    watcher.reaction = [] { return true; };
    EXPECT_TRUE(watcher.notify(*sight.getClient()));
}

TEST_F(ObserverTest, AcceptsEverythingByItself) {
    TreflectObserver plain(name("plain"), nullptr, "plain");
    bool delivered = false;
    EXPECT_TRUE(plain.getClient()->notify(*sight.getClient(), 1, 2, Parameters(), delivered));
    EXPECT_TRUE(delivered);
    EXPECT_TRUE(plain.notify(*sight.getClient()));
}

/** Its getSource() would have no answer. */
TEST_F(ObserverTest, WithoutMemoryItIsNotTold) {
    int calls = 0;
    watcher.reaction = [&] { return ++calls != 0; };
    const Parameters none;
    const TreflectObserverClient &client = *watcher.getClient();
    const TreflectObject &source = *sight.getClient();
    bool delivered = false;
    bool accepted = true;
    bool heard = true;
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        accepted = client.notify(source, 1, 2, none, delivered);
        heard = watcher.notify(source);
    }
    EXPECT_EQ(0, calls);
    EXPECT_FALSE(accepted) << "it may have forbidden the operation";
    EXPECT_TRUE(delivered) << "it is there and stays registered";
    EXPECT_FALSE(heard);
    EXPECT_TRUE(watcher.notify(source));
    EXPECT_EQ(1, calls);
}

/** In a thread that is in a notification already only the copy of the parameters takes memory. */
TEST_F(ObserverTest, WithoutMemoryForTheParametersItIsNotTold) {
    unsigned told = 0;
    bool accepted = true;
    bool delivered = false;
    const Parameters given = parameters(77);
    const TreflectObserverClient &client = *watcher.getClient();
    const TreflectObject &source = *sight.getClient();
    watcher.reaction = [&] {
        if (++told == 1) {
            const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
            accepted = client.notify(source, 1, 2, given, delivered);
        }
        return true;
    };
    EXPECT_TRUE(watcher.notify(source));
    EXPECT_EQ(1U, told) << "it would have decided on nothing";
    EXPECT_FALSE(accepted);
    EXPECT_TRUE(delivered);
}

TEST_F(ObserverTest, NotificationsNest) {
    const Sight inner("inner");
    int depth = 0;
    watcher.reaction = [&] {
        if (++depth == 1) {
            EXPECT_EQ(sight.getClient(), watcher.getSource());
            EXPECT_TRUE(watcher.notify(*inner.getClient()));
            EXPECT_EQ(sight.getClient(), watcher.getSource()) << "as before";
            EXPECT_TRUE(watcher.getsvalue()->detailed);
        } else {
            EXPECT_EQ(inner.getClient(), watcher.getSource());
        }
        return true;
    };
    bool delivered = false;
    EXPECT_TRUE(watcher.getClient()->notify(*sight.getClient(), 1, 2, Parameters(), delivered));
    EXPECT_EQ(2, depth);
}

TEST_F(ObserverTest, ThreadsSeeTheirOwnNotifications) {
    const Sight other("other");
    Gate otherIsIn;
    Gate firstIsIn;
    {
        const TreflectReleaseHandlerState released;
        thread_local const TreflectObject *mine = nullptr;
        watcher.reaction = [&] {
            const bool first = mine == sight.getClient();
            (first ? firstIsIn : otherIsIn).open();
            EXPECT_TRUE((first ? otherIsIn : firstIsIn).pass());
            EXPECT_EQ(mine, watcher.getSource());
            return true;
        };
        const auto tell = [&](const TreflectObject *source) {
            mine = source;
            EXPECT_TRUE(watcher.notify(*source)); // needs no permission
        };
        const TreflectObject *const one = sight.getClient();
        const TreflectObject *const two = other.getClient();
        Testing::TestThread a([&] { tell(one); });
        Testing::TestThread b([&] { tell(two); });
    }
}

TEST_F(ObserverTest, WhatADeadObjectsHandleTellsIsNothing) {
    TreflectObserverClient client;
    {
        const Watcher gone("gone");
        client = *gone.getClient();
        EXPECT_TRUE(client.isConnected());
    }
    bool delivered = false;
    EXPECT_FALSE(client.notify(*sight.getClient(), 1, 2, Parameters(), delivered));
    EXPECT_FALSE(delivered);
}

/** Handles can be made of anything; what is no observer is not told. */
TEST_F(ObserverTest, AnotherObjectIsNotTold) {
    const TreflectObserverClient client(*sight.getClient());
    bool delivered = false;
    EXPECT_FALSE(client.notify(*sight.getClient(), 1, 2, Parameters(), delivered));
    EXPECT_FALSE(delivered);
}

TEST_F(ObserverTest, HandlesOfObserversAreValues) {
    TreflectObserverClient client;
    EXPECT_FALSE(client.isConnected());
    client = *sight.getClient(); // any object's handle
    EXPECT_EQ(&sight, client.getServer());
    TreflectObserverClient other(&watcher);
    client = other;
    EXPECT_EQ(&watcher, client.getServer());
    EXPECT_EQ(client, TreflectObserverClient(name("watcher")));
    TipprmiStream stream(100);
    stream << other;
    TreflectObserverClient read;
    stream >> read;
    EXPECT_EQ(other.getStub(), read.getStub());
}

constexpr char kOutside[] = "TreflectObserver::getsvalue(oid=watcher) SValue == NULL.";

SCENARIO(sourceOutsideOfANotification) {
    Transport::FakeLink::install();
    TreflectHandlerState state(true);
    Watcher watcher("watcher");
    watcher.getSource();
}

SCENARIO(sourceOutsideOfANotificationWithoutAborts) {
    Transport::FakeLink::install();
    const Testing::LogCapture log;
    TreflectHandlerState state(true);
    Watcher watcher("watcher");
    const Sight sight("sight");
    SCENARIO_CHECK(watcher.getSource() == nullptr);
    SCENARIO_CHECK(watcher.getsvalue() == nullptr);
    SCENARIO_CHECK(log.count(3, kOutside, "REFLECT_Observer") == 2);
    // Of another thread, while one is told.
    watcher.reaction = [&] {
        const TreflectObject *source = sight.getClient();
        {
            Testing::TestThread thread([&] { source = watcher.getSource(); });
        }
        SCENARIO_CHECK(source == nullptr);
        SCENARIO_CHECK(watcher.getSource() == sight.getClient());
        return true;
    };
    SCENARIO_CHECK(watcher.notify(*sight.getClient()));
    SCENARIO_CHECK(log.count(3, kOutside, "REFLECT_Observer") == 3);
    // After an exception of the application.
    watcher.reaction = []() -> bool { throw std::runtime_error("application"); };
    bool thrown = false;
    bool delivered = false;
    try {
        watcher.notify(*sight.getClient(), 1, 2, Parameters(), delivered);
    } catch (const std::runtime_error &) {
        thrown = true;
    }
    SCENARIO_CHECK(thrown);
    SCENARIO_CHECK(watcher.getSource() == nullptr);
    SCENARIO_CHECK(log.count(3, kOutside, "REFLECT_Observer") == 4);
}

TEST(ObserverMisuse, ASourceOutsideOfANotificationEndsTheActor) {
    const Testing::TempDir root;
    const Testing::ProcessResult result =
        Testing::runScenario("sourceOutsideOfANotification", {"REFLECTORB_ROOT=" + root.path()});
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    EXPECT_NE(std::string::npos, result.output.find(kOutside)) << result.output;
}

TEST(ObserverMisuse, ASourceOutsideOfANotificationIsNull) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result =
        Testing::runScenario("sourceOutsideOfANotificationWithoutAborts", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
