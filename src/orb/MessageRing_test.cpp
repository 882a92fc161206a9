#include "orb/MessageRing_p.h"

#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <deque>
#include <random>

namespace {

class MessageRingTest : public Testing::BrokerTest {
protected:
    TreflectMessage message(unsigned id) const {
        TreflectMessage made = orb.allocateRequest(4);
        made.transactionId(id);
        return made;
    }
};

TEST_F(MessageRingTest, KeepsTheOrderWhateverComesAndGoes) {
    std::mt19937 random(3);
    std::deque<unsigned> model;
    MessageRing ring;
    for (unsigned i = 1; i <= 5000; ++i) {
        if (random() % 100 < (i < 2500 ? 60U : 40U)) {
            ring.push_back(message(i));
            model.push_back(i);
        } else if (!model.empty()) {
            ASSERT_EQ(model.front(), ring.front().transactionId());
            ring.pop_front();
            model.pop_front();
        }
        ASSERT_EQ(model.size(), ring.size());
        ASSERT_EQ(model.empty(), ring.empty());
    }
    MessageRing other;
    other.swap(ring);
    EXPECT_TRUE(ring.empty());
    EXPECT_EQ(model.size(), other.size());
}

TEST_F(MessageRingTest, TakesNoMemoryOnceItIsLargeEnough) {
    const TreflectMessage one = message(1);
    MessageRing ring;
    ring.push_back(one);
    const Testing::HeapProbe probe;
    for (int i = 0; i < 1000; ++i) {
        ring.push_back(one);
        ring.pop_front();
    }
    EXPECT_EQ(0U, probe.allocations());
}

TEST_F(MessageRingTest, OnceItIsEmptyItKeepsNoMoreThanALittle) {
    const TreflectMessage one = message(1);
    MessageRing ring;
    for (const std::size_t size : {64U, 65U}) {
        while (ring.size() < size) {
            ring.push_back(one);
        }
        while (!ring.empty()) {
            ring.pop_front();
        }
        const Testing::HeapProbe probe;
        ring.push_back(one);
        EXPECT_EQ(size > 64 ? 1U : 0U, probe.allocations());
    }
}

TEST_F(MessageRingTest, WithoutMemoryItStaysAsItIs) {
    const TreflectMessage one = message(1);
    MessageRing ring;
    while (ring.size() < 8) {
        ring.push_back(one);
    }
    bool thrown = false;
    try {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        ring.push_back(one);
    } catch (const std::bad_alloc &) {
        thrown = true;
    }
    EXPECT_TRUE(thrown);
    EXPECT_EQ(8U, ring.size());
    EXPECT_EQ(1U, ring.front().transactionId());
}

} // namespace
