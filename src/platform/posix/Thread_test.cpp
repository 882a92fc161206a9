#include "platform/Thread.h"

#include "platform/Cancellation.h"
#include "platform/ConditionVar.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <execinfo.h>
#include <fstream>
#include <functional>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace OSWrap {
namespace {

constexpr unsigned kSystemStack = ~0U;

class Body : public Thread {
public:
    explicit Body(std::function<int()> body, unsigned stack = kSystemStack, bool detached = false,
                  const char *name = "body", int policy = 0)
        : Thread(Priority(3), SchedulingPolicy(policy), stack, name, detached), body_(std::move(body)) {}
    ~Body() override {
        if (destroyed != nullptr) {
            ++*destroyed;
        }
    }
    std::atomic<int> *destroyed = nullptr;

protected:
    int run() override { return body_(); }

private:
    const std::function<int()> body_;
};

std::string nameOf(int tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

TEST(Thread, RunsOnceAndKeepsItsResult) {
    Body thread([] { return 42; });
    EXPECT_EQ(0, thread.result());
    EXPECT_FALSE(thread.join()) << "not started";
    EXPECT_TRUE(thread.start());
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_FALSE(thread.join()) << "a second time";
    EXPECT_EQ(42, thread.result());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.stop());
}

TEST(Thread, StoppedBeforeItsStartDoesNotStart) {
    Body thread([] { return 1; });
    EXPECT_FALSE(thread.stop());
    EXPECT_FALSE(thread.start());
}

TEST(Thread, HasItsNameCutToFifteenCharacters) {
    Testing::Gate seen;
    std::atomic<int> tid{0};
    Body thread(
        [&] {
            tid = Thread::getCurrentTid();
            seen.pass();
            return 0;
        },
        kSystemStack, false, "a-name-that-is-too-long");
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(Testing::eventually([&] { return tid != 0; }));
    EXPECT_EQ("a-name-that-is-", nameOf(tid));
    seen.open();
    thread.join();
}

__attribute__((noinline)) int deep(int level) {
    volatile char frame[100];
    frame[0] = static_cast<char>(level);
    const int below = level > 0 ? deep(level - 1) : [] {
        void *frames[40];
        LogDispatch(5, LogMakeString("%d frames", ::backtrace(frames, 40)), "test");
        return 0;
    }();
    return below + (frame[0] == static_cast<char>(level) ? 1 : 0);
}

TEST(Thread, SmallAndStandardStacksRunADeepCallWithALogLineAndABacktrace) {
    const Testing::LogCapture log;
    for (unsigned stack : {65536U, kSystemStack, 0U}) {
        Body thread([] { return deep(20); }, stack);
        ASSERT_TRUE(thread.start());
        EXPECT_TRUE(thread.join());
        EXPECT_EQ(21, thread.result());
    }
    EXPECT_EQ(3U, log.with(" frames").size());
}

TEST(Thread, PrioritiesThatAreNotPermittedFallBackToTimeSharing) {
    const Testing::LogCapture log;
    Body timeSharing([] { return 1; });
    ASSERT_TRUE(timeSharing.start());
    EXPECT_TRUE(timeSharing.join());
    EXPECT_EQ(0U, log.lines().size());
    class Impossible : public Thread {
    public:
        // 200 is no priority of any policy, whoever asks.
        Impossible() : Thread(Priority(200), SchedulingPolicy(1), kSystemStack, "fifo", false) {}

    protected:
        int run() override { return 2; }
    } impossible;
    ASSERT_TRUE(impossible.start());
    EXPECT_TRUE(impossible.join());
    EXPECT_EQ(2, impossible.result());
    EXPECT_EQ(1U, log.count(5, "Thread fifo runs with time sharing, policy 1 priority 200 not permitted", "OSWrap"));
}

TEST(Thread, JoinOnOneselfFailsAtOnce) {
    Body *self = nullptr;
    Testing::Gate tried;
    Body thread([&self, &tried] {
        const int result = self->join() ? 1 : 2;
        tried.open();
        return result;
    });
    self = &thread;
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(tried.pass());
    EXPECT_TRUE(thread.join()) << "the attempt was none";
    EXPECT_EQ(2, thread.result());
}

TEST(Thread, ADetachedOneCannotBeJoined) {
    Testing::Gate gate;
    std::atomic<bool> done{false};
    auto *thread = new Body(
        [&] {
            gate.pass();
            done = true;
            return 0;
        },
        kSystemStack, true);
    std::atomic<int> destroyed{0};
    thread->destroyed = &destroyed;
    thread->deleteOnThreadTermination();
    ASSERT_TRUE(thread->start());
    EXPECT_FALSE(thread->join()); // it cannot have gone, the gate is closed
    gate.open();
    EXPECT_TRUE(Testing::eventually([&] { return destroyed == 1; }));
    EXPECT_TRUE(done);
}

TEST(Thread, StopEndsAThreadThatWaitsWithoutLimit) {
    ConditionVar variable;
    std::atomic<int> unwound{0};
    struct Note {
        std::atomic<int> &count;
        ~Note() { ++count; }
    };
    Body waiting([&] {
        const Note note{unwound};
        Lock<ConditionVar> lock(variable);
        while (true) {
            variable.wait(TimeSpec::INFINITETIME);
        }
        return 1;
    });
    Body sleeping([&] {
        const Note note{unwound};
        Thread::sleep(TimeSpec::INFINITETIME);
        return 1;
    });
    for (Body *thread : {&waiting, &sleeping}) {
        ASSERT_TRUE(thread->start());
        EXPECT_TRUE(thread->stop());
        EXPECT_TRUE(thread->join());
        EXPECT_EQ(0, thread->result());
        EXPECT_FALSE(thread->stop());
    }
    EXPECT_EQ(2, unwound);
    EXPECT_TRUE(Testing::isFree(variable));
}

TEST(Thread, OnlyWaitAndSleepAreCancellationPoints) {
    std::atomic<int> reached{0};
    Testing::Gate stopped;
    Body thread([&] {
        stopped.pass();
        // The request is there. None of these may act on it.
        LogDispatch(6, LogMakeString("%s", "a line"), "test");
        Mutex mutex;
        { Lock<Mutex> lock(mutex); }
        Body inner([] { return 0; });
        inner.start();
        inner.join();
        Thread::sleep(TimeSpec());
        ConditionVar variable;
        {
            Lock<ConditionVar> lock(variable);
            variable.broadcast();
        }
        reached = 1;
        Thread::sleep(TimeSpec(0, 1));
        reached = 2;
        return 0;
    });
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.stop());
    stopped.open();
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(1, reached);
}

TEST(Thread, AWaitWithoutTimeIsACancellationPointToo) {
    ConditionVar variable;
    std::atomic<bool> passed{false};
    Testing::Gate stopped;
    Body thread([&] {
        stopped.pass();
        Lock<ConditionVar> lock(variable);
        variable.wait(TimeSpec());
        passed = true;
        return 0;
    });
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.stop());
    stopped.open();
    EXPECT_TRUE(thread.join());
    EXPECT_FALSE(passed);
    EXPECT_TRUE(Testing::isFree(variable));
}

TEST(Thread, OneThatDeletesItselfCannotBeJoined) {
    const Testing::LogCapture log;
    std::atomic<int> destroyed{0};
    Testing::Gate gate;
    auto *thread = new Body([&gate] {
        gate.pass();
        return 0;
    });
    thread->destroyed = &destroyed;
    thread->deleteOnThreadTermination();
    ASSERT_TRUE(thread->start());
    EXPECT_FALSE(thread->join());
    gate.open();
    EXPECT_TRUE(Testing::eventually([&] { return destroyed == 1; }));
    EXPECT_EQ(0U, log.lines().size());
}

TEST(Thread, DeletesItselfAfterReturnCancellationAndFailedStart) {
    std::atomic<int> destroyed{0};
    const auto make = [&destroyed](std::function<int()> body) {
        auto *thread = new Body(std::move(body), kSystemStack, true);
        thread->destroyed = &destroyed;
        thread->deleteOnThreadTermination();
        return thread;
    };
    ASSERT_TRUE(make([] { return 0; })->start());
    EXPECT_TRUE(Testing::eventually([&] { return destroyed == 1; }));

    Body *sleeper = make([] {
        Thread::sleep(TimeSpec::INFINITETIME);
        return 0;
    });
    ASSERT_TRUE(sleeper->start());
    EXPECT_TRUE(sleeper->stop());
    EXPECT_TRUE(Testing::eventually([&] { return destroyed == 2; }));
}

TEST(Thread, OneWithoutMemoryForItsStateDeletesItselfAsWell) {
    std::atomic<int> destroyed{0};
    Body *thread = nullptr;
    {
        const std::function<int()> body;
        const Testing::FailingHeap heap(1, Testing::FailingHeap::Calls::all);
        thread = new Body(body, kSystemStack, true);
    }
    thread->destroyed = &destroyed;
    thread->deleteOnThreadTermination();
    EXPECT_FALSE(thread->start());
    EXPECT_EQ(1, destroyed);
}

#ifndef REFLECTORB_SANITIZED // sanitizers need terabytes of address space

SCENARIO(noRoomForTheStack) {
    const rlimit memory{64UL * 1024 * 1024, 64UL * 1024 * 1024};
    ::setrlimit(RLIMIT_AS, &memory);
    std::atomic<int> destroyed{0};
    auto *thread = new Body([] { return 0; }, 0xFFFFF000U, true); // on 32 bits too large without any limit
    thread->destroyed = &destroyed;
    thread->deleteOnThreadTermination();
    const bool failed = !thread->start();
    std::exit(failed && destroyed == 1 ? 3 : 1);
}

TEST(Thread, AFailedStartIsReportedAndLeaksNothing) {
    const Testing::ProcessResult result = Testing::runScenario("noRoomForTheStack");
    EXPECT_EQ(3, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("Thread body cannot be created"));
}

#endif

TEST(Thread, DestroyedUnjoinedIsReportedAndEnded) {
    const Testing::LogCapture log;
    struct Shared {
        Testing::Gate running;
        std::atomic<bool> unwound{false};
    } shared;
    {
        Body thread([&shared] {
            // Its object goes while it runs: from here on it uses nothing of that.
            struct Note {
                Shared &shared;
                ~Note() { shared.unwound = true; }
            } const note{shared};
            note.shared.running.open();
            Thread::sleep(TimeSpec::INFINITETIME);
            return 0;
        });
        ASSERT_TRUE(thread.start());
        ASSERT_TRUE(shared.running.pass());
    }
    EXPECT_TRUE(shared.unwound);
    EXPECT_EQ(1U, log.count(3, "Thread body destroyed before it was joined", "OSWrap"));
}

SCENARIO(threadThrows) {
    Body thread([]() -> int { throw std::runtime_error("out of luck"); });
    thread.start();
    thread.join();
}

TEST(Thread, AnExceptionEndsTheActorWithALine) {
    const Testing::ProcessResult result = Testing::runScenario("threadThrows");
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_NE(std::string::npos, result.output.find("Thread body ends the actor: out of luck"));
}

TEST(Thread, IdsAreDifferentAndTheTidOfAForkedChildIsItsPid) {
    unsigned long other = 0;
    int otherTid = 0;
    {
        Testing::TestThread thread([&] {
            other = Thread::getCurrentId();
            otherTid = Thread::getCurrentTid();
        });
    }
    EXPECT_NE(0U, Thread::getCurrentId());
    EXPECT_NE(other, Thread::getCurrentId());
    EXPECT_NE(otherTid, Thread::getCurrentTid());
    EXPECT_EQ(::getpid(), Thread::getCurrentTid());
}

SCENARIO(tidInChild) {
    static_cast<void>(Thread::getCurrentTid());
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(Thread::getCurrentTid() == ::getpid() ? 5 : 6);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::exit(WEXITSTATUS(status));
}

TEST(Thread, TheTidIsThatOfTheForkedChild) {
    EXPECT_EQ(5, Testing::runScenario("tidInChild").exitStatus);
}

TEST(Thread, SleepIsNeverShortAlsoWithSignals) {
    std::signal(SIGUSR1, [](int) {});
    std::atomic<bool> stop{false};
    const pthread_t self = ::pthread_self();
    {
        Testing::TestThread disturber([&] {
            while (!stop) {
                ::pthread_kill(self, SIGUSR1);
                ::usleep(500);
            }
        });
        for (int i = 0; i < 20; ++i) {
            const TimeSpec time(0, 1000000 + i * 100000);
            const TimeSpec begin = Clock::getObsTime();
            Thread::sleep(time);
            EXPECT_GE(Clock::getObsTime() - begin, time);
        }
        Thread::sleep(TimeSpec(-1));
        stop = true;
    }
}

class Counter {
public:
    int count() {
        Lock<ConditionVar> lock(variable);
        ++calls;
        while (!finish) {
            variable.wait(TimeSpec::INFINITETIME);
        }
        return 9;
    }
    ConditionVar variable;
    int calls = 0;
    bool finish = false;
};

TEST(MethodThread, RunsTheMemberAndLeavesItsLockFreeWhenCancelled) {
    Counter counter;
    MethodThread<Counter> thread(counter, &Counter::count, kSystemStack, Priority(3), SchedulingPolicy(0), "m", false);
    ASSERT_TRUE(thread.start());
    {
        Lock<ConditionVar> lock(counter.variable);
        counter.finish = true;
        counter.variable.signal();
    }
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(9, thread.result());
    counter.finish = false;
    MethodThread<Counter> cancelled(counter, &Counter::count, kSystemStack, Priority(3), SchedulingPolicy(0), "m",
                                    false);
    ASSERT_TRUE(cancelled.start());
    EXPECT_TRUE(cancelled.stop());
    EXPECT_TRUE(cancelled.join());
    EXPECT_TRUE(Testing::isFree(counter.variable));
}

} // namespace
} // namespace OSWrap
