#include "reflection/Singleton.h"

#include "reflection/REFLECT_tieds.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <vector>

namespace {

using Afw::Singleton;
using Afw::SingletonSupport;
using Testing::Gate;
using Testing::TestThread;

/** One type for each test: what is destroyed stays so. */
template <int Test>
struct Counted {
    Counted() { ++made; }
    ~Counted() { ++gone; }
    static inline std::atomic<int> made{0};
    static inline std::atomic<int> gone{0};
};

TEST(Singleton, IsMadeOnFirstUseAndDestroyedForGood) {
    using Thing = Counted<0>;
    EXPECT_EQ(0, Thing::made);
    Thing *const thing = Singleton<Thing>::get();
    ASSERT_NE(nullptr, thing);
    EXPECT_EQ(thing, Singleton<Thing>::get());
    EXPECT_EQ(1, Thing::made);
    EXPECT_EQ(0, Thing::gone);
    Singleton<Thing>::destroyObject();
    EXPECT_EQ(1, Thing::gone);
    EXPECT_EQ(nullptr, Singleton<Thing>::get());
    Singleton<Thing>::destroyObject();
    EXPECT_EQ(nullptr, Singleton<Thing>::get());
    EXPECT_EQ(1, Thing::made);
    EXPECT_EQ(1, Thing::gone);
}

TEST(Singleton, DestroyedBeforeItsFirstUseItIsNeverMade) {
    using Thing = Counted<1>;
    Singleton<Thing>::destroyObject();
    EXPECT_EQ(nullptr, Singleton<Thing>::get());
    EXPECT_EQ(0, Thing::made);
    EXPECT_EQ(0, Thing::gone);
}

TEST(Singleton, WithoutMemoryThereIsNoneUntilMemoryIsBack) {
    using Thing = Counted<2>;
    {
        const Testing::FailingHeap heap;
        EXPECT_EQ(nullptr, Singleton<Thing>::get());
    }
    EXPECT_EQ(0, Thing::made);
    EXPECT_NE(nullptr, Singleton<Thing>::get());
    EXPECT_EQ(1, Thing::made);
}

/** Gets itself in its destructor. */
struct Clinging {
    ~Clinging() { seen = Singleton<Clinging>::get() == nullptr; }
    static inline bool seen = false;
};

TEST(Singleton, ItsDestructorMayAskForIt) {
    ASSERT_NE(nullptr, Singleton<Clinging>::get());
    Singleton<Clinging>::destroyObject();
    EXPECT_TRUE(Clinging::seen);
}

TEST(Singleton, ThreadsThatAskAtOnceGetTheSame) {
    using Thing = Counted<3>;
    constexpr int kThreads = 8;
    Gate start;
    std::vector<Thing *> seen(kThreads);
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (Thing *&mine : seen) {
            threads.push_back(std::make_unique<TestThread>([&] {
                if (start.pass()) {
                    mine = Singleton<Thing>::get();
                }
            }));
        }
        start.open();
    }
    EXPECT_EQ(std::set<Thing *>{Singleton<Thing>::get()}, std::set<Thing *>(seen.begin(), seen.end()));
    EXPECT_EQ(1, Thing::made);
}

TEST(Singleton, ThreadsThatDestroyAtOnceDestroyOnce) {
    using Thing = Counted<4>;
    ASSERT_NE(nullptr, Singleton<Thing>::get());
    Gate start;
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(std::make_unique<TestThread>([&] {
                if (start.pass()) {
                    Singleton<Thing>::destroyObject();
                }
            }));
        }
        start.open();
    }
    EXPECT_EQ(1, Thing::gone);
    EXPECT_EQ(nullptr, Singleton<Thing>::get());
}

TEST(SingletonSupport, HoldsAMutexForTheScopeIfThereIsOne) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const auto isFree = [&] {
        const bool taken = pthread_mutex_trylock(&mutex) == 0;
        if (taken) {
            pthread_mutex_unlock(&mutex);
        }
        return taken;
    };
    {
        const SingletonSupport nothing(nullptr);
        const SingletonSupport lock(&mutex);
        bool free = true;
        {
            const TestThread thread([&] { free = isFree(); });
        }
        EXPECT_FALSE(free);
    }
    EXPECT_TRUE(isFree());
    pthread_mutex_destroy(&mutex);
}

TEST(SingletonSupport, WaitsForAMutexThatIsTaken) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    int inside = 0; // only under the mutex
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(std::make_unique<TestThread>([&] {
                for (int round = 0; round < 500; ++round) {
                    const SingletonSupport lock(&mutex);
                    ++inside;
                }
            }));
        }
    }
    EXPECT_EQ(2000, inside);
    pthread_mutex_destroy(&mutex);
}

// --- the end of the process -----------------------------------------------------------------------------------------

struct Announced {
    ~Announced() { std::puts("destroyed"); }
};

SCENARIO(singletonAtExit) {
    SCENARIO_CHECK(Singleton<Announced>::get() != nullptr);
    std::puts("leaving");
}

SCENARIO(singletonDestroyedBeforeExit) {
    SCENARIO_CHECK(Singleton<Announced>::get() != nullptr);
    Singleton<Announced>::destroyObject();
    std::puts("leaving");
}

SCENARIO(singletonWithoutMemoryAtExit) {
    {
        const Testing::FailingHeap heap;
        SCENARIO_CHECK(Singleton<Announced>::get() == nullptr);
    }
    std::puts("leaving");
}

TEST(Singleton, IsDestroyedWhenTheProcessExits) {
    const auto output = [](const char *scenario) {
        const Testing::ProcessResult result = Testing::runScenario(scenario);
        EXPECT_EQ(0, result.exitStatus) << result.output;
        return result.output;
    };
    EXPECT_EQ("leaving\ndestroyed\n", output("singletonAtExit"));
    EXPECT_EQ("destroyed\nleaving\n", output("singletonDestroyedBeforeExit"));
    EXPECT_EQ("leaving\n", output("singletonWithoutMemoryAtExit"));
}

/** The registry of handles is one. */
SCENARIO(tiedsDestroyed) {
    SCENARIO_CHECK(TreflectTieds::instance() != nullptr);
    Singleton<TreflectTieds>::destroyObject();
    SCENARIO_CHECK(TreflectTieds::instance() == nullptr);
}

TEST(Singleton, TheRegistryOfHandlesIsOne) {
    EXPECT_EQ(TreflectTieds::instance(), Singleton<TreflectTieds>::get());
    EXPECT_EQ(0, Testing::runScenario("tiedsDestroyed").exitStatus);
}

} // namespace
