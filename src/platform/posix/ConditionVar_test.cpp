#include "platform/ConditionVar.h"

#include "platform/Lock.h"
#include "platform/Thread.h"
#include "support/Concurrency.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <linux/filter.h>
#include <linux/futex.h>
#include <linux/seccomp.h>
#include <memory>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace OSWrap {
namespace {

using Locked = Lock<ConditionVar>;

/** Threads that wait once each, and note in which order they were woken. */
class Waiters {
public:
    explicit Waiters(bool flag) : variable(flag) {}

    /** Returns when the new thread waits. */
    void add(int number) {
        unsigned before = 0;
        {
            Locked lock(variable);
            before = waiting;
        }
        threads.push_back(std::make_unique<Testing::TestThread>([this, number] {
            Locked lock(variable);
            ++waiting;
            if (variable.wait(TimeSpec::INFINITETIME)) {
                woken.push_back(number);
            }
        }));
        // Its count goes up under the lock, which the wait gives up: then it is among the waiters.
        ASSERT_TRUE(Testing::eventually([this, before] {
            Locked lock(variable);
            return waiting > before;
        }));
    }
    bool awaitWoken(std::size_t count) {
        return Testing::eventually([this, count] {
            Locked lock(variable);
            return woken.size() == count;
        });
    }

    ConditionVar variable;
    unsigned waiting = 0;
    std::vector<int> woken;
    std::vector<std::unique_ptr<Testing::TestThread>> threads;
};

class ConditionVarTest : public testing::TestWithParam<bool> {};

TEST_P(ConditionVarTest, ATimeOutIsFalseAndNeverEarly) {
    ConditionVar variable(GetParam());
    Locked lock(variable);
    for (const TimeSpec &limit : {TimeSpec(0, 1), TimeSpec(0, 1000), TimeSpec(0, 3000000), TimeSpec(0, 20000000)}) {
        const TimeSpec begin = Clock::getObsTime();
        EXPECT_FALSE(variable.wait(limit));
        EXPECT_GE(Clock::getObsTime() - begin, limit);
    }
}

TEST_P(ConditionVarTest, ALimitOfNothingGivesTheLockUpAndReturnsAtOnce) {
    ConditionVar variable(GetParam());
    Locked lock(variable);
    EXPECT_FALSE(variable.wait(TimeSpec()));
    EXPECT_FALSE(variable.wait(TimeSpec(-5)));
    EXPECT_FALSE(Testing::isFree(variable)) << "taken back";
}

TEST_P(ConditionVarTest, ASignalWithoutWaiterIsForgotten) {
    ConditionVar variable(GetParam());
    variable.signal();
    variable.broadcast();
    Locked lock(variable);
    EXPECT_FALSE(variable.wait(TimeSpec(0, 1000000)));
}

TEST_P(ConditionVarTest, SignalsWakeOneEachInTheOrderOfTheWaits) {
    Waiters waiters(GetParam());
    for (int i = 0; i < 5; ++i) {
        waiters.add(i);
    }
    for (std::size_t i = 1; i <= 5; ++i) {
        waiters.variable.signal(); // without the lock
        ASSERT_TRUE(waiters.awaitWoken(i));
    }
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), waiters.woken);
}

TEST_P(ConditionVarTest, ABroadcastWakesAll) {
    Waiters waiters(GetParam());
    for (int i = 0; i < 8; ++i) {
        waiters.add(i);
    }
    {
        Locked lock(waiters.variable);
        waiters.variable.broadcast();
        EXPECT_TRUE(waiters.woken.empty()) << "they need the lock";
    }
    EXPECT_TRUE(waiters.awaitWoken(8));
}

TEST_P(ConditionVarTest, ACancelledWaiterUnwindsWithTheLockAndPassesItsSignalOn) {
    for (int round = 0; round < 50; ++round) {
        Waiters waiters(GetParam());
        waiters.add(1);
        waiters.add(2);
        {
            // Both happen before the first can do anything about either.
            Locked lock(waiters.variable);
            waiters.variable.signal();
            waiters.threads[0]->stop();
        }
        ASSERT_TRUE(Testing::eventually([&waiters] {
            Locked lock(waiters.variable);
            return !waiters.woken.empty();
        })) << "the signal was lost in round "
            << round;
        waiters.threads[0]->join();
        waiters.variable.broadcast();
        waiters.threads[1]->join();
        EXPECT_TRUE(Testing::isFree(waiters.variable));
    }
}

TEST_P(ConditionVarTest, ACancelledWaiterLeavesTheOthersInOrder) {
    Waiters waiters(GetParam());
    for (int i = 0; i < 4; ++i) {
        waiters.add(i);
    }
    waiters.threads[1]->stop();
    waiters.threads[1]->join();
    waiters.threads[3]->stop();
    waiters.threads[3]->join();
    waiters.variable.signal();
    ASSERT_TRUE(waiters.awaitWoken(1));
    waiters.variable.signal();
    ASSERT_TRUE(waiters.awaitWoken(2));
    EXPECT_EQ((std::vector<int>{0, 2}), waiters.woken);
}

/** Many signals between many waiters: each item that is announced is taken, none waits for ever. */
TEST_P(ConditionVarTest, NoSignalIsEverLost) {
    ConditionVar variable(GetParam());
    unsigned items = 0;
    std::atomic<unsigned> taken{0};
    constexpr unsigned kItems = 6000;
    std::vector<std::unique_ptr<Testing::TestThread>> consumers;
    for (int i = 0; i < 4; ++i) {
        consumers.push_back(std::make_unique<Testing::TestThread>([&] {
            for (;;) {
                Locked lock(variable);
                while (items == 0) {
                    variable.wait(TimeSpec::INFINITETIME);
                }
                --items;
                if (++taken > kItems) {
                    return;
                }
            }
        }));
    }
    for (unsigned i = 0; i < kItems; ++i) {
        Locked lock(variable);
        ++items;
        variable.signal();
    }
    EXPECT_TRUE(Testing::eventually([&] { return taken >= kItems; }));
    {
        Locked lock(variable);
        items += 4; // one more for each, to end them
        variable.broadcast();
    }
}

/** Signals that are sent under two locks: each reaches its waiter with the release of its own. */
TEST(ConditionVarSignal, UnderTheLockGoesOutWhenThatIsReleased) {
    Waiters first(false);
    Waiters second(false);
    first.add(1);
    first.add(2);
    second.add(3);
    second.variable.lock();
    first.variable.lock();
    first.variable.signal();
    second.variable.signal();
    first.variable.signal();
    first.variable.unlock();
    EXPECT_TRUE(first.awaitWoken(2)) << "while the other lock is still held";
    EXPECT_TRUE(second.woken.empty());
    second.variable.unlock();
    EXPECT_TRUE(second.awaitWoken(1));
}

TEST(ConditionVarSignal, UnderTheLockAlsoGoesOutWithAWait) {
    Waiters waiters(false);
    waiters.add(1);
    Locked lock(waiters.variable);
    waiters.variable.signal();
    for (int i = 0; i < 10000 && waiters.woken.empty(); ++i) {
        waiters.variable.wait(TimeSpec(0, 1000000)); // gives the lock up
    }
    EXPECT_EQ(1U, waiters.woken.size());
}

/** One round: the signaller keeps the lock until the waiter's time is over. */
struct LateSignal {
    /** False: it did not get to signal in time. */
    bool run() {
        static constexpr TimeSpec kLimit(0, 200000000);
        bool inTime = false;
        Testing::TestThread waiter([this] {
            Locked lock(variable);
            end = Clock::getObsTime() + kLimit;
            woken = variable.wait(kLimit);
        });
        EXPECT_TRUE(Testing::eventually([this] {
            Locked lock(variable);
            return end != TimeSpec();
        }));
        Locked lock(variable);
        variable.signal();
        inTime = Clock::getObsTime() < end;
        EXPECT_TRUE(Testing::eventually([this] { return Clock::getObsTime() > end; }));
        return inTime;
    }

    ConditionVar variable;
    TimeSpec end;
    bool woken = false;
};

TEST(ConditionVarSignal, ThatCameBeforeTheEndOfTheTimeIsNotLost) {
    for (int i = 0; i < 50; ++i) { // again where the machine was too slow
        LateSignal round;
        if (round.run()) {
            EXPECT_TRUE(round.woken);
            return;
        }
    }
    FAIL() << "never in time";
}

/** As a lock that gives something up while it blocks would be. */
class CountingVariable : public ConditionVar {
public:
    bool lock() override RB_NO_ANALYSIS {
        ++locked;
        return ConditionVar::lock();
    }
    bool unlock() override RB_NO_ANALYSIS {
        ++unlocked;
        return ConditionVar::unlock();
    }
    int locked = 0;
    int unlocked = 0;
};

TEST(ConditionVarOverride, ALockReachesWhatADerivedClassOverrides) {
    CountingVariable variable;
    ConditionVar &base = variable;
    {
        Locked lock(base);
        EXPECT_EQ(1, variable.locked);
        EXPECT_EQ(0, variable.unlocked);
        base.wait(TimeSpec(0, 1));
    }
    EXPECT_EQ(1, variable.locked) << "the wait uses the lock below";
    EXPECT_EQ(1, variable.unlocked);
}

INSTANTIATE_TEST_SUITE_P(BothFlags, ConditionVarTest, testing::Bool());

SCENARIO(thirtySecondWait) {
    ConditionVar variable;
    Locked lock(variable);
    const TimeSpec begin = Clock::getObsTime();
    const bool woken = variable.wait(TimeSpec(30));
    const TimeSpec took = Clock::getObsTime() - begin;
    std::exit(!woken && took >= TimeSpec(30) ? 3 : 1);
}

TEST(ConditionVarScaled, LongWaitsFollowTheTimeScale) {
    EXPECT_EQ(3, Testing::runScenario("thirtySecondWait", {"REFLECTORB_TIME_SCALE=1000"}, 20).exitStatus);
}

#if defined(__x86_64__)

/** From now on the kernel ends this process should it wait for a point of the wall clock. */
bool forbidWallClockWaits() {
    constexpr auto kNumber = offsetof(seccomp_data, nr);
    constexpr auto kFirst = offsetof(seccomp_data, args[0]);
    constexpr auto kSecond = offsetof(seccomp_data, args[1]);
    constexpr auto kFourth = offsetof(seccomp_data, args[3]);
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNumber),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 0, 6),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kSecond), // the operation
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, FUTEX_CLOCK_REALTIME, 0, 9),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFourth), // the address of the time; null waits without limit
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 8),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFourth + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 5, 6),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clock_nanosleep, 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFirst), // the clock
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, CLOCK_REALTIME, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kSecond), // the flags
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, TIMER_ABSTIME, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    const sock_fprog program{sizeof filter / sizeof *filter, filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

SCENARIO(waitsWithoutWallClock) {
    SCENARIO_CHECK(forbidWallClockWaits());
    ConditionVar variable;
    {
        Locked lock(variable);
        SCENARIO_CHECK(!variable.wait(TimeSpec(0, 1000000)));
        Testing::TestThread thread([&variable] {
            Locked inner(variable);
            variable.broadcast();
        });
        while (!variable.wait(TimeSpec(60))) {
        }
    }
    Thread::sleep(TimeSpec(0, 1000000));
    std::exit(3);
}

SCENARIO(waitByWallClock) {
    SCENARIO_CHECK(forbidWallClockWaits());
    timespec soon{};
    ::clock_gettime(CLOCK_REALTIME, &soon);
    ++soon.tv_sec;
    ::clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &soon, nullptr);
}

SCENARIO(conditionByWallClock) {
    SCENARIO_CHECK(forbidWallClockWaits());
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    timespec soon{};
    ::clock_gettime(CLOCK_REALTIME, &soon);
    ++soon.tv_sec;
    pthread_mutex_lock(&mutex);
    pthread_cond_timedwait(&condition, &mutex, &soon);
    pthread_mutex_unlock(&mutex);
}

/** Then a change of the wall clock cannot touch them. */
TEST(ConditionVarClock, NoWaitOrSleepGoesByTheWallClock) {
    const Testing::ProcessResult result = Testing::runScenario("waitsWithoutWallClock");
    EXPECT_EQ(3, result.exitStatus) << result.signal << result.output;
    EXPECT_EQ(SIGSYS, Testing::runScenario("waitByWallClock").signal) << "it would be noticed";
    EXPECT_EQ(SIGSYS, Testing::runScenario("conditionByWallClock").signal) << "it would be noticed";
}

#endif

} // namespace
} // namespace OSWrap
