#include "orb/ObjectTable_p.h"

#include "rmi/IPPRMI_objectSkeleton.h"
#include "support/HeapProbe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <string>

namespace {

TipprmiOID name(const std::string &text, unsigned ns = 1) {
    return TipprmiOID(text, NamespaceId(ns));
}

/** Objects that no broker knows. */
class ObjectTableTest : public testing::Test {
protected:
    TipprmiObjectSkeleton &object(const TipprmiOID &oid) {
        objects.emplace_back();
        objects.back().setOID(oid);
        return objects.back();
    }
    TipprmiObjectSkeleton &added(const TipprmiOID &oid) {
        TipprmiObjectSkeleton &made = object(oid);
        EXPECT_NE(0U, table.add(made));
        return made;
    }
    bool rename(TipprmiObjectSkeleton &object, const TipprmiOID &oid) {
        object.setOID(oid);
        return table.rename(object);
    }
    const TipprmiObjectSkeleton *found(const TipprmiOID &oid) const {
        const ObjectTable::Found found = table.find(oid);
        EXPECT_EQ(found.object, table.find(found.number));
        EXPECT_EQ(found.object == nullptr, found.number == 0);
        return found.object;
    }

    std::list<TipprmiObjectSkeleton> objects;
    ObjectTable table;
};

TEST_F(ObjectTableTest, AnObjectIsFoundByNumberAndName) {
    TipprmiObjectSkeleton &one = object(name("one"));
    const unsigned number = table.add(one);
    const TipprmiObjectSkeleton &two = added(name("two"));
    TipprmiObjectSkeleton &nameless = object(name(""));
    const unsigned third = table.add(nameless);
    EXPECT_EQ(number, table.add(one)) << "it keeps its number";
    EXPECT_EQ(&one, table.find(number));
    EXPECT_EQ(&nameless, table.find(third));
    EXPECT_EQ(&one, found(name("one")));
    EXPECT_EQ(&two, found(name("two")));
    EXPECT_EQ(nullptr, found(name("on")));
    EXPECT_EQ(nullptr, found(name(""))) << "no name is nobody's";
    EXPECT_EQ(nullptr, found(name("one", 2))) << "a name is one of its namespace";
    EXPECT_EQ(nullptr, table.find(0U));
    table.remove(&one);
    table.remove(&nameless);
    EXPECT_EQ(nullptr, table.find(number));
    EXPECT_EQ(nullptr, table.find(third));
    EXPECT_EQ(nullptr, found(name("one")));
    EXPECT_EQ(&two, found(name("two")));
}

TEST_F(ObjectTableTest, OfEqualNamesTheLowestNumberIsFound) {
    std::map<unsigned, TipprmiObjectSkeleton *> byNumber;
    for (int i = 0; i < 20; ++i) {
        TipprmiObjectSkeleton &one = object(name("same"));
        byNumber[table.add(one)] = &one;
        EXPECT_EQ(byNumber.begin()->second, found(name("same")));
    }
    while (!byNumber.empty()) {
        EXPECT_EQ(byNumber.begin()->second, found(name("same")));
        table.remove(byNumber.begin()->second);
        byNumber.erase(byNumber.begin());
    }
    EXPECT_EQ(nullptr, found(name("same")));
}

TEST_F(ObjectTableTest, AnObjectIsFoundUnderItsLastName) {
    TipprmiObjectSkeleton &object = added(name("first"));
    EXPECT_TRUE(rename(object, name("second")));
    EXPECT_EQ(nullptr, found(name("first")));
    EXPECT_EQ(&object, found(name("second")));
    EXPECT_TRUE(rename(object, name("")));
    EXPECT_EQ(nullptr, found(name("second")));
    EXPECT_TRUE(rename(object, name("third")));
    EXPECT_EQ(&object, found(name("third")));
    object.setOID(name("fourth"));
    EXPECT_NE(0U, table.add(object));
    EXPECT_EQ(&object, found(name("fourth"))) << "as it is named when it is added again";
    table.remove(&object);
    EXPECT_TRUE(rename(object, name("fifth"))) << "also when it is not here";
    table.remove(&object);
    EXPECT_EQ(nullptr, found(name("fifth")));
}

TEST_F(ObjectTableTest, AnObjectThatIsGoneIsTakenOut) {
    auto object = std::make_unique<TipprmiObjectSkeleton>();
    object->setOID(name("gone"));
    const unsigned number = table.add(*object);
    const TipprmiObjectSkeleton *const address = object.get();
    object.reset();
    table.remove(address);
    EXPECT_EQ(nullptr, table.find(number));
    EXPECT_EQ(nullptr, found(name("gone")));
}

/** Whatever was done before, it answers like a walk through all objects in the order of their numbers. */
TEST_F(ObjectTableTest, ManyChangesLeaveItRight) {
    std::mt19937 random(11);
    std::map<unsigned, TipprmiObjectSkeleton *> here;
    const auto oneOf = [&random](unsigned count) { return random() % count; };
    const auto anyName = [&] { return name(std::string(oneOf(8), 'n')); }; // or none
    for (int i = 0; i < 60; ++i) {
        object(anyName());
    }
    for (int step = 0; step < 3000; ++step) {
        TipprmiObjectSkeleton &object = *std::next(objects.begin(), oneOf(60));
        switch (oneOf(3)) {
        case 0:
            here[table.add(object)] = &object;
            break;
        case 1:
            table.remove(&object);
            for (auto entry = here.begin(); entry != here.end();) {
                entry = entry->second == &object ? here.erase(entry) : std::next(entry);
            }
            break;
        default:
            EXPECT_TRUE(rename(object, anyName()));
        }
        const TipprmiOID wanted = anyName();
        const auto first = std::find_if(here.begin(), here.end(),
                                        [&](const auto &entry) { return entry.second->storedOID() == wanted; });
        ASSERT_EQ(first != here.end() ? first->second : nullptr, found(wanted)) << step;
    }
}

// --- without memory -------------------------------------------------------------------------------------------------

TEST_F(ObjectTableTest, AnObjectIsAddedWithItsNameOrNotAtAll) {
    TipprmiObjectSkeleton &one = object(name("one"));
    unsigned allowed = 0;
    for (unsigned number = 0; number == 0 && allowed < 10; ++allowed) {
        {
            const Testing::FailingHeap heap(allowed, Testing::FailingHeap::Calls::all);
            number = table.add(one);
        }
        EXPECT_EQ(number != 0 ? &one : nullptr, found(name("one"))) << allowed;
    }
    EXPECT_EQ(3U, allowed) << "the third attempt has memory for both";
}

TEST_F(ObjectTableTest, AnotherNameNeedsNone) {
    TipprmiObjectSkeleton &object = added(name("before"));
    const TipprmiOID after = name("after");
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        EXPECT_TRUE(rename(object, after));
    }
    EXPECT_EQ(nullptr, found(name("before")));
    EXPECT_EQ(&object, found(after));
}

TEST_F(ObjectTableTest, TheFirstNameOfAnObjectNeedsSome) {
    TipprmiObjectSkeleton &object = added(name(""));
    const unsigned number = table.add(object);
    const TipprmiOID first = name("first");
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        EXPECT_FALSE(rename(object, first));
        EXPECT_EQ(number, table.add(object)) << "it stays where it is";
    }
    EXPECT_EQ(&object, table.find(number));
    EXPECT_EQ(nullptr, found(first));
    EXPECT_TRUE(table.rename(object)) << "next time it may have some";
    EXPECT_EQ(&object, found(first));
    table.remove(&object);
    EXPECT_EQ(nullptr, found(first));
}

} // namespace
