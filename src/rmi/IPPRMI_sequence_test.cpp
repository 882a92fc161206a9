#include "rmi/IPPRMI_sequence.h"

#include "rmi/IPPRMI_exception.h"
#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <array>
#include <cstddef>
#include <utility>
#include <vector>

namespace {

using Testing::FailingHeap;
using Testing::hex;
using Testing::received;

using Numbers = TipprmiSequence<unsigned, 0U>;
using Anys = TipprmiSequence<TipprmiAny, 0U>;

/** An element that can tell a default one from one that was read, and knows that it takes 16 bytes. */
struct Reference {
    std::string name = "default";
};
TipprmiStream &operator>>(TipprmiStream &stream, Reference &reference) {
    return stream >> reference.name;
}

} // namespace

template <>
struct TipprmiLeastSize<Reference> {
    static constexpr unsigned value = 16;
};

namespace {

class SequenceTest : public Testing::BrokerTest {
protected:
    static Numbers numbers(std::initializer_list<unsigned> values) {
        Numbers result;
        for (unsigned value : values) {
            result.push_back(value);
        }
        return result;
    }
    static unsigned codeOf(TipprmiAny &any) {
        TipprmiGeneralException exception(99);
        any.extract(exception);
        return exception.getCode();
    }
    static TipprmiStream claiming(unsigned count) {
        TipprmiStream stream(1);
        stream << count << 7U << 8U;
        return stream;
    }
};

TEST_F(SequenceTest, GrowsAndShrinks) {
    Numbers sequence;
    EXPECT_EQ(0U, sequence.getLength());
    sequence.push_back(5);
    sequence.push_back(6);
    sequence.setLength(4);
    EXPECT_EQ(4U, sequence.getLength());
    EXPECT_EQ(6U, sequence[1]);
    EXPECT_EQ(0U, sequence[3]);
    sequence[3] = 8;
    const Numbers copy(sequence);
    sequence.setLength(1);
    EXPECT_EQ(1U, sequence.getLength());
    EXPECT_EQ(8U, copy[3]);
    sequence = copy;
    EXPECT_EQ(4U, sequence.getLength());
}

TEST_F(SequenceTest, AnIndexBeyondTheLengthMeansTheFirstElement) {
    Numbers sequence = numbers({10, 11, 12});
    const Numbers &constant = sequence;
    EXPECT_EQ(12U, constant[2]);
    for (unsigned index : {3U, 5U, ~0U}) {
        EXPECT_EQ(&constant[0], &constant[index]);
        EXPECT_EQ(&sequence[0], &sequence[index]);
    }
    sequence[5] = 77;
    EXPECT_EQ(77U, sequence[0]);
}

TEST_F(SequenceTest, AnEmptySequenceHasAnElementThatIsNobodys) {
    Numbers sequence;
    sequence[0] = 5;
    EXPECT_EQ(0U, sequence[0]);
    const TipprmiSequence<Reference> references;
    EXPECT_EQ("default", references[3].name);
    EXPECT_EQ(0U, sequence.getLength());
}

TEST_F(SequenceTest, NumbersAreWrittenAfterTheirCount) {
    TipprmiStream stream(1);
    stream << numbers({1, 0xFFFFFFFF});
    EXPECT_EQ("00 00 00 02 00 00 00 01 FF FF FF FF", hex(stream));
    Numbers read = numbers({4, 5, 6});
    stream >> read;
    EXPECT_EQ(2U, read.getLength());
    EXPECT_EQ(1U, read[0]);
    EXPECT_EQ(0xFFFFFFFFU, read[1]);

    TipprmiStream empty(1);
    empty << Numbers();
    EXPECT_EQ("00 00 00 00", hex(empty));
    empty >> read;
    EXPECT_EQ(0U, read.getLength());
    EXPECT_FALSE(empty.hasUnmarshallingFailed());
}

TEST_F(SequenceTest, AnysAreWrittenAfterTheirCount) {
    Anys anys;
    anys.setLength(2);
    anys[1].insert(TipprmiGeneralException(0xAB));
    TipprmiStream stream(1);
    stream << anys;
    EXPECT_EQ("00 00 00 02 00 00 00 00 00 00 00 04 00 00 00 AB", hex(stream));

    Anys read;
    read.setLength(5);
    read[0].insert(TipprmiGeneralException(1));
    stream >> read;
    ASSERT_EQ(2U, read.getLength());
    EXPECT_TRUE(read[0].empty()) << "read into a fresh one";
    EXPECT_EQ(0xABU, codeOf(read[1]));
}

TEST_F(SequenceTest, AnysInASequenceAreIndependent) {
    Anys anys;
    TipprmiAny any;
    for (unsigned code = 1; code <= 20; ++code) { // enough to move them to larger memory
        any.insert(TipprmiGeneralException(code));
        anys.push_back(any);
    }
    any.insert(TipprmiGeneralException(99));
    Anys copy(anys);
    copy[3].insert(TipprmiGeneralException(0x55));
    for (unsigned i = 0; i < 20; ++i) {
        EXPECT_EQ(i + 1, codeOf(anys[i]));
    }
    EXPECT_EQ(0x55U, codeOf(copy[3]));
}

TEST_F(SequenceTest, MovingAnysTakesNoBuffers) {
    Anys anys;
    anys.setLength(64);
    const Testing::HeapProbe heap;
    anys.setLength(65); // moves 64 to larger memory; one of them is new
    EXPECT_LE(heap.allocations(), 2U);
    EXPECT_EQ(100, anys[63].getDataLimit());
}

TEST_F(SequenceTest, AModestCountIsBelievedWhateverTheData) {
    TipprmiStream stream = claiming(65536);
    Numbers read;
    stream >> read;
    EXPECT_EQ(65536U, read.getLength());
    EXPECT_EQ(8U, read[1]);
    EXPECT_EQ(0U, read[65535]);
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
}

TEST_F(SequenceTest, ACountThatTheDataCannotHoldEndsTheReading) {
    for (unsigned count : {65537U, 0x40000000U, 0x80000000U, 0xFFFFFFFFU}) {
        log.clear();
        TipprmiStream stream = claiming(count);
        Numbers read = numbers({4, 5, 6});
        stream >> read;
        EXPECT_EQ(0U, read.getLength());
        EXPECT_TRUE(stream.hasUnmarshallingFailed());
        EXPECT_EQ(1U, log.with("request out of bounds: getDataSize(12)-optr_(4) < size(").size());

        TipprmiStream again = claiming(count);
        Anys anys;
        again >> anys;
        EXPECT_EQ(0U, anys.getLength());
        EXPECT_TRUE(again.hasUnmarshallingFailed());
    }
}

TEST_F(SequenceTest, ACountOfArraysNeedsTheDataOfAllTheirElements) {
    using Lanes = std::array<unsigned, 4>;
    constexpr int kCount = 65537;
    for (const bool enough : {false, true}) {
        TipprmiStream stream(4 + kCount * 16);
        stream << static_cast<unsigned>(kCount);
        const int bytes = kCount * (enough ? 16 : 15);
        stream.marshall(std::vector<unsigned char>(static_cast<std::size_t>(bytes), 1).data(), bytes);
        TipprmiSequence<Lanes> read;
        stream >> read;
        EXPECT_EQ(enough ? 65537U : 0U, read.getLength());
        EXPECT_EQ(!enough, stream.hasUnmarshallingFailed());
    }
    EXPECT_EQ(1U, log.with("< size(1048592)").size());
    constexpr unsigned kNested = TipprmiLeastSize<std::array<std::array<Reference, 3>, 2>>::value;
    EXPECT_EQ(6U * 16U, kNested);
}

TEST_F(SequenceTest, ALargeCountIsBelievedIfTheDataHoldsIt) {
    constexpr unsigned kCount = 65537;
    TipprmiStream stream(4 + 4 * static_cast<int>(kCount));
    stream << kCount;
    for (unsigned i = 0; i < kCount; ++i) {
        stream << i;
    }
    const TipprmiStream copy(stream);
    Numbers read;
    stream >> read;
    ASSERT_EQ(kCount, read.getLength());
    EXPECT_EQ(kCount - 1, read[kCount - 1]);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());

    TipprmiStream asReferences(copy); // the same bytes do not hold as many of 16
    TipprmiSequence<Reference> references;
    asReferences >> references;
    EXPECT_EQ(0U, references.getLength());
    EXPECT_TRUE(asReferences.hasUnmarshallingFailed());
}

TEST_F(SequenceTest, WithoutMemoryTheLengthStaysAndTheReaderStops) {
    Numbers sequence = numbers({1, 2, 3});
    TipprmiStream stream(1);
    stream << 5000U;
    for (unsigned i = 0; i < 5000; ++i) {
        stream << i;
    }
    Numbers read = numbers({4, 5, 6});
    {
        const FailingHeap none(0, FailingHeap::Calls::all);
        sequence.setLength(5000);
        for (unsigned i = 0; i < 5000; ++i) {
            sequence.push_back(9);
        }
        stream >> read;
    }
    EXPECT_LT(sequence.getLength(), 5000U);
    EXPECT_EQ(3U, sequence[2]);
    EXPECT_EQ(0U, read.getLength());
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
}

TEST_F(SequenceTest, ParametersNeedNothingDone) {
    Anys anys;
    anys.setLength(3);
    generateParamSeq(anys);
    EXPECT_EQ(3U, anys.getLength());
}

TEST_F(SequenceTest, AnnouncedAnysThatAreEmptyCostLittle) {
    constexpr unsigned kCount = 10000;
    TipprmiStream stream(8);
    stream << kCount;
    for (unsigned i = 0; i < kCount; ++i) {
        stream << 0U;
    }
    TipprmiSequence<TipprmiAny> read;
    const Testing::HeapProbe heap;
    stream >> read;
    EXPECT_EQ(kCount, read.getLength());
    EXPECT_LT(heap.allocations(), 10U);
    EXPECT_EQ(100, read[5].getDataLimit());
    TipprmiAny copy(read[5]);
    EXPECT_EQ(100, copy.getDataLimit());
    copy.insert(TipprmiGeneralException(7));
    EXPECT_EQ("00 00 00 07", Testing::hex(copy));
    EXPECT_TRUE(read[5].empty());
}

TEST_F(SequenceTest, WithoutMemoryACopyIsEmpty) {
    TipprmiSequence<unsigned> full;
    full.setLength(1000);
    TipprmiSequence<unsigned> assigned;
    assigned.setLength(3);
    {
        const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
        const TipprmiSequence<unsigned> copy(full);
        EXPECT_EQ(0U, copy.getLength());
        assigned = full;
    }
    EXPECT_EQ(0U, assigned.getLength());
    assigned = full;
    EXPECT_EQ(1000U, assigned.getLength());
}

} // namespace
