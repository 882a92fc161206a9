#include "objects/REFLECT_object.h"

#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "reflection/REFLECT_metaObject.h"
#include "reflection/REFLECT_tieds.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/FakePeer.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "threads/HandlerState.h"

#include <functional>
#include <memory>
#include <string>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;

constexpr char kSource[] = "REFLECT_object";
constexpr unsigned kLamp = 0x0A11CE01;
constexpr unsigned kStone = 0x0A11CE02;
constexpr unsigned kPeerOrb = 0x00420201;
constexpr char kNull[] = "00 00 00 0B 49 6E 76 61 6C 69 64 53 74 75 62 00 00 00 01 00 00 00 00 00 00 00 00";

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

class LampMeta : public TreflectMetaObject {
public:
    LampMeta() : TreflectMetaObject("Lamp", kLamp) {}
    void completeMetaInformation() override {
        if (completed_ != 0) {
            return;
        }
        completed_ = 1;
        static const MetaOpData operations[] = {{"getcolour", 1}, {"blink", 2}};
        static const MetaAttrData attributes[] = {{"colour"}};
        completeMetaInformationHelper(operations, 2, attributes, 1);
    }
};

/** A lamp has a description, a stone has none. */
class Thing : public TreflectServerObject {
public:
    Thing(const char *oid, unsigned classId)
        : TreflectServerObject(::name(oid), nullptr, oid != nullptr ? oid : "nameless"), classId_(classId) {}
    unsigned getServerClassId() const override { return classId_; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(classId_);
        return ids;
    }

private:
    const unsigned classId_;
};

class HandleTest : public Testing::BrokerTest {
protected:
    /** The number that the log tells. */
    std::string tieds() {
        log.clear();
        TreflectTieds::instance()->print();
        const std::vector<Testing::LogLine> lines = log.with(" tieds are registered");
        return lines.size() == 1 ? lines[0].text.substr(0, lines[0].text.find(' ')) : "?";
    }

    TreflectHandlerState state{true};
    LampMeta lampMeta;
};

TEST_F(HandleTest, AssignmentAmongSharersLeavesTheCount) {
    Thing lamp("lamp", kLamp);
    TreflectObject a(&lamp);
    TreflectObject b(a);
    const TreflectObjectStub &stub = *a.getStub();
    EXPECT_EQ(&stub, b.getStub());
    EXPECT_EQ(2, stub.refCount());
    TreflectObject &self = a;
    a = self;
    EXPECT_EQ(2, stub.refCount());
    a = b;
    b = a;
    EXPECT_EQ(2, stub.refCount());
    TreflectObject none;
    none = a;
    EXPECT_EQ(3, stub.refCount());
    none = TreflectObject();
    EXPECT_EQ(2, stub.refCount());
}

/** Had the stub no user in between, it would be made anew. */
TEST_F(HandleTest, ConnectedToItsOwnObjectAHandleKeepsTheStub) {
    Thing lamp("lamp", kLamp);
    TreflectObject handle(&lamp);
    const TreflectObjectStub *const stub = handle.getStub();
    const TipprmiOID oid = name("lamp");
    const Testing::HeapProbe probe;
    handle.connect(&lamp);
    handle.connect(oid);
    handle.connect(&orb, oid);
    EXPECT_EQ(0U, probe.allocations());
    EXPECT_EQ(stub, handle.getStub());
    EXPECT_EQ(1, stub->refCount());
}

/** Each copy of a handle of an unknown object looks for it; those who share it have nothing to copy. */
TEST_F(HandleTest, AssignmentAmongSharersAsksNobody) {
    TreflectObject a(name("nowhere"));
    TreflectObject b(a);
    const TreflectObjectStub &stub = *a.getStub();
    EXPECT_EQ(2, stub.refCount());
    Testing::FakePeer peer(link);
    peer.answer([](TipprmiStream &body) { body << 0U; });
    TreflectObject &self = a;
    a = self;
    a = b;
    b = a;
    EXPECT_TRUE(peer.requests().empty()) << peer.lastRequest();
    EXPECT_EQ(&stub, a.getStub());
    EXPECT_EQ(&stub, b.getStub());
    EXPECT_EQ(2, stub.refCount());
    TreflectObject other;
    other = a;
    EXPECT_EQ(1U, peer.requests().size()) << "who does not share it looks for it";
    EXPECT_EQ(3, stub.refCount());
}

TEST_F(HandleTest, EachWayToMakeOneCountsOnce) {
    Thing lamp("lamp", kLamp);
    const TreflectObject first(&lamp);
    const TreflectObjectStub &stub = *first.getStub();
    EXPECT_EQ(1, stub.refCount());
    {
        const TreflectObject byName(name("lamp"));
        EXPECT_EQ(2, stub.refCount());
        EXPECT_EQ(&stub, byName.getStub());
        TreflectObject connected;
        connected.connect(name("lamp"));
        EXPECT_EQ(3, stub.refCount());
        connected.connect(nullptr, name("lamp"));
        EXPECT_EQ(3, stub.refCount()) << "the old one is released";
        connected.connect(&lamp);
        EXPECT_EQ(3, stub.refCount());
        TipprmiStream stream(100);
        stream << connected << connected;
        TreflectObject read;
        stream >> read >> connected;
        EXPECT_EQ(4, stub.refCount());
        EXPECT_EQ(&lamp, read.getServer());
        connected.connect(name(nullptr));
        EXPECT_EQ(3, stub.refCount());
        EXPECT_FALSE(connected.isConnected());
    }
    EXPECT_EQ(1, stub.refCount());
}

TEST_F(HandleTest, WithoutObjectIsTheSameStubWhateverTheWay) {
    const TreflectObject none;
    const int count = none.getStub()->refCount();
    {
        const TreflectObject copy(none);
        const TreflectObject byName(name(nullptr));
        const TreflectObject bySkeleton(static_cast<const TipprmiObjectSkeleton *>(nullptr));
        EXPECT_EQ(none.getStub(), copy.getStub());
        EXPECT_EQ(none.getStub(), byName.getStub());
        EXPECT_EQ(none.getStub(), bySkeleton.getStub());
        EXPECT_EQ(count + 3, none.getStub()->refCount());
    }
    EXPECT_EQ(count, none.getStub()->refCount());
}

TEST_F(HandleTest, WithoutObjectTravelsAsItIs) {
    const TreflectObject none;
    TipprmiStream stream(100);
    stream << none;
    EXPECT_EQ(kNull, hex(stream));
    Thing lamp("lamp", kLamp);
    TreflectObject read(&lamp);
    stream >> read;
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(none.getStub(), read.getStub());
    EXPECT_EQ(nullptr, read.getServer());
}

TEST_F(HandleTest, TravelsAsALocation) {
    Thing lamp("lamp", kLamp);
    TipprmiStream stream(100);
    stream << *lamp.getClient();
    char expected[100];
    const unsigned id = lamp.getInternalOID();
    const unsigned broker = orb.orbId().value();
    const auto byte = [](unsigned value, unsigned index) { return value >> (24 - 8 * index) & 0xFF; };
    std::snprintf(expected, sizeof expected,
                  "00 00 00 04 6C 61 6D 70 00 00 00 01 %02X %02X %02X %02X %02X %02X %02X %02X", byte(id, 0),
                  byte(id, 1), byte(id, 2), byte(id, 3), byte(broker, 0), byte(broker, 1), byte(broker, 2),
                  byte(broker, 3));
    EXPECT_EQ(expected, hex(stream));
}

/** A peer may use the name that stands for none; what it names so is an object of its own. */
TEST_F(HandleTest, AnObjectWithTheNameOfNoneIsNotWhatOthersAre) {
    TipprmiStream stream(100);
    stream << Location(0x77, TreflectOrbId(kPeerOrb), nullptr, name("InvalidStub"));
    TreflectObject read;
    stream >> read;
    const TreflectObject none;
    EXPECT_NE(none.getStub(), read.getStub());
    EXPECT_TRUE(read.isConnected());
    EXPECT_FALSE(none.isConnected());
    TipprmiStream again(100);
    again << none;
    EXPECT_EQ(kNull, hex(again));
}

TEST_F(HandleTest, HalfAReferenceIsAHandleOfNone) {
    TipprmiStream stream(100);
    stream << std::string("lamp") << 1U << 5U; // the broker is missing
    Thing lamp("lamp", kLamp);
    TreflectObject read(&lamp);
    stream >> read;
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(TreflectObject().getStub(), read.getStub());
}

TEST_F(HandleTest, ANameIsNeverAFormat) {
    const std::string odd = "%s%n%d\n";
    const TreflectObject object(name(odd.c_str()));
    EXPECT_EQ(odd, object.getOID().getIdString());
    EXPECT_EQ("", object.getAbsName());
    EXPECT_EQ(&TreflectObject::errorAttribute, object.attribute(odd));
    EXPECT_EQ(1U, log.count(3, "attribute \"" + odd + "\" not found", kSource));
    EXPECT_EQ(&TreflectObject::errorOperation, object.operation(odd));
    EXPECT_EQ(1U, log.count(6, "[Wrn] operation \"" + odd + "\" not found", kSource));
}

TEST_F(HandleTest, MembersThatTheClassDoesNotHaveAreErrorHandles) {
    Thing lamp("lamp", kLamp);
    const TreflectObject &object = *lamp.getClient();
    ASSERT_EQ(&lampMeta, object.meta());
    log.clear();
    TreflectAttribute *const attribute = object.attribute("missing");
    EXPECT_EQ(&TreflectObject::errorAttribute, attribute);
    EXPECT_EQ(1U, log.count(3, "attribute \"missing\" not found", kSource));
    unsigned value = 7;
    EXPECT_EQ(4, attribute->get(value));
    EXPECT_EQ(7U, value);
    TreflectOperation *const operation = object.operation("missing");
    EXPECT_EQ(&TreflectObject::errorOperation, operation);
    EXPECT_EQ(1U, log.count(6, "[Wrn] operation \"missing\" not found", kSource));
    EXPECT_EQ(5, operation->call());
    EXPECT_NE(static_cast<TreflectAttribute *>(&TreflectAttribute::errorAttribute), attribute);
    EXPECT_NE(static_cast<TreflectOperation *>(&TreflectAttribute::errorOperation), operation);
    EXPECT_EQ(nullptr, operation->meta());
    EXPECT_EQ(nullptr, operation->object());
}

TEST_F(HandleTest, WithoutDescriptionThereIsNoMember) {
    Thing stone("stone", kStone);
    for (const TreflectObject &object : {*stone.getClient(), TreflectObject()}) {
        EXPECT_EQ(nullptr, object.meta());
        log.clear();
        EXPECT_EQ(&TreflectObject::errorAttribute, object.attribute("colour"));
        EXPECT_EQ(&TreflectObject::errorOperation, object.operation("blink"));
        EXPECT_EQ(1U, log.count(3, "attribute \"colour\" not found", kSource));
        EXPECT_EQ(1U, log.count(6, "[Wrn] operation \"blink\" not found", kSource));
    }
}

TEST_F(HandleTest, AnAttributeHasNoIndexAtFirst) {
    Thing lamp("lamp", kLamp);
    const TreflectObject object(&lamp);
    TreflectAttribute *const colour = object.attribute("colour");
    ASSERT_NE(&TreflectObject::errorAttribute, colour);
    EXPECT_EQ(-1, colour->index());
    EXPECT_EQ(TreflectAttribute::plain, colour->containerType());
    EXPECT_NE(colour, object.attribute("colour")) << "each is a new one";
}

TEST_F(HandleTest, MemberHandlesGoWithTheHandleTheyWereMadeFor) {
    Thing lamp("lamp", kLamp);
    const std::string before = tieds();
    {
        const TreflectObject kept(&lamp);
        EXPECT_NE(&TreflectObject::errorOperation, kept.operation("blink"));
        {
            const TreflectObject object(&lamp);
            const TreflectOperation *const blink = object.operation("blink");
            EXPECT_EQ(&object, blink->object());
            EXPECT_EQ(lampMeta.metaOperation_("blink"), blink->meta());
            object.attribute("colour");
            object.attribute("missing");
            EXPECT_EQ(std::to_string(std::stoi(before) + 3), tieds());
        }
        EXPECT_EQ(std::to_string(std::stoi(before) + 1), tieds());
    }
    EXPECT_EQ(before, tieds());
}

TEST_F(HandleTest, WithoutObjectNothingIsKnownAndNobodyIsAsked) {
    link.peerAppears(Transport::TerminationId(0x0042, 2, 1));
    const TreflectObject none;
    EXPECT_EQ("", none.getAbsName());
    EXPECT_EQ("", none.getRelName());
    EXPECT_FALSE(none.getParent().isConnected());
    EXPECT_FALSE(none.getChild("a").isConnected());
    EXPECT_EQ(0U, none.getChilds().getLength());
    none.registerChild("a", none);
    none.unregisterChild("a");
    none.registerObserver(0, nullptr, nullptr);
    none.removeObserver(nullptr, nullptr);
    TreflectObserver observer(name(nullptr), nullptr, "observer");
    Thing lamp("lamp", kLamp);
    ASSERT_EQ(&lampMeta, lamp.getClient()->meta());
    const TreflectMetaOperation *const blink = lampMeta.metaOperation_("blink");
    ASSERT_NE(nullptr, blink);
    none.registerObserver(0, blink, &observer);
    none.removeObserver(blink, &observer);
    EXPECT_TRUE(link.takeIssued().empty());
}

/** A handle for which there was no memory knows nothing, and does no harm. */
TEST_F(HandleTest, WithoutMemoryForAStubThereIsNoObject) {
    Thing lamp("lamp", kLamp);
    std::unique_ptr<TreflectObject> object;
    delete new TreflectObject; // there is a cell for the handle
    {
        const Testing::FailingHeap heap;
        object.reset(new TreflectObject(&lamp));
    }
    ASSERT_EQ(nullptr, object->getStub());
    EXPECT_FALSE(object->isConnected());
    EXPECT_EQ(nullptr, object->getServer());
    EXPECT_EQ(nullptr, object->meta());
    EXPECT_EQ("", object->getAbsName());
    EXPECT_EQ("", object->getRelName());
    EXPECT_FALSE(object->getParent().isConnected());
    EXPECT_FALSE(object->getChild("a").isConnected());
    EXPECT_EQ(0U, object->getChilds().getLength());
    object->registerChild("a", *object);
    object->unregisterChild("a");
    object->registerObserver(0, nullptr, nullptr);
    object->removeObserver(nullptr, nullptr);
    EXPECT_EQ(&TreflectObject::errorAttribute, object->attribute("colour"));
    TipprmiStream stream(100);
    stream << *object;
    TreflectObject copy(*object);
    EXPECT_EQ(nullptr, copy.getStub());
    stream >> copy;
    EXPECT_EQ(TreflectObject().getStub(), copy.getStub());
    *object = TreflectObject(&lamp);
    EXPECT_EQ("/lamp", object->getAbsName());
}

TEST_F(HandleTest, AHandleOfADeadObjectIsNotConnected) {
    auto lamp = std::make_unique<Thing>("lamp", kLamp);
    const TreflectObject object(lamp.get());
    EXPECT_TRUE(object.isConnected());
    EXPECT_EQ("/lamp", object.getAbsName());
    lamp.reset();
    EXPECT_FALSE(object.isConnected());
    EXPECT_EQ(nullptr, object.getServer());
    EXPECT_EQ("", object.getAbsName());
    EXPECT_EQ(nullptr, object.meta());
    Thing next("lamp", kLamp); // perhaps at the same address
    EXPECT_FALSE(object.isConnected());
    TreflectObject fresh(&next);
    EXPECT_TRUE(fresh.isConnected());
    fresh = object;
    EXPECT_FALSE(fresh.isConnected());
}

// --- the old stub and the new one -----------------------------------------------------------------------------------

/** Handles that are given another object, which is looked for meanwhile: a moment to see what they have. */
class ReplacedTest : public Testing::BrokerTest {
protected:
    /** That takes so many requests. */
    void replace(const std::function<void(TreflectObject &handle)> &change, unsigned requests) {
        const TreflectHandlerState state(true);
        Thing lamp("lamp", kStone);
        TreflectObject handle(&lamp);
        const TreflectObjectStub *const old = handle.getStub();
        {
            const TreflectReleaseHandlerState released;
            Testing::TestThread changer([&] {
                const TreflectHandlerState own(true);
                change(handle);
            });
            for (; requests > 0; --requests) {
                const Transport::AddressedMessage request = peer.next();
                EXPECT_EQ(TreflectMessage::tRslve, TreflectMessage(request).type());
                const TreflectHandlerState own(true);
                {
                    const TreflectObject other(&lamp);
                    EXPECT_EQ(old, other.getStub());
                    EXPECT_EQ(2, other.getStub()->refCount()) << "its only user still has it";
                }
                peer.respond(request, [](TipprmiStream &body) { body << 0U; });
            }
            changer.join();
        }
        EXPECT_EQ(unknown.getStub(), handle.getStub());
        EXPECT_EQ(2, handle.getStub()->refCount());
        EXPECT_EQ(1, TreflectObject(&lamp).getStub()->refCount()) << "then it was released";
    }

    const TreflectObject unknown{name("nowhere")};
    const Testing::ManualPeer peer{link, orb, Transport::TerminationId(0x0042, 2, 1)};
};

TEST_F(ReplacedTest, AssignmentTakesTheNewStubBeforeItReleasesTheOldOne) {
    replace([this](TreflectObject &handle) { handle = unknown; }, 1);
}

TEST_F(ReplacedTest, SoDoesConnect) {
    // It looks for the object, and for that of the stub which it finds.
    replace([](TreflectObject &handle) { handle.connect(name("nowhere")); }, 2);
    replace([](TreflectObject &handle) { handle.connect(nullptr, name("nowhere")); }, 2);
}

TEST_F(ReplacedTest, SoDoesWhatReadsAReference) {
    TipprmiStream stream(100);
    stream << unknown;
    replace([&stream](TreflectObject &handle) { stream >> handle; }, 1);
}

} // namespace
