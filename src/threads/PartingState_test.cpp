#include "threads/PartingState_p.h"

#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>

using Testing::Gate;
using Testing::TestThread;

namespace {

TEST(PartingState, IsTheRunPermissionForAThreadThatGoesOn) {
    ASSERT_FALSE(HandlerState::isHandlerThread());
    {
        const PartingState state;
        EXPECT_TRUE(state.hasPermission());
        EXPECT_TRUE(HandlerState::hasRunPermission());
        const PartingState inner;
        EXPECT_TRUE(inner.hasPermission());
    }
    EXPECT_FALSE(HandlerState::isHandlerThread());
    EXPECT_FALSE(ThreadEnd::begun());
}

TEST(PartingState, AtTheEndItTakesAPermissionThatIsFree) {
    const TestThread thread([] {
        ThreadEnd::begin();
        {
            const PartingState state;
            EXPECT_TRUE(state.hasPermission());
            EXPECT_TRUE(HandlerState::hasRunPermission());
            const PartingState inner;
            EXPECT_TRUE(inner.hasPermission());
        }
        EXPECT_FALSE(HandlerState::isHandlerThread());
        EXPECT_FALSE(HandlerState::hasRunPermission());
        const TreflectHandlerState handler(true);
        const PartingState state;
        EXPECT_EQ(1U, HandlerState::getRunPermissionCount());
    });
}

/** Lets it go some time after `opened`. */
class Holder {
public:
    Holder() : thread_([this] { hold(); }) { EXPECT_TRUE(holds_.pass()); }
    ~Holder() { letGo(); }
    void letGo() { done_.open(); }

private:
    void hold() {
        const TreflectHandlerState state(true);
        holds_.open();
        done_.pass();
    }

    Gate holds_;
    Gate done_;
    TestThread thread_;
};

TEST(PartingState, AtTheEndItWaitsOnceAndNotForEver) {
    const Holder holder;
    const TestThread thread([] {
        ThreadEnd::begin();
        const auto start = std::chrono::steady_clock::now();
        {
            const PartingState state;
            EXPECT_FALSE(state.hasPermission());
            EXPECT_FALSE(HandlerState::hasRunPermission());
        }
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_FALSE(HandlerState::isHandlerThread());
        for (int i = 0; i < 1000; ++i) { // would be more than half an hour
            const PartingState state;
            EXPECT_FALSE(state.hasPermission());
        }
    });
}

/** Also if it has had the permission in between: it would take longer than the test may. */
TEST(PartingState, AtTheEndItWaitsOnceInAll) {
    const TestThread thread([] {
        ThreadEnd::begin();
        for (int round = 0; round < 200; ++round) {
            {
                const Holder holder;
                const PartingState state;
                EXPECT_FALSE(state.hasPermission());
            }
            const PartingState state;
            EXPECT_TRUE(state.hasPermission());
        }
    });
}

/** There is always somebody who waits, so that it is never free. */
TEST(PartingState, AtTheEndItHasItsTurnAmongOthers) {
    Holder holder;
    std::atomic<bool> enough{false};
    const auto takeTurns = [&enough] {
        while (!enough) {
            const TreflectHandlerState state(true);
        }
    };
    bool has = false;
    {
        const TestThread one(takeTurns);
        const TestThread two(takeTurns);
        EXPECT_TRUE(Testing::eventually([] { return handlerThreads()->waitingForPermission() == 2; }));
        {
            const TestThread thread([&] {
                ThreadEnd::begin();
                const PartingState state;
                has = state.hasPermission();
            });
            EXPECT_TRUE(Testing::eventually([] { return handlerThreads()->waitingForPermission() == 3; }));
            holder.letGo();
        }
        enough = true;
    }
    EXPECT_TRUE(has);
}

/** Asks when its thread ends. */
struct Asking {
    bool *answer = nullptr;
    ~Asking() {
        if (answer != nullptr) {
            *answer = ThreadEnd::begun();
        }
    }
};
thread_local Asking outer;

TEST(PartingState, AThreadThatIsWatchedIsSeenToEnd) {
    bool watched = false;
    bool withoutMemory = true;
    bool unwatched = true;
    {
        const TestThread first([&] {
            outer.answer = &watched;
            ThreadEnd::watch();
            EXPECT_FALSE(ThreadEnd::begun());
        });
        const TestThread second([&] {
            outer.answer = &withoutMemory;
            const Testing::FailingHeap heap;
            ThreadEnd::watch();
        });
        const TestThread third([&] { outer.answer = &unwatched; });
    }
    EXPECT_TRUE(watched);
    EXPECT_FALSE(withoutMemory);
    EXPECT_FALSE(unwatched);
}

/** Destroyed before the remover of the brokers, or anything else that is registered at its first use. */
struct Late {
    ~Late() { std::puts(ThreadEnd::begun() ? "noticed" : "missed"); }
};

SCENARIO(exitOfTheFirstHandler) {
    static const Late before;
    { const TreflectHandlerState state(true); }
    static const Late after;
}

TEST(PartingState, TheFirstHandlerOfTheProcessIsWatched) {
    const Testing::ProcessResult result = Testing::runScenario("exitOfTheFirstHandler");
    EXPECT_EQ("noticed\nnoticed\n", result.output.substr(result.output.find("noticed")));
}

TEST(PartingState, HandlersAreCountedUntilTheirThreadsEnd) {
    const unsigned before = handlerThreads()->others();
    Gate been;
    Gate done;
    {
        const TestThread thread([&] {
            { const TreflectHandlerState state(false); }
            { const TreflectHandlerState state(true); }
            been.open();
            done.pass();
        });
        EXPECT_TRUE(been.pass());
        EXPECT_EQ(before + 1, handlerThreads()->others());
        { const TreflectHandlerState state(true); }
        EXPECT_EQ(before + 1, handlerThreads()->others()) << "without the one that asks";
        done.open();
    }
    EXPECT_EQ(before, handlerThreads()->others());
}

} // namespace
