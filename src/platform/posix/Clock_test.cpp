#include "platform/ConditionVar.h"
#include "platform/Lock.h"
#include "platform/Thread.h"
#include "platform/TimeSpec.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

namespace OSWrap {
namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

void expectTime(std::int64_t seconds, std::int64_t nanoseconds, const TimeSpec &time) {
    EXPECT_EQ(seconds, time.sec());
    EXPECT_EQ(nanoseconds, time.nsec());
}

TEST(TimeSpec, IsAlwaysNormalised) {
    expectTime(0, 0, TimeSpec());
    expectTime(1, 300000000, TimeSpec(0, 700000000) + TimeSpec(0, 600000000));
    expectTime(-1, 999999999, TimeSpec(1) - TimeSpec(1, 1));
    expectTime(-1, 500000000, TimeSpec(0, -500000000));
    expectTime(-3, 0, TimeSpec(-2, -1000000000));
    EXPECT_EQ(TimeSpec(30), TimeSpec(29, 1000000000));
    static_assert(TimeSpec(0, 2500000000).sec() == 2, "at compile time, too");
}

TEST(TimeSpec, CompareByTime) {
    const TimeSpec small(1, 5);
    const TimeSpec large(1, 6);
    EXPECT_TRUE(small < large && small <= large && large > small && large >= small && small != large);
    EXPECT_FALSE(small > large || small >= large || large < small || large <= small || small == large);
    EXPECT_TRUE(small <= small && small >= small && small == small);
    EXPECT_LT(TimeSpec(-1, 999999999), TimeSpec());
}

TEST(TimeSpec, SaturatesAndInfinityAbsorbs) {
    EXPECT_EQ(TimeSpec::INFINITETIME, TimeSpec(kMax) + TimeSpec(1));
    EXPECT_EQ(TimeSpec::INFINITETIME, TimeSpec(kMax, 999999999) + TimeSpec(0, 1));
    EXPECT_EQ(TimeSpec::INFINITETIME, TimeSpec::INFINITETIME + TimeSpec(-5));
    EXPECT_EQ(TimeSpec::INFINITETIME, TimeSpec(3) + TimeSpec::INFINITETIME);
    EXPECT_EQ(TimeSpec::INFINITETIME, TimeSpec::INFINITETIME - TimeSpec(5));
    EXPECT_GT(TimeSpec::INFINITETIME, TimeSpec(kMax));
    expectTime(kMin, 0, TimeSpec(kMin) - TimeSpec(1));
    expectTime(kMin, 0, TimeSpec(kMin) + TimeSpec(-1));
    EXPECT_EQ(TimeSpec::INFINITETIME, TimeSpec(5) - TimeSpec(kMin));
    expectTime(kMin, 0, TimeSpec(5) - TimeSpec::INFINITETIME);
}

/** Waits and sleeps of many lengths; none may end before the clock that they are measured with says so. */
bool neverEarly(int rounds) {
    ConditionVar variable;
    Lock<ConditionVar> lock(variable);
    for (int i = 0; i < rounds; ++i) {
        const TimeSpec time(0, 1 + i % 1000);
        TimeSpec begin = Clock::getObsTime();
        if (variable.wait(time) || Clock::getObsTime() - begin < time) {
            return false;
        }
        begin = Clock::getObsTime();
        Thread::sleep(time);
        if (Clock::getObsTime() - begin < time) {
            return false;
        }
    }
    return true;
}

TEST(Clock, NoWaitOrSleepEndsEarly) {
    EXPECT_TRUE(neverEarly(5000));
}

SCENARIO(scaledNeverEarly) {
    std::exit(neverEarly(5000) ? 3 : 1);
}

TEST(Clock, NoWaitOrSleepEndsEarlyAtAnyScale) {
    for (const char *scale : {"0.5", "3", "7.77", "1000"}) {
        EXPECT_EQ(3,
                  Testing::runScenario("scaledNeverEarly", {std::string("REFLECTORB_TIME_SCALE=") + scale}).exitStatus)
            << scale;
    }
}

SCENARIO(scaledClock) {
    const TimeSpec scaled = Clock::getObsTime();
    timespec real{};
    ::clock_gettime(CLOCK_MONOTONIC, &real);
    Thread::sleep(TimeSpec(60)); // of the 60 seconds 60 milliseconds are real
    timespec realAfter{};
    ::clock_gettime(CLOCK_MONOTONIC, &realAfter);
    const TimeSpec took = Clock::getObsTime() - scaled;
    const TimeSpec tookReal(realAfter.tv_sec - real.tv_sec, realAfter.tv_nsec - real.tv_nsec);
    std::exit(took >= TimeSpec(60) && tookReal < TimeSpec(30) && tookReal >= TimeSpec(0, 60000000) ? 3 : 1);
}

TEST(Clock, ClockAndSleepRunAtTheSameScale) {
    EXPECT_EQ(3, Testing::runScenario("scaledClock", {"REFLECTORB_TIME_SCALE=1000"}).exitStatus);
}

TEST(Clock, IsMonotonic) {
    TimeSpec last = Clock::getObsTime();
    for (int i = 0; i < 10000; ++i) {
        const TimeSpec now = Clock::getObsTime();
        ASSERT_GE(now, last);
        last = now;
    }
}

} // namespace
} // namespace OSWrap
