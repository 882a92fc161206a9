#include "orb/REFLECT_orb.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <csignal>
#include <cstdio>

namespace {

using Message = TreflectMessage;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr TerminationId kNobody(0x0041, 2, 1);

/** Requests of the thread that has called receive() last, which must never wait for what only it can bring. */
class ReceivingThreadTest : public Testing::BrokerTest {
protected:
    void SetUp() override {
        const TipprmiStream stray = peer.message(Message::tPayld, Message::kResp, 0);
        ASSERT_TRUE(orb.receive(stray.msg().addressed()));
        ASSERT_EQ(OSWrap::Thread::getCurrentId(), orb.receivingThreadId());
        log.clear();
    }
    bool send(TerminationId target, bool twoWay) {
        TipprmiStream request(orb.allocateRequest(100), true);
        return orb.forwardMsg_(target, twoWay, request.msg(), response);
    }
    /** Its failures, as the broker tells them. */
    unsigned failures(TerminationId target) {
        peer.send(peer.message(Message::tPfCnt, Message::kRequ, 1));
        TipprmiStream answer(TreflectMessage(peer.next()), false);
        std::string actor;
        TipprmiSequence<TreflectORB::PerfCnts> counters;
        answer >> actor >> counters;
        for (unsigned i = 0; i < counters.getLength(); ++i) {
            if (counters[i].target == target) {
                return counters[i].failures;
            }
        }
        return 0;
    }

    Testing::ManualPeer peer{link, orb, kPeer};
    TipprmiStream response{100};
};

TEST_F(ReceivingThreadTest, ATwoWayRequestIsSentAndNotWaitedFor) {
    response << 0xCAFEU;
    const unsigned before = failures(kPeer);
    ASSERT_TRUE(orb.receive(peer.message(Message::tPayld, Message::kResp, 0).msg().addressed()));
    log.clear();
    EXPECT_TRUE(send(kPeer, true));
    EXPECT_EQ("00 00 CA FE", hex(response)) << "left as it was";
    const AddressedMessage request = peer.next();
    EXPECT_EQ(Message::kRequ, TreflectMessage(request).kind());
    const unsigned id = TreflectMessage(request).transactionId();
    EXPECT_EQ(1U, log.count(3, LogMakeString("ORB did NOT add tID %X transaction to ongoingRequests_", id), kSource));
    EXPECT_EQ(1U, log.count(3, "receivingThread called forwardMessage", kSource));
    EXPECT_EQ(2U, log.lines().size());
    peer.respond(request, [](TipprmiStream &body) { body << 1U; });
    EXPECT_EQ(1U, log.count(3,
                            LogMakeString("ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)",
                                          orb.termId().value(), kPeer.value(), id),
                            kSource));
    EXPECT_EQ(before, failures(kPeer)) << "it has not failed";
}

TEST_F(ReceivingThreadTest, AOneWayMessageIsSent) {
    EXPECT_TRUE(send(kPeer, false));
    EXPECT_EQ(Message::kMsg, TreflectMessage(peer.next()).kind());
    EXPECT_TRUE(hex(response).empty());
    EXPECT_EQ(
        1U,
        log.count(3, LogMakeString("ORB receiving thread = %lu found in forwardMsg()", OSWrap::Thread::getCurrentId()),
                  kSource));
    EXPECT_EQ(1U, log.lines().size());
}

TEST_F(ReceivingThreadTest, WhatCannotBeSentFails) {
    for (bool twoWay : {true, false}) {
        EXPECT_TRUE(send(kPeer, false));
        const unsigned next = TreflectMessage(peer.next()).transactionId() + (1U << 20);
        response.clear();
        EXPECT_FALSE(send(kNobody, twoWay));
        EXPECT_EQ(1U,
                  log.count(3,
                            LogMakeString("ORB 0x%08X could not find destination termId=0x%08X for transactionId %X",
                                          orb.termId().value(), kNobody.value(), next),
                            kSource));
        EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 00", hex(response));
    }
    EXPECT_GE(failures(kNobody), 2U);
}

TEST_F(ReceivingThreadTest, OtherThreadsWaitForTheirResponses) {
    bool result = false;
    {
        Testing::TestThread caller([&] { result = send(kPeer, true); });
        peer.respond(peer.next(), [](TipprmiStream &body) { body << 7U; });
    }
    EXPECT_TRUE(result);
    EXPECT_EQ("00 00 00 07", hex(response));
    EXPECT_TRUE(log.with("receivingThread").empty());
}

// --- a target whose end the broker has not been told ----------------------------------------------------------------

SCENARIO(targetGone) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    const Testing::LogCapture log;
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const Testing::ManualPeer peer(link, orb, kPeer);
    TipprmiStream response(100);
    bool result = true;
    Testing::TestThread caller([&] {
        TipprmiStream request(orb.allocateRequest(100), true);
        request << 0x1FU << true << 2U << 3U;
        request.msg().type(Message::tPayld);
        result = orb.forwardMsg_(kPeer, true, request.msg(), response);
    });
    const std::string described =
        LogMakeString("    ReflMsg output: tPayld, kRequ.(kRequ.), des=%08X, org=%08X, trAcId=%08X ( 0: )",
                      kPeer.value(), orb.termId().value(), TreflectMessage(peer.next()).transactionId());
    {
        const TreflectHandlerState state(true); // keeps the membership thread from telling
        link.peerVanishes(kPeer);
        const std::string text =
            LogMakeString("ORB 0x%08X request to target 0x%08X aborted (Detection Rem.Disc.=false, TargetGone=true)",
                          orb.termId().value(), kPeer.value());
        SCENARIO_CHECK(log.waitFor(3, text, kSource));
        SCENARIO_CHECK(log.waitFor(5, "    Message data: ioid=0x1F,transaction=true,cc=0x2,mc=3", kSource));
        SCENARIO_CHECK(log.count(5, described, "ReflectMessage") != 0); // as good a message as when it was sent
    }
    SCENARIO_CHECK(caller.join());
    SCENARIO_CHECK(!result);
    SCENARIO_CHECK(hex(response) == "00 00 00 01 00 00 00 04 00 00 00 00");
}

TEST(TargetGoneTest, TheCallEndsWithTheNextStep) {
    const Testing::ProcessResult result = Testing::runScenario("targetGone", {"REFLECTORB_TIME_SCALE=100"});
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
