#include "rmi/IPPRMI_exception.h"

#include "support/BrokerTest.h"

#include <utility>

namespace {

using Testing::hex;
using Testing::received;

class ExceptionTest : public Testing::BrokerTest {
protected:
    template <class T>
    static std::string written(const T &value) {
        TipprmiStream stream(1);
        stream << value;
        return hex(stream);
    }
};

TEST_F(ExceptionTest, AnAnyHasACapacityOfAHundredBytes) {
    const TipprmiAny any;
    EXPECT_EQ(100, any.getDataLimit());
    EXPECT_TRUE(any.empty());
    EXPECT_EQ("00 00 00 00", written(any));
}

TEST_F(ExceptionTest, AnAnyGivesItsValueAsOftenAsIsWanted) {
    TipprmiAny any;
    any.insert(TipprmiGeneralException(5));
    any.insert(TipprmiGeneralException(6)); // in place of the first
    EXPECT_EQ("00 00 00 06", hex(any));
    for (int round = 0; round < 2; ++round) {
        TipprmiGeneralException exception;
        any.extract(exception);
        EXPECT_EQ(6U, exception.getCode());
    }
    EXPECT_FALSE(any.hasUnmarshallingFailed());
    EXPECT_EQ("00 00 00 04 00 00 00 06", written(any));
}

TEST_F(ExceptionTest, CopiesOfAnAnyAreIndependent) {
    TipprmiAny source;
    source.insert(TipprmiGeneralException(5));
    TipprmiAny copy(source);
    TipprmiAny assigned;
    assigned = source;
    EXPECT_EQ(hex(source), hex(copy));
    EXPECT_EQ(source.getDataLimit(), copy.getDataLimit());
    copy.insert(TipprmiGeneralException(8));
    assigned.clear();
    EXPECT_EQ("00 00 00 05", hex(source));
    EXPECT_EQ("00 00 00 08", hex(copy));
    source = *&source;
    EXPECT_EQ("00 00 00 05", hex(source));

    TipprmiAny small;
    TipprmiStream wire = received({0, 0, 0, 2, 1, 2});
    wire >> small;
    TipprmiAny asSmall(small);
    EXPECT_EQ(2, asSmall.getDataLimit()) << "the limit is the source's";
}

TEST_F(ExceptionTest, AnEmptyAnyStopsUntilTheNextInsert) {
    TipprmiAny any;
    TipprmiGeneralException exception(9);
    any.extract(exception);
    EXPECT_EQ(0U, exception.getCode());
    EXPECT_TRUE(any.hasUnmarshallingFailed());
    EXPECT_TRUE(TipprmiAny(any).hasUnmarshallingFailed());
    any.insert(TipprmiGeneralException(3));
    any.extract(exception);
    EXPECT_EQ(3U, exception.getCode());
    EXPECT_FALSE(any.hasUnmarshallingFailed());
}

TEST_F(ExceptionTest, AGeneralExceptionIsItsCode) {
    EXPECT_EQ(1U, TipprmiGeneralException::getExceptionClassType());
    EXPECT_EQ(0U, TipprmiGeneralException().getCode());
    EXPECT_EQ("01 02 03 04", written(TipprmiGeneralException(0x01020304)));
    TipprmiStream stream = received({0xFF, 0, 0, 1, 7});
    TipprmiGeneralException exception(5);
    stream >> exception;
    EXPECT_EQ(0xFF000001U, exception.getCode());
    stream >> exception;
    EXPECT_EQ(0U, exception.getCode());
}

TEST_F(ExceptionTest, AContainerIsItsTypeAndItsData) {
    TipprmiExceptionContainer container;
    EXPECT_EQ("00 00 00 00 00 00 00 00", written(container)) << "no exception";
    container.setExceptionType(TipprmiGeneralException::getExceptionClassType());
    container.setExceptionData(TipprmiGeneralException(0));
    EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 00", written(container));

    TipprmiStream stream(1);
    container.setExceptionData(TipprmiGeneralException(0x2B));
    stream << container << 7;
    TipprmiExceptionContainer read;
    read.setExceptionType(9);
    read.setExceptionData(TipprmiGeneralException(9));
    int seven = 0;
    stream >> read >> seven;
    EXPECT_EQ(1U, read.getExceptionType());
    TipprmiGeneralException exception;
    read.getExceptionData(exception);
    EXPECT_EQ(0x2BU, exception.getCode());
    EXPECT_EQ(7, seven);
}

TEST_F(ExceptionTest, AContainerWithoutDataEmptiesTheOneItIsReadInto) {
    TipprmiStream stream = received({0, 0, 0, 0, 0, 0, 0, 0});
    TipprmiExceptionContainer container;
    container.setExceptionType(1);
    container.setExceptionData(TipprmiGeneralException(9));
    stream >> container;
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    EXPECT_EQ("00 00 00 00 00 00 00 00", written(container));
}

TEST_F(ExceptionTest, DataTooShortForItsTypeGivesCodeZero) {
    TipprmiStream stream = received({0, 0, 0, 1, 0, 0, 0, 2, 0xFF, 0xFF});
    TipprmiExceptionContainer container;
    stream >> container;
    EXPECT_FALSE(stream.hasUnmarshallingFailed()) << "the container is complete";
    EXPECT_EQ(1U, container.getExceptionType());
    TipprmiGeneralException exception(5);
    container.getExceptionData(exception);
    EXPECT_EQ(0U, exception.getCode());

    TipprmiStream cut = received({0, 0, 0, 1, 0, 0});
    cut >> container;
    EXPECT_TRUE(cut.hasUnmarshallingFailed());
    EXPECT_EQ("00 00 00 01 00 00 00 00", written(container));
    TipprmiStream nothing = received({});
    nothing >> container;
    EXPECT_EQ(0U, container.getExceptionType()) << "a response of size 0 reads as no exception";
    EXPECT_TRUE(nothing.hasUnmarshallingFailed());
}

} // namespace
