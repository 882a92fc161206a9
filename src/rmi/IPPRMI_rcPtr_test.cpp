#include "rmi/IPPRMI_rcPtr.h"

#include "support/Concurrency.h"
#include "support/HeapProbe.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

namespace {

/** A value that counts its living ones, and may keep another alive. */
class Value : public TipprmiRCObject {
public:
    explicit Value(int number, bool shareable = true) : number_(number) {
        ++alive;
        if (!shareable) {
            markUnshareable();
        }
    }
    Value(const Value &other) : TipprmiRCObject(other), next(other.next), number_(other.number_) { ++alive; }
    Value &operator=(const Value &other) = default;
    ~Value() override { --alive; }
    int number() const { return number_; }

    static std::atomic<int> alive;
    TipprmiRCPtr<Value> next;

private:
    int number_;
};
std::atomic<int> Value::alive{0};

using Pointer = TipprmiRCPtr<Value>;

class RCPtrTest : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(0, Value::alive); }
};

TEST_F(RCPtrTest, AFreshValueHasNoPointersAndMayBeShared) {
    const auto value = std::make_unique<Value>(1);
    EXPECT_EQ(0, value->referenceCount());
    EXPECT_TRUE(value->isShareable());
    value->addReference();
    const Value copy(*value);
    EXPECT_EQ(0, copy.referenceCount()) << "the count is not copied";
}

TEST_F(RCPtrTest, TheLastPointerEndsTheValue) {
    Pointer first(new Value(1));
    EXPECT_EQ(1, first->referenceCount());
    {
        const Pointer second(first);
        EXPECT_EQ(first.get(), second.get());
        EXPECT_EQ(2, (*second).referenceCount());
    }
    EXPECT_EQ(1, first->referenceCount());
    first = Pointer();
    EXPECT_FALSE(first);
    EXPECT_EQ(0, Value::alive);
}

TEST_F(RCPtrTest, AssigningWhatIsAlreadySharedChangesNothing) {
    Pointer first(new Value(1));
    Pointer second(first);
    first = *&first;
    EXPECT_EQ(2, first->referenceCount());
    first = second;
    EXPECT_EQ(2, first->referenceCount());
    Pointer none;
    none = Pointer(nullptr);
    EXPECT_EQ(nullptr, none.get());
    second = none;
    EXPECT_EQ(1, first->referenceCount());
    EXPECT_EQ(nullptr, second.get());
}

TEST_F(RCPtrTest, MovingTakesNoPart) {
    Pointer first(new Value(1));
    Pointer second(std::move(first));
    EXPECT_EQ(1, second->referenceCount());
    Pointer third(new Value(3));
    third = std::move(second);
    EXPECT_EQ(1, third->number());
    EXPECT_EQ(1, third->referenceCount());
}

TEST_F(RCPtrTest, AssigningTheTailOfAChainKeepsTheTail) {
    Pointer head(new Value(1));
    head->next = Pointer(new Value(2));
    head->next->next = Pointer(new Value(3));
    head = head->next; // the old head, which ends with this, is what kept the new one alive
    EXPECT_EQ(2, head->number());
    EXPECT_EQ(1, head->referenceCount());
    EXPECT_EQ(3, head->next->number());
    EXPECT_EQ(2, Value::alive);
}

TEST_F(RCPtrTest, AValueThatMayNotBeSharedIsCopied) {
    Value original(7, false);
    original.addReference();
    const Pointer first(&original);
    EXPECT_NE(&original, first.get());
    EXPECT_EQ(7, first->number());
    EXPECT_EQ(1, first->referenceCount());
    EXPECT_TRUE(first->isShareable()) << "the copy may be";
    EXPECT_EQ(1, original.referenceCount());
    const Pointer second(first);
    EXPECT_EQ(first.get(), second.get());

    const Testing::FailingHeap none;
    const Pointer third(&original);
    EXPECT_EQ(nullptr, third.get()) << "no memory for the copy";
}

TEST_F(RCPtrTest, PointersOfSeveralThreadsShareAValue) {
    Pointer shared(new Value(1));
    Testing::Gate start;
    {
        std::vector<std::unique_ptr<Testing::TestThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(std::make_unique<Testing::TestThread>([&start, own = shared]() mutable {
                start.pass();
                for (int round = 0; round < 2000; ++round) {
                    Pointer copy(own);
                    Pointer other;
                    other = copy;
                }
                own = Pointer();
            }));
        }
        start.open();
        shared = Pointer();
    }
    EXPECT_EQ(0, Value::alive);
}

} // namespace
