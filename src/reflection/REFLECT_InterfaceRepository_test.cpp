#include "reflection/REFLECT_InterfaceRepository.h"

#include "orb/REFLECT_orb.h"
#include "reflection/REFLECT_metaObject.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/ReflectiveClasses.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr char kSource[] = "REFLECT_InterfaceRepository";

class CountingMeta : public TreflectMetaObject {
public:
    using TreflectMetaObject::TreflectMetaObject;
    void completeMetaInformation() override {
        ++completions;
        permission = TreflectORB::hasRunPermission();
    }
    int completions = 0;
    bool permission = false;
};

InterfaceRepository &repository() {
    return *InterfaceRepository::instance();
}

TEST(InterfaceRepository, AnUnknownIdIsReportedInHexadecimal) {
    const Testing::LogCapture log;
    EXPECT_EQ(nullptr, repository().findInterface(42));
    EXPECT_EQ(1U, log.count(6, "InterfaceRepository::findInterface(0x2A) Meta-information CANNOT BE FOUND", kSource));
    EXPECT_EQ(1U, log.lines().size());
}

TEST(InterfaceRepository, EachFindCompletesTheClass) {
    { const TreflectHandlerState first(true); } // what the first one in a process says is not looked at
    const Testing::LogCapture log;
    CountingMeta meta("counting", 0x100);
    EXPECT_EQ(0, meta.completions) << "not by being made";
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(&meta, repository().findInterface(0x100));
        EXPECT_EQ(i, meta.completions);
    }
    EXPECT_TRUE(meta.permission) << "nobody else sees it half complete";
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    EXPECT_TRUE(log.lines().empty());
}

TEST(InterfaceRepository, TheFirstOfAnIdStaysAndEitherRemovesIt) {
    const Testing::LogCapture log;
    CountingMeta first("first", 0x101);
    auto second = std::make_unique<CountingMeta>("second", 0x101);
    EXPECT_TRUE(repository().registerInterface(second.get()));
    EXPECT_EQ(&first, repository().findInterface(0x101));
    EXPECT_EQ(0, second->completions);
    second.reset();
    EXPECT_EQ(nullptr, repository().findInterface(0x101));
    EXPECT_EQ(1U, log.count(6, "InterfaceRepository::findInterface(0x101) Meta-information CANNOT BE FOUND", kSource));
    EXPECT_TRUE(repository().unregisterInterface(&first)) << "also when it is not there";
    EXPECT_TRUE(repository().registerInterface(&first));
    EXPECT_EQ(&first, repository().findInterface(0x101));
}

TEST(InterfaceRepository, AMetaObjectIsThereAsLongAsItLives) {
    const Testing::LogCapture log;
    {
        const CountingMeta meta("short-lived", 0xFFFFFFFF);
        EXPECT_EQ(&meta, repository().findInterface(0xFFFFFFFF));
    }
    EXPECT_EQ(nullptr, repository().findInterface(0xFFFFFFFF));
    EXPECT_EQ(1U, log.with("findInterface(0xFFFFFFFF)").size());
}

TEST(InterfaceRepository, IdsAreListedInAscendingOrderAsUnsignedNumbers) {
    const CountingMeta high("high", 0x80000001);
    const CountingMeta low("low", 3);
    const CountingMeta middle("middle", 0x7FFFFFFF);
    const std::vector<unsigned> ids = repository().getIfIds();
    const std::vector<unsigned> expected{3U, Testing::Port::CLASS_ID, Testing::Equipment::CLASS_ID, 0x7FFFFFFFU,
                                         0x80000001U};
    EXPECT_EQ(expected, ids);
}

/** Look-ups take no lock that a class which is being completed needs. */
TEST(InterfaceRepository, AClassMayLookForOthersWhileItIsCompleted) {
    class Curious : public TreflectMetaObject {
    public:
        using TreflectMetaObject::TreflectMetaObject;
        void completeMetaInformation() override {
            if (completed_++ == 0) {
                other = repository().findInterface(0x103);
                self = repository().findInterface(id());
            }
        }
        TreflectMetaObject *other = nullptr;
        TreflectMetaObject *self = nullptr;
    };
    CountingMeta other("other", 0x103);
    Curious curious("curious", 0x104);
    EXPECT_EQ(&curious, repository().findInterface(0x104));
    EXPECT_EQ(&other, curious.other);
    EXPECT_EQ(&curious, curious.self);
}

TEST(InterfaceRepository, IsTheSameInAllThreads) {
    InterfaceRepository *seen = nullptr;
    {
        const Testing::TestThread thread([&] { seen = InterfaceRepository::instance(); });
    }
    EXPECT_EQ(InterfaceRepository::instance(), seen);
}

/** Nobody has registered a class when they begin. */
SCENARIO(firstUseByManyThreads) {
    constexpr unsigned kThreads = 8;
    std::array<std::unique_ptr<CountingMeta>, kThreads> classes;
    std::array<InterfaceRepository *, kThreads> seen{};
    std::atomic<unsigned> ready{0}; // no lock: who waits for one comes after the one before
    {
        std::list<Testing::TestThread> threads;
        for (unsigned i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                ready.fetch_add(1, std::memory_order_relaxed);
                while (ready.load(std::memory_order_relaxed) < kThreads) {
                    std::this_thread::yield();
                }
                classes[i] = std::make_unique<CountingMeta>("first", i + 1);
                seen[i] = InterfaceRepository::instance();
            });
        }
    }
    std::vector<unsigned> ids;
    for (unsigned i = 0; i < kThreads; ++i) {
        ids.push_back(i + 1);
        SCENARIO_CHECK(seen[i] != nullptr && seen[i] == seen[0]);
        SCENARIO_CHECK(repository().findInterface(i + 1) == classes[i].get());
    }
    SCENARIO_CHECK(repository().getIfIds() == ids);
}

TEST(InterfaceRepository, ThreadsMayBeTheFirstToUseItAllAtOnce) {
    for (int round = 0; round < 10; ++round) {
        const Testing::ProcessResult result =
            Testing::runScenario("firstUseByManyThreads", {"REFLECTORB_TEST_NO_CLASSES=1"});
        EXPECT_EQ(0, result.exitStatus) << result.output;
    }
}

} // namespace
