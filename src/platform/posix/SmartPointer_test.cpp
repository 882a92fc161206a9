#include "platform/SmartPointer.h"

#include "support/Concurrency.h"
#include "support/HeapProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

namespace OSWrap {
namespace {

struct Base {
    int number = 4;
};
struct Derived : Base {
    explicit Derived(std::atomic<int> &count) : destroyed(count) {}
    ~Derived() { ++destroyed; }
    std::atomic<int> &destroyed;
};

TEST(SmartPointer, TheLastCopyDeletesTheObjectAsWhatItWasMade) {
    std::atomic<int> destroyed{0};
    SmartPointer<Base> first(new Derived(destroyed)); // Base has no virtual destructor
    EXPECT_EQ(4, first->number);
    EXPECT_EQ(4, (*first).number);
    EXPECT_TRUE(first);
    SmartPointer<Base> second = first;
    EXPECT_EQ(first.get(), second.get());
    first = SmartPointer<Base>();
    EXPECT_FALSE(first);
    EXPECT_EQ(nullptr, first.get());
    EXPECT_EQ(0, destroyed);
    second = SmartPointer<Base>(new Derived(destroyed));
    EXPECT_EQ(1, destroyed);
}

TEST(SmartPointer, TheLastCopyMayBeInAnotherThread) {
    std::atomic<int> destroyed{0};
    SmartPointer<Base> own(new Derived(destroyed));
    Testing::Gate released;
    {
        Testing::TestThread thread([copy = own, &released, &destroyed]() mutable {
            released.pass();
            EXPECT_EQ(0, destroyed);
            copy = SmartPointer<Base>();
            EXPECT_EQ(1, destroyed);
        });
        own = SmartPointer<Base>();
        released.open();
    }
    EXPECT_EQ(1, destroyed);
}

TEST(SmartPointer, ConvertsToPointersToTheBase) {
    std::atomic<int> destroyed{0};
    {
        const SmartPointer<Derived> derived(new Derived(destroyed));
        const SmartPointer<Base> base(derived);
        EXPECT_EQ(derived.get(), base.get());
    }
    EXPECT_EQ(1, destroyed);
}

TEST(SmartPointer, IsNullWithoutMemoryForTheCount) {
    if (!Testing::kLibraryHeapIsProbed) {
        return; // the allocation cannot be made to fail
    }
    std::atomic<int> destroyed{0};
    auto *object = new Derived(destroyed);
    bool null = false;
    {
        const Testing::FailingHeap noMemory(0, Testing::FailingHeap::Calls::all);
        const SmartPointer<Base> pointer(object);
        null = !pointer;
    }
    EXPECT_TRUE(null);
    EXPECT_EQ(1, destroyed) << "owned, so deleted";
}

} // namespace
} // namespace OSWrap
