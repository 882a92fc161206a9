#include "rmi/StreamOperators.h"

#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <climits>
#include <memory>

namespace {

using Testing::FailingHeap;
using Testing::hex;
using Testing::received;

class StreamOperatorsTest : public Testing::BrokerTest {
protected:
    template <class T>
    static std::string written(const T &value) {
        TipprmiStream stream(1);
        stream << value;
        return hex(stream);
    }
    /** What a `char *` reads; the array is taken over. */
    static std::unique_ptr<char[]> readArray(TipprmiStream &stream) {
        char *text = nullptr;
        stream >> text;
        return std::unique_ptr<char[]>(text);
    }
};

TEST_F(StreamOperatorsTest, IntegersAreBigEndian) {
    EXPECT_EQ("01 02 03 04", written(0x01020304));
    EXPECT_EQ("FF FF FF FE", written(-2));
    EXPECT_EQ("80 00 00 00", written(INT_MIN));
    EXPECT_EQ("FE DC BA 98", written(0xFEDCBA98U));
    TipprmiStream stream = received({0xFF, 0xFF, 0xFF, 0xFE, 0xFE, 0xDC, 0xBA, 0x98, 0x80, 0, 0, 0});
    int negative = 0;
    unsigned large = 0;
    int least = 0;
    stream >> negative >> large >> least;
    EXPECT_EQ(-2, negative);
    EXPECT_EQ(0xFEDCBA98U, large);
    EXPECT_EQ(INT_MIN, least);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
}

TEST_F(StreamOperatorsTest, AFailedReadOverwritesItsTarget) {
    TipprmiStream stream = received({1, 2, 3});
    unsigned number = 77;
    stream >> number;
    EXPECT_EQ(0U, number);
    int integer = 77;
    bool flag = true;
    std::string text = "before";
    Transport::TerminationId address(77);
    stream >> integer >> flag >> text >> address;
    EXPECT_EQ(0, integer);
    EXPECT_FALSE(flag);
    EXPECT_EQ("", text);
    EXPECT_EQ(0U, address.value());
    EXPECT_EQ(1U, log.with("request out of bounds").size());
}

TEST_F(StreamOperatorsTest, BooleansAreNumbers) {
    EXPECT_EQ("00 00 00 01", written(true));
    EXPECT_EQ("00 00 00 00", written(false));
    TipprmiStream stream = received({0, 0, 0, 2, 0, 0, 0, 0, 0x80, 0, 0, 0});
    bool two = false;
    bool zero = true;
    bool topBit = false;
    stream >> two >> zero >> topBit;
    EXPECT_TRUE(two);
    EXPECT_FALSE(zero);
    EXPECT_TRUE(topBit);
}

TEST_F(StreamOperatorsTest, StringsKeepTheirZeroBytes) {
    const std::string text("a\0b", 3);
    EXPECT_EQ("00 00 00 03 61 00 62", written(text));
    EXPECT_EQ("00 00 00 00", written(std::string()));
    EXPECT_EQ("00 00 00 01 61", written(text.c_str())) << "cut at the zero byte";
    EXPECT_EQ("00 00 00 00", written(""));
    EXPECT_EQ("00 00 00 00", written(static_cast<const char *>(nullptr)));

    TipprmiStream stream(1);
    stream << text << 5 << ""; // what follows stands at an odd address
    std::string read;
    int five = 0;
    std::string cleared = "before";
    stream >> read >> five >> cleared;
    EXPECT_EQ(text, read);
    EXPECT_EQ(5, five);
    EXPECT_EQ("", cleared);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
}

TEST_F(StreamOperatorsTest, ALengthWithoutSenseIsAnEmptyString) {
    for (int top : {0x80, 0xFF}) {
        TipprmiStream stream = received({top, 0xFF, 0xFF, 0xFF, 'x'});
        std::string text = "before";
        stream >> text;
        EXPECT_EQ("", text);
        EXPECT_FALSE(stream.hasUnmarshallingFailed());
        EXPECT_EQ(1, stream.getRemaining()) << "only the length was taken";
    }
}

TEST_F(StreamOperatorsTest, AStringThatIsCutOffReadsAsThatManyZeros) {
    TipprmiStream stream = received({0, 0, 0, 5, 'a', 'b', 'c'});
    std::string text = "before";
    stream >> text;
    EXPECT_EQ(std::string(5, '\0'), text);
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(1U, log.with("getDataSize(7)-optr_(4) < size(5)").size());

    TipprmiStream again = received({0, 0, 0, 5, 'a', 'b', 'c'});
    const std::unique_ptr<char[]> array = readArray(again);
    EXPECT_EQ("00 00 00 00 00 00", hex(reinterpret_cast<unsigned char *>(array.get()), 6));
    EXPECT_TRUE(again.hasUnmarshallingFailed());
}

TEST_F(StreamOperatorsTest, AHugeLengthIsNotAllocated) {
    const std::initializer_list<int> justAbove{0, 0x10, 0, 1, 'a', 'b', 'c'}; // 1 MiB and 1
    for (int top : {0x00, 0x7F}) {
        TipprmiStream stream = top == 0 ? received(justAbove) : received({0x7F, 0xFF, 0xFF, 0xFF, 'a', 'b', 'c'});
        const TipprmiStream copy(stream);
        std::string text = "before";
        const Testing::HeapProbe heap;
        stream >> text;
        EXPECT_LT(heap.allocations(), 20U);
        EXPECT_EQ("", text);
        EXPECT_TRUE(stream.hasUnmarshallingFailed());

        TipprmiStream forArray(copy);
        const std::unique_ptr<char[]> array = readArray(forArray);
        ASSERT_NE(nullptr, array);
        EXPECT_STREQ("", array.get());
        EXPECT_TRUE(forArray.hasUnmarshallingFailed());

        TipprmiStream outer(copy);
        TipprmiStream target = received({1, 2});
        outer >> target;
        EXPECT_EQ("01 02", hex(target));
        EXPECT_TRUE(outer.hasUnmarshallingFailed());
    }
    TipprmiStream believed = received({0, 0x10, 0, 0, 'a'}); // 1 MiB
    std::string zeros;
    believed >> zeros;
    EXPECT_EQ(std::string(1024 * 1024, '\0'), zeros);
    EXPECT_TRUE(believed.hasUnmarshallingFailed());
}

TEST_F(StreamOperatorsTest, LargeStringsPass) {
    const std::string large(3 * 1024 * 1024 + 1, 'L');
    TipprmiStream stream(1);
    stream << large << large.c_str();
    std::string text;
    stream >> text;
    EXPECT_TRUE(text == large);
    EXPECT_TRUE(large == readArray(stream).get());
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
}

TEST_F(StreamOperatorsTest, AnArrayIsAlwaysTerminated) {
    TipprmiStream stream = received({0, 0, 0, 2, 'a', 'b', 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_STREQ("ab", readArray(stream).get());
    EXPECT_STREQ("", readArray(stream).get());
    EXPECT_STREQ("", readArray(stream).get()) << "a length of -1";
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    EXPECT_STREQ("", readArray(stream).get()) << "nothing left";
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
}

TEST_F(StreamOperatorsTest, WithoutMemoryAStringStopsTheStream) {
    TipprmiStream stream = received({0, 0, 0, 2, 'a', 'b', 0, 0, 0, 9});
    char *text = nullptr;
    {
        const FailingHeap none(0, FailingHeap::Calls::all);
        stream >> text;
    }
    EXPECT_EQ(nullptr, text);
    EXPECT_TRUE(stream.hasUnmarshallingFailed());

    TipprmiStream again = received({0, 0, 0, 2, 'a', 'b', 0, 0, 0, 9});
    {
        const FailingHeap first(0); // only the array itself is refused, or its replacement as well
        again >> text;
    }
    EXPECT_EQ(nullptr, text);
    EXPECT_TRUE(again.hasUnmarshallingFailed());

    TipprmiStream longer(1);
    longer << std::string(1000, 'x') << 9;
    std::string target = "before";
    {
        const FailingHeap none(0, FailingHeap::Calls::all);
        longer >> target;
    }
    EXPECT_EQ(Testing::kLibraryHeapIsProbed, longer.hasUnmarshallingFailed());
    EXPECT_EQ(Testing::kLibraryHeapIsProbed ? 0U : 1000U, target.size());
}

TEST_F(StreamOperatorsTest, ANestedStreamIsItsWholeData) {
    TipprmiStream inner = received({1, 2, 3});
    inner.unmarshall(nullptr, 2);
    TipprmiStream outer(1);
    outer << inner << 7;
    EXPECT_EQ("00 00 00 03 01 02 03 00 00 00 07", hex(outer));

    TipprmiStream target = received({9, 9, 9, 9, 9});
    target.stopUnmarshalling();
    int seven = 0;
    outer >> target >> seven;
    EXPECT_EQ("01 02 03", hex(target));
    EXPECT_FALSE(target.hasUnmarshallingFailed());
    EXPECT_EQ(3, target.getRemaining());
    EXPECT_EQ(7, seven);
}

TEST_F(StreamOperatorsTest, ANestedStreamOfSizeZeroLeavesItsTarget) {
    for (int top : {0x00, 0x80}) {
        TipprmiStream outer = received({top, 0, 0, 0, 5});
        TipprmiStream target = received({1, 2});
        outer >> target;
        EXPECT_EQ("01 02", hex(target));
        EXPECT_EQ(1, outer.getRemaining());

        outer.rewind();
        TipprmiAny any;
        any.insert(3);
        outer >> any;
        EXPECT_TRUE(any.empty()) << "it is emptied first";
    }
}

TEST_F(StreamOperatorsTest, ANestedStreamThatIsCutOffReadsAsThatManyZeros) {
    TipprmiStream outer = received({0, 0, 0, 3, 1, 2});
    TipprmiStream target = received({9});
    outer >> target;
    EXPECT_EQ("00 00 00", hex(target));
    EXPECT_FALSE(target.hasUnmarshallingFailed());
    EXPECT_TRUE(outer.hasUnmarshallingFailed());
}

TEST_F(StreamOperatorsTest, ANestedStreamMayBeReadIntoItsOwnStream) {
    TipprmiStream stream = received({0, 0, 0, 2, 7, 8, 9});
    stream >> stream;
    EXPECT_EQ("07 08", hex(stream));
}

TEST_F(StreamOperatorsTest, NamespacesAreSkippedByTheReader) {
    EXPECT_EQ("00 00 01 02", written(NamespaceId(0x102)));
    TipprmiStream stream = received({0, 0, 0, 3, 5});
    NamespaceId ns(9);
    stream >> ns;
    EXPECT_EQ(9U, static_cast<unsigned>(ns));
    EXPECT_EQ(1, stream.getRemaining());
}

TEST_F(StreamOperatorsTest, AddressesAreInTheHostsByteOrder) {
    TipprmiStream stream(1);
    stream << Transport::TerminationId(0x01020304U);
    const unsigned value = 0x01020304U;
    EXPECT_EQ(hex(reinterpret_cast<const unsigned char *>(&value), 4), hex(stream));
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    EXPECT_EQ("04 03 02 01", hex(stream));
#endif
    Transport::TerminationId read;
    stream >> read;
    EXPECT_EQ(0x01020304U, read.value());
}

} // namespace
