#include "rmi/IPPRMI_stream.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <climits>
#include <cstring>
#include <utility>

namespace {

using Testing::FailingHeap;
using Testing::HeapProbe;
using Testing::hex;
using Testing::received;

class StreamMemoryTest : public Testing::BrokerTest {
protected:
    std::size_t rangeReports(const TipprmiStream &stream, int position, int limit) const {
        return log.count(
            3, LogMakeString("iptr_(%d) out of range(%d);this=%p", position, limit, static_cast<const void *>(&stream)),
            "IPPRMI_stream");
    }
    static std::string hundredBytes() {
        std::string bytes;
        for (char c = 0; c < 100; ++c) {
            bytes += c;
        }
        return bytes;
    }
};

TEST_F(StreamMemoryTest, CopiesAreIndependent) {
    TipprmiStream original = received({1, 2, 3});
    original.unmarshall(nullptr, 1);
    TipprmiStream copy(original);
    EXPECT_EQ(2, *copy.getReadPtr()) << "the read position is copied";
    copy.marshall("\x04", 1);
    copy.getDataPtr()[0] = 9;
    copy.msg().transactionId(7);
    EXPECT_EQ("01 02 03", hex(original));
    EXPECT_EQ("09 02 03 04", hex(copy));
    EXPECT_EQ(0U, original.msg().transactionId());

    TipprmiStream assigned(500);
    assigned = original;
    EXPECT_EQ(3, assigned.getDataLimit()) << "the limit is the source's";
    EXPECT_EQ(2, *assigned.getReadPtr());
    assigned.clear();
    EXPECT_EQ("01 02 03", hex(original));
    assigned = *&assigned;
    EXPECT_EQ(3, assigned.getDataLimit());
}

TEST_F(StreamMemoryTest, AMovedStreamIsWithoutBuffer) {
    TipprmiStream source = received({1, 2, 3});
    source.unmarshall(nullptr, 1);
    TipprmiStream target(std::move(source));
    EXPECT_EQ(2, target.getRemaining());
    TipprmiStream second(1);
    second = std::move(target);
    EXPECT_EQ("01 02 03", hex(second));
    EXPECT_EQ(2, second.getRemaining());
    for (TipprmiStream *moved : {&source, &target}) {
        EXPECT_EQ(nullptr, moved->getDataPtr());
        EXPECT_EQ(0, moved->getRemaining());
        EXPECT_FALSE(moved->hasUnmarshallingFailed());
    }
}

TEST_F(StreamMemoryTest, AReceivedMessageIsReadInPlace) {
    TipprmiStream sent("abcd", 4);
    const TreflectMessage message = sent.msg();
    HeapProbe heap;
    TipprmiStream reader(message, false);
    char four[4];
    reader.unmarshall(four, 4);
    EXPECT_EQ(0U, heap.allocations());
    EXPECT_EQ(0, std::memcmp("abcd", four, 4));
    EXPECT_EQ(message.buf() + 4, static_cast<const TipprmiStream &>(reader).getDataPtr());
}

TEST_F(StreamMemoryTest, ClearingLeavesTheCallersMessage) {
    TipprmiStream sent("abcd", 4);
    const TreflectMessage message = sent.msg();
    TipprmiStream writer(message, true);
    EXPECT_TRUE(writer.empty());
    EXPECT_EQ(4, writer.getDataLimit());
    writer << 0;
    EXPECT_EQ("00 00 00 04 61 62 63 64", hex(message));
    EXPECT_EQ("00 00 00 00", hex(writer));
}

TEST_F(StreamMemoryTest, WritingIntoAMovedMessageNeedsNoFurtherMemory) {
    TreflectMessage message = orb.allocateRequest(104);
    const std::string bytes = hundredBytes();
    HeapProbe heap;
    TipprmiStream writer(std::move(message), true);
    writer.marshall(bytes.data(), 100);
    EXPECT_EQ(0U, heap.allocations());
    EXPECT_EQ(100, writer.getDataSize());
}

TEST_F(StreamMemoryTest, AnExchangeOfSmallMessagesTakesOneAllocationEach) {
    const std::string bytes = hundredBytes();
    constexpr unsigned kMessages = 1000;
    unsigned intact = 0;
    const HeapProbe heap;
    for (unsigned i = 0; i < kMessages; ++i) {
        TipprmiStream writer(orb.allocateRequest(104), true);
        writer.marshall(bytes.data(), 100);
        const Transport::AddressedMessage travelling = writer.msg().addressed();
        TipprmiStream reader(TreflectMessage(travelling), false);
        char arrived[100];
        reader.unmarshall(arrived, 100);
        intact += std::memcmp(bytes.data(), arrived, 100) == 0 ? 1U : 0U;
    }
    EXPECT_LE(heap.allocations(), kMessages);
    EXPECT_GE(heap.allocations(), kMessages) << "the probe sees the buffers";
    EXPECT_EQ(kMessages, intact);
}

TEST_F(StreamMemoryTest, RepeatedGrowthCopiesLittle) {
    TipprmiStream stream(1);
    const HeapProbe heap;
    for (int i = 0; i < 100000; ++i) {
        stream << i;
    }
    EXPECT_EQ(400000, stream.getDataLimit());
    EXPECT_LT(heap.allocations(), 60U);
    int last = 0;
    stream.unmarshall(nullptr, 399996);
    stream >> last;
    EXPECT_EQ(99999, last);
}

TEST_F(StreamMemoryTest, ItsOwnBytesSurviveGrowth) {
    TipprmiStream stream = received({1, 2, 3});
    stream.marshall(stream.getDataPtr(), 3);
    EXPECT_EQ("01 02 03 01 02 03", hex(stream));
    stream << stream;
    EXPECT_EQ("01 02 03 01 02 03 00 00 00 06 01 02 03 01 02 03", hex(stream));
    stream.setData(stream.getDataPtr() + 9, 4);
    EXPECT_EQ("06 01 02 03", hex(stream));
    EXPECT_EQ(4, stream.getDataLimit());

    TipprmiStream roomy(100);
    roomy.marshall("ab", 2);
    const TipprmiStream shared(roomy);
    roomy.marshall(shared.getDataPtr(), 2).marshall(roomy.getDataPtr() + 1, 2);
    EXPECT_EQ("61 62 61 62 62 61", hex(roomy));
    EXPECT_EQ("61 62", hex(shared));
}

TEST_F(StreamMemoryTest, ItsOwnBytesSurviveGrowthAlsoIfTheOldOnesAreUnmapped) {
    constexpr int kSize = 1024 * 1024;
    const std::string bytes(kSize, 'm'); // so large that the heap gives it back to the system at once
    TipprmiStream stream(bytes.data(), kSize);
    stream.marshall(stream.getDataPtr() + 1000, 5);
    EXPECT_EQ(kSize + 5, stream.getDataSize());
    EXPECT_EQ("6D 6D 6D 6D 6D", hex(stream.getDataPtr() + kSize, 5));
}

TEST_F(StreamMemoryTest, AMessageThatCannotGrowStaysAsItIs) {
    constexpr int kTooMuch = 64 * 1024 * 1024;
    for (int size : {kTooMuch, INT_MAX}) {
        TipprmiStream stream = received({1, 2, 3});
        stream.msg().transactionId(0x77);
        log.clear();
        stream.marshall("never read", size);
        EXPECT_EQ(1U, rangeReports(stream, 3, 3));
        EXPECT_EQ("00 00 00 03 01 02 03", hex(stream.msg()));
        EXPECT_EQ(0x77U, stream.msg().transactionId());
        stream.marshall("\x04", 1);
        EXPECT_EQ("01 02 03", hex(stream)) << "not behind a gap";
        stream.clear();
        stream.marshall("\x04", 1);
        EXPECT_EQ("04", hex(stream));
    }
}

TEST_F(StreamMemoryTest, WithoutMemoryAMessageStaysAsItIs) {
    TipprmiStream stream = received({1, 2, 3});
    {
        const FailingHeap none;
        stream.marshall("x", 1);
    }
    EXPECT_EQ(1U, rangeReports(stream, 3, 3));
    EXPECT_EQ("00 00 00 03 01 02 03", hex(stream.msg()));

    TipprmiStream roomy(10);
    roomy.marshall("ab", 2);
    const TipprmiStream shared(roomy);
    {
        const FailingHeap none;
        roomy.marshall("c", 1); // would need bytes of its own
    }
    EXPECT_EQ(1U, rangeReports(roomy, 2, 10));
    EXPECT_EQ("61 62", hex(roomy));
    EXPECT_EQ("61 62", hex(shared));
    roomy.marshall("c", 1);
    EXPECT_EQ("61 62", hex(roomy)) << "not behind a gap";
    roomy.setData("ab", 2);
    roomy.marshall("c", 1);
    EXPECT_EQ("61 62 63", hex(roomy));
}

/** What is written after a value that found no room must not be taken for that value. */
TEST_F(StreamMemoryTest, ABodyWithAGapEndsThere) {
    TipprmiStream stream(4);
    const std::string text(200, 'x');
    {
        const FailingHeap none;
        stream << text; // the length fits, the characters do not
    }
    for (unsigned i = 0; i < 100; ++i) {
        stream << i;
    }
    std::string read = "before";
    unsigned number = 5;
    stream >> read >> number;
    EXPECT_EQ(std::string(200, '\0'), read);
    EXPECT_EQ(0U, number);
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
}

TEST_F(StreamMemoryTest, GrowsWithoutSpareRoomIfThatIsAllThereIs) {
    TipprmiStream stream(4);
    stream.marshall("abcd", 4);
    {
        const FailingHeap oneFails(0, FailingHeap::Calls::nonThrowing);
        stream.marshall("e", 1);
    }
    EXPECT_EQ("61 62 63 64", hex(stream));
    TipprmiStream large(1);
    const std::string body(45 * 1024 * 1024, 'b'); // with half as much to spare it would be larger than messages may be
    large << body;
    EXPECT_EQ(static_cast<int>(body.size()) + 4, large.getDataSize());
}

TEST_F(StreamMemoryTest, AMessageThatCannotBeEmptiedIsLetGo) {
    TipprmiStream sender(8);
    sender << 1U;
    const FailingHeap none;
    TipprmiStream stream(sender.msg(), true);
    EXPECT_TRUE(stream.empty());
    EXPECT_EQ(4, sender.getDataSize());
}

TEST_F(StreamMemoryTest, TheRangeIsCheckedWhenAStreamIsMadeAssignedAndUsed) {
    TreflectMessage message = orb.allocateRequest(100);
    message.buf()[2] = 1; // 256 of 96
    const TipprmiStream bad(message, false);
    log.clear();
    TipprmiStream copy(bad);
    EXPECT_EQ(1U, rangeReports(copy, 256, 96));
    TipprmiStream assigned(10);
    assigned = bad;
    EXPECT_EQ(1U, rangeReports(assigned, 256, 96));
    copy.unmarshall(nullptr, 1);
    EXPECT_EQ(2U, rangeReports(copy, 256, 96));
    copy.unmarshall(nullptr, 200);
    const std::size_t before = rangeReports(copy, 256, 96);
    EXPECT_TRUE(copy.hasUnmarshallingFailed());
    copy.unmarshall(nullptr, 1);
    EXPECT_EQ(before, rangeReports(copy, 256, 96)) << "a stopped stream is silent";
}

TEST_F(StreamMemoryTest, AStreamThatClaimsMoreThanItHasIsWrittenAsWhatItHas) {
    TreflectMessage message = orb.allocateRequest(100);
    message.buf()[2] = 1;
    const TipprmiStream bad(message, false);
    TipprmiStream stream(4);
    stream << bad;
    EXPECT_EQ(4 + 96, stream.getDataSize());
    unsigned length = 0;
    stream >> length;
    EXPECT_EQ(96U, length);
}

TEST_F(StreamMemoryTest, NegativeSizesAreNone) {
    TipprmiStream stream(4);
    stream << 7U;
    stream.setData("abc", -1);
    EXPECT_TRUE(stream.empty());
    EXPECT_EQ(0, stream.getDataLimit());
    EXPECT_EQ(1, TipprmiStream(-5).getDataLimit());
    EXPECT_EQ(0, TipprmiStream("abc", -5).getDataLimit());
    EXPECT_TRUE(TipprmiStream("abc", -5).empty());
}

TEST_F(StreamMemoryTest, ALengthThatNobodyCanMeanIsReported) {
    TipprmiStream stream(8);
    stream << 0x7FFFFFFF;
    log.clear();
    std::string text = "before";
    stream >> text;
    EXPECT_EQ("", text);
    EXPECT_EQ(1U,
              log.with("Err::unmarshall() request out of bounds: getDataSize(4)-optr_(4) < size(2147483647)").size());
}

TEST_F(StreamMemoryTest, WithoutMemoryForItsDataAStreamReadsAsZeros) {
    TipprmiStream stream = received({1, 2, 3});
    {
        const FailingHeap none;
        stream.setData("abcdef", 6);
    }
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    int value = 1;
    stream >> value;
    EXPECT_EQ(0, value);
    stream.setData("abcdef", 6);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    EXPECT_EQ("61 62 63 64 65 66", hex(stream));
}

TEST_F(StreamMemoryTest, AStreamWithoutBufferIsHarmless) {
    std::vector<TipprmiStream> streams;
    streams.reserve(5);
    {
        const FailingHeap none;
        streams.emplace_back(100);
        streams.emplace_back("abc", 3);
    }
    streams.emplace_back(INT_MAX);
    streams.emplace_back(nullptr, INT_MAX);
    streams.emplace_back(TreflectMessage(), true);
    for (TipprmiStream &stream : streams) {
        log.clear();
        stream << 5;
        EXPECT_GE(rangeReports(stream, 0, -4), 1U);
        EXPECT_EQ(-4, stream.getDataLimit());
        EXPECT_EQ(0, stream.getDataSize());
        EXPECT_TRUE(stream.empty());
        EXPECT_EQ(nullptr, stream.getDataPtr());
        EXPECT_EQ(nullptr, stream.getReadPtr());
        EXPECT_EQ(0U, stream.msg().size());
        stream.clear();
        stream.rewind();
        stream.iptr_(4);
        EXPECT_EQ(0, stream.iptr_());
        int value = 1;
        stream >> value;
        EXPECT_EQ(0, value);
        EXPECT_TRUE(stream.hasUnmarshallingFailed());
        TipprmiStream outer(stream);
        outer.setData("x", 1);
        EXPECT_EQ("78", hex(outer)) << "given data, it has a buffer";
    }
}

TEST_F(StreamMemoryTest, AMessageTooShortForTheSizeOfItsDataHoldsNone) {
    for (unsigned size = 0; size < 4; ++size) {
        TreflectMessage message = orb.allocateRequest(size);
        for (unsigned i = 0; i < size; ++i) {
            message.buf()[i] = 0xFF;
        }
        const std::string bytes = hex(message);
        log.clear();
        TipprmiStream stream(message, false);
        const int limit = static_cast<int>(size) - 4;
        EXPECT_EQ(1U, rangeReports(stream, 0, limit));
        EXPECT_EQ(limit, stream.getDataLimit());
        EXPECT_EQ(0, stream.getDataSize());
        EXPECT_EQ(nullptr, stream.getDataPtr());
        stream.clear();
        stream.iptr_(1);
        stream.marshall("x", 1);
        EXPECT_EQ(bytes, hex(stream.msg()));
        int value = 1;
        stream >> value;
        EXPECT_EQ(0, value);
        EXPECT_TRUE(stream.hasUnmarshallingFailed());
    }
}

} // namespace
