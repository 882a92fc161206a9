#include "rmi/IPPRMI_stream.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <climits>
#include <cstring>
#include <utility>

namespace {

using Testing::hex;
using Testing::received;
constexpr const char *kSource = "IPPRMI_stream";

class StreamTest : public Testing::BrokerTest {
protected:
    /** What a stream reports about a write position beyond its limit. */
    static std::string rangeLine(const TipprmiStream &stream, int position, int limit) {
        return LogMakeString("iptr_(%d) out of range(%d);this=%p", position, limit, static_cast<const void *>(&stream));
    }
    /** A received message with 96 bytes of data, 0, 1, 2 and so on, that claims to have `size`. */
    TreflectMessage claiming(unsigned size) {
        TreflectMessage message = orb.allocateRequest(100);
        unsigned char *payload = message.buf();
        for (unsigned i = 0; i < 4; ++i) {
            payload[i] = static_cast<unsigned char>(size >> (24 - 8 * i));
        }
        for (int i = 0; i < 96; ++i) {
            payload[4 + i] = static_cast<unsigned char>(i);
        }
        return message;
    }
    static int readByte(TipprmiStream &stream) {
        unsigned char byte = 0xEE;
        stream.unmarshall(&byte, 1);
        return byte;
    }
};

TEST_F(StreamTest, HasRoomForAtLeastOneByte) {
    const TipprmiStream none(0);
    EXPECT_EQ(5U, none.msg().size());
    EXPECT_EQ(17U, none.msg().addressed().size());
    EXPECT_EQ(1, none.getDataLimit());
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(TreflectMessage::kRequ, none.msg().kind());
    EXPECT_EQ(0U, none.msg().transactionId());
    EXPECT_EQ(1, TipprmiStream(-5).getDataLimit());
    EXPECT_EQ(1, TipprmiStream(INT_MIN).getDataLimit());
    EXPECT_EQ(7, TipprmiStream(7).getDataLimit());
    EXPECT_TRUE(log.with("out of range").empty());
}

TEST_F(StreamTest, HoldsExactlyTheBytesItWasMadeFrom) {
    const TipprmiStream none("abc", 0);
    EXPECT_EQ("00 00 00 00", hex(none.msg()));
    EXPECT_EQ(0, none.getDataLimit());
    EXPECT_TRUE(none.empty());

    TipprmiStream three("abc", 3);
    EXPECT_EQ("00 00 00 03 61 62 63", hex(three.msg()));
    EXPECT_EQ('a', readByte(three));

    EXPECT_EQ("00 00 00 02 00 00", hex(TipprmiStream(nullptr, 2).msg()));
    EXPECT_EQ("00 00 00 00", hex(TipprmiStream("abc", -3).msg()));
    EXPECT_TRUE(log.with("out of range").empty());
}

TEST_F(StreamTest, ThePayloadBeginsWithTheSizeOfTheData) {
    TipprmiStream stream(4);
    stream << 1U;
    EXPECT_EQ("00 00 00 04 00 00 00 01", hex(stream.msg()));
    stream.iptr_(0x010203);
    EXPECT_EQ("00 01 02 03 00 00 00 01", hex(stream.msg()));
    EXPECT_EQ(0x010203, stream.iptr_());
    EXPECT_EQ(0x010203, stream.getDataSize());
}

TEST_F(StreamTest, GrowsByExactlyWhatIsMissing) {
    TipprmiStream stream(4);
    stream.msg().transactionId(0xCAFE0123);
    stream.msg().type(TreflectMessage::tPayld);
    stream << 0x11223344 << 0x55667788;
    EXPECT_EQ(8, stream.getDataLimit());
    EXPECT_EQ(12U, stream.msg().size());
    EXPECT_EQ("00 00 00 08 11 22 33 44 55 66 77 88", hex(stream.msg()));
    for (int limit = 9; limit < 300; ++limit) { // whether or not the buffer has room to spare
        stream.marshall("x", 1);
        ASSERT_EQ(limit, stream.getDataLimit());
        ASSERT_EQ(limit, stream.getDataSize());
    }
    EXPECT_EQ(0x11, stream.getDataPtr()[0]);
    EXPECT_EQ('x', stream.getDataPtr()[298]);
    EXPECT_EQ(0xCAFE0123, stream.msg().transactionId());
    EXPECT_EQ(TreflectMessage::tPayld, stream.msg().type());
    EXPECT_EQ(TreflectMessage::kRequ, stream.msg().kind());
}

TEST_F(StreamTest, WritingNothingChangesNothing) {
    TipprmiStream stream(8);
    stream.marshall("abc", 3).marshall("abc", 0).marshall("abc", -1).marshall(nullptr, 2);
    EXPECT_EQ("61 62 63", hex(stream));
    EXPECT_EQ('a', readByte(stream));
    stream.unmarshall(nullptr, 0).unmarshall(nullptr, -7);
    EXPECT_EQ('b', readByte(stream));
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
}

TEST_F(StreamTest, AReadBeyondTheDataGivesZerosAndIsReportedOnce) {
    TipprmiStream stream = received({1, 2, 3});
    unsigned char four[] = {9, 9, 9, 9};
    log.clear();
    stream.unmarshall(four, 4);
    EXPECT_EQ("00 00 00 00", hex(four, 4));
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    ASSERT_EQ(2U, log.lines().size());
    EXPECT_EQ(1U, log.count(6,
                            "Err::unmarshall() request out of bounds: getDataSize(3)-optr_(0) < size(4), iptr_=3, "
                            "limit=3",
                            kSource));
    EXPECT_EQ(1U, log.count(6,
                            LogMakeString(" Error:  ReflMsg err= 4: tUndef, kRequ.(kUndef), des=00000000, org=%08X, "
                                          "trAcId=00000000 ( 0: )",
                                          orb.termId().value()),
                            "ReflectMessage"));
    EXPECT_NE(std::string::npos, log.lines()[1].text.find("ReflMsg")) << "the message's line comes second";
    log.clear();
    EXPECT_EQ(0, readByte(stream)) << "although there is one";
    EXPECT_TRUE(log.lines().empty());
    stream.setData(stream.getDataPtr(), 3); // forgets the failure, and starts again
    EXPECT_EQ(1, readByte(stream));
}

TEST_F(StreamTest, AFailedReadLeavesTheReadPosition) {
    TipprmiStream stream = received({1, 2, 3});
    EXPECT_EQ(1, readByte(stream));
    stream.unmarshall(nullptr, 3);
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(1U, log.with("getDataSize(3)-optr_(1) < size(3), iptr_=3, limit=3").size());
    EXPECT_EQ(2, stream.getRemaining());
    EXPECT_EQ(2, *stream.getReadPtr());
}

TEST_F(StreamTest, NullSkips) {
    TipprmiStream stream = received({1, 2, 3, 4, 5});
    stream.unmarshall(nullptr, 4);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(5, readByte(stream));

    TipprmiStream shorter = received({1, 2, 3});
    shorter.unmarshall(nullptr, 4);
    EXPECT_TRUE(shorter.hasUnmarshallingFailed());
    shorter.unmarshall(nullptr, 1);
    EXPECT_EQ(1U, log.with("request out of bounds").size());
}

TEST_F(StreamTest, OnlyNewDataLiftsTheStop) {
    TipprmiStream stream = received({1, 2});
    stream.stopUnmarshalling();
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    stream.rewind();
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(0, readByte(stream));

    TipprmiStream copy(stream);
    EXPECT_TRUE(copy.hasUnmarshallingFailed());
    copy.clear();
    EXPECT_FALSE(copy.hasUnmarshallingFailed());
    EXPECT_TRUE(copy.empty());
    copy = stream;
    EXPECT_TRUE(copy.hasUnmarshallingFailed());
    copy.setData("z", 1);
    EXPECT_FALSE(copy.hasUnmarshallingFailed());
    EXPECT_EQ('z', readByte(copy));
    EXPECT_EQ("01 02", hex(stream)) << "a copy is independent";
    EXPECT_TRUE(TipprmiStream(std::move(stream)).hasUnmarshallingFailed());
}

TEST_F(StreamTest, WhatWasWrittenIsReadBack) {
    TipprmiStream stream(1);
    stream.marshall("ab", 2);
    EXPECT_EQ('a', readByte(stream));
    stream.marshall("c", 1); // the positions do not know of each other
    EXPECT_EQ('b', readByte(stream));
    EXPECT_EQ('c', readByte(stream));
    stream.rewind();
    EXPECT_EQ('a', readByte(stream));
    EXPECT_EQ(3, stream.getDataSize());
    stream.clear();
    EXPECT_EQ(0, stream.getRemaining());
    stream.marshall("d", 1);
    EXPECT_EQ('d', readByte(stream));
}

TEST_F(StreamTest, ErrorsOfACallNameItsClassAndMethod) {
    TipprmiStream(1).printUnmarshallError(0x2A, 7);
    EXPECT_EQ(1U, log.count(4, "Unmarshall error on cc=0x2A, mc=7", "CallHelper"));
    TipprmiStream(1).printUnmarshallError(0xDEADBEEF, ~0U);
    EXPECT_EQ(1U, log.count(4, "Unmarshall error on cc=0xDEADBEEF, mc=-1", "CallHelper"));
}

TEST_F(StreamTest, AMadeUpSizeIsReportedAndNotBelieved) {
    TipprmiStream stream(claiming(500), false);
    EXPECT_EQ(1U, log.count(3, rangeLine(stream, 500, 96), kSource));
    EXPECT_EQ(500, stream.getDataSize()) << "not repaired";
    unsigned char data[96];
    stream.unmarshall(data, 96);
    EXPECT_EQ(95, data[95]);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(0, readByte(stream));
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(1U, log.with("getDataSize(500)-optr_(96) < size(1), iptr_=500, limit=96").size());

    log.clear();
    stream.marshall("x", 1);
    EXPECT_EQ(1U, log.count(3, rangeLine(stream, 500, 96), kSource));
    EXPECT_EQ(96, stream.getDataLimit());
    EXPECT_EQ(500, stream.getDataSize());
}

TEST_F(StreamTest, ASizeWithItsTopBitSetHoldsNothing) {
    for (unsigned size : {0x80000000U, 0xFFFFFFFFU}) {
        log.clear();
        TipprmiStream stream(claiming(size), false);
        EXPECT_EQ(1U, log.count(3, rangeLine(stream, static_cast<int>(size), 96), kSource));
        EXPECT_EQ(0, stream.getRemaining());
        EXPECT_EQ(0, readByte(stream));
        EXPECT_TRUE(stream.hasUnmarshallingFailed());
        stream.marshall("x", 1);
        EXPECT_EQ(static_cast<int>(size), stream.getDataSize());
        TipprmiStream outer(1);
        outer << stream;
        EXPECT_EQ("00 00 00 00", hex(outer));
    }
}

} // namespace
