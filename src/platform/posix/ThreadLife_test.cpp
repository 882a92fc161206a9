#include "platform/Thread.h"

#include "platform/Cancellation.h"
#include "platform/Log.h"
#include "platform/TimeSpec.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <pthread.h>
#include <sched.h>
#include <string>

namespace OSWrap {
namespace {

constexpr unsigned kSystemStack = ~0U;

/** What a thread of the system looks like from inside. */
struct Attributes {
    std::size_t stack = 0;
    int policy = -1;
    int priority = -1;
    int cancelState = -1;
    int cancelType = -1;
    unsigned long id = 0;
    unsigned long systemId = 0;
    bool blocked = false;
};

Attributes ownAttributes() {
    Attributes own;
    pthread_attr_t attributes;
    void *address = nullptr;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstack(&attributes, &address, &own.stack);
        pthread_attr_destroy(&attributes);
    }
    sched_param parameters{};
    pthread_getschedparam(pthread_self(), &own.policy, &parameters);
    own.priority = parameters.sched_priority;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &own.cancelState);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &own.cancelType);
    own.id = Thread::getCurrentId();
    own.systemId = static_cast<unsigned long>(pthread_self());
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    own.blocked = sigismember(&mask, SIGUSR2) == 1;
    return own;
}

class Reporting final : public Thread {
public:
    Reporting(unsigned stack, int policy, int priority)
        : Thread(Priority(priority), SchedulingPolicy(policy), stack, "reporting", false) {}
    Attributes attributes;

private:
    int run() override {
        attributes = ownAttributes();
        return 1;
    }
};

Attributes attributesOf(unsigned stack, int policy = 0, int priority = 3) {
    Reporting thread(stack, policy, priority);
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(1, thread.result());
    return thread.attributes;
}

TEST(ThreadAttributes, AreThoseAskedFor) {
    const Attributes small = attributesOf(65536);
    EXPECT_GE(small.stack, sizeof(void *) == 4 ? std::size_t{64} * 1024 : std::size_t{256} * 1024);
    EXPECT_LT(small.stack, std::size_t{4} * 1024 * 1024);
    EXPECT_GE(attributesOf(3U * 1024 * 1024).stack, std::size_t{3} * 1024 * 1024);
    EXPECT_EQ(SCHED_OTHER, small.policy);
    EXPECT_EQ(0, small.priority) << "only recorded";
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, small.cancelState);
    EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, small.cancelType);
    EXPECT_FALSE(small.blocked);
}

TEST(ThreadAttributes, AllOnesIsTheStandardStackAndNotFourGib) {
    EXPECT_LT(attributesOf(kSystemStack).stack, std::size_t{1024} * 1024 * 1024);
    EXPECT_GT(attributesOf(kSystemStack).stack, std::size_t{1024} * 1024);
}

TEST(ThreadAttributes, DoNotComeFromTheCreatorSaveForBlockedSignals) {
    const DisableCancelStateGuard disabled;
    sigset_t mask;
    sigset_t before;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &mask, &before);
    const Attributes attributes = attributesOf(kSystemStack);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, attributes.cancelState);
    EXPECT_TRUE(attributes.blocked);
}

TEST(ThreadAttributes, ARealTimePolicyIsTakenOrRefusedWithALine) {
    for (const int policy : {1, 2}) {
        const Testing::LogCapture log;
        const Attributes attributes = attributesOf(kSystemStack, policy, 3);
        const std::string refusal =
            LogMakeString("Thread reporting runs with time sharing, policy %d priority 3 not permitted", policy);
        if (log.count(5, refusal, "OSWrap") == 1) {
            EXPECT_EQ(SCHED_OTHER, attributes.policy);
        } else {
            EXPECT_EQ(policy == 1 ? SCHED_FIFO : SCHED_RR, attributes.policy);
            EXPECT_EQ(3, attributes.priority);
            EXPECT_EQ(0U, log.lines().size());
        }
    }
}

TEST(ThreadAttributes, TheIdIsTheWholeNumberOfTheSystem) {
    const Attributes attributes = attributesOf(kSystemStack);
    EXPECT_EQ(attributes.systemId, attributes.id);
    EXPECT_EQ(static_cast<unsigned long>(pthread_self()), Thread::getCurrentId());
}

/** A value of a thread that is destroyed with it. */
class ThreadValue {
public:
    explicit ThreadValue(void (*destroy)(void *)) { pthread_key_create(&key_, destroy); }
    ~ThreadValue() { pthread_key_delete(key_); }
    ThreadValue(const ThreadValue &) = delete;
    ThreadValue &operator=(const ThreadValue &) = delete;
    void set(void *value) const { pthread_setspecific(key_, value); }

private:
    pthread_key_t key_{};
};

TEST(ThreadEnd, JoinWaitsForTheValuesOfTheThread) {
    struct Shared {
        Testing::Gate inDestructor;
        Testing::Gate joining;
        std::atomic<bool> destroyed{false};
    } shared;
    const ThreadValue value([](void *argument) {
        auto *own = static_cast<Shared *>(argument);
        own->inDestructor.open();
        own->joining.pass();
        own->destroyed = true;
    });
    Testing::TestThread thread([&] { value.set(&shared); });
    ASSERT_TRUE(shared.inDestructor.pass());
    Testing::TestThread opener([&shared] { shared.joining.open(); });
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(shared.destroyed);
}

/** Deletes itself; its value of the thread tells whether that was done by then. */
class SelfDeleting final : public Thread {
public:
    struct Seen {
        std::atomic<int> deletions{0};
        std::atomic<int> deletionsBeforeValues{-1};
        std::atomic<unsigned long> runner{0};
        std::atomic<unsigned long> deleter{0};
        std::atomic<bool> valuesGone{false};
    };

    SelfDeleting(Seen &seen, const ThreadValue &value, bool sleeps, bool detached)
        : Thread(Priority(3), SchedulingPolicy(0), kSystemStack, "self", detached), seen_(seen), value_(value),
          sleeps_(sleeps) {
        deleteOnThreadTermination();
    }
    ~SelfDeleting() override {
        ++seen_.deletions;
        seen_.deleter = getCurrentId();
    }

private:
    int run() override {
        seen_.runner = getCurrentId();
        value_.set(&seen_);
        if (sleeps_) {
            sleep(TimeSpec::INFINITETIME);
        }
        return 0;
    }

    Seen &seen_;
    const ThreadValue &value_;
    const bool sleeps_;
};

TEST(ThreadEnd, DeletesItsObjectOnceInItsThreadBeforeTheValuesOfTheThreadGo) {
    const ThreadValue value([](void *argument) {
        auto *seen = static_cast<SelfDeleting::Seen *>(argument);
        seen->deletionsBeforeValues = seen->deletions.load();
        seen->valuesGone = true;
    });
    for (const bool sleeps : {false, true}) {
        for (const bool detached : {false, true}) {
            SelfDeleting::Seen seen;
            const Testing::LogCapture log;
            auto *thread = new SelfDeleting(seen, value, sleeps, detached);
            ASSERT_TRUE(thread->start());
            if (sleeps) {
                ASSERT_TRUE(Testing::eventually([&seen] { return seen.runner != 0; }));
                EXPECT_TRUE(thread->stop()); // it lives: nothing else ends it
            }
            ASSERT_TRUE(Testing::eventually([&seen] { return seen.valuesGone.load(); }));
            EXPECT_EQ(1, seen.deletions);
            EXPECT_EQ(1, seen.deletionsBeforeValues);
            EXPECT_EQ(seen.runner, seen.deleter);
            EXPECT_EQ(0U, log.lines().size());
        }
    }
}

TEST(ThreadEnd, StopMayBeAskedAgainAndDoesNotEndWhatDoesNotWait) {
    Testing::Gate gate;
    std::atomic<bool> passed{false};
    Testing::TestThread thread([&] {
        const DisableCancelStateGuard guard;
        gate.pass();
        Thread::sleep(TimeSpec(0, 1));
        passed = true;
    });
    EXPECT_TRUE(thread.stop());
    EXPECT_TRUE(thread.stop());
    gate.open();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(passed);
    EXPECT_EQ(1, thread.result());
    EXPECT_FALSE(thread.stop());
}

} // namespace
} // namespace OSWrap
