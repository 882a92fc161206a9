#include "threads/HandlerState.h"

#include "platform/Lock.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"
#include "threads/BrokerLocks.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <pthread.h>
#include <utility>

using namespace HandlerState;
using OSWrap::TimeSpec;
using Testing::eventually;
using Testing::Gate;
using Testing::LogCapture;
using Testing::TestThread;

namespace {

/** What a thread is, as one word. */
enum class State { outside, handler, permitted };

State state() {
    if (!isHandlerThread()) {
        EXPECT_FALSE(hasRunPermission());
        return State::outside;
    }
    if (!hasRunPermission()) {
        return State::handler;
    }
    EXPECT_EQ(1U, getRunPermissionCount());
    return State::permitted;
}

std::ostream &operator<<(std::ostream &stream, State value) {
    constexpr const char *kNames[] = {"outside", "handler", "permitted"};
    return stream << kNames[static_cast<int>(value)];
}

/** Brings the calling thread from outside into the state, and back from any. */
void enter(State target) {
    if (target != State::outside) {
        enterHandlerState(target == State::permitted);
    }
}
void leaveAll() {
    releaseRunPermissionWhileHeld();
    while (isHandlerThread()) {
        leaveHandlerState(false);
    }
}

class AtEnd {
public:
    explicit AtEnd(std::function<void()> action) : action_(std::move(action)) {}
    ~AtEnd() { action_(); }
    AtEnd(const AtEnd &) = delete;
    AtEnd &operator=(const AtEnd &) = delete;

private:
    const std::function<void()> action_;
};

/** Each test ends with nobody in, the permission free, and nothing said. */
class HandlerStateTest : public testing::Test {
protected:
    void SetUp() override {
        handlerThreads();
        log_ = std::make_unique<LogCapture>();
        ASSERT_EQ(State::outside, state());
    }
    void TearDown() override {
        EXPECT_EQ(State::outside, state());
        EXPECT_EQ(0U, handlerThreads()->size());
        EXPECT_EQ(0UL, getRunPermissionOwner());
        EXPECT_EQ(0U, getRunPermissionCount());
        for (const Testing::LogLine &line : log_->lines()) {
            ADD_FAILURE() << line.text;
        }
    }

private:
    std::unique_ptr<LogCapture> log_;
};

TEST_F(HandlerStateTest, NestedGuardsTakeAndGiveThePermissionOnce) {
    {
        TreflectHandlerState first(true);
        EXPECT_EQ(State::permitted, state());
        {
            TreflectHandlerState second(true);
            TreflectHandlerState third(true);
            EXPECT_EQ(1U, getRunPermissionCount());
            EXPECT_EQ(1U, handlerThreads()->size());
        }
        EXPECT_EQ(State::permitted, state());
        TreflectHandlerState without(false); // changes nothing either
        EXPECT_EQ(State::permitted, state());
    }
    EXPECT_EQ(State::outside, state());
}

TEST_F(HandlerStateTest, AHandlerWithoutPermissionGetsItForTheScopeAndStaysAHandler) {
    enter(State::handler);
    {
        TreflectHandlerState guard(true);
        EXPECT_EQ(State::permitted, state());
        EXPECT_EQ(1U, handlerThreads()->size());
    }
    EXPECT_EQ(State::handler, state());
    leaveAll();
}

TEST_F(HandlerStateTest, AGuardWithoutPermissionEntersOnly) {
    {
        TreflectHandlerState guard(false);
        EXPECT_EQ(State::handler, state());
        {
            TreflectHandlerState inner(true);
            EXPECT_EQ(State::permitted, state());
        }
        EXPECT_EQ(State::handler, state());
    }
    EXPECT_EQ(State::outside, state());
}

TEST_F(HandlerStateTest, WhatTheScopeTakesItselfIsGivenBack) {
    {
        TreflectHandlerState guard(false);
        getRunPermission();
    }
    EXPECT_EQ(State::outside, state());
    enter(State::handler);
    {
        TreflectHandlerState guard(false);
        getRunPermission();
    }
    EXPECT_EQ(State::handler, state());
    leaveAll();
}

TEST_F(HandlerStateTest, TheCleanUpTakesNull) {
    enter(State::permitted);
    TreflectHandlerState::cleanupHandlerState(nullptr);
    EXPECT_EQ(State::permitted, state());
    leaveAll();
}

TEST_F(HandlerStateTest, ReleasingGivesThePermissionUpForTheScope) {
    enter(State::permitted);
    {
        TreflectReleaseHandlerState released;
        EXPECT_EQ(State::handler, state());
        {
            TreflectReleaseHandlerState inner; // nothing left to give up
            EXPECT_EQ(State::handler, state());
        }
        EXPECT_EQ(State::handler, state());
        bool othersGotIt = false;
        {
            TestThread other([&] {
                TreflectHandlerState guard(true);
                othersGotIt = hasRunPermission();
            });
        }
        EXPECT_TRUE(othersGotIt);
    }
    EXPECT_EQ(State::permitted, state());
    leaveAll();
}

TEST_F(HandlerStateTest, ReleasingWithoutPermissionDoesNothing) {
    {
        TreflectReleaseHandlerState released;
        EXPECT_EQ(State::outside, state());
    }
    EXPECT_EQ(State::outside, state());
    enter(State::handler);
    {
        TreflectReleaseHandlerState released;
        EXPECT_EQ(State::handler, state());
    }
    EXPECT_EQ(State::handler, state());
    // What is taken inside then is the scope's own business.
    {
        TreflectReleaseHandlerState released;
        getRunPermission();
    }
    EXPECT_EQ(State::permitted, state());
    leaveAll();
}

TEST_F(HandlerStateTest, ReleasingEntersAgainIfTheScopeLeft) {
    enter(State::permitted);
    {
        TreflectReleaseHandlerState released;
        leaveHandlerState(false);
        EXPECT_EQ(State::outside, state());
    }
    EXPECT_EQ(State::permitted, state());
    leaveAll();
}

TEST_F(HandlerStateTest, ReleasingKeepsWhatTheScopeTookBack) {
    enter(State::permitted);
    {
        TreflectReleaseHandlerState released;
        getRunPermission();
    }
    EXPECT_EQ(State::permitted, state());
    leaveAll();
}

TEST_F(HandlerStateTest, RestoringBringsEachStateBackFromEachOther) {
    for (State before : {State::outside, State::handler, State::permitted}) {
        for (State inside : {State::outside, State::handler, State::permitted}) {
            SCOPED_TRACE(testing::Message() << before << " to " << inside);
            enter(before);
            {
                TreflectRestoreHandlerState restore;
                leaveAll();
                enter(inside);
                EXPECT_EQ(inside, state());
            }
            EXPECT_EQ(before, state());
            leaveAll();
        }
    }
}

TEST_F(HandlerStateTest, RestoringUndoesSingleSteps) {
    enter(State::permitted);
    {
        TreflectRestoreHandlerState restore;
        releaseRunPermission();
        EXPECT_EQ(State::handler, state());
    }
    EXPECT_EQ(State::permitted, state());
    releaseRunPermission();
    {
        TreflectRestoreHandlerState restore;
        getRunPermission();
    }
    EXPECT_EQ(State::handler, state());
    leaveAll();
    {
        TreflectRestoreHandlerState restore;
        enterHandlerState(false);
        enterHandlerState(false);
        getRunPermission();
    }
    EXPECT_EQ(State::outside, state());
}

TEST_F(HandlerStateTest, RestoringDoesNotRestoreNumbers) {
    enter(State::permitted);
    {
        TreflectRestoreHandlerState restore;
        enterHandlerState(false);
    }
    EXPECT_EQ(State::permitted, state());
    EXPECT_EQ(2U, handlerThreads()->size());
    leaveAll();
}

SCENARIO(state_nested_levels) {
    handlerThreads();
    enterHandlerState(true);
    getRunPermission();
    LogCapture log;
    {
        TreflectReleaseHandlerState released;
        SCENARIO_CHECK(hasRunPermission() && getRunPermissionCount() == 1);
    }
    SCENARIO_CHECK(getRunPermissionCount() == 2);
    SCENARIO_CHECK(log.lines().empty());
    {
        TreflectReleaseHandlerState released;
        releaseRunPermission();
        SCENARIO_CHECK(!hasRunPermission());
    }
    SCENARIO_CHECK(getRunPermissionCount() == 1);
    getRunPermission();
    {
        TreflectRestoreHandlerState restore; // restores that it has it, not how often
        releaseRunPermission();
    }
    SCENARIO_CHECK(getRunPermissionCount() == 1);
    leaveAll();
    {
        TreflectRestoreHandlerState restore;
        enterHandlerState(true);
        getRunPermission();
        log.clear();
    }
    SCENARIO_CHECK(getRunPermissionCount() == 0 && !isHandlerThread());
    SCENARIO_CHECK(log.lines().empty());
}

TEST(HandlerState, ANestedLevelIsGivenUpAndPutBackSilently) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("state_nested_levels", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(HandlerStateTest, AThreadCancelledInAWaitGetsItsStateRestored) {
    for (State before : {State::outside, State::handler, State::permitted}) {
        SCOPED_TRACE(before);
        TreflectConditionVar variable(false);
        State after = State::outside;
        bool unwoundWithBoth = false;
        Gate inside;
        TestThread thread([&] {
            enter(before);
            const AtEnd end([&] {
                after = state();
                leaveAll();
            });
            TreflectHandlerState guard(true);
            OSWrap::Lock<OSWrap::ConditionVar> lock(variable);
            const AtEnd endOfWait([&] { unwoundWithBoth = hasRunPermission() && !variable.trylock(); });
            inside.open();
            while (true) {
                variable.wait(TimeSpec::INFINITETIME);
            }
        });
        ASSERT_TRUE(inside.pass());
        enter(State::permitted); // the permission is free once it waits
        EXPECT_TRUE(thread.stop());
        EXPECT_TRUE(eventually([] { return handlerThreads()->waitingForPermission() == 1; })); // unwinding needs it
        leaveAll();
        EXPECT_TRUE(thread.join());
        EXPECT_EQ(0, thread.result());
        EXPECT_TRUE(unwoundWithBoth);
        EXPECT_EQ(before, after);
        EXPECT_TRUE(Testing::isFree(variable));
    }
}

TEST_F(HandlerStateTest, AThreadCancelledInAGuardThatWaitsGetsThePermissionFirst) {
    enter(State::permitted);
    bool gotIt = false;
    TestThread thread([&] {
        TreflectHandlerState guard(true);
        gotIt = hasRunPermission();
        OSWrap::Thread::sleep(TimeSpec::INFINITETIME);
    });
    EXPECT_TRUE(eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
    EXPECT_TRUE(thread.stop());
    leaveAll();
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(0, thread.result());
    EXPECT_TRUE(gotIt);
}

TEST_F(HandlerStateTest, AThreadCancelledInARawWaitStaysOutOfTheQueue) {
    enter(State::permitted);
    bool wentOn = false;
    TestThread thread([&] {
        enterHandlerState(true);
        wentOn = true;
    });
    EXPECT_TRUE(eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
    EXPECT_TRUE(thread.stop());
    EXPECT_TRUE(thread.join()); // although the permission is held
    EXPECT_FALSE(wentOn);
    EXPECT_EQ(0U, handlerThreads()->waitingForPermission());
    EXPECT_EQ(1U, handlerThreads()->size()); // its entry is gone, too
    leaveAll();
}

TEST_F(HandlerStateTest, NoGuardEndsAThreadWhoseCancellationIsPending) {
    Gate released;
    Gate held;
    bool passedAll = false;
    TestThread other([&] {
        released.pass();
        TreflectHandlerState guard(true);
        held.open();
        EXPECT_TRUE(eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
    });
    TestThread thread([&] {
        pthread_cancel(pthread_self());
        {
            TreflectHandlerState outer(true);
            {
                TreflectReleaseHandlerState without;
                released.open();
                held.pass();
            } // waits for the other one
            EXPECT_EQ(State::permitted, state());
            {
                TreflectRestoreHandlerState restored;
                releaseRunPermission();
            }
            EXPECT_EQ(State::permitted, state());
        }
        {
            TreflectRestoreHandlerState restored;
            enterHandlerState(true);
        }
        passedAll = true;
        OSWrap::Thread::sleep(TimeSpec::INFINITETIME);
    });
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(0, thread.result());
    EXPECT_TRUE(passedAll);
}

} // namespace
