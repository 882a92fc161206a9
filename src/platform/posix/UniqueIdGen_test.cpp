#include "platform/UniqueIdGen.h"

#include "support/Concurrency.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OSWrap {
namespace {

TEST(UniqueIdGen, GivesEveryThreadIdsOfItsOwn) {
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kIds = 100000;
    std::vector<unsigned> all(kThreads * kIds);
    {
        Testing::Gate start;
        std::vector<std::unique_ptr<Testing::TestThread>> threads;
        for (std::size_t i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<Testing::TestThread>([&all, &start, i] {
                start.pass();
                std::generate_n(all.begin() + static_cast<std::ptrdiff_t>(i * kIds), kIds,
                                [] { return UniqueIdGen::instance()->getId(); });
            }));
        }
        start.open();
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all.end(), std::adjacent_find(all.begin(), all.end()));
    EXPECT_NE(0U, all.front());
}

SCENARIO(firstId) {
    std::printf("%u\n", UniqueIdGen::instance()->getId());
}

TEST(UniqueIdGen, StartsElsewhereInEachProcess) {
    std::set<std::string> firsts;
    for (int i = 0; i < 4; ++i) {
        const Testing::ProcessResult result = Testing::runScenario("firstId");
        ASSERT_EQ(0, result.exitStatus);
        firsts.insert(result.output);
    }
    EXPECT_GT(firsts.size(), 1U);
}

} // namespace
} // namespace OSWrap
