#include "objects/REFLECT_object.h"
#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "reflection/REFLECT_InterfaceRepository.h"
#include "reflection/REFLECT_tieds.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ReflectiveClasses.h"

#include <atomic>
#include <list>
#include <memory>

namespace {

using Testing::EquipmentImpl;
using Testing::Gate;
using Testing::PortImpl;
using Testing::PortMeta;
using Testing::TestThread;

constexpr int kThreads = 6;
constexpr int kRounds = 60;

class CountingObserver : public TreflectObserver {
public:
    CountingObserver() : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, "counting") {}
    bool detected() override {
        ++told;
        return true;
    }
    std::atomic<int> told{0};
};

/** Becomes complete at its first look-up, as generated classes do. */
class LazyMeta : public TreflectMetaObject {
public:
    explicit LazyMeta(unsigned classId) : TreflectMetaObject("Lazy", classId) {}
    void completeMetaInformation() override {
        const TreflectHandlerState state(true);
        if (completed_ != 0) {
            return;
        }
        completed_ = 1;
        ++completions;
        static const MetaOpData operations[] = {{"getx", 1}, {"setx", 2}};
        static const MetaAttrData attributes[] = {{"x"}};
        completeMetaInformationHelper(operations, 2, attributes, 1);
    }
    std::atomic<int> completions{0};
};

/** What the manual allows threads to do with handles at the same time. */
class HandlesInThreadsTest : public Testing::BrokerTest {
protected:
    HandlesInThreadsTest() {
        const TreflectHandlerState state(true);
        shelf = std::make_unique<EquipmentImpl>("shelf");
        port = std::make_unique<PortImpl>("port");
        shelf->serialNumber = "S";
        port->carriedBy = TreflectObject(shelf.get());
        port->text = "up";
        port->ownSpeed = 9600;
        port->memberList.push_back(TreflectObject(shelf.get()));
    }
    ~HandlesInThreadsTest() override {
        const TreflectHandlerState state(true);
        port.reset();
        shelf.reset();
    }
    /** Runs in so many threads at once, which have not the permission. */
    static void together(const std::function<void(int)> &body) {
        Gate gate;
        std::list<TestThread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                gate.pass();
                body(i);
            });
        }
        gate.open();
    }
    std::size_t tieds() {
        log.clear();
        TreflectTieds::instance()->print();
        return log.count(5, "0 tieds are registered", "REFLECT_memberFactory") == 1 ? 0 : 1;
    }

    std::unique_ptr<EquipmentImpl> shelf;
    std::unique_ptr<PortImpl> port;
};

TEST_F(HandlesInThreadsTest, EachReadsAndCallsByItsOwnHandleOfOneObject) {
    together([this](int) {
        for (int round = 0; round < kRounds; ++round) {
            const TreflectHandlerState state(true);
            const TreflectObject object(port.get());
            std::string text;
            unsigned speed = 0;
            EXPECT_EQ(0, object.attribute("label")->get(text));
            EXPECT_EQ("up", text);
            EXPECT_EQ(0, object.attribute("speed")->get(speed));
            EXPECT_EQ(9600U, speed);
            TreflectAttribute &carrier = *object.attribute("carrier");
            EXPECT_EQ(0, carrier.attribute("serial")->get(text));
            EXPECT_EQ("S", text);
            EXPECT_EQ(0, carrier.operation("reset")->call());
            EXPECT_EQ(0, carrier.operGet()->call());
            EXPECT_EQ(TreflectOperation::error, carrier.operSet()->call());
            EXPECT_EQ(TreflectAttribute::error, object.attribute("nothing")->get(text));
        }
    });
    EXPECT_EQ(kThreads * kRounds, shelf->resets);
    EXPECT_EQ(0U, tieds());
}

/** One at a time: who had them before has no hold on them. */
TEST_F(HandlesInThreadsTest, HandlesMayGoFromThreadToThread) {
    std::unique_ptr<TreflectObject> object;
    TreflectAttribute *carrier = nullptr;
    TestThread([&] {
        const TreflectHandlerState state(true);
        object = std::make_unique<TreflectObject>(port.get());
        carrier = object->attribute("carrier");
    });
    for (int i = 0; i < kThreads; ++i) {
        TestThread([&] {
            const TreflectHandlerState state(true);
            std::string text;
            EXPECT_EQ(0, (*carrier)[i % 2].attribute("serial")->get(text));
            EXPECT_EQ("S", text);
        });
    }
    TestThread([&] { object.reset(); });
    EXPECT_EQ(0U, tieds());
}

/** They take the permission for a moment by themselves. */
TEST_F(HandlesInThreadsTest, HandlesAreCopiedAndDestroyedWithoutThePermission) {
    const TreflectObject *shared = nullptr;
    {
        const TreflectHandlerState state(true);
        shared = port->getClient();
    }
    together([&](int i) {
        for (int round = 0; round < kRounds; ++round) {
            const auto copy = std::make_unique<TreflectObject>(*shared);
            TreflectObject other;
            other = *copy;
            EXPECT_EQ(shared->getStub(), other.getStub());
            EXPECT_FALSE(TreflectORB::hasRunPermission()) << i;
        }
    });
    const TreflectHandlerState state(true);
    EXPECT_EQ(1, shared->getStub()->refCount());
}

TEST_F(HandlesInThreadsTest, MemberHandlesAreMadeForOneObjectHandleByAllThreads) {
    {
        const TreflectHandlerState state(true);
        const TreflectObject object(port.get());
        const TreflectReleaseHandlerState released;
        std::atomic<int> good{0};
        together([&](int) {
            for (int round = 0; round < kRounds; ++round) {
                const TreflectHandlerState own(true);
                std::string text;
                good += object.attribute("label")->get(text) == 0 && text == "up" ? 1 : 0;
            }
        });
        EXPECT_EQ(kThreads * kRounds, good);
    }
    EXPECT_EQ(0U, tieds());
}

TEST_F(HandlesInThreadsTest, ObserversComeAndGoWhileTheOperationIsCalled) {
    std::atomic<int> told{0};
    together([&](int i) {
        for (int round = 0; round < kRounds; ++round) {
            const TreflectHandlerState state(true);
            const TreflectObject object(port.get());
            TreflectOperation &blink = *object.operation("blink");
            if (i % 2 == 0) {
                blink.call();
                continue;
            }
            CountingObserver observer;
            EXPECT_TRUE(round % 2 == 0 ? blink.preObserve(&observer) : blink.postObserve(&observer));
            EXPECT_EQ(0, blink.call());
            told += observer.told;
            blink.removeObserver(&observer);
        }
    });
    EXPECT_EQ(kThreads * kRounds, port->blinks);
    EXPECT_GE(told, kThreads / 2 * kRounds) << "each of its own call at least";
    const TreflectHandlerState state(true);
    EXPECT_FALSE(port->preObserverAvailable(Testing::Port::CLASS_ID, Testing::Port::mcBlink));
    EXPECT_FALSE(port->postObserverAvailable(Testing::Port::CLASS_ID, Testing::Port::mcBlink));
}

TEST_F(HandlesInThreadsTest, AClassIsCompleteForTheFirstWhoFindIt) {
    for (unsigned round = 0; round < 20; ++round) {
        LazyMeta meta(0xF00D2000 + round);
        together([&](int) {
            const TreflectMetaObject *const found = InterfaceRepository::instance()->findInterface(meta.id());
            EXPECT_EQ(&meta, found);
            EXPECT_NE(nullptr, found->metaAttribute("x"));
            EXPECT_NE(nullptr, found->metaOperation("setx"));
            EXPECT_EQ(nullptr, found->metaOperation_("y"));
        });
        EXPECT_EQ(1, meta.completions);
    }
}

} // namespace
