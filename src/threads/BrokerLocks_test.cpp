#include "threads/BrokerLocks.h"

#include "platform/Lock.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

using namespace HandlerState;
using OSWrap::TimeSpec;
using Testing::eventually;
using Testing::Gate;
using Testing::TestThread;

namespace {

template <class L>
constexpr bool kIsCondition = std::is_base_of_v<OSWrap::ConditionVar, L>;

/** Whether the lock gives the permission up only if it has to wait. */
template <class L>
constexpr bool kTriesFirst =
    !std::is_same_v<L, OSWrap::RunPermMutex> && !std::is_same_v<L, OSWrap::RunPermConditionVar>;

template <class L>
std::unique_ptr<L> make() {
    if constexpr (kIsCondition<L>) {
        return std::make_unique<L>(true);
    } else {
        return std::make_unique<L>();
    }
}

template <class L>
bool freeForOthers(L &lock) {
    bool taken = false;
    TestThread other([&] { taken = Testing::isFree(lock); });
    other.join();
    return taken;
}

/** A handler thread that stands in the queue for the permission, and does something once it has it. */
class Queued {
public:
    explicit Queued(std::function<void()> action = nullptr)
        : thread_([this, action] {
              const TreflectHandlerState state(true);
              ran_ = true;
              if (action) {
                  action();
              }
          }) {
        queued_ = eventually([] { return handlerThreads()->waitingForPermission() == 1; });
    }
    bool stillWaits() const { return queued_ && !ran_ && handlerThreads()->waitingForPermission() == 1; }
    bool ran() const { return ran_; }
    void join() { thread_.join(); }

private:
    std::atomic<bool> ran_{false};
    std::atomic<bool> queued_{false};
    TestThread thread_;
};

/** A thread outside that holds the lock until it is told to let go. */
template <class L>
class Holder {
public:
    explicit Holder(L &lock)
        : thread_([this, &lock]() RB_NO_ANALYSIS {
              lock.lock();
              held.open();
              letGo.pass();
              lock.unlock();
          }) {
        EXPECT_TRUE(held.pass());
    }
    Gate letGo;

private:
    Gate held;
    TestThread thread_;
};

template <class L>
class BrokerLocks : public testing::Test {
protected:
    void SetUp() override { handlerThreads(); }
    void TearDown() override {
        EXPECT_FALSE(isHandlerThread());
        EXPECT_EQ(0U, handlerThreads()->size());
        EXPECT_EQ(0UL, getRunPermissionOwner());
        EXPECT_TRUE(log_.lines().empty());
        EXPECT_TRUE(freeForOthers(*lock_));
    }
    L &lock() { return *lock_; }

private:
    struct First {
        First() { handlerThreads(); }
    } first_; // what the first use says is no concern of these tests
    Testing::LogCapture log_;
    const std::unique_ptr<L> lock_ = make<L>();
};

using AllLocks = testing::Types<TreflectMutex, TreflectCountedMutex, TreflectConditionVar, OSWrap::RunPermMutex,
                                OSWrap::RunPermConditionVar>;

struct Names {
    template <class L>
    static std::string GetName(int) {
        if (std::is_same_v<L, TreflectMutex>) {
            return "TreflectMutex";
        }
        if (std::is_same_v<L, TreflectCountedMutex>) {
            return "TreflectCountedMutex";
        }
        if (std::is_same_v<L, TreflectConditionVar>) {
            return "TreflectConditionVar";
        }
        return kIsCondition<L> ? "RunPermConditionVar" : "RunPermMutex";
    }
};
TYPED_TEST_SUITE(BrokerLocks, AllLocks, Names);

TYPED_TEST(BrokerLocks, AFreeLockGivesThePermissionUpOnlyIfItIsToldTo) RB_NO_ANALYSIS {
    TreflectHandlerState state(true);
    Queued other;
    EXPECT_TRUE(other.stillWaits());
    EXPECT_TRUE(this->lock().lock());
    EXPECT_EQ(!kTriesFirst<TypeParam>, other.ran());
    EXPECT_EQ(kTriesFirst<TypeParam>, other.stillWaits());
    EXPECT_TRUE(hasRunPermission());
    EXPECT_EQ(1U, getRunPermissionCount());
    EXPECT_FALSE(freeForOthers(this->lock()));
    EXPECT_TRUE(this->lock().unlock());
    TreflectReleaseHandlerState released;
    other.join();
}

TYPED_TEST(BrokerLocks, TryingNeverGivesThePermissionUp) RB_NO_ANALYSIS {
    TreflectHandlerState state(true);
    Queued other;
    EXPECT_TRUE(this->lock().trylock());
    EXPECT_TRUE(other.stillWaits());
    EXPECT_TRUE(this->lock().unlock());
    EXPECT_TRUE(other.stillWaits());
    {
        Holder<TypeParam> holder(this->lock());
        EXPECT_FALSE(this->lock().trylock());
        EXPECT_TRUE(other.stillWaits());
        holder.letGo.open();
    }
    EXPECT_TRUE(hasRunPermission());
    TreflectReleaseHandlerState released;
    other.join();
}

TYPED_TEST(BrokerLocks, WhileALockBlocksOthersHaveThePermission) RB_NO_ANALYSIS {
    Holder<TypeParam> holder(this->lock());
    TreflectHandlerState state(true);
    Queued other([&] { holder.letGo.open(); }); // only with the permission can it make the lock free
    EXPECT_TRUE(other.stillWaits());
    EXPECT_TRUE(this->lock().lock());
    EXPECT_TRUE(other.ran());
    EXPECT_TRUE(hasRunPermission());
    EXPECT_EQ(1U, getRunPermissionCount());
    EXPECT_FALSE(freeForOthers(this->lock()));
    EXPECT_TRUE(this->lock().unlock());
    other.join();
}

TYPED_TEST(BrokerLocks, WithoutThePermissionItIsAPlainLock) RB_NO_ANALYSIS {
    for (const bool handler : {false, true}) {
        if (handler) {
            enterHandlerState(false);
        }
        std::atomic<bool> released{false};
        {
            Holder<TypeParam> holder(this->lock());
            TestThread helper([&] {
                released = true;
                holder.letGo.open();
            });
            EXPECT_TRUE(this->lock().lock());
            EXPECT_TRUE(released);
        }
        EXPECT_EQ(handler, isHandlerThread());
        EXPECT_FALSE(hasRunPermission());
        EXPECT_EQ(0UL, getRunPermissionOwner());
        EXPECT_FALSE(freeForOthers(this->lock()));
        EXPECT_TRUE(this->lock().unlock());
        EXPECT_TRUE(this->lock().trylock());
        EXPECT_TRUE(this->lock().unlock());
        if (handler) {
            leaveHandlerState(false);
        }
    }
}

TYPED_TEST(BrokerLocks, WhatOthersFindUnderTheLockIsWhole) RB_NO_ANALYSIS {
    int value = 0;
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(std::make_unique<TestThread>([&, i]() RB_NO_ANALYSIS {
                for (int round = 0; round < 300; ++round) {
                    std::unique_ptr<TreflectHandlerState> state;
                    if ((round + i) % 3 != 0) {
                        state = std::make_unique<TreflectHandlerState>((round + i) % 3 == 1);
                    }
                    this->lock().lock();
                    ++value;
                    this->lock().unlock();
                }
            }));
        }
    }
    EXPECT_EQ(1200, value);
}

template <class L>
class BrokerConditions : public BrokerLocks<L> {};
using AllConditions = testing::Types<TreflectConditionVar, OSWrap::RunPermConditionVar>;
TYPED_TEST_SUITE(BrokerConditions, AllConditions, Names);

TYPED_TEST(BrokerConditions, AWaitThatTimesOutIsFalseAndThePermissionIsBack) RB_NO_ANALYSIS {
    TreflectHandlerState state(true);
    this->lock().lock();
    Queued other;
    const TimeSpec limit(0, 20000000);
    TimeSpec waited;
    bool woken = true;
    // Being woken without reason is allowed.
    EXPECT_TRUE(eventually([&]() RB_NO_ANALYSIS {
        const TimeSpec begin = OSWrap::Clock::getObsTime();
        woken = this->lock().wait(limit);
        waited = OSWrap::Clock::getObsTime() - begin;
        return !woken;
    }));
    EXPECT_GE(waited, limit);
    EXPECT_TRUE(other.ran());
    EXPECT_TRUE(hasRunPermission());
    EXPECT_EQ(1U, getRunPermissionCount());
    EXPECT_FALSE(freeForOthers(this->lock()));
    this->lock().unlock();
    other.join();
}

TYPED_TEST(BrokerConditions, AWaitThatIsWokenIsTrueAndThePermissionIsBack) RB_NO_ANALYSIS {
    for (const bool all : {false, true}) {
        TreflectHandlerState state(true);
        this->lock().lock();
        bool ready = false; // guarded by the lock
        Queued other([&]() RB_NO_ANALYSIS {
            this->lock().lock();
            ready = true;
            EXPECT_TRUE(all ? this->lock().broadcast() : this->lock().signal());
            this->lock().unlock();
        });
        bool woken = true;
        while (!ready && woken) {
            woken = this->lock().wait(TimeSpec(60));
        }
        EXPECT_TRUE(ready);
        EXPECT_TRUE(woken);
        EXPECT_TRUE(hasRunPermission());
        EXPECT_EQ(1U, getRunPermissionCount());
        EXPECT_FALSE(freeForOthers(this->lock()));
        this->lock().unlock();
        other.join();
    }
}

TYPED_TEST(BrokerConditions, AWaitOutsideIsAPlainWait) RB_NO_ANALYSIS {
    OSWrap::ConditionVar &plain = this->lock();
    plain.lock();
    bool ready = false;
    TestThread other([&]() RB_NO_ANALYSIS {
        plain.lock();
        ready = true;
        plain.signal();
        plain.unlock();
    });
    while (!ready) {
        EXPECT_TRUE(plain.wait(TimeSpec(60)));
    }
    EXPECT_FALSE(isHandlerThread());
    EXPECT_FALSE(plain.wait(TimeSpec()));
    plain.unlock();
    other.join();
}

TYPED_TEST(BrokerConditions, ThroughTheBaseItBehavesTheSame) {
    Holder<TypeParam> holder(this->lock());
    TreflectHandlerState state(true);
    Queued other([&] { holder.letGo.open(); });
    OSWrap::ConditionVar &base = this->lock();
    {
        OSWrap::Lock<OSWrap::ConditionVar> lock(base);
        EXPECT_TRUE(other.ran());
        EXPECT_TRUE(hasRunPermission());
        Queued next;
        while (!next.ran()) {
            base.wait(TimeSpec(0, 1000000));
        }
        EXPECT_TRUE(hasRunPermission());
        next.join();
    }
    other.join();
}

TEST(TreflectCountedMutex, ItsHolderTakesItAgainWithoutGivingThePermissionUp) RB_NO_ANALYSIS {
    TreflectCountedMutex mutex;
    TreflectHandlerState state(true);
    EXPECT_EQ(0U, mutex.count());
    EXPECT_TRUE(mutex.lock());
    Queued other;
    EXPECT_TRUE(mutex.lock());
    EXPECT_EQ(2U, mutex.count());
    EXPECT_TRUE(mutex.trylock());
    EXPECT_EQ(3U, mutex.count());
    EXPECT_TRUE(other.stillWaits());
    {
        TestThread stranger([&]() RB_NO_ANALYSIS {
            EXPECT_EQ(3U, mutex.count());
            EXPECT_FALSE(mutex.trylock());
            EXPECT_FALSE(mutex.unlock());
        });
    }
    EXPECT_TRUE(mutex.unlock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_EQ(1U, mutex.count());
    EXPECT_FALSE(freeForOthers(mutex));
    EXPECT_TRUE(mutex.unlock());
    EXPECT_EQ(0U, mutex.count());
    EXPECT_TRUE(freeForOthers(mutex));
    EXPECT_FALSE(mutex.unlock());
    EXPECT_TRUE(other.stillWaits());
    TreflectReleaseHandlerState released;
    other.join();
}

/** Blocks in the lock with two levels of the permission: one stays held meanwhile, both are there afterwards. */
template <class L>
void blockNested(const Testing::LogCapture &log) RB_NO_ANALYSIS {
    const std::unique_ptr<L> lock = make<L>();
    const std::size_t lines = log.lines().size();
    unsigned meanwhile = 0;
    {
        Holder<L> holder(*lock);
        TestThread helper([&] {
            SCENARIO_CHECK(eventually([] { return getRunPermissionCount() == 1; }));
            meanwhile = getRunPermissionCount();
            holder.letGo.open();
        });
        SCENARIO_CHECK(lock->lock());
    }
    SCENARIO_CHECK(meanwhile == 1);
    SCENARIO_CHECK(hasRunPermission() && getRunPermissionCount() == 2);
    if constexpr (kIsCondition<L>) {
        while (lock->wait(TimeSpec(0, 1000000))) {
        }
        SCENARIO_CHECK(getRunPermissionCount() == 2);
    }
    SCENARIO_CHECK(lock->unlock());
    SCENARIO_CHECK(log.lines().size() == lines);
}

SCENARIO(locks_with_nested_permission) {
    handlerThreads();
    enterHandlerState(true);
    getRunPermission();
    const Testing::LogCapture log;
    Queued other; // never gets in between
    blockNested<TreflectMutex>(log);
    blockNested<TreflectCountedMutex>(log);
    blockNested<TreflectConditionVar>(log);
    blockNested<OSWrap::RunPermMutex>(log);
    blockNested<OSWrap::RunPermConditionVar>(log);
    SCENARIO_CHECK(other.stillWaits());
    releaseRunPermission();
    SCENARIO_CHECK(other.stillWaits());
    leaveHandlerState(true);
    other.join();
    SCENARIO_CHECK(other.ran());
    SCENARIO_CHECK(log.lines().empty());
}

TEST(BrokerLocksWithNesting, NestedLevelsOfThePermissionAreThereAfterwards) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("locks_with_nested_permission", root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
