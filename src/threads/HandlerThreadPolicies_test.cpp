#include "threads/HandlerThreadPolicies.h"

#include "support/Concurrency.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

TEST(SetContainer, CountsHowOftenAThreadIsIn) {
    SetContainer set;
    EXPECT_FALSE(set.exist());
    EXPECT_EQ(0U, set.count());
    EXPECT_EQ(0U, set.size());
    set.add();
    set.add();
    EXPECT_TRUE(set.exist());
    EXPECT_EQ(2U, set.count());
    EXPECT_EQ(2U, set.size());
    set.remove();
    EXPECT_TRUE(set.exist());
    EXPECT_EQ(1U, set.count());
    set.remove();
    EXPECT_FALSE(set.exist());
    EXPECT_EQ(0U, set.size());
    set.remove();
    EXPECT_EQ(0U, set.count());
    EXPECT_EQ(0U, set.size());
}

TEST(SetContainer, AThreadSeesItsOwnEntriesAndTheSizeCountsAll) {
    SetContainer set;
    set.add();
    bool inBefore = true;
    unsigned countInside = 0;
    unsigned sizeInside = 0;
    unsigned countAfter = 1;
    {
        Testing::TestThread other([&] {
            inBefore = set.exist();
            set.remove(); // has none: takes nobody else's
            set.add();
            set.add();
            countInside = set.count();
            sizeInside = set.size();
            set.remove();
            set.remove();
            countAfter = set.count();
        });
    }
    EXPECT_FALSE(inBefore);
    EXPECT_EQ(2U, countInside);
    EXPECT_EQ(3U, sizeInside);
    EXPECT_EQ(0U, countAfter);
    EXPECT_EQ(1U, set.count());
    EXPECT_EQ(1U, set.size());
    set.remove();
}

TEST(SetContainer, ContainersAreApart) {
    SetContainer one;
    SetContainer two;
    one.add();
    two.add();
    two.add();
    EXPECT_EQ(1U, one.count());
    EXPECT_EQ(2U, two.count());
    one.remove();
    EXPECT_FALSE(one.exist());
    EXPECT_TRUE(two.exist());
    two.remove();
    two.remove();
    EXPECT_EQ(0U, two.size());
}

TEST(SetContainer, ManyThreadsAtOnceLeaveARightSize) {
    SetContainer set;
    {
        std::vector<std::unique_ptr<Testing::TestThread>> threads;
        for (int i = 0; i < 8; ++i) {
            threads.push_back(std::make_unique<Testing::TestThread>([&set] {
                for (int round = 0; round < 2000; ++round) {
                    set.add();
                    set.add();
                    set.remove();
                    EXPECT_EQ(1U, set.count());
                    EXPECT_GE(set.size(), 1U);
                    set.remove();
                }
            }));
        }
    }
    EXPECT_EQ(0U, set.size());
}

TEST(SetContainer, SaysWhatItIs) {
    Testing::LogCapture log;
    SetContainer::announce();
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1U, log.count(5, "ORB HandlerThreads using SetContainer", "HandlerThreadPolicies"));
}

} // namespace
