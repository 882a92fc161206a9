#include "objects/MethodAtWork_p.h"

#include "objects/REFLECT_serverObject.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"
#include "threads/HandlerThreadsType_p.h"
#include "threads/PartingState_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Testing::Gate;
using Testing::TestThread;

/** Only the address counts. */
const TreflectServerObject &object(int number) {
    alignas(TreflectServerObject) static const unsigned char rooms[2][sizeof(TreflectServerObject)] = {};
    return *reinterpret_cast<const TreflectServerObject *>(rooms[number]);
}

/** In a method of object 0 until it is told to leave, for which it needs the run permission. */
class User {
public:
    User() : thread_([this] { use(); }) { EXPECT_TRUE(in_.pass()); }
    ~User() { leave(); }
    void leave() { leave_.open(); }
    bool hasLeft() const { return left_; }

private:
    void use() {
        {
            const MethodAtWork atWork(&object(0));
            in_.open();
            leave_.pass();
            const TreflectHandlerState state(true);
            left_ = true;
        }
    }

    Gate in_;
    Gate leave_;
    std::atomic<bool> left_{false};
    TestThread thread_;
};

TEST(MethodAtWork, IsOfOneObject) {
    EXPECT_FALSE(MethodAtWork::isOtherIn(object(0)));
    {
        User one;
        const User two;
        EXPECT_TRUE(MethodAtWork::isOtherIn(object(0)));
        EXPECT_FALSE(MethodAtWork::isOtherIn(object(1)));
        EXPECT_TRUE(MethodAtWork::awaitOthers(object(1)));
        EXPECT_FALSE(one.hasLeft());
        one.leave();
        EXPECT_TRUE(Testing::eventually([&] { return one.hasLeft(); }));
        EXPECT_TRUE(MethodAtWork::isOtherIn(object(0))) << "the other one";
    }
    EXPECT_FALSE(MethodAtWork::isOtherIn(object(0)));
}

/** An object may be destroyed in a method of its own. */
TEST(MethodAtWork, OfTheOwnThreadDoesNotCount) {
    const MethodAtWork outer(&object(0));
    const auto between = std::make_unique<MethodAtWork>(&object(0));
    const MethodAtWork inner(&object(1));
    EXPECT_FALSE(MethodAtWork::isOtherIn(object(0)));
    EXPECT_TRUE(MethodAtWork::awaitOthers(object(0)));
    TestThread([] {
        EXPECT_TRUE(MethodAtWork::isOtherIn(object(0)));
        EXPECT_TRUE(MethodAtWork::isOtherIn(object(1)));
    });
}

TEST(MethodAtWork, NeedsNoMemory) {
    const Testing::HeapProbe probe;
    const MethodAtWork one(&object(0));
    EXPECT_EQ(0U, probe.allocations());
}

TEST(MethodAtWork, IsWaitedForWithoutTheRunPermission) {
    User user;
    std::atomic<bool> freed{false};
    bool hadLeft = false;
    {
        const TestThread waiting([&] {
            const TreflectHandlerState state(true);
            EXPECT_TRUE(MethodAtWork::awaitOthers(object(0)));
            EXPECT_TRUE(HandlerState::hasRunPermission());
            EXPECT_EQ(1U, HandlerState::getRunPermissionCount());
            hadLeft = user.hasLeft();
            freed = true;
        });
        // So it has given it up, or not yet got it.
        for (int turn = 0; turn < 10; ++turn) {
            const TreflectHandlerState state(true);
        }
        EXPECT_FALSE(freed);
        user.leave();
    }
    EXPECT_TRUE(hadLeft);
}

TEST(MethodAtWork, IsWaitedForByAThreadThatHasNoPermission) {
    User user;
    const TestThread waiting([&] {
        EXPECT_TRUE(MethodAtWork::awaitOthers(object(0)));
        EXPECT_TRUE(user.hasLeft());
        EXPECT_FALSE(HandlerState::isHandlerThread());
    });
    user.leave();
}

SCENARIO(awaitWithNestedPermission) {
    User user;
    HandlerState::enterHandlerState(true);
    HandlerState::getRunPermission();
    HandlerState::getRunPermission();
    SCENARIO_CHECK(HandlerState::getRunPermissionCount() == 3);
    user.leave();
    SCENARIO_CHECK(MethodAtWork::awaitOthers(object(0)));
    SCENARIO_CHECK(user.hasLeft());
    SCENARIO_CHECK(HandlerState::hasRunPermission() && HandlerState::getRunPermissionCount() == 3);
    HandlerState::releaseRunPermissionWhileHeld();
    HandlerState::leaveHandlerState(false);
}

/** Whoever is waited for could not go on otherwise. */
TEST(MethodAtWork, IsWaitedForWithoutAnyLevelOfThePermission) {
    const Testing::OverrideRoot root; // nesting is misuse
    const Testing::ProcessResult result = Testing::runScenario("awaitWithNestedPermission", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST(MethodAtWork, IsWaitedForOnceAndNotForEverAtTheEndOfAThread) {
    const User user;
    const TestThread thread([] {
        ThreadEnd::begin();
        const TreflectHandlerState state(true);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(MethodAtWork::awaitOthers(object(0)));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_TRUE(HandlerState::hasRunPermission());
        for (int i = 0; i < 1000; ++i) { // would be more than half an hour
            EXPECT_FALSE(MethodAtWork::awaitOthers(object(0)));
        }
        EXPECT_TRUE(MethodAtWork::awaitOthers(object(1))) << "where there is nobody";
    });
}

/** Who is waited for takes the permission, and never gives it back. */
TEST(MethodAtWork, AThreadAtItsEndDoesNotWaitForThePermissionForEver) {
    Gate in;
    Gate mayTake;
    Gate holds;
    Gate over;
    const TestThread holder([&] {
        const MethodAtWork atWork(&object(0));
        in.open();
        mayTake.pass();
        const TreflectHandlerState state(true);
        holds.open();
        over.pass();
    });
    {
        const TestThread ending([&] {
            ThreadEnd::begin();
            const TreflectHandlerState state(true);
            EXPECT_TRUE(in.pass());
            mayTake.open();
            EXPECT_FALSE(MethodAtWork::awaitOthers(object(0)));
            EXPECT_TRUE(holds.pass());
            EXPECT_FALSE(HandlerState::hasRunPermission());
        });
    }
    over.open();
}

SCENARIO(methodOfAnAbandonedObject) {
    static Gate entered;
    static Gate abandoned;
    static Gate freeAgain;
    new TestThread([] {
        const MethodAtWork outer(&object(0));
        const MethodAtWork inner(&object(1));
        const TreflectHandlerState state(true);
        MethodAtWork::goOn();
        entered.open();
        {
            const TreflectReleaseHandlerState released;
            abandoned.pass();
        }
        freeAgain.open();
        MethodAtWork::goOn();
        Testing::failScenario(__FILE__, __LINE__, "goes on");
    });
    SCENARIO_CHECK(entered.pass());
    {
        const MethodAtWork own(&object(0)); // from where the process is ended
        const TreflectHandlerState state(true);
        MethodAtWork::abandon(object(0));
        MethodAtWork::goOn(); // its static objects still have to go
    }
    abandoned.open();
    SCENARIO_CHECK(freeAgain.pass());
    for (int turn = 0; turn < 3; ++turn) { // it gives the permission up
        const TreflectHandlerState state(true);
        SCENARIO_CHECK(MethodAtWork::isOtherIn(object(0)));
    }
    ::_exit(0);
}

TEST(MethodAtWork, DoesNotGoOnInAnObjectThatIsAbandoned) {
    const Testing::ProcessResult result = Testing::runScenario("methodOfAnAbandonedObject");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

SCENARIO(methodAtWorkInAForkedChild) {
    const auto atFork = std::make_unique<MethodAtWork>(&object(1));
    const User user;
    const pid_t child = ::fork();
    SCENARIO_CHECK(child >= 0);
    if (child == 0) {
        const MethodAtWork own(&object(0));
        const bool alone = !MethodAtWork::isOtherIn(object(0)) && MethodAtWork::awaitOthers(object(0));
        ::_exit(alone ? 0 : 1);
    }
    int status = -1;
    SCENARIO_CHECK(::waitpid(child, &status, 0) == child);
    SCENARIO_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

/** The thread is not there. */
TEST(MethodAtWork, IsOverInAForkedChild) {
    const Testing::ProcessResult result = Testing::runScenario("methodAtWorkInAForkedChild");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
