#include "orb/OngoingRequest_p.h"

#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"

#include <memory>

namespace {

using Transport::TerminationId;

constexpr TerminationId kTarget(0x0042, 2, 1);
constexpr TerminationId kOther(0x0043, 2, 1);

class OngoingRequestTest : public Testing::BrokerTest {
protected:
    TreflectMessage *message(unsigned id) const { return new TreflectMessage(&orb, id, 100); }
    /** The response if there is one; does not wait then. */
    const TreflectMessage *response(bool unlimited = true) {
        bool present = false;
        const TreflectMessage *found = own.wait(unlimited, true, present, request, &orb);
        EXPECT_TRUE(present);
        return found;
    }

    OngoingRequest own;
    TreflectMessage request;
};

TEST_F(OngoingRequestTest, EachThreadHasItsOwn) {
    OngoingRequest *const mine = OngoingRequest::getThreadInstance();
    ASSERT_NE(nullptr, mine);
    EXPECT_EQ(mine, OngoingRequest::getThreadInstance());
    OngoingRequest *others = mine;
    Testing::TestThread([&] { others = OngoingRequest::getThreadInstance(); }).join();
    EXPECT_NE(nullptr, others);
    EXPECT_NE(mine, others);
}

TEST_F(OngoingRequestTest, IdleItWaitsForNothing) {
    EXPECT_EQ(nullptr, response(true));
    EXPECT_EQ(nullptr, response(false));
    own.setTransactionAndTerminationId(5, kTarget);
    own.free();
    EXPECT_EQ(nullptr, response(true));
    EXPECT_EQ(nullptr, response(false));
}

TEST_F(OngoingRequestTest, OneWayItWaitsForNothing) {
    own.setTransactionAndTerminationId(5, kTarget);
    bool present = false;
    EXPECT_EQ(nullptr, own.wait(true, false, present, request, &orb));
    EXPECT_TRUE(present);
}

TEST_F(OngoingRequestTest, OnlyTheResponseToItIsAccepted) {
    own.setTransactionAndTerminationId(5, kTarget);
    EXPECT_EQ(kTarget, own.toTerminationId());
    own.reset(message(6), 6U); // deleted, as the address sanitizer sees
    own.reset(message(5), kOther);
    own.reset(OngoingRequest::disconnected(), kOther);
    TreflectMessage *const good = message(5);
    own.reset(good, 5U);
    EXPECT_EQ(good, response());
    EXPECT_EQ(good, response(false)) << "it stays until the end";
    own.reset(message(7), 7U);
    EXPECT_EQ(good, response());
    TreflectMessage *const next = message(5);
    own.reset(next, 5U);
    EXPECT_EQ(next, response()) << "the last one counts";
    own.free();
    EXPECT_EQ(nullptr, response());
}

TEST_F(OngoingRequestTest, TheEndOfTheTargetIsHandedOverLikeAResponse) {
    own.setTransactionAndTerminationId(5, kTarget);
    own.reset(OngoingRequest::disconnected(), kTarget);
    EXPECT_EQ(OngoingRequest::disconnected(), response());
    TreflectMessage *const late = message(5);
    own.reset(late, 5U); // takes its place, which is no message to delete
    EXPECT_EQ(late, response());
    own.reset(OngoingRequest::disconnected(), 5U);
    EXPECT_EQ(OngoingRequest::disconnected(), response(false));
    own.free();
}

TEST_F(OngoingRequestTest, ANewRequestBeginsWithoutResponse) {
    own.setTransactionAndTerminationId(5, kTarget);
    own.reset(message(5), 5U);
    own.setTransactionAndTerminationId(6, kOther);
    EXPECT_EQ(kOther, own.toTerminationId());
    own.reset(message(5), 5U);
    own.reset(OngoingRequest::disconnected(), kTarget);
    TreflectMessage *const good = message(6);
    const TreflectMessage *found = nullptr;
    {
        Testing::TestThread waiter([&] { found = response(); });
        own.reset(good, 6U);
    }
    EXPECT_EQ(good, found) << "of the responses before none was kept";
}

TEST_F(OngoingRequestTest, NothingHandedOverWakesNobodyAndIsNoResponse) {
    own.setTransactionAndTerminationId(5, kTarget);
    TreflectMessage *const first = message(5);
    TreflectMessage copy(*first);
    const auto isShared = [&copy] {
        const Testing::HeapProbe heap;
        copy.kind(TreflectMessage::kResp); // takes bytes of its own if others have them, too
        return heap.allocations() != 0;
    };
    own.reset(first, 5U);
    own.reset(static_cast<TreflectMessage *>(nullptr), 5U); // takes the place of the one before
    EXPECT_FALSE(isShared()) << "the one before is kept";
    TreflectMessage *const good = message(5);
    const TreflectMessage *found = nullptr;
    {
        Testing::TestThread waiter([&] { found = response(); });
        own.reset(static_cast<TreflectMessage *>(nullptr), 5U);
        own.reset(good, 5U);
    }
    EXPECT_EQ(good, found);
}

} // namespace
