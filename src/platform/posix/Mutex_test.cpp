#include "platform/Mutex.h"

#include "platform/ConditionVar.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "support/Concurrency.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <csignal>

namespace OSWrap {
namespace {

extern Mutex staticMutex;
extern Mutex heldMutex;
extern CountedMutex staticCountedMutex;

/** Uses what must be usable before main(), whatever the order of static objects. */
struct BeforeMain {
    BeforeMain() RB_NO_ANALYSIS {
        locked = staticMutex.lock() && !Testing::isFree(staticMutex) && staticMutex.unlock();
        held = heldMutex.lock();
        counted = staticCountedMutex.lock() && staticCountedMutex.lock();
        ConditionVar variable;
        waited = variable.lock() && !variable.wait(TimeSpec(0, 1)) && variable.unlock();
        Log::setSink([this](int, const std::string &line, const char *) { logged = line == "before main"; });
        LogDispatch(6, "before main", "test");
        Log::setSink({});
    }
    bool locked = false;
    bool held = false;
    bool counted = false;
    bool waited = false;
    bool logged = false;
};
// Made first of all static objects, so before the locks that it uses would be, were they made at run time.
__attribute__((init_priority(101))) BeforeMain beforeMain;
Mutex staticMutex;
Mutex heldMutex{Mutex::RunPermissionAware{}}; // held for as long as other tests run
CountedMutex staticCountedMutex;

/** Frees the locks before they are destroyed, whichever test this process ran. */
struct AtExit {
    ~AtExit() RB_NO_ANALYSIS {
        if (staticCountedMutex.unlock() && staticCountedMutex.unlock()) { // by the thread that has them
            heldMutex.unlock();
        }
    }
};
const AtExit atExit;

TEST(Mutex, CanBeUsedBeforeMain) RB_NO_ANALYSIS {
    EXPECT_TRUE(beforeMain.locked);
    EXPECT_TRUE(beforeMain.held);
    EXPECT_TRUE(beforeMain.counted);
    EXPECT_TRUE(beforeMain.waited);
    EXPECT_TRUE(beforeMain.logged);
    // Still held: nothing made them anew since.
    EXPECT_FALSE(Testing::isFree(heldMutex));
    EXPECT_EQ(2U, staticCountedMutex.count());
}

TEST(Mutex, ExcludesOtherThreads) {
    Mutex mutex;
    int counter = 0;
    {
        std::vector<std::unique_ptr<Testing::TestThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(std::make_unique<Testing::TestThread>([&] {
                for (int n = 0; n < 2000; ++n) {
                    Lock<Mutex> lock(mutex);
                    ++counter;
                }
            }));
        }
    }
    EXPECT_EQ(8000, counter);
}

TEST(Mutex, TrylockSucceedsExactlyWhenFree) RB_NO_ANALYSIS {
    Mutex mutex;
    ASSERT_TRUE(mutex.trylock());
    bool other = true;
    {
        Testing::TestThread thread([&]() RB_NO_ANALYSIS { other = mutex.trylock(); });
    }
    EXPECT_FALSE(other);
    EXPECT_TRUE(mutex.unlock());
    {
        Testing::TestThread thread([&]() RB_NO_ANALYSIS { other = mutex.trylock() && mutex.unlock(); });
    }
    EXPECT_TRUE(other);
}

#ifndef NDEBUG

SCENARIO(relockByHolder) {
    Mutex mutex;
    const auto lockTwice = [&mutex]() RB_NO_ANALYSIS { return mutex.lock() && mutex.lock(); };
    lockTwice();
}

SCENARIO(unlockByForeigner) {
    static Mutex mutex;
    const auto lockOnly = []() RB_NO_ANALYSIS { mutex.lock(); };
    lockOnly();
    Testing::TestThread thread([]() RB_NO_ANALYSIS { mutex.unlock(); });
}

TEST(Mutex, MisuseAbortsDebugBuilds) {
    EXPECT_EQ(SIGABRT, Testing::runScenario("relockByHolder").signal);
    EXPECT_EQ(SIGABRT, Testing::runScenario("unlockByForeigner").signal);
}

#endif

TEST(CountedMutex, ItsHolderMayTakeItAgain) RB_NO_ANALYSIS {
    CountedMutex mutex;
    EXPECT_EQ(0U, mutex.count());
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(mutex.trylock());
    EXPECT_EQ(2U, mutex.count());
    unsigned seen = 0;
    bool taken = true;
    bool released = true;
    {
        Testing::TestThread thread([&]() RB_NO_ANALYSIS {
            seen = mutex.count();
            taken = mutex.trylock();
            released = mutex.unlock();
        });
    }
    EXPECT_EQ(2U, seen) << "the depth is the same whoever asks";
    EXPECT_FALSE(taken);
    EXPECT_FALSE(released) << "only its holder unlocks";
    EXPECT_TRUE(mutex.unlock());
    EXPECT_EQ(1U, mutex.count());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_EQ(0U, mutex.count());
    EXPECT_FALSE(mutex.unlock());
    {
        Testing::TestThread thread([&]() RB_NO_ANALYSIS { taken = mutex.trylock() && mutex.unlock(); });
    }
    EXPECT_TRUE(taken);
}

} // namespace
} // namespace OSWrap
