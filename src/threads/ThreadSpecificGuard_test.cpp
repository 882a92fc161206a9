#include "threads/ThreadSpecificGuard.h"

#include "support/Concurrency.h"
#include "support/HeapProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

namespace {

TEST(ThreadSpecificGuard, InnerOnesRestoreTheOuterValueAndTheOutermostLeavesNoEntry) {
    ThreadSpecificValue values;
    int a = 0;
    int b = 0;
    EXPECT_EQ(nullptr, values.get());
    {
        ThreadSpecificGuard outer(values, &a);
        EXPECT_EQ(&a, values.get());
        {
            ThreadSpecificGuard inner(values, &b);
            EXPECT_EQ(&b, values.get());
            EXPECT_EQ(1U, values.size());
        }
        EXPECT_EQ(&a, values.get());
        EXPECT_EQ(1U, values.size());
    }
    EXPECT_EQ(nullptr, values.get());
    EXPECT_EQ(0U, values.size());
}

TEST(ThreadSpecificGuard, NullIsAValueOnEveryLevel) {
    ThreadSpecificValue values;
    int a = 0;
    int b = 0;
    {
        ThreadSpecificGuard outer(values, nullptr);
        EXPECT_EQ(nullptr, values.get());
        {
            ThreadSpecificGuard middle(values, &a);
            EXPECT_EQ(&a, values.get());
            {
                ThreadSpecificGuard hidden(values, nullptr);
                EXPECT_EQ(nullptr, values.get());
                {
                    ThreadSpecificGuard innermost(values, &b);
                    EXPECT_EQ(&b, values.get());
                }
                EXPECT_EQ(nullptr, values.get());
            }
            EXPECT_EQ(&a, values.get());
        }
        EXPECT_EQ(nullptr, values.get());
    }
    EXPECT_EQ(0U, values.size());
}

TEST(ThreadSpecificGuard, EachThreadHasItsOwn) {
    ThreadSpecificValue values;
    int mine = 0;
    int others = 0;
    Testing::Gate set;
    Testing::Gate checked;
    ThreadSpecificGuard guard(values, &mine);
    std::atomic<bool> emptyBefore{false};
    std::atomic<bool> seen{false};
    std::atomic<bool> emptyAfter{false};
    {
        Testing::TestThread other([&] {
            emptyBefore = values.get() == nullptr;
            {
                ThreadSpecificGuard inner(values, &others);
                set.open();
                checked.pass();
                seen = values.get() == &others;
            }
            emptyAfter = values.get() == nullptr;
        });
        ASSERT_TRUE(set.pass());
        EXPECT_EQ(&mine, values.get());
        EXPECT_EQ(2U, values.size());
        checked.open();
    }
    EXPECT_TRUE(emptyBefore);
    EXPECT_TRUE(seen);
    EXPECT_TRUE(emptyAfter);
    EXPECT_EQ(&mine, values.get());
    EXPECT_EQ(1U, values.size());
}

TEST(ThreadSpecificGuard, AnExceptionRestoresToo) {
    ThreadSpecificValue values;
    int a = 0;
    int b = 0;
    ThreadSpecificGuard outer(values, &a);
    try {
        ThreadSpecificGuard inner(values, &b);
        throw std::runtime_error("through the guard");
    } catch (const std::runtime_error &) {
        EXPECT_EQ(&a, values.get());
    }
    EXPECT_EQ(1U, values.size());
}

TEST(ThreadSpecificGuard, WithoutMemoryThereIsNoEntryAndTheWayBackNeedsNone) {
    ThreadSpecificValue values;
    int a = 0;
    int b = 0;
    {
        const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
        ThreadSpecificGuard guard(values, &a);
        EXPECT_EQ(nullptr, values.get());
        EXPECT_EQ(0U, values.size());
    }
    EXPECT_EQ(0U, values.size());
    ThreadSpecificGuard outer(values, &a);
    const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
    {
        ThreadSpecificGuard hidden(values, nullptr);
        ThreadSpecificGuard inner(values, &b);
        EXPECT_EQ(&b, values.get());
    }
    EXPECT_EQ(&a, values.get());
}

TEST(ThreadSpecificGuard, ACancelledThreadLeavesNoEntry) {
    ThreadSpecificValue values;
    int a = 0;
    Testing::Gate set;
    Testing::TestThread thread([&] {
        ThreadSpecificGuard guard(values, &a);
        set.open();
        OSWrap::Thread::sleep(OSWrap::TimeSpec::INFINITETIME);
    });
    ASSERT_TRUE(set.pass());
    EXPECT_EQ(1U, values.size());
    EXPECT_TRUE(thread.stop());
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(0U, values.size());
}

} // namespace
