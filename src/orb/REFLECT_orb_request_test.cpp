#include "orb/REFLECT_orb.h"

#include "rmi/IPPRMI_exception.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Call.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "threads/HandlerState.h"

#include <memory>
#include <set>

namespace {

using Message = TreflectMessage;
using Testing::Call;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr TerminationId kOther(0x0043, 2, 1);

constexpr char kFailure[] = "00 00 00 01 00 00 00 04 00 00 00 00";

class RequestTest : public Testing::BrokerTest {
protected:
    RequestTest() {
        link.peerAppears(kPeer);
        link.peerAppears(kOther);
    }

    AddressedMessage nextRequest() {
        std::vector<AddressedMessage> issued = link.takeIssued(1);
        EXPECT_EQ(1U, issued.size());
        return issued.empty() ? AddressedMessage() : issued[0];
    }
    void respond(const AddressedMessage &request, unsigned number, unsigned kind = Message::kResp) {
        TreflectMessage response = orb.allocateResponse(TreflectMessage(request), 20);
        response.kind(static_cast<Message::kind_t>(kind));
        TipprmiStream body(std::move(response), true);
        body << number;
        AddressedMessage message = body.msg().addressed();
        message.originator() = request.destination();
        message.destination() = request.originator();
        link.deliver(message);
    }
    static unsigned idAfter(const AddressedMessage &request) {
        return TreflectMessage(request).transactionId() + (1U << 20);
    }
    std::string notFound(TerminationId target, unsigned id) const {
        return LogMakeString("ORB 0x%08X could not find destination termId=0x%08X for transactionId %X",
                             orb.termId().value(), target.value(), id);
    }
    std::string aborted(bool disconnected, bool gone) const {
        return LogMakeString("ORB 0x%08X request to target 0x%08X aborted (Detection Rem.Disc.=%s, TargetGone=%s)",
                             orb.termId().value(), kPeer.value(), disconnected ? "true" : "false",
                             gone ? "true" : "false");
    }
};

TEST_F(RequestTest, ARequestGoesOutAsItShouldAndItsResponseComesBack) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    const TreflectMessage message(request);
    EXPECT_EQ(kPeer, request.destination());
    EXPECT_EQ(orb.termId(), request.originator());
    EXPECT_EQ(Message::kRequ, message.kind());
    EXPECT_EQ(Message::tPayld, message.type());
    EXPECT_EQ(orb.orbId().nameId() | (orb.orbId().slotId() & 0xFU) << 16, message.transactionId() & 0xFFFFFU);
    EXPECT_FALSE(call.done);
    respond(request, 0x77);
    EXPECT_EQ("00 00 00 77", call.answer());
    EXPECT_EQ(1, call.result);
}

TEST_F(RequestTest, CallersGetTheirOwnResponses) {
    Call one(orb, kPeer);
    const AddressedMessage first = nextRequest();
    Call two(orb, kPeer);
    const AddressedMessage second = nextRequest();
    EXPECT_NE(TreflectMessage(first).transactionId(), TreflectMessage(second).transactionId());
    respond(second, 2);
    EXPECT_EQ("00 00 00 02", two.answer());
    EXPECT_FALSE(one.done);
    respond(first, 1);
    EXPECT_EQ("00 00 00 01", one.answer());
}

TEST_F(RequestTest, ATargetThatGoesEndsItsCallsOnly) {
    Call toPeer(orb, kPeer);
    nextRequest();
    Call toOther(orb, kOther);
    const AddressedMessage request = nextRequest();
    link.peerVanishes(kPeer);
    EXPECT_EQ(kFailure, toPeer.answer());
    EXPECT_EQ(0, toPeer.result);
    EXPECT_EQ(1U, log.count(3, aborted(true, false), kSource));
    EXPECT_FALSE(toOther.done);
    respond(request, 5);
    EXPECT_EQ("00 00 00 05", toOther.answer());
}

TEST_F(RequestTest, AReturnedRequestEndsItsCall) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    link.bounce(request);
    EXPECT_EQ(kFailure, call.answer());
    EXPECT_EQ(1U, log.count(3,
                            LogMakeString("ORB 0x%08X receives TRANSPORT_ERROR message of termId 0x%08X",
                                          orb.termId().value(), kPeer.value()),
                            kSource));
    EXPECT_EQ(Message::kRequ, TreflectMessage(request).kind()) << "the sender's own message must not change";
}

TEST_F(RequestTest, AResponseIsHandedOverWithoutMemory) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    const TreflectMessage response = orb.allocateResponse(TreflectMessage(request), 20);
    {
        const Testing::HeapProbe heap;
        const Testing::FailingHeap none;
        EXPECT_TRUE(orb.receive(response.addressed()));
        EXPECT_EQ(0U, heap.allocations());
    }
    EXPECT_NE(kFailure, call.answer());
    EXPECT_EQ(1, call.result);
}

TEST_F(RequestTest, WithoutMemoryToMarkAReturnedRequestTheCallFails) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    {
        const Testing::FailingHeap none;
        EXPECT_TRUE(orb.receiveError(request));
    }
    EXPECT_EQ(kFailure, call.answer());
    EXPECT_EQ(0, call.result);
}

TEST_F(RequestTest, ToNobodyFailsAtOnce) {
    for (bool twoWay : {true, false}) {
        Call(orb, kPeer, false).answer();
        const unsigned next = idAfter(nextRequest());
        log.clear();
        Call call(orb, TerminationId(0x0099, 1, 1), twoWay);
        EXPECT_EQ(kFailure, call.answer());
        EXPECT_EQ(0, call.result);
        EXPECT_EQ(1U, log.count(3, notFound(TerminationId(0x0099, 1, 1), next), kSource));
        EXPECT_EQ(1U, log.lines().size());
    }
}

/** One message goes to many targets, and those before may still be sending it. */
TEST_F(RequestTest, WithoutMemoryForAHeadOfItsOwnARequestIsNotSent) {
    TipprmiStream request(orb.allocateRequest(100), true);
    request << 1U;
    TipprmiStream response(100);
    EXPECT_TRUE(orb.forwardMsg_(kPeer, false, request.msg(), response));
    AddressedMessage sent = nextRequest();
    for (bool twoWay : {true, false}) {
        log.clear();
        unsigned id = 0;
        bool result = true;
        Testing::TestThread([&] {
            TipprmiStream other(orb.allocateRequest(100), true);
            orb.forwardMsg_(kOther, false, other.msg(), response); // what a thread's first request needs
            response << 0U;
            response.clear();
            id = idAfter(nextRequest());
            const Testing::FailingHeap none;
            result = orb.forwardMsg_(kPeer, twoWay, request.msg(), response);
        }).join();
        EXPECT_FALSE(result);
        unsigned exception = 0;
        response >> exception;
        EXPECT_EQ(1U, exception);
        EXPECT_TRUE(link.takeIssued().empty());
        EXPECT_EQ(1U, log.count(3, notFound(kPeer, id), kSource));
        EXPECT_TRUE(orb.forwardMsg_(kPeer, false, request.msg(), response));
        sent = nextRequest();
        EXPECT_EQ(id + (1U << 20), TreflectMessage(sent).transactionId());
    }
    Call next(orb, kPeer);
    respond(nextRequest(), 4);
    EXPECT_EQ("00 00 00 04", next.answer());
}

TEST_F(RequestTest, OneWayDoesNotWaitAndLeavesNothingBehind) {
    Call call(orb, kPeer, false);
    EXPECT_EQ("", call.answer());
    EXPECT_EQ(1, call.result);
    const AddressedMessage request = nextRequest();
    EXPECT_EQ(Message::kMsg, TreflectMessage(request).kind());
    respond(request, 1);
    EXPECT_EQ(1U, log.with("receives unexpected response").size());
}

TEST_F(RequestTest, IdsWrapAndPendingOnesArePassedOver) {
    Call pending(orb, kPeer);
    const AddressedMessage first = nextRequest();
    const unsigned taken = TreflectMessage(first).transactionId();
    std::set<unsigned> ids;
    for (unsigned i = 0; i < 4095 + 10; ++i) {
        Call call(orb, kPeer, false);
        call.answer();
        ids.insert(TreflectMessage(nextRequest()).transactionId());
    }
    EXPECT_EQ(4095U, ids.size());
    EXPECT_EQ(0U, ids.count(taken));
    respond(first, 9);
    EXPECT_EQ("00 00 00 09", pending.answer());
}

TEST_F(RequestTest, ACancelledCallerLeavesNothingBehind) {
    auto call = std::make_unique<Call>(orb, kPeer);
    const AddressedMessage request = nextRequest();
    EXPECT_TRUE(call->thread.stop());
    EXPECT_TRUE(call->thread.join());
    EXPECT_FALSE(call->done);
    call.reset();
    respond(request, 1);
    EXPECT_EQ(1U, log.with("receives unexpected response").size()) << "its entry is gone";
    Call next(orb, kPeer);
    respond(nextRequest(), 2);
    EXPECT_EQ("00 00 00 02", next.answer());
}

TEST_F(RequestTest, CallersDoNotHoldTheRunPermissionWhileTheyWait) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    {
        const TreflectHandlerState state(true); // would wait for ever
        EXPECT_TRUE(TreflectORB::hasRunPermission());
    }
    respond(request, 1);
    EXPECT_EQ("00 00 00 01", call.answer());
}

/** The response and the end of the target come together, in all orders; each call ends once and with one of the two. */
TEST_F(RequestTest, AResponseMayRaceWithTheEndOfItsTarget) {
    for (int round = 0; round < 200; ++round) {
        Call call(orb, kPeer);
        const AddressedMessage request = nextRequest();
        {
            Testing::TestThread responder([&] { respond(request, 3); });
            link.peerVanishes(kPeer);
        }
        const std::string answer = call.answer();
        ASSERT_TRUE((answer == "00 00 00 03" && call.result == 1) || (answer == kFailure && call.result == 0))
            << answer;
        link.peerAppears(kPeer);
    }
}

/** A thread's next request is entered while the target of the one before goes. */
TEST_F(RequestTest, TheEndOfTheTargetBeforeDoesNotTouchTheNextRequest) {
    ASSERT_TRUE(
        log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), kOther.value()), kSource));
    for (int round = 0; round < 200; ++round) {
        std::string second;
        bool good = false;
        Testing::TestThread caller([&] {
            for (TerminationId target : {kPeer, kOther}) {
                TipprmiStream response(100);
                TipprmiStream request(orb.allocateRequest(100), true);
                good = orb.forwardMsg_(target, true, request.msg(), response);
                second = Testing::hex(response);
            }
        });
        respond(nextRequest(), 1);
        link.peerVanishes(kPeer);
        respond(nextRequest(), 2);
        caller.join();
        ASSERT_TRUE(good);
        ASSERT_EQ("00 00 00 02", second) << round;
        log.clear();
        link.peerAppears(kPeer);
        // The disappearance is told by a thread of its own: told late, it would end the next round's first request.
        ASSERT_TRUE(log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), kPeer.value()),
                                kSource));
    }
}

TEST_F(RequestTest, AShortCallIsReportedAndSent) {
    TipprmiStream request(orb.allocateRequest(100), true);
    TipprmiStream response(100);
    const unsigned char body[15] = {};
    request.marshall(body, sizeof body);
    EXPECT_TRUE(orb.forwardMsg(orb.convertId(kPeer), false, request, response));
    EXPECT_EQ(
        1U,
        log.count(3, LogMakeString("ORB 0x%08X forwardMsg message too short (iptr_=15,size=96)", orb.termId().value()),
                  kSource));
    EXPECT_EQ(Message::tPayld, TreflectMessage(nextRequest()).type());
    log.clear();
    request.marshall(body, 1); // 16
    EXPECT_TRUE(orb.forwardMsg(orb.convertId(kPeer), false, request, response));
    EXPECT_TRUE(log.lines().empty());

    TreflectMessage claiming = orb.allocateRequest(8);
    claiming.buf()[2] = 1; // 256 bytes, says the size
    TipprmiStream foreign(claiming, false);
    EXPECT_TRUE(orb.forwardMsg(orb.convertId(kPeer), false, foreign, response));
    EXPECT_EQ(1U, log.with(" forwardMsg message too short (iptr_=256,size=").size());
}

TEST_F(RequestTest, AResponseToWhatHasFailedIsDropped) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    link.peerVanishes(kPeer);
    EXPECT_EQ(kFailure, call.answer());
    link.peerAppears(kPeer);
    log.clear();
    respond(request, 1);
    EXPECT_EQ(1U,
              log.count(3,
                        LogMakeString("ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)",
                                      orb.termId().value(), kPeer.value(), TreflectMessage(request).transactionId()),
                        kSource));
    EXPECT_EQ(kFailure, Testing::hex(call.response));
}

/** Whoever comes first: the call ends with its result or cancelled, and its id is free again. */
TEST_F(RequestTest, AResponseMayRaceWithTheCancellationOfItsCaller) {
    log.clear();
    unsigned cancelled = 0;
    for (unsigned round = 0; round < 200; ++round) {
        Call call(orb, kPeer);
        const AddressedMessage request = nextRequest();
        {
            Testing::Gate start;
            Testing::TestThread responder([&] {
                start.pass();
                respond(request, round);
            });
            start.open();
            if (round % 2 != 0) { // gives the response a little more time
                Testing::TestThread([] {}).join();
            }
            call.thread.stop();
        }
        ASSERT_TRUE(call.thread.join());
        ASSERT_EQ(call.done, call.result == 1) << round;
        if (call.done) {
            unsigned number = ~0U;
            call.response >> number;
            ASSERT_EQ(round, number);
        } else {
            ++cancelled;
        }
    }
    EXPECT_LE(log.with("receives unexpected response").size(), cancelled);
    std::set<unsigned> ids;
    TipprmiStream response(100);
    for (unsigned i = 0; i < 4096; ++i) {
        TipprmiStream request(orb.allocateRequest(100), true);
        ASSERT_TRUE(orb.forwardMsg_(kPeer, false, request.msg(), response));
        for (const AddressedMessage &message : link.takeIssued()) {
            ids.insert(TreflectMessage(message).transactionId());
        }
    }
    EXPECT_EQ(4096U, ids.size());
}

} // namespace
