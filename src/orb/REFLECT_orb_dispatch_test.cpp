#include "orb/REFLECT_orb.h"

#include "rmi/IPPRMI_exception.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <functional>

namespace {

using Message = TreflectMessage;
using Testing::eventually;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr char kFailure[] = "00 00 00 01 00 00 00 04 00 00 00 00";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr TerminationId kNobody(0x0099, 2, 1);

/** An object with one method, whatever the codes. */
class Thing : public TipprmiObjectSkeleton {
public:
    using Method = std::function<bool(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response)>;

    Thing(const char *name, Method method)
        : TipprmiObjectSkeleton(TipprmiOID(name, NamespaceId(1))), method_(std::move(method)) {}

    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) override {
        EXPECT_TRUE(TreflectORB::hasRunPermission());
        lastTransaction = transaction;
        const bool result = method_(cc, mc, request, response);
        ++calls;
        return result;
    }

    std::atomic<int> calls{0};
    std::atomic<bool> lastTransaction{false};

private:
    const Method method_;
};

bool addOne(unsigned, unsigned, TipprmiStream &request, TipprmiStream &response) {
    unsigned number = 0;
    request >> number;
    response << 0U << std::string() << number + 1;
    return true;
}

bool writeAndRefuse(unsigned, unsigned, TipprmiStream &, TipprmiStream &response) {
    response << std::string(500, 'x');
    return false;
}

class DispatchTest : public Testing::BrokerTest {
protected:
    /** The data of the next message to the peer. */
    std::string answer() {
        const AddressedMessage message = peer.next();
        last = TreflectMessage(message);
        return hex(TipprmiStream(last, false));
    }
    bool awaitHandled(std::size_t times) const {
        return eventually([&] { return log.count(3, "Handling request message failed rc=0", kSource) == times; });
    }

    Testing::ManualPeer peer{link, orb, kPeer};
    TreflectMessage last;
};

TEST_F(DispatchTest, AMethodIsRunAndItsResponseGoesBackToTheCaller) {
    Thing thing("thing", [](unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
        response << cc << mc;
        return addOne(cc, mc, request, response);
    });
    TipprmiStream call = peer.call(thing.getInternalOID(), true, 0x51, 7, 0x12300042);
    call << 0x10U;
    peer.send(call);
    EXPECT_EQ("00 00 00 51 00 00 00 07 00 00 00 00 00 00 00 00 00 00 00 11", answer());
    EXPECT_EQ(0x12300042U, last.transactionId());
    EXPECT_EQ(Message::tPayld, last.type());
    EXPECT_EQ(Message::kResp, last.kind());
    EXPECT_EQ(orb.termId(), last.originator());
    EXPECT_EQ(kPeer, last.destination());
    EXPECT_TRUE(thing.lastTransaction);
    EXPECT_TRUE(log.with("failed").empty());
}

TEST_F(DispatchTest, AnAnswerMayOutgrowItsFirstRoom) {
    Thing thing("thing", [](unsigned, unsigned, TipprmiStream &, TipprmiStream &response) {
        response << std::string(5000, 'a');
        return true;
    });
    peer.send(peer.call(thing.getInternalOID(), true, 1, 1));
    EXPECT_EQ(3U * (5000 + 4) - 1, answer().size());
    EXPECT_EQ(orb.termId(), last.originator());
}

/** The streams of a method that hands its own on are those of another call afterwards. */
TEST_F(DispatchTest, AnAnswerIsThatOfItsRequestWhateverTheMethodDidWithItsStreams) {
    constexpr TerminationId kThird(0x0043, 2, 1);
    const Testing::ManualPeer third(link, orb, kThird);
    for (const bool refuses : {false, true}) {
        Thing thing("thing", [&](unsigned, unsigned, TipprmiStream &request, TipprmiStream &response) {
            TipprmiStream on(orb.allocateRequest(100), true);
            on << 1U << true << 1U << 1U;
            EXPECT_TRUE(orb.forwardMsg(orb.convertId(kThird), true, on, response));
            request = TipprmiStream(response.msg(), false);
            return !refuses;
        });
        peer.send(peer.call(thing.getInternalOID(), true, 0x51, 7, 0x12300042));
        const AddressedMessage asked = peer.next();
        EXPECT_EQ(kThird, asked.destination());
        third.respond(asked, [](TipprmiStream &body) { body << 0xAAU; });
        EXPECT_EQ(refuses ? kFailure : "00 00 00 AA", answer());
        EXPECT_EQ(0x12300042U, last.transactionId());
        EXPECT_EQ(Message::tPayld, last.type());
        EXPECT_EQ(Message::kResp, last.kind());
        EXPECT_EQ(orb.termId(), last.originator());
        EXPECT_EQ(kPeer, last.destination());
    }
}

TEST_F(DispatchTest, AMethodThatRefusesLeavesNothingOfWhatItWrote) {
    Thing thing("thing", &writeAndRefuse);
    peer.send(peer.call(thing.getInternalOID(), true, 1, 1));
    EXPECT_EQ(kFailure, answer());
    EXPECT_TRUE(awaitHandled(1));
}

TEST_F(DispatchTest, OneWayIsNeverAnsweredNorRecorded) {
    Thing thing("thing", &writeAndRefuse);
    Thing good("good", &addOne);
    peer.send(peer.call(good.getInternalOID(), false, 0x77, 1));
    EXPECT_TRUE(eventually([&] { return good.calls == 1; }));
    EXPECT_FALSE(good.lastTransaction);
    peer.send(peer.call(thing.getInternalOID(), false, 0x77, 1));
    EXPECT_TRUE(awaitHandled(1)) << "only that which failed";
    peer.send(peer.call(good.getInternalOID(), true, 0x78, 1)); // what the others might have sent would be before it
    answer();
    EXPECT_TRUE(link.takeIssued().empty());
    EXPECT_TRUE(eventually([&] {
        log.clear();
        orb.dumpMessages();
        return log.with("CC:0x78 MC:0x1").size() == 1;
    }));
    EXPECT_TRUE(log.with("CC:0x77").empty());
}

TEST_F(DispatchTest, TheBodyDecidesAboutTheAnswer) {
    Thing thing("thing", &addOne);
    TipprmiStream call = peer.message(Message::tPayld, Message::kRequ, 1);
    call << thing.getInternalOID() << 0 << 1U << 1U;
    peer.send(call);
    TipprmiStream other = peer.message(Message::tPayld, Message::kMsg, 2);
    other << thing.getInternalOID() << static_cast<int>(0x80000000) << 1U << 1U; // anything but 0 is true
    peer.send(other);
    EXPECT_EQ("00 00 00 00 00 00 00 00 00 00 00 01", answer());
    EXPECT_EQ(2U, last.transactionId());
    EXPECT_TRUE(eventually([&] { return thing.calls == 2; }));
    peer.send(peer.call(thing.getInternalOID(), true, 1, 1, 3)); // what the first might have sent would be before it
    answer();
    EXPECT_EQ(3U, last.transactionId());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(DispatchTest, ATruncatedCallIsOneWayToNobody) {
    TipprmiStream call = peer.message(Message::tPayld, Message::kRequ, 1);
    const unsigned char bytes[3] = {1, 2, 3};
    call.marshall(bytes, 3);
    peer.send(call);
    EXPECT_TRUE(log.waitFor(3, "ioid=0x0,transaction=false,classCode=0x0,methodCode=0", kSource));
    Thing thing("thing", &addOne);
    peer.send(peer.call(thing.getInternalOID(), true, 1, 1, 2)); // an answer to the first would be before it
    answer();
    EXPECT_EQ(2U, last.transactionId());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(DispatchTest, AnswersThatFindNobodyAreReported) {
    Thing thing("thing", &addOne);
    for (TerminationId from : {kNobody, TerminationId()}) {
        for (unsigned code = Message::tRslve; code <= Message::tPfCnt; ++code) {
            const auto type = static_cast<Message::type_t>(code);
            if (type == Message::tOrbAp) {
                continue; // unknown
            }
            TipprmiStream request = peer.message(type, Message::kRequ, 1);
            if (type == Message::tPayld) {
                request << thing.getInternalOID() << true << 1U << 1U;
            } else {
                request << TipprmiOID("x", NamespaceId(1));
            }
            AddressedMessage message = request.msg().addressed();
            message.originator() = from;
            message.destination() = orb.termId();
            ASSERT_TRUE(orb.receive(message)); // the transport would not let it through
        }
    }
    EXPECT_TRUE(eventually([&] {
        return log.count(3, "Sending response message failed rc=0", kSource) == 16 &&
               log.count(3, "Sending resolve response message failed rc=0", kSource) == 2;
    }));
}

TEST_F(DispatchTest, NamesAreResolvedWhateverTheKindOfTheMessage) {
    Thing thing("thing", &addOne);
    for (Message::kind_t kind : {Message::kRequ, Message::kMsg}) {
        TipprmiStream request = peer.message(Message::tRslve, kind, 5);
        request << TipprmiOID("thing", NamespaceId(9)); // what the namespace is does not count
        peer.send(request);
        TipprmiStream expected(4);
        expected << thing.getInternalOID();
        EXPECT_EQ(hex(expected), answer()) << "the number and nothing else";
        EXPECT_EQ(Message::tRslve, last.type());
        EXPECT_EQ(5U, last.transactionId());
    }
}

TEST_F(DispatchTest, NobodyElseIsAskedForTheNameOfARequest) {
    TipprmiStream request = peer.message(Message::tRslve, Message::kRequ, 5);
    request << TipprmiOID("unknown", NamespaceId(1));
    const Testing::ManualPeer other(link, orb, TerminationId(0x0043, 2, 1));
    peer.send(request);
    EXPECT_EQ("00 00 00 00", answer());
    EXPECT_EQ(kPeer, last.destination());
    TipprmiStream nameless = peer.message(Message::tRslve, Message::kRequ, 6);
    TipprmiObjectSkeleton object(TipprmiOID(nullptr, NamespaceId(1)));
    nameless << TipprmiOID(nullptr, NamespaceId(1));
    peer.send(nameless);
    EXPECT_EQ("00 00 00 00", answer()) << "an object without name is not found by the lack of one";
    EXPECT_TRUE(link.takeIssued().empty());
}

// --- objects that are not there; in a process of its own, so that the worker is a fresh one -------------------------

SCENARIO(callOfNothingByAFreshWorker) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    const Testing::LogCapture log;
    const TreflectORB &orb = *TreflectORB::getInstance(1);
    const Testing::ManualPeer peer(link, orb, kPeer);
    peer.send(peer.call(0x1235, true, 0x51, 0xFFFFFFFF));
    SCENARIO_CHECK(hex(TipprmiStream(TreflectMessage(peer.next()), false)) == kFailure);
    SCENARIO_CHECK(log.waitFor(3, "ioid=0x1235,transaction=true,classCode=0x51,methodCode=-1", kSource));
    SCENARIO_CHECK(log.count(3, "Handling request message failed rc=0", kSource) == 1);
}

TEST_F(DispatchTest, ACallOfNothingIsAnsweredWithAnException) {
    const Testing::ProcessResult result = Testing::runScenario("callOfNothingByAFreshWorker");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** The report of what could not be handled goes by the last method that the worker ran; the answer does not. */
TEST_F(DispatchTest, AfterASuccessACallOfNothingIsAnsweredAllTheSame) {
    Thing thing("thing", &addOne);
    bool silent = false;
    for (int tries = 0; tries < 1000 && !silent; ++tries) { // until both come to the same worker
        for (int i = 0; i <= tries % 4; ++i) {              // in turn they would always come to the same ones
            peer.send(peer.call(thing.getInternalOID(), true, 1, 1));
            answer();
        }
        log.clear();
        peer.send(peer.call(0x1235, true, 1, 1));
        ASSERT_EQ(kFailure, answer());
        ASSERT_EQ(1U, log.count(3, "ioid=0x1235,transaction=true,classCode=0x1,methodCode=1", kSource));
        silent = log.with("Handling request message failed").empty();
    }
    EXPECT_TRUE(silent);
}

} // namespace
