#include "orb/ReflectMessage.h"

#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <climits>
#include <type_traits>
#include <utility>

namespace {

using Testing::hex;
using Message = TreflectMessage;
using Transport::AddressedMessage;
using Transport::TerminationId;

static_assert(std::is_nothrow_move_assignable_v<Message> && std::is_nothrow_copy_constructible_v<Message>);

class ReflectMessageTest : public Testing::BrokerTest {
protected:
    static std::string bytes(const Message &message) {
        const AddressedMessage &addressed = message.addressed();
        return hex(addressed.buf(), static_cast<int>(addressed.size()));
    }
    /** A message with a header, from 0x11110201 to 0x22220202. */
    Message sample(unsigned size) {
        Message message = orb.allocateRequest(size);
        message.transactionId(0x00131234);
        message.type(Message::tPayld);
        message.kind(Message::kResp);
        message.originator() = TerminationId(0x11110201U);
        message.destination() = TerminationId(0x22220202U);
        for (unsigned i = 0; i < size; ++i) {
            message.buf()[i] = static_cast<unsigned char>(i + 1);
        }
        return message;
    }
    static Message fromBytes(unsigned size) {
        AddressedMessage addressed = AddressedMessage::allocate(size, 4);
        for (unsigned i = 0; i < size; ++i) {
            addressed.buf()[i] = 0xFF;
        }
        return Message(addressed);
    }
    std::size_t errors(int error, const std::string &rest) const {
        return log.count(6, LogMakeString(" Error:  ReflMsg err=%2d: ", error) + rest, "ReflectMessage");
    }
};

TEST_F(ReflectMessageTest, TheHeaderIsThreeBigEndianNumbers) {
    Message message(&orb, 0x01020304, 2);
    message.type(static_cast<Message::type_t>(0x0A0B0C0D));
    message.kind(static_cast<Message::kind_t>(0x1A1B1C1D));
    message.buf()[1] = 0xEE;
    EXPECT_EQ("01 02 03 04 0A 0B 0C 0D 1A 1B 1C 1D 00 EE", bytes(message));
    EXPECT_EQ(2U, message.size());
    EXPECT_EQ(message.addressed().buf() + 12, std::as_const(message).buf());
    EXPECT_EQ(0x01020304U, message.transactionId());
    EXPECT_EQ(0x0A0B0C0DU, static_cast<unsigned>(message.type()));
    EXPECT_EQ(0x1A1B1C1DU, static_cast<unsigned>(message.kind()));
    EXPECT_EQ(orb.termId(), message.originator());
    EXPECT_EQ(0U, message.destination().value());
}

TEST_F(ReflectMessageTest, APayloadOfSizeZeroIsTheHeaderOnly) {
    const Message message(&orb, 7, 0);
    EXPECT_EQ(12U, message.addressed().size());
    EXPECT_EQ(0U, message.size());
    EXPECT_EQ(message.addressed().buf() + 12, message.buf());
    EXPECT_EQ(7U, message.transactionId());
}

TEST_F(ReflectMessageTest, AFreshPayloadIsZero) {
    for (int round = 0; round < 50; ++round) {
        Message message = orb.allocateRequest(200);
        for (unsigned i = 0; i < 200; ++i) {
            ASSERT_EQ(0, message.buf()[i]);
            message.buf()[i] = 0xA5; // for the next one that gets this memory
        }
    }
}

TEST_F(ReflectMessageTest, RequestsAndResponsesHaveTheirHeaders) {
    const Message request = orb.allocateRequest(30);
    EXPECT_EQ(30U, request.size());
    EXPECT_EQ(0U, request.transactionId());
    EXPECT_EQ(Message::tUndef, request.type());
    EXPECT_EQ(Message::kRequ, request.kind());

    const Message response = orb.allocateResponse(sample(3), 9);
    EXPECT_EQ(9U, response.size());
    EXPECT_EQ(0x00131234U, response.transactionId());
    EXPECT_EQ(Message::tPayld, response.type());
    EXPECT_EQ(Message::kResp, response.kind());
    EXPECT_EQ(orb.termId(), response.originator());
    EXPECT_EQ(0U, response.destination().value());
    EXPECT_EQ("00 00 00 00 00 00 00 00 00", hex(response));
}

TEST_F(ReflectMessageTest, ReallocationKeepsTheHeaderAndWhatFits) {
    const Message message = sample(4);
    const Message smaller = orb.reallocateMessage(message, 2);
    const Message larger = orb.reallocateMessage(message, 6);
    const Message none = orb.reallocateMessage(message, 0);
    const std::string header = "00 13 12 34 00 00 00 02 00 00 00 03";
    EXPECT_EQ(header + " 01 02", bytes(smaller));
    EXPECT_EQ(header + " 01 02 03 04 00 00", bytes(larger));
    EXPECT_EQ(header, bytes(none));
    EXPECT_EQ(orb.termId(), larger.originator()) << "addresses are not part of the header";
    EXPECT_EQ(0U, larger.destination().value());
    EXPECT_EQ(header + " 01 02 03 04", bytes(message));
    EXPECT_EQ("00 00 00 00 00 00 00 00 00 00 00 00 00", bytes(orb.reallocateMessage(Message(), 1)));
}

TEST_F(ReflectMessageTest, SpareRoomMakesGrowthCheap) {
    Message message = orb.reallocateMessage(sample(4), 4, 3);
    EXPECT_EQ(4U, message.size());
    const Testing::HeapProbe heap;
    const bool within = message.extend(7);
    const bool beyond = message.extend(8) || message.extend(UINT_MAX);
    EXPECT_EQ(0U, heap.allocations());
    EXPECT_TRUE(within);
    EXPECT_FALSE(beyond);
    EXPECT_EQ("01 02 03 04 00 00 00", hex(message));
}

TEST_F(ReflectMessageTest, ACopyIsAValue) {
    const Message original = sample(2);
    Message copy(original);
    copy.transactionId(1);
    copy.type(Message::tODN);
    copy.kind(Message::kReFai);
    copy.buf()[0] = 0x99;
    copy.destination() = TerminationId();
    EXPECT_EQ("00 13 12 34 00 00 00 02 00 00 00 03 01 02", bytes(original));
    EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 05 99 02", bytes(copy));
    EXPECT_EQ(0x22220202U, original.destination().value());
    copy = original;
    EXPECT_EQ(0x22220202U, copy.destination().value());

    AddressedMessage addressed = original;
    addressed.buf()[0] = 0x77;
    EXPECT_EQ(0x00131234U, original.transactionId());
    Message wrapped(addressed);
    wrapped.transactionId(5);
    EXPECT_EQ(0x77, addressed.buf()[0]);
    EXPECT_EQ(0x11110201U, wrapped.originator().value());

    const Message moved(std::move(copy));
    EXPECT_EQ(0x00131234U, moved.transactionId());
    EXPECT_EQ(nullptr, std::as_const(copy).buf());
}

TEST_F(ReflectMessageTest, WithoutHeaderEverythingReadsAsZero) {
    std::vector<Message> messages{Message(),
                                  Message(nullptr, 5, 10),
                                  Message(nullptr, sample(4), 4),
                                  orb.allocateRequest(UINT_MAX),
                                  orb.allocateResponse(sample(4), UINT_MAX - 11),
                                  orb.reallocateMessage(sample(4), Transport::kMaxMessageSize - 11)};
    for (unsigned size = 0; size < Message::kHeaderSize; ++size) {
        messages.push_back(fromBytes(size));
    }
    {
        const Testing::FailingHeap none;
        messages.push_back(orb.allocateRequest(4));
    }
    for (Message &message : messages) {
        const std::string before = bytes(message);
        message.transactionId(1);
        message.type(Message::tPayld);
        message.kind(Message::kRequ);
        EXPECT_EQ(0U, message.transactionId());
        EXPECT_EQ(Message::tUndef, message.type());
        EXPECT_EQ(Message::kUndef, message.kind());
        EXPECT_EQ(nullptr, message.buf());
        EXPECT_EQ(nullptr, std::as_const(message).buf());
        EXPECT_EQ(0U, message.size());
        EXPECT_FALSE(message.extend(0));
        EXPECT_EQ(before, bytes(message));
        EXPECT_EQ(9U, orb.allocateResponse(message, 9).size());
    }
}

TEST_F(ReflectMessageTest, TypesHaveTexts) {
    const char *const texts[] = {"tUndef", "tRslve", "tPayld", "tOCN  ", "tODN  ", "tOCNSU", "tODNSU",
                                 "tOCNUN", "tODNUN", "tOrbAp", "tPfCnt", "t?????", "t?????"};
    for (unsigned value = 0; value < 13; ++value) {
        EXPECT_EQ(texts[value], Message::typeToStr(static_cast<Message::type_t>(value)));
    }
    EXPECT_EQ("t?????", Message::typeToStr(static_cast<Message::type_t>(0x80000002U)));
    EXPECT_EQ("tPfCnt", Message::typeToStr(Message::tPfCnt));
    EXPECT_EQ("tODNUN", Message::typeToStr(Message::tODNUN));
}

TEST_F(ReflectMessageTest, KindsHaveTexts) {
    const char *const texts[] = {"kUndef", "kMsg  ", "kRequ.", "kResp.", "kNoDes", "kReFai", "k?????", "k?????"};
    for (unsigned value = 0; value < 8; ++value) {
        EXPECT_EQ(texts[value], Message::kindToStr(static_cast<Message::kind_t>(value)));
    }
    EXPECT_EQ("k?????", Message::kindToStr(static_cast<Message::kind_t>(0xFFFFFFFFU)));
}

TEST_F(ReflectMessageTest, AGoodMessageIsReportedOnRequestOnly) {
    const Message message = sample(0);
    log.clear();
    EXPECT_TRUE(message.testValidation(Message::kResp, 0, "", false, 0));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(message.testValidation(Message::kResp, 3, "late", true, 0));
    EXPECT_EQ(1U, log.count(5,
                            "    ReflMsg output: tPayld, kResp.(kResp.), des=22220202, org=11110201, trAcId=00131234 "
                            "( 3: late)",
                            "ReflectMessage"));
    EXPECT_TRUE(message.testValidation(Message::kUndef, 0, nullptr, true, 99));
    EXPECT_EQ(1U, log.with("tPayld, kResp.(kUndef), des=22220202, org=11110201, trAcId=00131234 ( 0: )").size());
    EXPECT_EQ(2U, log.lines().size());
}

TEST_F(ReflectMessageTest, AnotherKindThanExpectedIsAnError) {
    const Message message = sample(0);
    EXPECT_FALSE(message.testValidation(Message::kRequ, 0, "", false, 0));
    EXPECT_EQ(1U, errors(6, "tPayld, kResp.(kRequ.), des=22220202, org=11110201, trAcId=00131234 ( 0: )"));
    EXPECT_EQ(Message::kResp, message.kind());
}

TEST_F(ReflectMessageTest, TheLastErrorFoundIsTheOneThatCounts) {
    Message message = sample(0);
    message.destination() = TerminationId();
    EXPECT_TRUE(message.testValidation(Message::kUndef, 0, "", false, 0)) << "usable without destination";
    EXPECT_EQ(1U, errors(1, "tPayld, kResp.(kUndef), des=00000000, org=11110201, trAcId=00131234 ( 0: )"));

    message.originator() = TerminationId();
    EXPECT_FALSE(message.testValidation(Message::kUndef, 0, "", false, 0));
    EXPECT_EQ(1U, errors(3, "tPayld, kResp.(kUndef), des=00000000, org=00000000, trAcId=00131234 ( 0: )"));

    message.destination() = TerminationId(0x22220202U);
    EXPECT_FALSE(message.testValidation(Message::kUndef, 0, "", true, 0));
    EXPECT_EQ(1U, errors(2, "tPayld, kResp.(kUndef), des=22220202, org=00000000, trAcId=00131234 ( 0: )"));

    message.type(Message::tUndef);
    EXPECT_FALSE(message.testValidation(Message::kUndef, 0, "", false, 0));
    EXPECT_EQ(1U, errors(4, "tUndef, kResp.(kUndef), des=22220202, org=00000000, trAcId=00131234 ( 0: )"));

    message.kind(Message::kUndef);
    EXPECT_FALSE(message.testValidation(Message::kUndef, 0, "", false, 0));
    EXPECT_EQ(1U, errors(5, "tUndef, kUndef(kUndef), des=22220202, org=00000000, trAcId=00131234 ( 0: )"));

    EXPECT_FALSE(message.testValidation(static_cast<Message::kind_t>(6), 12, "x", false, 0));
    EXPECT_EQ(1U, errors(6, "tUndef, kUndef(k????"
                            "?), des=22220202, org=00000000, trAcId=00131234 (12: x)"));
}

TEST_F(ReflectMessageTest, UnknownTypesAndKindsAreNoErrors) {
    Message message = sample(0);
    message.type(static_cast<Message::type_t>(11));
    message.kind(static_cast<Message::kind_t>(77));
    EXPECT_TRUE(message.testValidation(Message::kUndef, 0, "", true, 0));
    EXPECT_EQ(1U, log.with("ReflMsg output: t?????, k????"
                           "?(kUndef), ")
                      .size());
}

} // namespace
