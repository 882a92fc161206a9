#include "platform/NetNumVar.h"
#include "platform/SmartPointer.h"
#include "platform/UniqueIdGen.h"
#include "platform/UnitFigures.h"
#include "support/Concurrency.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OSWrap {
namespace {

TEST(UniqueIdGen, GivesEveryThreadIdsOfItsOwn) {
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kIds = 20000;
    std::vector<std::vector<unsigned>> ids(kThreads);
    {
        std::vector<std::unique_ptr<Testing::TestThread>> threads;
        for (std::size_t i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<Testing::TestThread>([&ids, i] {
                for (std::size_t n = 0; n < kIds; ++n) {
                    ids[i].push_back(UniqueIdGen::instance()->getId());
                }
            }));
        }
    }
    std::set<unsigned> all;
    for (const std::vector<unsigned> &own : ids) {
        all.insert(own.begin(), own.end());
    }
    EXPECT_EQ(kThreads * kIds, all.size());
    EXPECT_EQ(0U, all.count(0));
}

SCENARIO(firstId) {
    std::printf("%u\n", UniqueIdGen::instance()->getId());
}

TEST(UniqueIdGen, StartsElsewhereInEachProcess) {
    std::set<std::string> firsts;
    for (int i = 0; i < 4; ++i) {
        firsts.insert(Testing::runScenario("firstId").output);
    }
    EXPECT_GT(firsts.size(), 1U);
}

struct Base {
    int number = 4;
};
struct Derived : Base {
    explicit Derived(int &count) : destroyed(count) {}
    ~Derived() { ++destroyed; }
    int &destroyed;
};

TEST(SmartPointer, TheLastCopyDeletesTheObjectAsWhatItWasMade) {
    int destroyed = 0;
    {
        SmartPointer<Base> first(new Derived(destroyed)); // Base has no virtual destructor
        EXPECT_EQ(4, first->number);
        EXPECT_EQ(4, (*first).number);
        EXPECT_TRUE(first);
        SmartPointer<Base> second = first;
        first = SmartPointer<Base>();
        EXPECT_FALSE(first);
        EXPECT_EQ(nullptr, first.get());
        EXPECT_EQ(0, destroyed);
        Testing::TestThread thread([copy = second]() mutable { copy = SmartPointer<Base>(); });
    }
    EXPECT_EQ(1, destroyed);
}

TEST(SmartPointer, ConvertsToPointersToTheBase) {
    int destroyed = 0;
    {
        const SmartPointer<Derived> derived(new Derived(destroyed));
        const SmartPointer<Base> base(derived);
        EXPECT_EQ(derived.get(), base.get());
    }
    EXPECT_EQ(1, destroyed);
}

TEST(NetNumVar, HoldsBigEndianBytesAtAnyAddress) {
    static_assert(sizeof(NetNumVar<std::uint32_t>) == 4 && alignof(NetNumVar<std::uint32_t>) == 1, "packed");
    struct Odd {
        char before;
        NetNumVar<std::uint32_t> number;
        NetNumVar<std::uint16_t> small;
        NetNumVar<std::int32_t> negative;
    } odd{};
    EXPECT_EQ(0U, odd.number.get());
    odd.number.set(0x01020304);
    odd.small.set(0xABCD);
    odd.negative.set(-2);
    EXPECT_EQ(0x01020304U, odd.number.get());
    EXPECT_EQ(0xABCDU, odd.small.get());
    EXPECT_EQ(-2, odd.negative.get());
    const unsigned char expected[] = {1, 2, 3, 4, 0xAB, 0xCD, 0xFF, 0xFF, 0xFF, 0xFE};
    EXPECT_EQ(0, std::memcmp(reinterpret_cast<const char *>(&odd) + 1, expected, sizeof expected));
}

TEST(UnitFigures, AreInKib) {
    const long before = oscwGetActorSize();
    EXPECT_GT(before, 500);
    EXPECT_GT(oscwGetUnitFreeMem(), 1000);
    constexpr std::size_t kMore = 32UL * 1024 * 1024;
    const std::unique_ptr<volatile char[]> more(new volatile char[kMore]);
    for (std::size_t i = 0; i < kMore; i += 512) {
        more[i] = 1;
    }
    EXPECT_GT(oscwGetActorSize() - before, 16L * 1024);
    EXPECT_LT(oscwGetActorSize() - before, 1024L * 1024);
}

} // namespace
} // namespace OSWrap
