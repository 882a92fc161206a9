#include "orb/SingletonInstances_p.h"

#include "orb/REFLECT_orb.h"
#include "platform/transport/testing/FakeLink.h"
#include "rmi/StreamOperators.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace {

using Clock = std::chrono::steady_clock;
using Testing::eventually;
using Testing::FailingHeap;
using Testing::Gate;
using Testing::TestThread;

/** Runs something in the middle of the creation of each broker: in the creating thread, before it is started. */
class DuringCreation {
public:
    explicit DuringCreation(std::function<void()> action) {
        Log::setSink([action = std::move(action)](int, const std::string &line, const char *) {
            if (line.rfind("ORB created for actor ", 0) == 0) {
                action();
            }
        });
    }
    ~DuringCreation() { Log::setSink({}); }
    DuringCreation(const DuringCreation &) = delete;
    DuringCreation &operator=(const DuringCreation &) = delete;
};

/** Each test makes a broker of another namespace, so that they also work in one process. */
class SingletonInstancesTest : public testing::Test {
protected:
    void TearDown() override { link.reset(); }

    Transport::FakeLink &link = Transport::FakeLink::install();
};

TEST_F(SingletonInstancesTest, ThereIsOneBrokerPerNamespace) {
    const Testing::LogCapture log;
    TreflectORB *const orb = TreflectORB::getInstance(14);
    ASSERT_NE(nullptr, orb);
    EXPECT_TRUE(orb->started());
    EXPECT_EQ(1U, link.announced().count(orb->termId().value()));
    const std::size_t announced = link.announced().size();
    EXPECT_EQ(orb, TreflectORB::getInstance(14));
    EXPECT_EQ(orb, SingletonInstances::get(14));
    EXPECT_EQ(announced, link.announced().size());
    EXPECT_EQ(1U, log.with("ORB created for actor ").size());

    TreflectORB *const other = TreflectORB::getInstance(15);
    EXPECT_NE(orb, other);
    EXPECT_NE(orb->termId().nameId(), other->termId().nameId());
    EXPECT_EQ(announced + 1, link.announced().size());
}

TEST_F(SingletonInstancesTest, NamespacesWithoutMeaningHaveABrokerOfGroupZero) {
    const Testing::LogCapture log;
    const TreflectORB *const undefined = TreflectORB::getInstance(NSID_UNDEF);
    ASSERT_NE(nullptr, undefined);
    EXPECT_EQ(1U, log.count(3, "ORB (orbId=0x0) can not handle namespace id NSID_UNDEF", "REFLECT_orb"));
    EXPECT_EQ(0U, undefined->termId().groupId());
    EXPECT_EQ(0U, static_cast<unsigned>(undefined->orbId().namespaceId()));
    const TreflectORB *const last = TreflectORB::getInstance(255);
    ASSERT_NE(nullptr, last);
    EXPECT_EQ(0U, last->termId().groupId());
    for (unsigned ns : {256U, 257U, 0x80000001U, ~0U}) {
        EXPECT_EQ(nullptr, TreflectORB::getInstance(ns));
    }
}

TEST_F(SingletonInstancesTest, ThreadsThatRaceGetOneBrokerAfterItsPause) {
    std::atomic<int> creations{0};
    std::atomic<Clock::time_point> created{};
    const DuringCreation during([&] {
        ++creations;
        created = Clock::now();
    });
    Gate start;
    TreflectORB *found[2] = {};
    Clock::time_point returned[2];
    {
        const auto racer = [&](int i) {
            start.pass();
            found[i] = TreflectORB::getInstance(3);
            returned[i] = Clock::now();
        };
        TestThread first([&] { racer(0); });
        TestThread second([&] { racer(1); });
        start.open();
    }
    ASSERT_NE(nullptr, found[0]);
    EXPECT_EQ(found[0], found[1]);
    EXPECT_EQ(1, creations);
    for (const Clock::time_point &time : returned) {
        EXPECT_GE(time - created.load(), std::chrono::milliseconds(100));
    }
}

TEST_F(SingletonInstancesTest, TheRunPermissionIsFreeDuringTheCreation) {
    Gate inside;
    Gate proceed;
    const DuringCreation during([&] {
        inside.open();
        proceed.pass();
    });
    bool restored = false;
    TestThread creator([&] {
        const TreflectHandlerState state(true);
        TreflectORB::getInstance(4);
        restored = TreflectORB::hasRunPermission() && TreflectORB::isHandlerThread();
    });
    ASSERT_TRUE(inside.pass());
    EXPECT_EQ(0U, TreflectORB::getRunPermissionOwner());
    {
        const TreflectHandlerState state(true);
        EXPECT_TRUE(TreflectORB::hasRunPermission());
    }
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    proceed.open();
    creator.join();
    EXPECT_TRUE(restored);
}

TEST_F(SingletonInstancesTest, BrokersThatExistAreThereDuringACreation) {
    TreflectORB *const existing = TreflectORB::getInstance(5);
    Gate inside;
    Gate proceed;
    const DuringCreation during([&] {
        inside.open();
        proceed.pass();
    });
    TestThread creator([] { TreflectORB::getInstance(6); });
    ASSERT_TRUE(inside.pass());
    EXPECT_EQ(existing, TreflectORB::getInstance(5)) << "without the lock that the creator holds";
    proceed.open();
}

TEST_F(SingletonInstancesTest, TheCreationDoesNotWaitForItself) {
    TreflectORB *reentered[2] = {reinterpret_cast<TreflectORB *>(this), reinterpret_cast<TreflectORB *>(this)};
    {
        const DuringCreation during([&] {
            reentered[0] = TreflectORB::getInstance(7);
            reentered[1] = TreflectORB::getInstance(8);
        });
        EXPECT_NE(nullptr, TreflectORB::getInstance(7));
    }
    EXPECT_EQ(nullptr, reentered[0]);
    EXPECT_EQ(nullptr, reentered[1]);
    EXPECT_NE(nullptr, TreflectORB::getInstance(8));
}

SCENARIO(streamDuringTheCreation) {
    Transport::FakeLink::install();
    bool tried = false;
    const DuringCreation during([&] {
        TipprmiStream stream(4);
        stream << 1;
        SCENARIO_CHECK(stream.empty() && stream.getDataPtr() == nullptr);
        tried = true;
    });
    TipprmiStream stream(4); // makes the broker
    SCENARIO_CHECK(tried && stream.getDataPtr() != nullptr);
}

TEST_F(SingletonInstancesTest, AStreamInTheMiddleOfTheCreationHasNoBuffer) {
    const Testing::ProcessResult result = Testing::runScenario("streamDuringTheCreation");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(SingletonInstancesTest, ACancelledThreadStillPublishesItsBroker) {
    Gate inside;
    Gate proceed;
    const DuringCreation during([&] {
        inside.open();
        proceed.pass();
    });
    std::atomic<TreflectORB *> made{nullptr};
    TestThread creator([&] {
        made = TreflectORB::getInstance(9);
        OSWrap::Thread::sleep(OSWrap::TimeSpec::INFINITETIME); // ends here
    });
    ASSERT_TRUE(inside.pass());
    EXPECT_TRUE(creator.stop());
    proceed.open();
    EXPECT_TRUE(creator.join());
    EXPECT_EQ(0, creator.result()) << "it was cancelled";
    ASSERT_NE(nullptr, made.load());
    EXPECT_EQ(made.load(), TreflectORB::getInstance(9));
    EXPECT_TRUE(made.load()->started());
}

TEST_F(SingletonInstancesTest, WithoutMemoryThereIsNoBrokerUntilTheNextTry) {
    {
        const FailingHeap none;
        EXPECT_EQ(nullptr, TreflectORB::getInstance(10));
    }
    const TreflectORB *const orb = TreflectORB::getInstance(10);
    ASSERT_NE(nullptr, orb);
    EXPECT_EQ(1U, link.announced().count(orb->termId().value()));
}

TEST_F(SingletonInstancesTest, ABrokerThatFailsToStartForWantOfMemoryExistsAllTheSame) {
    std::unique_ptr<FailingHeap> none;
    TreflectORB *orb = nullptr;
    {
        // From the end of the construction on; the start is what comes next.
        const DuringCreation during([&] { none = std::make_unique<FailingHeap>(0U, FailingHeap::Calls::all); });
        orb = TreflectORB::getInstance(16);
        none.reset();
    }
    ASSERT_NE(nullptr, orb);
    EXPECT_FALSE(orb->started());
    EXPECT_EQ(orb, TreflectORB::getInstance(16));
    EXPECT_NE(nullptr, TreflectORB::getInstance(17)) << "the next one can be made";
}

TEST_F(SingletonInstancesTest, ABrokerThatCannotStartExistsAllTheSame) {
    link.setAnnounceFails(true);
    TreflectORB *const orb = TreflectORB::getInstance(11);
    ASSERT_NE(nullptr, orb);
    EXPECT_FALSE(orb->started());
    EXPECT_EQ(orb, TreflectORB::getInstance(11));

    link.setNamesExhausted(true);
    const TreflectORB *const nameless = TreflectORB::getInstance(12);
    ASSERT_NE(nullptr, nameless);
    EXPECT_EQ(0U, nameless->termId().value());
    EXPECT_EQ(0U, nameless->orbId().value());
}

TEST_F(SingletonInstancesTest, APinHoldsTheBrokerOfItsNamespace) {
    {
        const SingletonInstances::Pin pin(13);
        EXPECT_EQ(TreflectORB::getInstance(13), pin.get()) << "made if need be";
        const SingletonInstances::Pin again(13);
        EXPECT_EQ(pin.get(), again.get());
    }
    EXPECT_EQ(nullptr, SingletonInstances::Pin(256).get());
    EXPECT_EQ(nullptr, SingletonInstances::Pin(~0U).get());
}

TEST_F(SingletonInstancesTest, InsideMarksTheThreadForItsScope) {
    EXPECT_FALSE(SingletonInstances::Inside::thisThread());
    {
        const SingletonInstances::Inside outer;
        { const SingletonInstances::Inside inner; }
        EXPECT_TRUE(SingletonInstances::Inside::thisThread());
        bool other = true;
        TestThread([&] { other = SingletonInstances::Inside::thisThread(); }).join();
        EXPECT_FALSE(other);
    }
    EXPECT_FALSE(SingletonInstances::Inside::thisThread());
}

} // namespace
