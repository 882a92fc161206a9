#include "reflection/REFLECT_metaObject.h"

#include "platform/transport/testing/FakeLink.h"
#include "reflection/REFLECT_InterfaceRepository.h"
#include "support/HeapProbe.h"
#include "support/LogCapture.h"
#include "support/ReflectiveClasses.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace {

using Testing::LogCapture;
using Names = std::vector<std::string>;
using OpData = TreflectMetaObject::MetaOpData;
using AttrData = TreflectMetaObject::MetaAttrData;

constexpr char kSource[] = "REFLECT_metaObject";

class TestMeta : public TreflectMetaObject {
public:
    explicit TestMeta(const std::string &name, unsigned id = 0x200) : TreflectMetaObject(name, id) {}
    void completeMetaInformation() override {}
    std::uint32_t completed() const { return completed_; }

    template <std::size_t Ops, std::size_t Attrs>
    void complete(const OpData (&ops)[Ops], const AttrData (&attrs)[Attrs]) {
        completeMetaInformationHelper(ops, Ops, attrs, Attrs);
    }
    Names attributes() const {
        std::list<TreflectMetaAttribute *> list;
        attributeList(list);
        return namesOf(list);
    }
    Names operations() const {
        std::list<TreflectMetaOperation *> list;
        operationList(list);
        return namesOf(list);
    }

private:
    /** "class.member" */
    template <class Member>
    static Names namesOf(const std::list<Member *> &list) {
        Names names;
        for (const Member *member : list) {
            names.push_back(member->containingMetaObject()->name() + "." + member->name());
        }
        return names;
    }
};

std::string missingAttribute(const std::string &name) {
    return "TreflectMetaObject::metaAttribute(" + name + ") NOT found, returning 0";
}

TEST(MetaObject, HasNameAndIdAndNothingElseAtFirst) {
    const TestMeta meta("Rack", 0x80000002);
    EXPECT_EQ("Rack", meta.name());
    EXPECT_EQ(0x80000002U, meta.getClassId());
    EXPECT_EQ(0x80000002U, meta.id());
    EXPECT_EQ(0U, meta.completed());
    EXPECT_TRUE(meta.attributes().empty());
    EXPECT_TRUE(meta.operations().empty());
    EXPECT_TRUE(meta.parents().empty());
    EXPECT_TRUE(meta.children().empty());
}

TEST(MetaObject, WithoutMemoryForItsNameAClassIsReportedAndNotRegistered) {
    const std::string name = "ARackWithALongName";
    const LogCapture log;
    std::optional<TestMeta> meta;
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all, 1);
        EXPECT_NO_THROW(meta.emplace(name, 0x20A));
    }
    ASSERT_TRUE(meta.has_value());
    EXPECT_EQ(0x20AU, meta->id());
    if (Testing::kLibraryHeapIsProbed) {
        EXPECT_EQ(1U, log.count(3, "no memory for the name of class 0x20A", kSource));
        EXPECT_EQ("", meta->name());
    }
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(nullptr, InterfaceRepository::instance()->findInterface(0x20A));
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        EXPECT_NO_THROW(meta.emplace(name, 0x20A)) << "also when the line is lost";
    }
    EXPECT_EQ(nullptr, InterfaceRepository::instance()->findInterface(0x20A));
    const TestMeta whole(name, 0x20A);
    EXPECT_EQ(&whole, InterfaceRepository::instance()->findInterface(0x20A)) << "the class is not taken";
    EXPECT_EQ(name, whole.name());
}

// --- members from tables --------------------------------------------------------------------------------------------

TEST(MetaObject, MakesOperationsAndTheAttributesThatTheyGetAndSet) {
    const LogCapture log;
    TestMeta meta("Rack");
    meta.complete({{"getheight", 7}, {"setheight", -8}, {"getserial", 9}, {"reset", 10}}, {{"serial"}, {"height"}});
    EXPECT_EQ((Names{"Rack.getheight", "Rack.getserial", "Rack.reset", "Rack.setheight"}), meta.operations());
    EXPECT_EQ((Names{"Rack.height", "Rack.serial"}), meta.attributes());
    EXPECT_EQ(7, meta.metaOperation("getheight")->id());
    EXPECT_EQ(-8, meta.metaOperation("setheight")->id());

    const TreflectMetaAttribute *const height = meta.metaAttribute("height");
    EXPECT_EQ(meta.metaOperation("getheight"), height->metaOperGet());
    EXPECT_EQ(meta.metaOperation("setheight"), height->metaOperSet());
    EXPECT_EQ(1, height->constLength());
    EXPECT_EQ(nullptr, height->typeMeta());
    EXPECT_EQ("", height->typeName());
    const TreflectMetaAttribute *const serial = meta.metaAttribute("serial");
    EXPECT_EQ(meta.metaOperation("getserial"), serial->metaOperGet());
    EXPECT_EQ(nullptr, serial->metaOperSet()) << "can only be read";
    EXPECT_TRUE(log.lines().empty());
}

TEST(MetaObject, NeitherTableMayBeMissing) {
    const LogCapture log;
    TestMeta meta("Ra%sck");
    const OpData operations[] = {{"getheight", 7}};
    const AttrData attributes[] = {{"height"}};
    meta.completeMetaInformationHelper(nullptr, 1, attributes, 1);
    meta.completeMetaInformationHelper(operations, 1, nullptr, 0);
    EXPECT_EQ(2U, log.count(3, "Invalid meta information for meta object \"Ra%sck\"", kSource));
    EXPECT_EQ(2U, log.lines().size());
    EXPECT_TRUE(meta.attributes().empty());
    EXPECT_TRUE(meta.operations().empty());
    meta.completeMetaInformationHelper(operations, 1, attributes, 0); // a class without attributes
    EXPECT_EQ(Names{"Ra%sck.getheight"}, meta.operations());
    EXPECT_TRUE(meta.attributes().empty());
    EXPECT_EQ(2U, log.lines().size());
}

TEST(MetaObject, AttributesEndBeforeTheFirstWithoutGetter) {
    const LogCapture log;
    TestMeta meta("Rack");
    meta.complete({{"geta", 1}, {"getb", 2}, {"setc", 3}, {"getd", 4}}, {{"a"}, {"b"}, {"c"}, {"d"}});
    EXPECT_EQ((Names{"Rack.a", "Rack.b"}), meta.attributes());
    EXPECT_EQ(4U, meta.operations().size());
    EXPECT_EQ(1U, log.count(3, "no get operation registered for attribute \"c\" of class \"Rack\"", kSource));
    EXPECT_EQ(1U, log.lines().size());
}

TEST(MetaObject, AccessorsMayBeThoseOfAParent) {
    const LogCapture log;
    TestMeta parent("Parent", 0x201);
    parent.complete({{"geta", 1}, {"seta", 2}, {"getb", 3}}, {{"a"}});
    TestMeta meta("Child");
    meta.registerParent(&parent);
    meta.complete({{"setb", 4}}, {{"a"}, {"b"}});
    EXPECT_EQ(parent.metaOperation("geta"), meta.metaAttribute("a")->metaOperGet());
    EXPECT_EQ(parent.metaOperation("seta"), meta.metaAttribute("a")->metaOperSet());
    EXPECT_EQ(&meta, meta.metaAttribute("a")->containingMetaObject());
    EXPECT_EQ(&parent, meta.metaAttribute("a")->metaOperGet()->containingMetaObject());
    EXPECT_EQ(parent.metaOperation("getb"), meta.metaAttribute("b")->metaOperGet());
    EXPECT_EQ(meta.metaOperation("setb"), meta.metaAttribute("b")->metaOperSet());
    EXPECT_TRUE(log.lines().empty());
}

TEST(MetaObject, WithoutMemoryMembersAreMissingAndNothingIsThrown) {
    const OpData operations[] = {{"getsomethingWithALongName", 1}};
    const AttrData attributes[] = {{"somethingWithALongName"}};
    const auto completeWith = [&](unsigned allowed) {
        TestMeta meta("Rack");
        {
            const Testing::FailingHeap heap(allowed, Testing::FailingHeap::Calls::all);
            meta.completeMetaInformationHelper(operations, 1, attributes, 1);
        }
        const LogCapture log;
        for (const std::string &name : meta.attributes()) {
            EXPECT_EQ("Rack.somethingWithALongName", name);
            EXPECT_NE(nullptr, meta.metaAttribute("somethingWithALongName")->metaOperGet());
        }
        return meta.attributes().size() == 1;
    };
    EXPECT_FALSE(completeWith(0));
    unsigned allowed = 1;
    while (allowed < 100 && !completeWith(allowed)) {
        ++allowed;
    }
    EXPECT_TRUE(completeWith(allowed)) << "with memory for all of it";
}

// --- look-ups -------------------------------------------------------------------------------------------------------

TEST(MetaObject, AMissingAttributeIsReportedByEachClassThatWasAskedTheDeepestFirst) {
    TestMeta grandparent("Grandparent", 0x201);
    TestMeta parent("Parent", 0x202);
    TestMeta meta("Child");
    parent.registerParent(&grandparent);
    meta.registerParent(&parent);
    grandparent.complete({{"getage", 1}}, {{"age"}});
    const LogCapture log;
    EXPECT_EQ(nullptr, meta.metaAttribute("10%d"));
    EXPECT_EQ(3U, log.count(4, missingAttribute("10%d"), kSource));
    EXPECT_EQ(3U, log.lines().size());
    EXPECT_EQ(&grandparent, meta.metaAttribute("age")->containingMetaObject());
    EXPECT_EQ(3U, log.lines().size()) << "none for what is found in the end, however deep";
}

/** The text does not say which class it comes from: a class that lacks the attribute is told from one that has it. */
TEST(MetaObject, AMissIsReportedByTheParentsBeforeTheOneThatHasIt) {
    TestMeta parents[] = {TestMeta("A", 0x201), TestMeta("B", 0x202)};
    parents[1].complete({{"getx", 1}}, {{"x"}});
    TestMeta meta("Child");
    meta.registerParent(&parents[1]);
    meta.registerParent(&parents[0]);
    const LogCapture log;
    EXPECT_EQ(parents[1].metaAttribute("x"), meta.metaAttribute("x"));
    EXPECT_EQ(1U, log.count(4, missingAttribute("x"), kSource)) << "the first by address was asked first";
    EXPECT_EQ(1U, log.lines().size());
}

TEST(MetaObject, AMissingOperationIsReportedOnceWithTheClassThatWasAsked) {
    TestMeta parent("Parent", 0x201);
    TestMeta meta("Child");
    meta.registerParent(&parent);
    parent.complete({{"getx", 4}, {"reset", 5}}, {{"x"}});
    const LogCapture log;
    EXPECT_EQ(nullptr, meta.metaOperation_("blink"));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(nullptr, meta.metaOperation("blink"));
    EXPECT_EQ(1U, log.count(4, "TreflectMetaObject(Child)::metaOperation(blink) NOT found, returning 0", kSource));
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(5, meta.metaOperation("reset")->id());
    EXPECT_EQ(meta.metaOperation("reset"), meta.metaOperation_("reset"));
    EXPECT_EQ(1U, log.lines().size());
}

TEST(MetaObject, TheOwnMemberHidesThatOfAParentAndTheFirstParentThoseOfOthers) {
    const LogCapture log;
    TestMeta parents[] = {TestMeta("A", 0x201), TestMeta("B", 0x202)};
    for (TestMeta &parent : parents) {
        parent.complete({{"getx", 1}, {"gety", 2}}, {{"x"}, {"y"}});
    }
    TestMeta meta("Child");
    meta.registerParent(&parents[1]);
    meta.registerParent(&parents[0]);
    meta.complete({{"getx", 3}}, {{"x"}});
    EXPECT_EQ(&meta, meta.metaAttribute("x")->containingMetaObject());
    EXPECT_EQ(3, meta.metaOperation("getx")->id());
    EXPECT_EQ(&parents[0], meta.metaAttribute("y")->containingMetaObject()) << "by address, not by registration";
    EXPECT_EQ(&parents[0], meta.metaOperation("gety")->containingMetaObject());
    EXPECT_TRUE(log.lines().empty());
}

TEST(MetaObject, ListsAreAppendedToTheOwnMembersFirstAndRedefinedOnesTwice) {
    TestMeta parent("Parent", 0x201);
    parent.complete({{"getx", 1}, {"getb", 2}}, {{"x"}, {"b"}});
    TestMeta meta("Child");
    meta.registerParent(&parent);
    meta.complete({{"getx", 3}, {"getc", 4}}, {{"x"}, {"c"}});
    EXPECT_EQ((Names{"Child.c", "Child.x", "Parent.b", "Parent.x"}), meta.attributes());
    EXPECT_EQ((Names{"Child.getc", "Child.getx", "Parent.getb", "Parent.getx"}), meta.operations());
    std::list<TreflectMetaAttribute *> attributes;
    meta.attributeList(attributes);
    meta.attributeList(attributes);
    EXPECT_EQ(8U, attributes.size()) << "not cleared";
    EXPECT_EQ(attributes.front(), *std::next(attributes.begin(), 4));
    std::list<TreflectMetaOperation *> operations;
    meta.operationList(operations);
    parent.operationList(operations);
    EXPECT_EQ(6U, operations.size());
}

// --- relatives ------------------------------------------------------------------------------------------------------

TEST(MetaObject, RelativesAreSetsOrderedByAddress) {
    std::vector<std::unique_ptr<TestMeta>> parents;
    for (unsigned i = 0; i < 5; ++i) {
        parents.push_back(std::make_unique<TestMeta>("Parent", 0x210 + i));
    }
    TestMeta meta("Child");
    std::vector<TreflectMetaObject *> expected;
    for (auto parent = parents.rbegin(); parent != parents.rend(); ++parent) {
        EXPECT_TRUE(meta.registerParent(parent->get()));
        EXPECT_TRUE(meta.registerParent(parent->get())) << "again changes nothing";
        EXPECT_EQ(std::set<TreflectMetaObject *>{&meta}, (*parent)->children());
        expected.push_back(parent->get());
    }
    std::sort(expected.begin(), expected.end(), std::less<>());
    EXPECT_EQ(expected, std::vector<TreflectMetaObject *>(meta.parents().begin(), meta.parents().end()));
    EXPECT_TRUE(meta.children().empty());
    TestMeta child("Grandchild", 0x220);
    EXPECT_TRUE(meta.registerChild(&child));
    EXPECT_TRUE(meta.registerChild(&child));
    EXPECT_EQ(1U, meta.children().size());
    EXPECT_TRUE(child.parents().empty()) << "the parent is what registers both ways";
}

TEST(MetaObject, IsItselfAndWhatItsParentsAre) {
    TestMeta top("Top", 0x201);
    TestMeta left("Left", 0x202);
    TestMeta right("Right", 0x203);
    TestMeta bottom("Bottom", 0x204);
    left.registerParent(&top);
    bottom.registerParent(&left);
    bottom.registerParent(&right);
    EXPECT_TRUE(bottom.isA(&bottom));
    EXPECT_TRUE(bottom.isA(&left));
    EXPECT_TRUE(bottom.isA(&right));
    EXPECT_TRUE(bottom.isA(&top));
    EXPECT_FALSE(top.isA(&bottom));
    EXPECT_FALSE(left.isA(&right));
    EXPECT_FALSE(right.isA(&top));
    EXPECT_FALSE(bottom.isA(nullptr));
}

// --- observers of the class -----------------------------------------------------------------------------------------

SCENARIO(classWithoutObserver) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TestMeta meta("Rack");
    for (bool plusExisting : {false, true}) {
        SCENARIO_CHECK(!meta.observeCreations(nullptr, plusExisting));
    }
    SCENARIO_CHECK(!meta.observeDeletions(nullptr));
    meta.removeObserver(nullptr);
    SCENARIO_CHECK(link.announced().empty());
}

TEST(MetaObject, WithoutObserverNoBrokerIsAsked) {
    const Testing::ProcessResult result = Testing::runScenario("classWithoutObserver");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

// --- ownership ------------------------------------------------------------------------------------------------------

/** Writes down when it goes, and whether its class could be found then. */
template <class Base>
class Noted : public Base {
public:
    template <class... Arguments>
    explicit Noted(Names &gone, Arguments... arguments) : Base(arguments...), gone_(gone) {}
    ~Noted() override {
        const std::vector<unsigned> ids = InterfaceRepository::instance()->getIfIds();
        const bool registered = std::count(ids.begin(), ids.end(), 0x230U) != 0;
        gone_.push_back(this->name() + (registered ? " (registered)" : ""));
    }

private:
    Names &gone_;
};

TEST(MetaObject, ReplacesMembersAndInTheEndUnregistersAndDeletesTheLastOfEachName) {
    Names gone;
    auto meta = std::make_unique<TestMeta>("Owner", 0x230U);
    TestMeta relative("Relative", 0x231);
    meta->registerParent(&relative);
    meta->registerChild(&relative);
    for (const char *name : {"b", "a"}) {
        auto *const operation = new Noted<TreflectMetaOperation>(gone, std::string("op_") + name, meta.get(), 1);
        meta->registerOperation(operation);
        meta->registerAttribute(new Noted<TreflectMetaAttribute>(gone, name, meta.get(), operation, nullptr));
    }
    const std::unique_ptr<TreflectMetaAttribute> replaced(meta->metaAttribute("a"));
    meta->registerAttribute(new Noted<TreflectMetaAttribute>(gone, "a", meta.get(), nullptr, nullptr));
    EXPECT_NE(replaced.get(), meta->metaAttribute("a"));
    const std::unique_ptr<TreflectMetaOperation> replacedToo(meta->metaOperation("op_b"));
    meta->registerOperation(new Noted<TreflectMetaOperation>(gone, "op_b", meta.get(), 2));
    EXPECT_EQ(2, meta->metaOperation("op_b")->id());
    EXPECT_TRUE(gone.empty()) << "what is replaced is not deleted";
    meta.reset();
    EXPECT_EQ((Names{"a", "b", "op_a", "op_b"}), gone);
    EXPECT_EQ("Relative", relative.name());
}

} // namespace
