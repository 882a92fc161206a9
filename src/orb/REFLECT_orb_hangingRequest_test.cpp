#include "orb/REFLECT_orb.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <set>

namespace {

using Message = TreflectMessage;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr TerminationId kSameSlot(0x0043, 1, 1);
constexpr TerminationId kNobody(0x0041, 2, 1);

class HangingRequestTest : public Testing::BrokerTest {
protected:
    /** What is told about a target after so many minutes. */
    std::string told(int minutes, TerminationId target, const char *outcome) const {
        return LogMakeString("ORB Ox%08X waits now %d minutes for 0x%08X, sending response failure message %s",
                             orb.termId().value(), minutes, target.value(), outcome);
    }
};

TEST_F(HangingRequestTest, AUnitInAnotherSlotIsAskedToResetItself) {
    const Testing::ManualPeer peer(link, orb, kPeer);
    TipprmiStream request = peer.call(0x1F, true, 0x2A, 7, 0x12345678);
    std::set<unsigned> ids{0x12345678};
    for (int minutes = 5; minutes < static_cast<int>(orb.waitDuration()); ++minutes) {
        EXPECT_TRUE(orb.waitingTooLongFor(kPeer, request.msg(), minutes));
        EXPECT_EQ(1U, log.count(3, told(minutes, kPeer, "succeeded"), kSource));
        const AddressedMessage issued = peer.next();
        const TreflectMessage sent(issued);
        EXPECT_EQ(Message::kReFai, sent.kind());
        EXPECT_EQ(Message::tPayld, sent.type());
        EXPECT_TRUE(ids.insert(sent.transactionId()).second) << "a fresh id each time";
        EXPECT_EQ(hex(request.msg()), hex(sent)) << "with the body of the request";
        EXPECT_EQ(orb.termId(), issued.originator());
        EXPECT_EQ(kPeer, issued.destination());
        EXPECT_EQ(Message::kRequ, request.msg().kind()) << "the request itself does not change";
        EXPECT_EQ(0x12345678U, request.msg().transactionId());
    }
    EXPECT_GE(ids.size(), 6U);
}

TEST_F(HangingRequestTest, AUnitThatCannotBeAskedIsReported) {
    const TreflectMessage request(&orb, 1, 100);
    EXPECT_FALSE(orb.waitingTooLongFor(kNobody, request, 5));
    EXPECT_EQ(1U, log.count(3, told(5, kNobody, "failed"), kSource));
}

/** Sent as it is it would be the request once more. */
TEST_F(HangingRequestTest, WithoutMemoryForTheHeadNothingIsSent) {
    link.peerAppears(kPeer);
    TreflectMessage request(&orb, 1, 100);
    request.kind(Message::kRequ);
    bool asked = true;
    {
        const Testing::FailingHeap none;
        asked = orb.waitingTooLongFor(kPeer, request, 5);
    }
    EXPECT_FALSE(asked);
    EXPECT_TRUE(link.takeIssued().empty());
    EXPECT_EQ(1U, log.count(3, told(5, kPeer, "failed"), kSource));
}

TEST_F(HangingRequestTest, TheOwnUnitIsNotAsked) {
    link.peerAppears(kSameSlot);
    const TreflectMessage request(&orb, 1, 100);
    EXPECT_FALSE(orb.waitingTooLongFor(kSameSlot, request, 9));
    EXPECT_TRUE(link.takeIssued().empty());
    EXPECT_TRUE(log.with("minutes").empty());
}

TEST_F(HangingRequestTest, AResponseCountsOnce) {
    const Testing::ManualPeer peer(link, orb, kPeer);
    TipprmiStream response(100);
    bool result = false;
    AddressedMessage asked;
    {
        Testing::TestThread caller([&] {
            TipprmiStream request(orb.allocateRequest(100), true);
            result = orb.forwardMsg_(kPeer, true, request.msg(), response);
        });
        asked = peer.next();
        peer.respond(asked, [](TipprmiStream &body) { body << 1U; });
        peer.respond(asked, [](TipprmiStream &body) { body << 2U; });
    }
    EXPECT_TRUE(result);
    EXPECT_EQ("00 00 00 01", hex(response));
    EXPECT_EQ(1U, log.count(3,
                            LogMakeString("ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)",
                                          orb.termId().value(), kPeer.value(), TreflectMessage(asked).transactionId()),
                            kSource));
}

TEST_F(HangingRequestTest, AResponseOfAnotherTypeCountsAsWell) {
    const Testing::ManualPeer peer(link, orb, kPeer);
    TipprmiStream response(100);
    {
        Testing::TestThread caller([&] {
            TipprmiStream request(orb.allocateRequest(100), true);
            orb.forwardMsg_(kPeer, true, request.msg(), response);
        });
        const TreflectMessage asked(peer.next());
        TipprmiStream answer = peer.message(Message::tPfCnt, Message::kResp, asked.transactionId());
        answer << 3U;
        peer.send(answer);
    }
    EXPECT_EQ("00 00 00 03", hex(response));
}

} // namespace
