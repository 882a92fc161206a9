#include "platform/Cancellation.h"

#include "platform/ConditionVar.h"
#include "platform/Environment_p.h"
#include "platform/IdInfo.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/UniqueIdGen.h"
#include "platform/UnitFigures.h"
#include "support/Concurrency.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <pthread.h>
#include <type_traits>
#include <vector>

namespace OSWrap {
namespace {

static_assert(!std::is_copy_constructible_v<DisableCancelStateGuard> &&
                  !std::is_copy_assignable_v<DisableCancelStateGuard>,
              "one scope each");
static_assert(!std::is_copy_constructible_v<DeferredCancelTypeGuard> &&
                  !std::is_copy_assignable_v<DeferredCancelTypeGuard>,
              "one scope each");

struct Operation {
    const char *name;
    std::function<void()> run;
};

/** Runs it in a thread whose cancellation was requested before; whether that ended the thread in the operation. */
bool cancelledIn(
    const std::function<void()> &operation, const std::function<void()> &afterRequest = [] {}) {
    Testing::Gate requested;
    std::atomic<bool> passed{false};
    {
        Testing::TestThread thread([&] {
            requested.pass();
            operation();
            passed = true;
        });
        thread.stop();
        requested.open();
        afterRequest();
    }
    return !passed;
}

TEST(Cancellation, ActsInEveryFormOfWaitAndLeavesTheLockFree) {
    for (const TimeSpec &limit : {TimeSpec::INFINITETIME, TimeSpec(3600), TimeSpec(), TimeSpec(-1)}) {
        ConditionVar variable;
        EXPECT_TRUE(cancelledIn([&] {
            Lock<ConditionVar> lock(variable);
            variable.wait(limit);
        })) << limit.sec();
        EXPECT_TRUE(Testing::isFree(variable)) << limit.sec();
    }
}

TEST(Cancellation, ActsInASleep) {
    EXPECT_TRUE(cancelledIn([] { Thread::sleep(TimeSpec::INFINITETIME); }));
    EXPECT_TRUE(cancelledIn([] { Thread::sleep(TimeSpec(3600)); }));
    EXPECT_TRUE(cancelledIn([] { Thread::sleep(TimeSpec(0, 1)); }));
}

TEST(Cancellation, ActsOnAThreadThatIsInItsWaitOrSleep) {
    for (const bool sleeps : {false, true}) {
        ConditionVar variable;
        bool waits = false;
        std::atomic<bool> passed{false};
        Testing::TestThread thread([&] {
            {
                Lock<ConditionVar> lock(variable);
                waits = true;
                while (!sleeps) {
                    variable.wait(TimeSpec(3600));
                }
            }
            Thread::sleep(TimeSpec(3600));
            passed = true;
        });
        ASSERT_TRUE(Testing::eventually([&] {
            Lock<ConditionVar> lock(variable);
            return waits;
        }));
        EXPECT_TRUE(thread.stop());
        EXPECT_TRUE(thread.join());
        EXPECT_FALSE(passed);
        EXPECT_TRUE(Testing::isFree(variable));
    }
}

TEST(Cancellation, ActsNowhereElse) {
    ConditionVar variable;
    Mutex mutex;
    CountedMutex counted;
    const Operation operations[] = {
        {"a line of the log", [] { LogDispatch(3, LogMakeString("%s", "a line"), "test"); }},
        {"a change of the log", [] { Log::setSink(Log::setSink({})); }},
        {"the end of the log", [] { Log::flushBeforeAbort(); }},
        {"the descriptor of the log", [] { Log::rawDescriptor(); }},
        {"the environment", [] { static_cast<void>(Platform::environment()); }},
        {"the name of the actor", [] { static_cast<void>(Transport::IdInfo::getActor()); }},
        {"an id", [] { UniqueIdGen::instance()->getId(); }},
        {"the size of the actor", [] { static_cast<void>(oscwGetActorSize()); }},
        {"the free memory", [] { static_cast<void>(oscwGetUnitFreeMem()); }},
        {"the clock", [] { static_cast<void>(Clock::getObsTime()); }},
        {"no sleep", [] { Thread::sleep(TimeSpec()); }},
        {"a lock", [&] { Lock<Mutex> lock(mutex); }},
        {"a counted lock", [&] { Lock<CountedMutex> lock(counted); }},
        {"a try", [&] { static_cast<void>(Testing::isFree(mutex)); }},
        {"the lock of a condition", [&] { Lock<ConditionVar> lock(variable); }},
        {"a signal", [&] { variable.signal(); }},
        {"a broadcast", [&] { variable.broadcast(); }},
        {"a thread", [] { Testing::TestThread thread([] {}); }},
    };
    for (const Operation &operation : operations) {
        EXPECT_FALSE(cancelledIn(operation.run)) << operation.name;
    }
    EXPECT_TRUE(Testing::isFree(mutex));
    EXPECT_TRUE(Testing::isFree(counted));
    EXPECT_TRUE(Testing::isFree(variable));
}

/** The lock is held by another thread until the one with the request is about to take it. */
template <class L>
bool cancelledInLock(L &lock) RB_NO_ANALYSIS {
    std::atomic<bool> begun{false};
    lock.lock();
    const bool cancelled = cancelledIn(
        [&]() RB_NO_ANALYSIS {
            begun = true;
            lock.lock();
            lock.unlock();
        },
        [&]() RB_NO_ANALYSIS {
            EXPECT_TRUE(Testing::eventually([&begun] { return begun.load(); }));
            lock.unlock();
        });
    return cancelled || !Testing::isFree(lock);
}

TEST(Cancellation, ActsNotOnAThreadThatWaitsForALock) {
    Mutex mutex;
    EXPECT_FALSE(cancelledInLock(mutex));
    CountedMutex counted;
    EXPECT_FALSE(cancelledInLock(counted));
    ConditionVar variable;
    EXPECT_FALSE(cancelledInLock(variable));
}

TEST(Cancellation, ActsNotOnAThreadThatJoins) {
    Testing::Gate finish;
    std::atomic<bool> begun{false};
    bool joined = false;
    EXPECT_FALSE(cancelledIn(
        [&] {
            Testing::TestThread other([&finish] { finish.pass(); });
            begun = true;
            joined = other.join();
        },
        [&] {
            EXPECT_TRUE(Testing::eventually([&begun] { return begun.load(); }));
            finish.open();
        }));
    EXPECT_TRUE(joined);
}

TEST(Cancellation, GuardsNestAndTheRequestActsAfterTheOuterOne) {
    std::atomic<int> reached{0};
    Testing::Gate stopped;
    Testing::TestThread thread([&] {
        {
            DisableCancelStateGuard outer;
            { DisableCancelStateGuard inner; }
            stopped.pass();
            Thread::sleep(TimeSpec(0, 1000));
            reached = 1;
        }
        reached = 2; // leaving the guard is no cancellation point
        Thread::sleep(TimeSpec(0, 1));
        reached = 3;
    });
    EXPECT_TRUE(thread.stop());
    stopped.open();
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(2, reached);
}

TEST(Cancellation, TheTypeGuardRestoresWhatWasBefore) {
    int type = 0;
    {
        Testing::TestThread thread([&] {
            int ignored = 0;
            pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &ignored);
            int within = -1;
            {
                DeferredCancelTypeGuard guard;
                pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &within);
            }
            int after = -1;
            pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &after);
            type = within == PTHREAD_CANCEL_DEFERRED && after == PTHREAD_CANCEL_ASYNCHRONOUS ? 1 : 2;
        });
    }
    EXPECT_EQ(1, type);
}

void note(void *list) {
    static_cast<std::vector<int> *>(list)->push_back(2);
}

TEST(Cancellation, CleanUpHandlersRunBetweenInnerAndOuterDestructors) {
    std::vector<int> order;
    struct Note {
        std::vector<int> &list;
        int number;
        ~Note() { list.push_back(number); }
    };
    Testing::TestThread thread([&order] {
        const Note outer{order, 3};
        pthread_cleanup_push(&note, &order);
        {
            const Note inner{order, 1};
            Thread::sleep(TimeSpec::INFINITETIME);
        }
        pthread_cleanup_pop(0);
    });
    thread.stop();
    EXPECT_TRUE(thread.join());
    EXPECT_EQ((std::vector<int>{1, 2, 3}), order);
}

} // namespace
} // namespace OSWrap
