// What the end of a thread, and of the process, does to the handler threads.
#include "threads/HandlerThreadsType_p.h"

#include "orb/REFLECT_orb.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

using namespace HandlerState;
using Testing::eventually;
using Testing::Gate;
using Testing::LogCapture;
using Testing::TestThread;

namespace {

void expectGood(const std::string &scenario) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario(scenario, root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** A thread that waits for the permission, notes who had it before, and gives it back. */
class NextOne {
public:
    NextOne() {
        const unsigned before = handlerThreads()->waitingForPermission();
        thread_ = std::make_unique<TestThread>([this] {
            const TreflectHandlerState state(true);
            count_ = getRunPermissionCount();
        });
        queued_ = eventually([before] { return handlerThreads()->waitingForPermission() == before + 1; });
    }
    bool queued() const { return queued_; }
    /** The count that it found; 0 if it never got the permission. */
    unsigned count() {
        thread_->join();
        return count_;
    }

private:
    std::atomic<unsigned> count_{0};
    bool queued_ = false;
    std::unique_ptr<TestThread> thread_;
};

TEST(HandlerThreadsEnd, AThreadThatEndsGivesThePermissionBack) {
    const unsigned size = handlerThreads()->size();
    LogCapture log;
    Gate held;
    Gate end;
    TestThread thread([&] {
        enterHandlerState(true);
        held.open();
        end.pass();
    });
    ASSERT_TRUE(held.pass());
    NextOne next;
    EXPECT_TRUE(next.queued());
    end.open();
    thread.join();
    EXPECT_EQ(1U, next.count());
    EXPECT_EQ(size, handlerThreads()->size());
    EXPECT_EQ(0UL, getRunPermissionOwner());
    EXPECT_TRUE(log.lines().empty());
}

TEST(HandlerThreadsEnd, ACancelledThreadGivesThePermissionBack) {
    const unsigned size = handlerThreads()->size();
    Gate held;
    TestThread thread([&] {
        enterHandlerState(true);
        held.open();
        OSWrap::Thread::sleep(OSWrap::TimeSpec::INFINITETIME);
    });
    ASSERT_TRUE(held.pass());
    NextOne next;
    EXPECT_TRUE(next.queued());
    EXPECT_TRUE(thread.stop());
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(1U, next.count());
    EXPECT_EQ(size, handlerThreads()->size());
}

TEST(HandlerThreadsEnd, AThreadThatEnteredSeveralTimesIsOutCompletely) {
    const unsigned size = handlerThreads()->size();
    unsigned inside = 0;
    {
        TestThread thread([&] {
            enterHandlerState(false);
            enterHandlerState(false);
            enterHandlerState(false);
            inside = handlerThreads()->size();
        });
    }
    EXPECT_EQ(size + 3, inside);
    EXPECT_EQ(size, handlerThreads()->size());
}

SCENARIO(end_with_two_levels) {
    Gate held;
    Gate end;
    handlerThreads();
    TestThread thread([&] {
        enterHandlerState(true);
        getRunPermission();
        SCENARIO_CHECK(getRunPermissionCount() == 2);
        enterHandlerState(false);
        held.open();
        end.pass();
    });
    SCENARIO_CHECK(held.pass());
    NextOne next;
    SCENARIO_CHECK(next.queued());
    LogCapture log;
    end.open();
    thread.join();
    SCENARIO_CHECK(next.count() == 1);
    SCENARIO_CHECK(handlerThreads()->size() == 0);
    SCENARIO_CHECK(log.lines().empty()); // nothing is reported at this point any more
}

TEST(HandlerThreadsEnd, AThreadThatEndsGivesAllLevelsBack) {
    expectGood("end_with_two_levels");
}

/** What a destructor of a thread's value, which runs after the handler state was cleaned up, does with it. */
struct LateUser {
    void (*use)(LateUser &);
    int runs = 0;
    bool wasHandler = true;
    bool hadPermissionInside = false;

    static void atEnd(void *value) {
        auto *self = static_cast<LateUser *>(value);
        ++self->runs;
        self->wasHandler = isHandlerThread();
        self->use(*self);
    }
};

void endThreadWith(LateUser &late) {
    handlerThreads(); // its key comes first, so its destructor does
    pthread_key_t key{};
    ASSERT_EQ(0, pthread_key_create(&key, &LateUser::atEnd));
    const unsigned size = handlerThreads()->size();
    LogCapture log;
    {
        TestThread thread([&] {
            enterHandlerState(true);
            pthread_setspecific(key, &late);
        });
    }
    EXPECT_EQ(0, pthread_key_delete(key));
    EXPECT_EQ(1, late.runs);
    EXPECT_FALSE(late.wasHandler);
    EXPECT_TRUE(late.hadPermissionInside);
    EXPECT_EQ(size, handlerThreads()->size());
    EXPECT_EQ(0UL, getRunPermissionOwner());
    EXPECT_TRUE(log.lines().empty());
}

TEST(HandlerThreadsEnd, AGuardInTheDestructorOfALaterKeyWorks) {
    LateUser late{[](LateUser &self) {
        const TreflectHandlerState state(true);
        self.hadPermissionInside = hasRunPermission() && isHandlerThread();
    }};
    endThreadWith(late);
}

TEST(HandlerThreadsEnd, WhatTheDestructorOfALaterKeyLeavesIsCleanedUpAgain) {
    LateUser late{[](LateUser &self) {
        enterHandlerState(true);
        self.hadPermissionInside = hasRunPermission();
    }};
    endThreadWith(late);
}

TEST(HandlerThreadsEnd, TheBrokerOffersTheOperations) {
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    TreflectORB::enterHandlerState(false);
    EXPECT_TRUE(TreflectORB::isHandlerThread());
    EXPECT_TRUE(isHandlerThread());
    EXPECT_FALSE(TreflectORB::hasRunPermission());
    TreflectORB::getRunPermission();
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    EXPECT_EQ(1UL, TreflectORB::getRunPermissionCount());
    EXPECT_EQ(OSWrap::Thread::getCurrentId(), TreflectORB::getRunPermissionOwner());
    LogCapture log;
    TreflectORB::checkHandlerState();
    TreflectORB::releaseRunPermission();
    EXPECT_FALSE(TreflectORB::hasRunPermission());
    EXPECT_EQ(0UL, TreflectORB::getRunPermissionCount());
    EXPECT_EQ(0UL, TreflectORB::getRunPermissionOwner());
    TreflectORB::leaveHandlerState(false);
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    EXPECT_TRUE(log.lines().empty());
}

/** Process exit by a thread that holds the permission while others want it; the process has to end by itself. */
void expectExit(const std::string &scenario, int status) {
    const Testing::OverrideRoot root;
    const Testing::TempDir unit;
    const Testing::ProcessResult result =
        Testing::runScenario(scenario, root.environment({"REFLECTORB_UNIT_DIR=" + unit.path() + "/unit"}));
    EXPECT_FALSE(result.timedOut) << result.output;
    EXPECT_EQ(0, result.signal) << result.output;
    EXPECT_EQ(status, result.exitStatus) << result.output;
}

std::atomic<bool> waiterHadIt{false};

void makeBrokerAndWaiter() {
    // Runs after the brokers were removed.
    std::atexit([] { SCENARIO_CHECK(eventually([] { return waiterHadIt.load(); })); });
    SCENARIO_CHECK(TreflectORB::getInstance(1) != nullptr);
    SCENARIO_CHECK(hasRunPermission());
    // Waits for the permission, and lives on while the process exits.
    std::thread([] {
        const TreflectHandlerState state(true);
        waiterHadIt = true;
    }).detach();
    SCENARIO_CHECK(eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
}

SCENARIO(exit_with_permission) {
    TreflectORB::enterHandlerState(true);
    makeBrokerAndWaiter();
    SCENARIO_CHECK(getRunPermissionCount() == 1);
    std::exit(21);
}

TEST(HandlerThreadsEnd, ExitWithThePermissionEndsTheProcess) {
    expectExit("exit_with_permission", 21);
}

SCENARIO(exit_entered_twice) {
    TreflectORB::enterHandlerState(true);
    TreflectORB::enterHandlerState(true); // a second level
    makeBrokerAndWaiter();
    SCENARIO_CHECK(getRunPermissionCount() == 2);
    std::exit(22);
}

TEST(HandlerThreadsEnd, ExitWithTwoLevelsEndsTheProcess) {
    expectExit("exit_entered_twice", 22);
}

SCENARIO(exit_by_another_thread) {
    TestThread thread([] {
        const TreflectHandlerState state(true);
        makeBrokerAndWaiter();
        std::exit(23);
    });
    thread.join(); // main waits for a thread that ends the process
    std::exit(1);
}

TEST(HandlerThreadsEnd, ExitByAThreadWithThePermissionEndsTheProcess) {
    expectExit("exit_by_another_thread", 23);
}

} // namespace
