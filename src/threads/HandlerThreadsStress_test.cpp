// Many threads at once. Every test ends after a fixed number of rounds or after a few seconds, whichever comes first.
#include "platform/Lock.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "threads/BrokerLocks.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

using namespace HandlerState;
using OSWrap::TimeSpec;
using Testing::eventually;
using Testing::Gate;
using Testing::TestThread;
using Threads = std::vector<std::unique_ptr<TestThread>>;

namespace {

/** The time for one test; a few rounds are always made. */
class Budget {
public:
    bool left() const { return std::chrono::steady_clock::now() < end_; }

private:
    const std::chrono::steady_clock::time_point end_ = std::chrono::steady_clock::now() + std::chrono::seconds(3);
};

/** Sees whether ever more than one thread is inside the permission. */
class Inside {
public:
    void enter() {
        unsafe_ = unsafe_ + 1;
        wrong_ += ++threads_ != 1 || getRunPermissionCount() != 1 || !hasRunPermission() ? 1U : 0U;
        ++entries_;
    }
    void leave() { --threads_; }
    unsigned entries() const { return entries_; }
    unsigned wrong() const { return wrong_; }
    /** Counted without any protection but the permission. */
    unsigned unsafeEntries() const { return unsafe_; }

private:
    std::atomic<unsigned> threads_{0};
    std::atomic<unsigned> entries_{0};
    std::atomic<unsigned> wrong_{0};
    unsigned unsafe_ = 0;
};

void expectAllQuiet() {
    EXPECT_EQ(0U, handlerThreads()->size());
    EXPECT_EQ(0U, handlerThreads()->waitingForPermission());
    EXPECT_EQ(0UL, getRunPermissionOwner());
    EXPECT_EQ(0U, getRunPermissionCount());
}

/** One storm thread: guards, waits with and without time limits, contended locks; may be cancelled at any time. */
class StormThread {
public:
    StormThread(unsigned seed, Inside &inside, TreflectConditionVar &variable, TreflectMutex &mutex,
                std::atomic<bool> &done)
        : random_(seed), inside_(inside), variable_(variable), mutex_(mutex), done_(done), thread_([this] { run(); }) {}
    TestThread &thread() { return thread_; }

private:
    void run() {
        while (!done_) {
            TreflectHandlerState state(true);
            visit();
            switch (random_() % 6) {
            case 0: {
                TreflectReleaseHandlerState released;
                OSWrap::Thread::sleep(TimeSpec(0, 1000)); // may be the end
                break;
            }
            case 1: {
                OSWrap::Lock<OSWrap::ConditionVar> lock(variable_);
                variable_.wait(TimeSpec(0, static_cast<std::int64_t>(random_() % 200000))); // may be the end
                break;
            }
            case 2: {
                OSWrap::Lock<OSWrap::ConditionVar> lock(variable_);
                variable_.broadcast();
                break;
            }
            case 3: {
                OSWrap::Lock<TreflectMutex> lock(mutex_);
                break;
            }
            case 4: {
                TreflectReleaseHandlerState released;
                getRunPermission(); // may be the end, if it has to wait
                break;
            }
            default:
                TreflectHandlerState nested(true);
            }
            visit();
        }
    }
    void visit() {
        inside_.enter();
        inside_.leave();
    }

    std::minstd_rand random_;
    Inside &inside_;
    TreflectConditionVar &variable_;
    TreflectMutex &mutex_;
    std::atomic<bool> &done_;
    TestThread thread_;
};

TEST(HandlerThreadsStress, OnlyOneThreadIsInsideThePermission) {
    handlerThreads();
    Testing::LogCapture log;
    Inside inside;
    TreflectConditionVar variable(false);
    TreflectMutex mutex;
    std::atomic<bool> done{false};
    unsigned cancelled = 0;
    {
        std::vector<std::unique_ptr<StormThread>> threads(16);
        unsigned seed = 0;
        for (auto &thread : threads) {
            thread = std::make_unique<StormThread>(++seed, inside, variable, mutex, done);
        }
        const Budget budget;
        while (cancelled < 400 && (cancelled < 32 || budget.left())) {
            auto &victim = threads[cancelled % threads.size()];
            const unsigned before = inside.entries();
            ASSERT_TRUE(eventually([&] { return inside.entries() > before + 20; }));
            EXPECT_TRUE(victim->thread().stop());
            EXPECT_TRUE(victim->thread().join());
            EXPECT_EQ(0, victim->thread().result());
            victim = std::make_unique<StormThread>(++seed, inside, variable, mutex, done);
            ++cancelled;
        }
        done = true;
        for (auto &thread : threads) {
            thread->thread().join();
        }
    }
    EXPECT_EQ(0U, inside.wrong());
    EXPECT_EQ(inside.entries(), inside.unsafeEntries());
    expectAllQuiet();
    EXPECT_TRUE(Testing::isFree(variable));
    EXPECT_TRUE(Testing::isFree(mutex));
    EXPECT_TRUE(log.lines().empty());
    RecordProperty("entries", static_cast<int>(inside.entries()));
    RecordProperty("cancelled", static_cast<int>(cancelled));
}

TEST(HandlerThreadsStress, AHandOffWakesHardlyMoreThanOneThread) {
    constexpr unsigned kThreads = 32;
    handlerThreads();
    std::atomic<unsigned> handOffs{0};
    unsigned long woken = 0;
    {
        Threads threads;
        {
            TreflectHandlerState state(true);
            woken = handlerThreads()->wakeUps();
            for (unsigned i = 0; i < kThreads; ++i) {
                threads.push_back(std::make_unique<TestThread>([&] {
                    const Budget budget;
                    for (int round = 0; round < 200 && (round < 5 || budget.left()); ++round) {
                        TreflectHandlerState guard(true);
                        ++handOffs;
                    }
                }));
            }
            ASSERT_TRUE(eventually([] { return handlerThreads()->waitingForPermission() == kThreads; }));
        }
    }
    woken = handlerThreads()->wakeUps() - woken;
    EXPECT_GE(handOffs, kThreads * 5);
    EXPECT_GE(woken, kThreads);
    EXPECT_LE(static_cast<double>(woken), 1.2 * handOffs);
    expectAllQuiet();
}

/** Lets the other thread take the other one of the two. */
void betweenTheTwo(int round) {
    if (round % 4 == 0) {
        std::this_thread::yield();
    }
}

/** One thread takes the lock first, the other one the permission. */
template <class L, class Locked>
void cross(L &lock) {
    constexpr int kRounds = 50000; // for each thread
    handlerThreads();
    Inside inside;
    int underLock = 0; // guarded by the lock
    int rounds[2] = {};
    Gate go;
    const unsigned long wakeUps = handlerThreads()->wakeUps();
    {
        TestThread lockFirst([&] {
            go.pass();
            const Budget budget;
            for (int &round = rounds[0]; round < kRounds && (round < 100 || budget.left()); ++round) {
                Locked locked(lock);
                ++underLock;
                betweenTheTwo(round);
                TreflectHandlerState state(true);
                inside.enter();
                inside.leave();
            }
        });
        TestThread permissionFirst([&] {
            go.pass();
            const Budget budget;
            for (int &round = rounds[1]; round < kRounds && (round < 100 || budget.left()); ++round) {
                TreflectHandlerState state(true);
                betweenTheTwo(round);
                Locked locked(lock);
                ++underLock;
                inside.enter();
                inside.leave();
            }
        });
        go.open();
    }
    EXPECT_GT(handlerThreads()->wakeUps(), wakeUps); // they did get in each other's way
    EXPECT_GE(rounds[0], 100);
    EXPECT_GE(rounds[1], 100);
    EXPECT_EQ(rounds[0] + rounds[1], underLock);
    EXPECT_EQ(0U, inside.wrong());
    expectAllQuiet();
}

TEST(HandlerThreadsStress, AMutexAndThePermissionInOppositeOrders) {
    TreflectMutex mutex;
    cross<TreflectMutex, OSWrap::Lock<TreflectMutex>>(mutex);
}

TEST(HandlerThreadsStress, ACountedMutexAndThePermissionInOppositeOrders) {
    TreflectCountedMutex mutex;
    cross<TreflectCountedMutex, OSWrap::Lock<TreflectCountedMutex>>(mutex);
}

TEST(HandlerThreadsStress, AConditionAndThePermissionInOppositeOrders) {
    TreflectConditionVar variable(false);
    cross<TreflectConditionVar, OSWrap::Lock<TreflectConditionVar>>(variable);
}

TEST(HandlerThreadsStress, AConditionByItsBaseAndThePermissionInOppositeOrders) {
    TreflectConditionVar variable(false);
    cross<OSWrap::ConditionVar, OSWrap::Lock<OSWrap::ConditionVar>>(variable);
}

} // namespace
