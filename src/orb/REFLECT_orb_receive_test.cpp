#include "orb/REFLECT_orb.h"

#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "threads/HandlerThreadsType_p.h"

#include <csignal>
#include <cstdio>
#include <utility>

namespace {

using Message = TreflectMessage;
using Testing::eventually;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr const char *kSource = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);

/** From the peer to a broker; all bytes 0 but the kind, as far as they fit. */
AddressedMessage fromPeer(const TreflectORB &orb, unsigned size, unsigned kind) {
    AddressedMessage message = AddressedMessage::allocate(size, 4);
    if (size >= Message::kHeaderSize) {
        message.buf()[11] = static_cast<unsigned char>(kind);
    }
    message.originator() = kPeer;
    message.destination() = orb.termId();
    return message;
}

class ReceiveTest : public Testing::BrokerTest {
protected:
    void deliver(unsigned size, unsigned kind, int times = 1) { link.deliver(fromPeer(orb, size, kind), times); }
    std::string unexpected(unsigned id) const {
        return LogMakeString("ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)",
                             orb.termId().value(), kPeer.value(), id);
    }
    std::string unknown() const {
        return LogMakeString("ORB 0x%08X received request of unknown type (rorg=%X, rdes=%X)", orb.termId().value(),
                             kPeer.value(), orb.termId().value());
    }
    bool await(int level, const std::string &line, std::size_t times) const {
        return eventually([&] { return log.count(level, line, kSource) == times; });
    }
};

TEST_F(ReceiveTest, AResponseThatNobodyWaitsForIsReported) {
    AddressedMessage message = fromPeer(orb, 16, Message::kResp);
    message.buf()[3] = 0x2A;
    message.buf()[7] = Message::tPayld;
    link.deliver(message);
    EXPECT_EQ(1U, log.count(3, unexpected(0x2A), kSource));
    // The description takes it for a request, which it is not.
    EXPECT_EQ(1U, log.count(6,
                            LogMakeString(" Error:  ReflMsg err= 6: tPayld, kResp.(kRequ.), des=%08X, org=%08X, "
                                          "trAcId=0000002A ( 0: )",
                                          orb.termId().value(), kPeer.value()),
                            "ReflectMessage"));
    EXPECT_EQ(1U, log.count(5, "    Message data: ioid=0x0,transaction=false,cc=0x0,mc=0", kSource));
}

TEST_F(ReceiveTest, MessagesOfUnknownTypeAreReportedAndNotAnswered) {
    link.peerAppears(kPeer);
    for (unsigned type : {0U, 9U, 11U, 0xFFU}) {
        AddressedMessage message = fromPeer(orb, 16, Message::kRequ);
        message.buf()[7] = static_cast<unsigned char>(type);
        link.deliver(message);
    }
    deliver(16, 0x7F); // of unknown kind, too
    EXPECT_TRUE(await(3, unknown(), 5));
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(ReceiveTest, TheReceivingThreadIsTheTransports) {
    deliver(16, Message::kResp);
    const unsigned long receiving = orb.receivingThreadId();
    EXPECT_NE(0UL, receiving);
    EXPECT_NE(OSWrap::Thread::getCurrentId(), receiving);
    AddressedMessage returned = fromPeer(orb, 16, Message::kRequ);
    std::swap(returned.originator(), returned.destination());
    link.bounce(returned);
    EXPECT_EQ(receiving, orb.receivingThreadId()) << "one thread for both";
}

TEST_F(ReceiveTest, AMessageWithoutHeaderIsDropped) {
    for (unsigned size = 0; size < Message::kHeaderSize; ++size) {
        log.clear();
        EXPECT_TRUE(orb.receive(fromPeer(orb, size, 0)));
        const std::string line = LogMakeString("ORB 0x%08X drops a message of %u bytes from 0x%08X",
                                               orb.termId().value(), size, kPeer.value());
        EXPECT_EQ(1U, log.count(3, line, kSource));
        EXPECT_TRUE(orb.receiveError(fromPeer(orb, size, 0)));
        EXPECT_EQ(2U, log.count(3, line, kSource));
        EXPECT_EQ(2U, log.lines().size());
    }
    EXPECT_TRUE(orb.receive(AddressedMessage()));
}

TEST_F(ReceiveTest, AHeaderAloneIsAMessage) {
    for (unsigned size = Message::kHeaderSize; size < 16; ++size) {
        deliver(size, Message::kResp);
    }
    EXPECT_EQ(4U, log.count(3, unexpected(0), kSource));
}

TEST_F(ReceiveTest, AReturnedMessageIsTakenForAResponseAndIsNotChanged) {
    const AddressedMessage message = fromPeer(orb, 16, Message::kReFai); // a reset request that found nobody
    EXPECT_TRUE(orb.receiveError(message));
    EXPECT_EQ(1U, log.count(3, unexpected(0), kSource));
    EXPECT_EQ("00 00 00 00 00 00 00 00 00 00 00 05 00 00 00 00", hex(message.buf(), 16));
}

TEST_F(ReceiveTest, ReceivingNeedsNoRunPermission) {
    const TreflectHandlerState state(true); // kept from the receiving thread
    deliver(16, Message::kRequ);
    EXPECT_TRUE(TreflectORB::hasRunPermission());
}

TEST_F(ReceiveTest, ItSeesOthersComeAndGo) {
    link.peerAppears(kPeer);
    const std::string who = LogMakeString("ORB 0x%08X sees 0x%08X ", orb.termId().value(), kPeer.value());
    EXPECT_TRUE(log.waitFor(5, who + "appear", kSource));
    link.peerVanishes(kPeer);
    EXPECT_TRUE(log.waitFor(5, who + "disappear", kSource));
}

/** Delivers a reset request to a broker and waits for the end of the process. */
void deliverReset(unsigned size) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    const TreflectORB &orb = *TreflectORB::getInstance(1);
    std::printf("%08X\n", orb.termId().value());
    std::fflush(stdout);
    AddressedMessage message = fromPeer(orb, size, Message::kReFai);
    message.buf()[3] = 0x55; // whatever the id
    message.buf()[7] = 0x63; // and the type
    link.deliver(message);
    Testing::Gate never;
    never.pass();
}

SCENARIO(responseFailure) {
    deliverReset(40);
}

SCENARIO(responseFailureWithoutBody) {
    Log::setSink([](int level, const std::string &line, const char *source) {
        if (line.rfind("ORB 0x", 0) == 0) {
            std::printf("%d %s: %s\n", level, source, line.c_str());
            std::fflush(stdout);
        }
    });
    deliverReset(Message::kHeaderSize);
}

TEST_F(ReceiveTest, AResponseFailureEndsTheActor) {
    const Testing::ProcessResult result = Testing::runScenario("responseFailureWithoutBody");
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    const std::size_t own = result.output.find("0 REFLECT_orb: ORB 0x");
    ASSERT_NE(std::string::npos, own) << result.output;
    const std::string id = result.output.substr(own + 21, 8);
    EXPECT_NE(std::string::npos, result.output.find("0 REFLECT_orb: ORB 0x" + id +
                                                    " received response failure message from 0x00420201\n"
                                                    "5 REFLECT_orb: ORB 0x" +
                                                    id +
                                                    " requests UNIT RESET\n"
                                                    "0 REFLECT_orb: ORB 0x" +
                                                    id + " failed to reset unit, EXIT ACTOR\n"))
        << result.output;
    EXPECT_NE(std::string::npos, result.output.find(id + "\n")) << "the broker's own address";
}

TEST_F(ReceiveTest, TheReportsOfAResponseFailureAreOutBeforeTheEnd) {
    const Testing::ProcessResult result = Testing::runScenario("responseFailure");
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    for (const char *text : {" received response failure message from 0x00420201\n", " requests UNIT RESET\n",
                             " failed to reset unit, EXIT ACTOR\n"}) {
        EXPECT_NE(std::string::npos, result.output.find(text)) << result.output;
    }
}

} // namespace
