#include "threads/DebugPermission_p.h"

#include "platform/IdInfo.h"
#include "platform/Lock.h"
#include "platform/Mutex.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/OverrideRoot.h"
#include "support/Process.h"
#include "support/Scenario.h"
#include "threads/ReleaseHook_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

using Testing::eventually;
using Testing::Gate;
using Testing::TestThread;

namespace {

using Permission = DebugPermission<Debugging_t<1>>;
constexpr char kSource[] = "HandlerThreadPolicies";

unsigned long self() {
    return OSWrap::Thread::getCurrentId();
}

std::string actor() {
    return Transport::IdInfo::instance().getActor();
}

/** Threads that ask one after the other, take the permission in turn and say in which order they got it. */
class Queue {
public:
    explicit Queue(Permission &permission) : permission_(permission) {}

    /** Returns when the new thread stands in the queue. */
    TestThread &add(const std::function<void()> &whileHeld = nullptr) {
        const unsigned before = permission_.waiting();
        const int number = static_cast<int>(threads_.size());
        threads_.push_back(std::make_unique<TestThread>([this, number, whileHeld] {
            permission_.get();
            order_.push_back(number); // the permission guards it
            if (whileHeld) {
                whileHeld();
            }
            permission_.release();
        }));
        EXPECT_TRUE(eventually([&] { return permission_.waiting() == before + 1; }));
        return *threads_.back();
    }
    std::vector<int> order() {
        for (auto &thread : threads_) {
            thread->join();
        }
        return order_;
    }
    TestThread &thread(std::size_t number) { return *threads_.at(number); }
    void cancel(std::size_t number) {
        EXPECT_TRUE(thread(number).stop());
        EXPECT_TRUE(thread(number).join());
        EXPECT_EQ(0, thread(number).result());
    }

private:
    Permission &permission_;
    std::vector<int> order_;
    std::vector<std::unique_ptr<TestThread>> threads_;
};

TEST(DebugPermission, IsHeldByOneThreadAndGivenBack) {
    Testing::LogCapture log;
    Permission permission;
    EXPECT_EQ(0UL, permission.owner());
    EXPECT_EQ(0U, permission.count());
    permission.get();
    EXPECT_EQ(self(), permission.owner());
    EXPECT_EQ(1U, permission.count());
    {
        TestThread other([&] { EXPECT_FALSE(permission.tryGet()); });
    }
    permission.release();
    EXPECT_EQ(0UL, permission.owner());
    EXPECT_EQ(0U, permission.count());
    EXPECT_TRUE(permission.tryGet());
    EXPECT_EQ(self(), permission.owner());
    permission.release();
    EXPECT_TRUE(log.lines().empty());
}

TEST(DebugPermission, OnlyItsOwnerCanReleaseIt) {
    Testing::LogCapture log;
    Permission permission;
    permission.release();
    const auto line = [](int tid) {
        return actor() + LogMakeString("::releaseRunPermission(thread=%d) called without being owner", tid);
    };
    EXPECT_EQ(1U, log.count(3, line(OSWrap::Thread::getCurrentTid()), kSource));
    EXPECT_EQ(0U, permission.count());

    permission.get();
    int tid = 0;
    {
        TestThread other([&] {
            tid = OSWrap::Thread::getCurrentTid();
            permission.release();
        });
    }
    EXPECT_EQ(1U, log.count(3, line(tid), kSource));
    EXPECT_EQ(2U, log.lines().size());
    EXPECT_EQ(self(), permission.owner());
    EXPECT_EQ(1U, permission.count());
    permission.release();
}

TEST(DebugPermission, WaitersGetItInTheOrderOfAsking) {
    Testing::LogCapture log;
    for (int round = 0; round < 5; ++round) {
        Permission permission;
        permission.get();
        Queue queue(permission);
        std::minstd_rand random(static_cast<unsigned>(round) + 1);
        std::vector<int> expected;
        for (int i = 0; i < 10; ++i) {
            const unsigned turns = random() % 50;
            queue.add([turns] {
                for (unsigned turn = 0; turn < turns; ++turn) {
                    std::this_thread::yield();
                }
            });
            expected.push_back(i);
        }
        permission.release();
        EXPECT_EQ(expected, queue.order());
        EXPECT_EQ(0UL, permission.owner());
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(DebugPermission, ALateFastComerDoesNotOvertake) {
    Testing::LogCapture log;
    for (int round = 0; round < 200; ++round) {
        Permission permission;
        permission.get();
        bool waiterHadIt = false; // guarded by the permission
        Queue queue(permission);
        queue.add([&] { waiterHadIt = true; });
        permission.release();
        permission.get(); // at once: the waiter is not even awake
        EXPECT_TRUE(waiterHadIt) << round;
        permission.release();
        EXPECT_EQ(std::vector<int>{0}, queue.order());
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(DebugPermission, CancelledWaitersLeaveTheOrderOfTheOthers) {
    Testing::LogCapture log;
    Permission permission;
    permission.get();
    Queue queue(permission);
    for (int i = 0; i < 7; ++i) {
        queue.add();
    }
    queue.cancel(3); // in the middle
    EXPECT_EQ(6U, permission.waiting());
    queue.cancel(6); // the last
    queue.cancel(0); // the head
    EXPECT_EQ(4U, permission.waiting());
    queue.add(); // asks after all others
    queue.cancel(1);
    EXPECT_EQ(self(), permission.owner());
    EXPECT_EQ(1U, permission.count());
    permission.release();
    EXPECT_EQ((std::vector<int>{2, 4, 5, 7}), queue.order());
    EXPECT_EQ(0UL, permission.owner());
    EXPECT_EQ(0U, permission.count());
    EXPECT_EQ(0U, permission.waiting());
    EXPECT_TRUE(log.lines().empty());
}

TEST(DebugPermission, AllWaitersCancelledLeaveAnEmptyQueue) {
    Permission permission;
    permission.get();
    Queue queue(permission);
    queue.add();
    queue.add();
    queue.cancel(1);
    queue.cancel(0);
    EXPECT_EQ(0U, permission.waiting());
    permission.release();
    EXPECT_TRUE(permission.tryGet());
    permission.release();
}

/** Runs with a clock so slow that the ten seconds after which a waiter looks by itself never pass. */
SCENARIO(permission_cancelled_turns) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    int cancelled = 0;
    for (int round = 0; round < 300 && (round < 6 || std::chrono::steady_clock::now() < limit); ++round) {
        Permission permission;
        permission.get();
        Queue queue(permission);
        for (int i = 0; i < 3; ++i) {
            queue.add();
        }
        if (round % 2 == 0) {
            queue.thread(0).stop(); // and before it has come to leaving the queue:
            permission.release();
        } else {
            Gate go;
            TestThread killer([&] {
                go.pass();
                queue.thread(0).stop();
            });
            go.open();
            permission.release();
        }
        const std::vector<int> order = queue.order();
        const bool gone = queue.thread(0).result() == 0;
        SCENARIO_CHECK(order == (gone ? std::vector<int>{1, 2} : std::vector<int>{0, 1, 2}));
        SCENARIO_CHECK(permission.owner() == 0);
        SCENARIO_CHECK(permission.waiting() == 0);
        cancelled += gone ? 1 : 0;
    }
    SCENARIO_CHECK(cancelled > 0);
}

TEST(DebugPermission, AHeadCancelledTogetherWithItsTurnPassesTheTurnOn) {
    const Testing::ProcessResult result =
        Testing::runScenario("permission_cancelled_turns", {"REFLECTORB_TIME_SCALE=0.001"});
    EXPECT_FALSE(result.timedOut) << "a turn was lost";
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST(DebugPermission, OwnerAndCountCanBeReadByAllThreads) {
    Permission permission;
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    {
        std::vector<std::unique_ptr<TestThread>> readers;
        for (int i = 0; i < 8; ++i) {
            readers.push_back(std::make_unique<TestThread>([&] {
                while (!done) {
                    EXPECT_NE(self(), permission.owner());
                    EXPECT_LE(permission.count(), 1U);
                    EXPECT_EQ(0U, permission.waiting());
                    ++reads;
                    std::this_thread::yield();
                }
            }));
        }
        EXPECT_TRUE(eventually([&] {
            for (int i = 0; i < 100; ++i) {
                permission.get();
                EXPECT_EQ(self(), permission.owner());
                EXPECT_EQ(1U, permission.count());
                permission.release();
            }
            return reads > 1000;
        }));
        done = true;
    }
}

SCENARIO(permission_nested) {
    Testing::LogCapture log;
    Permission permission;
    permission.get();
    permission.get();
    SCENARIO_CHECK(permission.count() == 2);
    SCENARIO_CHECK(permission.owner() == self());
    const std::vector<Testing::LogLine> lines = log.lines();
    const int tid = OSWrap::Thread::getCurrentTid();
    SCENARIO_CHECK(lines.size() > 2);
    SCENARIO_CHECK(lines[0].text == LogMakeString("RunPermission 2 by thread %d ", tid));
    SCENARIO_CHECK(lines[0].level == 4);
    SCENARIO_CHECK(lines[0].source == kSource);
    SCENARIO_CHECK(lines[1].text == "Backtracing Multiple RunPermission");
    SCENARIO_CHECK(lines[1].level == 5);

    Queue queue(permission);
    std::atomic<bool> got{false};
    queue.add([&] { got = true; });
    permission.release();
    SCENARIO_CHECK(permission.count() == 1);
    SCENARIO_CHECK(permission.owner() == self());
    SCENARIO_CHECK(permission.waiting() == 1);
    SCENARIO_CHECK(!got);
    permission.release();
    SCENARIO_CHECK(queue.order() == std::vector<int>{0});
    SCENARIO_CHECK(got);

    // The level that a nested holder gives up before it blocks comes back without a word.
    permission.get();
    permission.get();
    log.clear();
    permission.release();
    permission.restoreLevel();
    SCENARIO_CHECK(permission.count() == 2);
    permission.release();
    permission.release();
    SCENARIO_CHECK(permission.owner() == 0);
    permission.restoreLevel(); // only for its owner
    SCENARIO_CHECK(permission.count() == 0);
    SCENARIO_CHECK(log.lines().empty());
}

TEST(DebugPermission, TakenTwiceItIsReportedAndNeedsTwoReleases) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("permission_nested", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

SCENARIO(permission_nested_aborts) {
    Permission permission;
    permission.get();
    permission.get();
    std::puts("alive");
}

TEST(DebugPermission, TakenTwiceItAbortsTheActor) {
    const Testing::TempDir root;
    const Testing::ProcessResult result =
        Testing::runScenario("permission_nested_aborts", {"REFLECTORB_ROOT=" + root.path(), "REFLECTORB_LOG=stderr"});
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("RunPermission 2 by thread ")) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("Backtracing Multiple RunPermission")) << result.output;
    EXPECT_EQ(std::string::npos, result.output.find("alive")) << result.output;
}

#ifndef NDEBUG
SCENARIO(permission_under_a_plain_lock) {
    Permission permission;
    OSWrap::Mutex mutex;
    OSWrap::Lock<OSWrap::Mutex> lock(mutex);
    permission.get();
    std::puts("alive");
}

TEST(DebugPermission, TakenUnderAPlainLockItAbortsADebugBuild) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("permission_under_a_plain_lock", root.environment());
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("the run permission is taken while a plain lock is held (lock 0x"))
        << result.output;
}
#endif

/** The child of a fork that another thread of the parent may be inside the permission of; never returns. */
[[noreturn]] void useInChild(Permission &permission, bool held) {
    ::alarm(60); // a child that hangs is killed
    bool good = true;
    if (held) {
        good = permission.owner() == self();
        permission.release();
    }
    good = good && !permission.tryGet();
    permission.get(); // does not wait for threads that are not there
    ::_exit(good && permission.owner() != self() ? 0 : 1);
}

SCENARIO(permission_in_forked_child) {
    Permission permission;
    std::atomic<bool> done{false};
    {
        TestThread busy([&] {
            while (!done) {
                static_cast<void>(permission.waiting()); // holds the lock of the queue most of the time
            }
        });
        for (int round = 0; round < 40; ++round) {
            const bool held = round % 2 == 0;
            if (held) {
                permission.get();
            }
            const pid_t child = ::fork();
            if (child == 0) {
                useInChild(permission, held);
            }
            SCENARIO_CHECK(child > 0);
            SCENARIO_CHECK(Testing::awaitEnd(child) == 0);
            if (held) {
                permission.release();
            }
        }
        done = true;
    }
}

TEST(DebugPermission, IsOutOfUseInAForkedChild) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("permission_in_forked_child", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST(DebugPermission, SaysWhatItIs) {
    Testing::LogCapture log;
    Permission::announce();
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1U, log.count(5, "ORB HandlerThreads using DebugPermission", kSource));
}

void ignore(void *) {}

TEST(DebugPermission, KnowsWhetherThreadsWithoutHookWantIt) {
    Permission permission;
    EXPECT_FALSE(permission.hasOtherClaims());
    permission.get();
    EXPECT_TRUE(permission.hasOtherClaims());
    permission.release();
    EXPECT_FALSE(permission.hasOtherClaims());

    ReleaseHook::set(&ignore, nullptr);
    permission.get();
    EXPECT_FALSE(permission.hasOtherClaims());
    {
        TestThread returning([&] {
            ReleaseHook::set(&ignore, nullptr);
            permission.get();
            EXPECT_FALSE(permission.hasOtherClaims());
            permission.release();
        });
        EXPECT_TRUE(eventually([&] { return permission.waiting() == 1; }));
        EXPECT_FALSE(permission.hasOtherClaims());
        permission.release();
    }
    ReleaseHook::set(&ignore, nullptr);
    permission.get();
    {
        TestThread other([&] {
            permission.get();
            EXPECT_TRUE(permission.hasOtherClaims());
            permission.release();
        });
        EXPECT_TRUE(eventually([&] { return permission.waiting() == 1; }));
        EXPECT_TRUE(permission.hasOtherClaims());
        permission.release();
    }
    EXPECT_FALSE(permission.hasOtherClaims());
}

} // namespace
