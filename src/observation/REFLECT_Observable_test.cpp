#include "observation/REFLECT_Observable.h"

#include "observation/REFLECT_Observer.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/FakePeer.h"
#include "support/HeapProbe.h"
#include "threads/HandlerState.h"

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Parameters = TipprmiSequence<TipprmiAny>;

constexpr unsigned kClass = 0x5C;
constexpr unsigned kMethod = 4;

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

/** Writes down who it is when it is told. */
class Recorder : public TreflectObserver {
public:
    Recorder(const char *text, std::vector<std::string> &record)
        : TreflectObserver(::name(text), nullptr, text), record_(record) {}
    bool detected() override {
        record_.push_back(objectName());
        if (reaction) {
            reaction();
        }
        return accepts;
    }
    bool accepts = true;
    std::function<void()> reaction;

private:
    std::vector<std::string> &record_;
};

/** Counts how often it is asked to drop an observer. */
class Observed : public TreflectObservable {
public:
    void unRegisterObserver(const TreflectObserverClient &observer) override {
        ++removals;
        TreflectObservable::unRegisterObserver(observer);
    }
    int removals = 0;
};

class ObservableTest : public Testing::BrokerTest {
protected:
    using Names = std::vector<std::string>;

    bool notify(unsigned when, unsigned cc = kClass, unsigned mc = kMethod) {
        return observed.notifyObservers(source, when, cc, mc, Parameters());
    }
    /** Who was told since the last time. */
    Names told() { return std::exchange(record, {}); }

    TreflectHandlerState state{true};
    const TreflectObject source;
    std::vector<std::string> record;
    Recorder a{"a", record};
    Recorder b{"b", record};
    Observed observed;
};

TEST_F(ObservableTest, WithoutObserversEverythingIsAccepted) {
    EXPECT_TRUE(notify(0));
    EXPECT_TRUE(notify(1));
    EXPECT_FALSE(observed.preObserverAvailable(kClass, kMethod));
    EXPECT_FALSE(observed.postObserverAvailable(kClass, kMethod));
    observed.TreflectObservable::unRegisterObserver(*a.getClient());
}

TEST_F(ObservableTest, BeforeIsZeroAndAfterIsAnythingElse) {
    observed.registerObserver(0, kClass, kMethod, *a.getClient());
    EXPECT_TRUE(observed.preObserverAvailable(kClass, kMethod));
    EXPECT_FALSE(observed.postObserverAvailable(kClass, kMethod));
    observed.registerObserver(7, kClass, kMethod, *b.getClient());
    EXPECT_TRUE(observed.postObserverAvailable(kClass, kMethod));
    EXPECT_TRUE(notify(0));
    EXPECT_EQ(Names{"a"}, told());
    for (unsigned when : {1U, 2U, 7U, 0xFFFFFFFFU}) {
        EXPECT_TRUE(notify(when));
        EXPECT_EQ(Names{"b"}, told()) << when;
    }
}

TEST_F(ObservableTest, ClassAndMethodMustBeTheSame) {
    observed.registerObserver(0, kClass, kMethod, *a.getClient());
    for (const auto &[cc, mc] : {std::pair<unsigned, unsigned>{kClass, kMethod + 1},
                                 {kClass, kMethod - 1},
                                 {kClass + 1, kMethod},
                                 {kClass - 1, kMethod},
                                 {kMethod, kClass},
                                 {0, 0}}) {
        EXPECT_FALSE(observed.preObserverAvailable(cc, mc));
        EXPECT_TRUE(notify(0, cc, mc));
    }
    EXPECT_EQ(Names{}, told());
}

TEST_F(ObservableTest, ObserversAreToldInTheOrderOfTheirRegistration) {
    Recorder c("c", record);
    for (const Recorder *observer : {&c, &a, &b, &a}) {
        observed.registerObserver(1, kClass, kMethod, *observer->getClient());
        observed.registerObserver(1, kClass, kMethod + 1, *b.getClient());
    }
    EXPECT_TRUE(notify(1));
    EXPECT_EQ((Names{"c", "a", "b", "a"}), told());
}

TEST_F(ObservableTest, WhoUnregistersIsToldOfNothing) {
    for (unsigned when : {0U, 1U}) {
        for (unsigned mc : {kMethod, kMethod, kMethod + 1}) {
            observed.registerObserver(when, kClass, mc, *a.getClient());
            observed.registerObserver(when, kClass, mc, *b.getClient());
        }
    }
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a", "b", "a", "b"}), told());
    observed.unRegisterObserver(TreflectObserverClient(name("a"))); // another handle of it
    for (unsigned when : {0U, 1U}) {
        EXPECT_TRUE(notify(when));
        EXPECT_TRUE(notify(when, kClass, kMethod + 1));
    }
    EXPECT_EQ((Names{"b", "b", "b", "b", "b", "b"}), told());
    observed.unRegisterObserver(*b.getClient());
    EXPECT_FALSE(observed.preObserverAvailable(kClass, kMethod));
    EXPECT_FALSE(observed.postObserverAvailable(kClass, kMethod + 1));
}

TEST_F(ObservableTest, OneThatRefusesRefusesForAllAndStays) {
    a.accepts = false;
    observed.registerObserver(0, kClass, kMethod, *a.getClient());
    observed.registerObserver(0, kClass, kMethod, *b.getClient());
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(notify(0));
        EXPECT_EQ((Names{"a", "b"}), told()) << "the others are told, too";
    }
    EXPECT_EQ(0, observed.removals);
    a.accepts = true;
    EXPECT_TRUE(notify(0));
}

TEST_F(ObservableTest, ADestroyedObserverIsDropped) {
    auto gone = std::make_unique<Recorder>("gone", record);
    observed.registerObserver(0, kClass, kMethod, *gone->getClient());
    observed.registerObserver(0, kClass, kMethod, *b.getClient());
    observed.registerObserver(1, kClass, kMethod + 1, *gone->getClient());
    gone.reset();
    EXPECT_TRUE(notify(0)) << "what it says means nothing";
    EXPECT_EQ(Names{"b"}, told());
    EXPECT_EQ(1, observed.removals) << "by way of the object's own method";
    EXPECT_FALSE(observed.postObserverAvailable(kClass, kMethod + 1)) << "everywhere";
    EXPECT_TRUE(notify(0));
    EXPECT_EQ(1, observed.removals);
}

TEST_F(ObservableTest, ANewObserverInThePlaceOfADeadOneIsNotTold) {
    auto gone = std::make_unique<Recorder>("gone", record);
    observed.registerObserver(0, kClass, kMethod, *gone->getClient());
    gone.reset();
    const Recorder next("next", record); // perhaps at the same address, with the same number
    EXPECT_TRUE(notify(0));
    EXPECT_EQ(Names{}, told());
    EXPECT_FALSE(observed.preObserverAvailable(kClass, kMethod));
}

TEST_F(ObservableTest, AnObserverOfNothingIsDropped) {
    observed.registerObserver(0, kClass, kMethod, TreflectObserverClient());
    EXPECT_TRUE(observed.preObserverAvailable(kClass, kMethod));
    EXPECT_TRUE(notify(0));
    EXPECT_FALSE(observed.preObserverAvailable(kClass, kMethod));
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(ObservableTest, ObserversMayComeAndGoWhileTheyAreTold) {
    Recorder c("c", record);
    observed.registerObserver(0, kClass, kMethod, *a.getClient());
    observed.registerObserver(0, kClass, kMethod, *b.getClient());
    a.reaction = [&] {
        observed.unRegisterObserver(*a.getClient());
        observed.unRegisterObserver(*b.getClient());
        observed.registerObserver(0, kClass, kMethod, *c.getClient());
    };
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a", "b"}), told()) << "those that were there at the beginning";
    EXPECT_TRUE(notify(0));
    EXPECT_EQ(Names{"c"}, told());
}

/** A peer may register an observer that cannot be found: each attempt to find it waits, and others go on meanwhile. */
TEST_F(ObservableTest, ObserversMayComeAndGoWhileOneOfThemIsLookedFor) {
    Testing::FakePeer peer(link);
    std::function<void()> meanwhile;
    peer.answer([&](TipprmiStream &response) {
        response << 0U; // not here
        if (meanwhile) {
            std::exchange(meanwhile, {})();
        }
    });
    const TreflectObserverClient lost(name("lost"));
    EXPECT_FALSE(lost.isConnected());
    for (int i = 0; i < 20; ++i) {
        observed.registerObserver(0, kClass, kMethod, lost);
        observed.registerObserver(0, kClass, kMethod, *b.getClient());
    }
    const std::size_t before = peer.requests().size();
    meanwhile = [&] {
        observed.unRegisterObserver(lost);
        observed.unRegisterObserver(*b.getClient());
    };
    EXPECT_TRUE(notify(0));
    EXPECT_LT(before, peer.requests().size()) << "it was looked for";
    EXPECT_EQ(Names(20, "b"), told());
    EXPECT_FALSE(observed.preObserverAvailable(kClass, kMethod));
}

TEST_F(ObservableTest, AnObserverMayDestroyOthers) {
    auto gone = std::make_unique<Recorder>("gone", record);
    Recorder c("c", record);
    for (const Recorder *observer : {&a, gone.get(), &c}) {
        observed.registerObserver(0, kClass, kMethod, *observer->getClient());
    }
    observed.registerObserver(1, kClass, kMethod, *gone->getClient());
    a.reaction = [&] { gone.reset(); };
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a", "c"}), told());
    EXPECT_FALSE(observed.postObserverAvailable(kClass, kMethod)) << "as one that was not reached";
    EXPECT_EQ(1, observed.removals);
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a", "c"}), told());
}

TEST_F(ObservableTest, AnExceptionComesToWhoTells) {
    auto gone = std::make_unique<Recorder>("gone", record);
    for (const Recorder *observer : {gone.get(), &a, &b}) {
        observed.registerObserver(0, kClass, kMethod, *observer->getClient());
    }
    gone.reset();
    a.reaction = [] { throw std::runtime_error("application"); };
    EXPECT_THROW(notify(0), std::runtime_error);
    EXPECT_EQ(Names{"a"}, told()) << "the others are not told";
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    a.reaction = {};
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a", "b"}), told()) << "all are still registered";
    EXPECT_EQ(1, observed.removals) << "but for the one that was gone";
}

TEST_F(ObservableTest, NotificationsOfOneObjectNest) {
    observed.registerObserver(0, kClass, kMethod, *a.getClient());
    observed.registerObserver(0, kClass, kMethod, *b.getClient());
    int depth = 0;
    a.reaction = [&] {
        if (++depth == 1) {
            EXPECT_TRUE(notify(0));
            observed.unRegisterObserver(*b.getClient());
        }
    };
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a", "a", "b", "b"}), told());
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a"}), told());
}

TEST_F(ObservableTest, WithoutMemoryNobodyIsRegistered) {
    const TreflectObserverClient &client = *a.getClient();
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        observed.registerObserver(0, kClass, kMethod, client);
    }
    EXPECT_FALSE(observed.preObserverAvailable(kClass, kMethod));
    EXPECT_TRUE(notify(0));
    observed.registerObserver(0, kClass, kMethod, client);
    observed.registerObserver(1, kClass, kMethod, client);
    bool before = true;
    bool after = false;
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        before = notify(0);
        after = notify(1);
    }
    EXPECT_FALSE(before) << "who was not asked may have forbidden it";
    EXPECT_TRUE(after);
    EXPECT_TRUE(observed.preObserverAvailable(kClass, kMethod));
    EXPECT_EQ(Names{}, told());
    EXPECT_TRUE(notify(0));
    EXPECT_EQ(Names{"a"}, told()) << "it is still registered";
}

/** Also what looks like a failure of the library's own. */
TEST_F(ObservableTest, WhatAnObserverThrowsComesThrough) {
    observed.registerObserver(0, kClass, kMethod, *a.getClient());
    observed.registerObserver(0, kClass, kMethod, *b.getClient());
    a.reaction = [] { throw std::bad_alloc(); };
    EXPECT_THROW(notify(0), std::bad_alloc);
    a.reaction = nullptr;
    EXPECT_TRUE(notify(0));
    EXPECT_EQ((Names{"a", "a", "b"}), told());
}

} // namespace
