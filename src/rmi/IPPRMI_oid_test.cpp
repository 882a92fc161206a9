#include "rmi/IPPRMI_oid.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/HeapProbe.h"

#include <map>
#include <utility>

namespace {

using Testing::FailingHeap;
using Testing::hex;
using Testing::received;

class OidTest : public Testing::BrokerTest {
protected:
    static std::string text(const TipprmiOID &id) { return id.getIdString() != nullptr ? id.getIdString() : "(none)"; }
    static unsigned ns(const TipprmiOID &id) { return id.getNamespaceId(); }
    std::size_t noMemoryReports() const {
        return log.count(3, "init:44 Memory allocation for dataP_ falied.", "IPPRMI_oid");
    }
};

TEST_F(OidTest, IsAStringInANamespace) {
    std::string source = "shelf";
    const TipprmiOID id(source, 7);
    const TipprmiOID other(source.c_str(), 7);
    source[0] = 'X';
    EXPECT_STREQ("shelf", id.getIdString());
    EXPECT_EQ(7U, ns(id));
    EXPECT_TRUE(id.isEqual(other));
    EXPECT_TRUE(id == other);
    EXPECT_FALSE(id != other);
    EXPECT_FALSE(id == TipprmiOID("shelf", 8));
    EXPECT_FALSE(id == TipprmiOID("Shelf", 7));
    EXPECT_STREQ("a", TipprmiOID(std::string("a\0b", 3), 1).getIdString()) << "cut at the zero byte";
}

TEST_F(OidTest, WithoutStringItEqualsNothing) {
    const TipprmiOID empty("", 5);
    const TipprmiOID null(nullptr, 5);
    const TipprmiOID emptyString(std::string(), 5);
    for (const TipprmiOID *id : {&empty, &null, &emptyString}) {
        EXPECT_EQ(nullptr, id->getIdString());
        EXPECT_EQ(5U, ns(*id));
        for (const TipprmiOID *other : {&empty, &null, &emptyString}) {
            EXPECT_FALSE(*id == *other);
            EXPECT_TRUE(*id != *other);
            EXPECT_FALSE(*id < *other);
        }
        EXPECT_FALSE(*id == TipprmiOID("a", 5));
    }
}

TEST_F(OidTest, IsOrderedByNamespaceThenByString) {
    const TipprmiOID a2("a", 2);
    const TipprmiOID b1("b", 1);
    EXPECT_FALSE(a2 < b1);
    EXPECT_TRUE(b1 < a2);
    EXPECT_TRUE(TipprmiOID("a", 1) < b1);
    EXPECT_FALSE(b1 < TipprmiOID("a", 1));
    EXPECT_FALSE(b1 < TipprmiOID("b", 1));
    EXPECT_TRUE(TipprmiOID("b", 1) < TipprmiOID("b\xC3\xA4", 1)) << "as unsigned characters, everywhere";
    EXPECT_TRUE(TipprmiOID("b~", 1) < TipprmiOID("b\xC3\xA4", 1));

    const TipprmiOID high("x", 0x80000000U);
    EXPECT_TRUE(high < b1) << "namespaces compare as signed numbers";
    EXPECT_FALSE(b1 < high);
    EXPECT_TRUE(TipprmiOID("x", 0xFFFFFFFFU) < TipprmiOID("x", 0));

    const TipprmiOID none(nullptr, 1);
    EXPECT_FALSE(none < b1);
    EXPECT_FALSE(b1 < none);
    EXPECT_TRUE(none < a2);
}

TEST_F(OidTest, ASuffixMovesItToNamespaceOne) {
    const TipprmiOID id("abc", 7);
    EXPECT_EQ("abcdef", text(id + "def"));
    EXPECT_EQ(1U, ns(id + "def"));
    EXPECT_EQ("abcdef", text(id + std::string("def")));
    EXPECT_EQ("abc", text(id + ""));
    EXPECT_EQ(1U, ns(id + ""));
    EXPECT_EQ("abc", text(id + static_cast<const char *>(nullptr)));
    EXPECT_EQ("abc", text(id));

    const TipprmiOID none("", 9);
    EXPECT_EQ(nullptr, (none + "x").getIdString());
    EXPECT_EQ(9U, ns(none + "x"));
}

TEST_F(OidTest, ALongSuffixNeedsNoStack) {
    const std::string large(2 * 1024 * 1024, 'L');
    const TipprmiOID joined = TipprmiOID("x", 1) + large;
    EXPECT_TRUE("x" + large == joined.getIdString());
}

TEST_F(OidTest, CopiesShareTheString) {
    TipprmiOID first("abc", 1);
    const Testing::HeapProbe heap;
    TipprmiOID second(first);
    TipprmiOID third(nullptr, 4);
    third = first;
    EXPECT_EQ(0U, heap.allocations());
    EXPECT_EQ(first.getIdString(), second.getIdString());
    EXPECT_EQ(first.getIdString(), third.getIdString());
    EXPECT_EQ(1U, ns(third)) << "the namespace comes with it";

    first = *&first;
    first = second;
    EXPECT_EQ("abc", text(first));
    first.setIdString("new");
    EXPECT_EQ("new", text(first));
    EXPECT_EQ("abc", text(second));
    second.init(nullptr);
    EXPECT_EQ(nullptr, second.getIdString());
    EXPECT_EQ("abc", text(third)) << "the last one still has it";
    third.setIdString(third.getIdString());
    EXPECT_EQ("abc", text(third));
    const TipprmiOID moved(std::move(third));
    EXPECT_EQ("abc", text(moved));
}

TEST_F(OidTest, TheValueCopiesItsString) {
    using StringValue = TipprmiOID::StringValue;
    const StringValue value("abc");
    const StringValue copy(value);
    EXPECT_STREQ("abc", copy.data());
    EXPECT_NE(value.data(), copy.data());
    EXPECT_EQ(nullptr, StringValue("").data());
    EXPECT_EQ(nullptr, StringValue(nullptr).data());
    EXPECT_EQ(nullptr, StringValue(StringValue("")).data());
}

TEST_F(OidTest, SharingAssignmentsKeepTheCount) {
    using Pointer = TipprmiRCPtr<TipprmiOID::StringValue>;
    Pointer first(new TipprmiOID::StringValue("abc"));
    Pointer second(first);
    EXPECT_EQ(2, first->referenceCount());
    first = second;
    second = *&second;
    EXPECT_EQ(2, first->referenceCount());
}

TEST_F(OidTest, TheStringTravelsWithoutItsTerminator) {
    TipprmiStream stream(1);
    stream << TipprmiOID("abc", 3);
    EXPECT_EQ("00 00 00 03 61 62 63 00 00 00 03", hex(stream));
    stream << 5;
    TipprmiOID read("before", 9);
    const TipprmiOID sharing(read);
    int five = 0;
    stream >> read >> five;
    EXPECT_EQ("abc", text(read));
    EXPECT_EQ(9U, ns(read)) << "the reader's namespace";
    EXPECT_EQ("before", text(sharing));
    EXPECT_EQ(5, five);
}

TEST_F(OidTest, WithoutStringOnlyTheNamespaceTravels) {
    TipprmiStream stream(1);
    stream << TipprmiOID(nullptr, 9);
    EXPECT_EQ("00 00 00 00 00 00 00 09", hex(stream));
    TipprmiStream same(1);
    same << TipprmiOID("", 9);
    EXPECT_EQ(hex(stream), hex(same));
    TipprmiOID read("before", 4);
    stream >> read;
    EXPECT_EQ(nullptr, read.getIdString());
    EXPECT_EQ(4U, ns(read));
    EXPECT_EQ(0, stream.getRemaining());
}

TEST_F(OidTest, ReceivedStringsAreCutAtAZeroByte) {
    TipprmiStream stream = received({0, 0, 0, 3, 'a', 0, 'b', 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 1});
    TipprmiOID read("before", 1);
    stream >> read;
    EXPECT_EQ("a", text(read));
    stream >> read;
    EXPECT_EQ(nullptr, read.getIdString()) << "nothing but a zero byte";
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    stream >> read;
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(nullptr, read.getIdString());
    EXPECT_EQ(1U, ns(read));

    TipprmiStream percent(1);
    percent << TipprmiOID("100%s%n", 1);
    percent >> read;
    EXPECT_EQ("100%s%n", text(read));
}

TEST_F(OidTest, WithoutMemoryItIsWithoutString) {
    for (unsigned allowed : {0U, 1U}) { // no value; a value without text
        const FailingHeap none(allowed);
        const TipprmiOID id("abc", 6);
        EXPECT_EQ(nullptr, id.getIdString());
        EXPECT_EQ(6U, ns(id));
    }
    EXPECT_EQ(2U, noMemoryReports());
    log.clear();

    const TipprmiOID::StringValue value("abc");
    {
        const FailingHeap none;
        EXPECT_EQ(nullptr, TipprmiOID::StringValue(value).data());
    }
    EXPECT_EQ(1U, noMemoryReports());
    log.clear();

    const TipprmiOID id("abc", 6);
    {
        const FailingHeap none;
        const TipprmiOID joined = id + "def";
        EXPECT_EQ(nullptr, joined.getIdString());
        EXPECT_EQ(1U, ns(joined));
        const TipprmiOID copy(id);
        EXPECT_EQ("abc", text(copy)) << "a copy needs none";
    }
    EXPECT_EQ(1U, noMemoryReports());

    TipprmiStream stream(1);
    stream << id << 7;
    TipprmiOID read("before", 6);
    {
        const FailingHeap none(1); // for the text on its way only
        stream >> read;
    }
    EXPECT_EQ(nullptr, read.getIdString());
    int seven = 0;
    stream >> seven;
    EXPECT_EQ(7, seven) << "the stream goes on behind the identifier";
}

TEST_F(OidTest, ServesAsAKey) {
    std::map<TipprmiOID, int> values;
    values[TipprmiOID("b", 1)] = 1;
    values[TipprmiOID("a", 2)] = 2;
    values[TipprmiOID("a", 1)] = 3;
    values[TipprmiOID("b", 1)] = 4;
    EXPECT_EQ(3U, values.size());
    EXPECT_EQ(4, values[TipprmiOID("b", 1)]);
    EXPECT_EQ(3, values.begin()->second);
}

} // namespace
