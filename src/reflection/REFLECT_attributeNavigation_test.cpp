#include "reflection/REFLECT_attribute.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "support/ScriptedObject.h"

#include <memory>

// Attributes whose value is an object, as seen through them; and answers that are not what they should be.

namespace {

using Testing::answered;
using Testing::EquipmentImpl;

using Testing::PortImpl;
using Testing::PortMeta;
using Testing::ScriptedObject;

constexpr char kSource[] = "REFLECT_metaObject";

/** The port is carried by the shelf, that by the rack. */
class NavigationTest : public Testing::BrokerTest {
protected:
    void SetUp() override {
        PortMeta::instance()->completeMetaInformation();
        rack.serialNumber = "rack";
        shelf.serialNumber = "shelf";
        shelf.carriedBy = TreflectObject(&rack);
        port.carriedBy = TreflectObject(&shelf);
        port.laneList = {TreflectObject(&shelf), TreflectObject(&rack), TreflectObject(), TreflectObject(&port)};
        log.clear();
    }
    static std::string textOf(TreflectAttribute *attribute) {
        std::string text = "unchanged";
        EXPECT_EQ(0, attribute->get(text));
        return text;
    }

    TreflectHandlerState state{true};
    EquipmentImpl rack{"rack"};
    EquipmentImpl shelf{"shelf"};
    PortImpl port{"port"};
    const TreflectObject object{&port};
};

TEST_F(NavigationTest, AttributesAndOperationsOfTheObjectThatAnAttributeHolds) {
    TreflectAttribute &carrier = *object.attribute("carrier");
    EXPECT_EQ("shelf", textOf(carrier.attribute("serial")));
    EXPECT_EQ("rack", textOf(carrier.attribute("carrier")->attribute("serial")));
    EXPECT_EQ(0, carrier.operation("reset")->call());
    EXPECT_EQ(0, carrier.attribute("carrier")->operation("reset")->call());
    EXPECT_EQ(1, shelf.resets);
    EXPECT_EQ(1, rack.resets);
    EXPECT_NE(carrier.attribute("serial"), carrier.attribute("serial")) << "a new handle each time";
    EXPECT_NE(carrier.operation("reset"), carrier.operation("reset"));
}

TEST_F(NavigationTest, TheObjectIsReadOnceForEachHandle) {
    TreflectAttribute &carrier = *object.attribute("carrier");
    EXPECT_EQ(0, port.carrierReads);
    EXPECT_EQ("shelf", textOf(carrier.attribute("serial")));
    EXPECT_EQ(1, port.carrierReads);
    port.carriedBy = TreflectObject(&rack);
    EXPECT_EQ("shelf", textOf(carrier.attribute("serial")));
    carrier.operation("reset");
    carrier.updateContainedObject();
    EXPECT_EQ(1, port.carrierReads);
    EXPECT_EQ("rack", textOf(object.attribute("carrier")->attribute("serial")));
    EXPECT_EQ(2, port.carrierReads);
}

TEST_F(NavigationTest, WithAnIndexItIsReadEachTime) {
    TreflectAttribute &carrier = (*object.attribute("carrier"))[0];
    EXPECT_EQ("shelf", textOf(carrier.attribute("serial")));
    port.carriedBy = TreflectObject(&rack);
    EXPECT_EQ("rack", textOf(carrier.attribute("serial")));
    EXPECT_EQ(0, carrier.operation("reset")->call());
    EXPECT_EQ(1, rack.resets);
    EXPECT_EQ(3, port.carrierReads);
    carrier.clearIndex();
    carrier.operation("reset");
    EXPECT_EQ(3, port.carrierReads) << "what was read last stays";
}

TEST_F(NavigationTest, ElementsAreObjectsToo) {
    auto *const meta = dynamic_cast<TreflectArrayMetaAttribute *>(PortMeta::instance()->metaAttribute("lanes"));
    TreflectAttribute &lanes = *meta->getTied(&object);
    EXPECT_EQ("shelf", textOf(lanes[0].attribute("serial")));
    TreflectAttribute *const before = lanes[0].attribute("serial");
    EXPECT_EQ("rack", textOf(lanes[1].attribute("serial")));
    EXPECT_EQ("rack", textOf(before)) << "handles follow the object that is held";
    EXPECT_EQ("rack", textOf(lanes[4].attribute("serial"))) << "past the end it stays";
    EXPECT_EQ("", textOf(lanes[2].attribute("serial"))) << "no object, no text";
}

TEST_F(NavigationTest, MembersThatTheHeldClassDoesNotHave) {
    TreflectAttribute &carrier = *object.attribute("carrier");
    log.clear();
    EXPECT_EQ(&TreflectAttribute::errorAttribute, carrier.attribute("label")) << "it is known as Equipment";
    EXPECT_EQ(1U, log.count(4, "TreflectMetaObject::metaAttribute(label) NOT found, returning 0", kSource));
    EXPECT_EQ(&TreflectAttribute::errorOperation, carrier.operation("blink"));
    EXPECT_EQ(1U, log.count(4, "TreflectMetaObject(Equipment)::metaOperation(blink) NOT found, returning 0", kSource));
    EXPECT_EQ(2U, log.lines().size()) << "and no other line";
    EXPECT_EQ(4, carrier.attribute("x")->attribute("y")->get(port.text));
    EXPECT_EQ(5, carrier.attribute("x")->operation("y")->call());
}

TEST_F(NavigationTest, AnAttributeWithoutObjectHasNoMembersAndIsNotAsked) {
    ScriptedObject thing("thing");
    const TreflectObject scripted(&thing);
    TreflectAttribute &label = *scripted.attribute("label");
    log.clear();
    EXPECT_EQ(&TreflectAttribute::errorAttribute, label.attribute("serial"));
    EXPECT_EQ(&TreflectAttribute::errorOperation, label.operation("reset"));
    label.updateContainedObject();
    EXPECT_TRUE(thing.calls.empty());
    EXPECT_TRUE(log.lines().empty());
}

/** A thread that is cancelled while it reads the object leaves nothing behind that another one would take for it. */
TEST_F(NavigationTest, AnObjectThatWasNotReadToTheEndIsReadAgain) {
    const Testing::ManualPeer peer(link, orb, Transport::TerminationId(0x0042, 2, 1));
    const TreflectReleaseHandlerState released;
    TipprmiStream reference(100);
    reference << TreflectORB::TreflectObjectLocation(0x99, orb.convertId(peer.id()), nullptr,
                                                     TipprmiOID(nullptr, NamespaceId(1)));
    TreflectObject far;
    reference >> far;
    TreflectAttribute *carrier = nullptr;
    std::string text;
    const auto navigate = [&] {
        const TreflectHandlerState own(true);
        if (carrier == nullptr) {
            carrier = far.attribute("carrier");
        }
        text = textOf(carrier->attribute("serial"));
    };
    {
        Testing::TestThread cancelled(navigate);
        peer.respond(peer.next(), [](TipprmiStream &response) {
            answered(response) << 1U << static_cast<unsigned>(Testing::Port::CLASS_ID);
        });
        EXPECT_NE(nullptr, peer.next().buf()) << "the question for the carrier";
        EXPECT_TRUE(cancelled.stop());
    }
    Testing::TestThread next(navigate);
    peer.respond(peer.next(), [this](TipprmiStream &response) { answered(response) << TreflectObject(&shelf); });
    next.join();
    EXPECT_EQ("shelf", text);
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(NavigationTest, WithoutMemoryForTheObjectThereAreErrorHandles) {
    TreflectAttribute &carrier = *object.attribute("carrier");
    std::vector<TreflectObject *> handles; // the pool has free cells, which are used up first
    handles.reserve(1000);
    {
        const Testing::FailingHeap heap;
        for (auto *handle = new (std::nothrow) TreflectObject; handle != nullptr;
             handle = new (std::nothrow) TreflectObject) {
            handles.push_back(handle);
        }
        EXPECT_EQ(&TreflectAttribute::errorAttribute, carrier.attribute("serial"));
        EXPECT_EQ(&TreflectAttribute::errorOperation, carrier.operation("reset"));
    }
    EXPECT_EQ(0, port.carrierReads);
    EXPECT_EQ("shelf", textOf(carrier.attribute("serial"))) << "memory has come back";
    for (TreflectObject *handle : handles) {
        delete handle;
    }
}

// --- answers --------------------------------------------------------------------------------------------------------

class AnswerTest : public NavigationTest {
protected:
    void SetUp() override {
        NavigationTest::SetUp();
        thing.answer = [this](TipprmiStream &response) {
            response.marshall(body.getDataPtr(), body.getDataSize());
            return true;
        };
    }
    /** What the next answers consist of. */
    TipprmiStream &answerWith() {
        body.clear();
        return body;
    }
    TreflectAttribute &members() {
        return *dynamic_cast<TreflectSequenceMetaAttribute *>(PortMeta::instance()->metaAttribute("members"))
                    ->getTied(&scripted);
    }
    /** An array of as many elements as a test likes. */
    TreflectAttribute &lanes(int length) {
        TreflectMetaObject &meta = *PortMeta::instance();
        array = std::make_unique<TreflectArrayMetaAttribute>("lanes", &meta, meta.metaOperation("getlanes"), nullptr,
                                                             length);
        return *array->getTied(&scripted);
    }
    std::string read(const TreflectAttribute &attribute) {
        TreflectObject out(&port);
        EXPECT_EQ(0, attribute.get(out));
        if (out == object) {
            return "unchanged";
        }
        return out.isConnected() ? out.getOID().getIdString() : "nobody";
    }

    TipprmiStream body{100};
    ScriptedObject thing{"thing"};
    std::unique_ptr<TreflectArrayMetaAttribute> array;
    const TreflectObject scripted{&thing};
};

TEST_F(AnswerTest, NothingAtAllReadsAsNoObject) {
    answerWith();
    EXPECT_EQ("nobody", read(*scripted.attribute("carrier")));
    EXPECT_EQ("unchanged", read(members()[0])) << "a sequence without elements";
    EXPECT_EQ("nobody", read(lanes(4)[2]));
    thing.answer = [](TipprmiStream &) { return false; };
    EXPECT_EQ("nobody", read(*scripted.attribute("carrier")));
    EXPECT_EQ("", textOf(scripted.attribute("label")));
}

TEST_F(AnswerTest, AfterAGeneralExceptionTheValueIsNotRead) {
    answerWith() << 1U << std::string("why") << TreflectObject(&rack);
    EXPECT_EQ("nobody", read(*scripted.attribute("carrier")));
    answerWith() << 2U << std::string("why") << TreflectObject(&rack);
    EXPECT_EQ("rack", read(*scripted.attribute("carrier"))) << "after another it is";
}

TEST_F(AnswerTest, CutReferencesAreNone) {
    TipprmiStream whole(100);
    answered(whole) << TreflectObject(&rack);
    for (int size = 0; size < whole.getDataSize(); ++size) {
        answerWith().marshall(whole.getDataPtr(), size);
        EXPECT_EQ("nobody", read(*scripted.attribute("carrier"))) << size;
    }
    answerWith().marshall(whole.getDataPtr(), whole.getDataSize());
    EXPECT_EQ("rack", read(*scripted.attribute("carrier")));
}

TEST_F(AnswerTest, ASequenceThatPromisesMoreThanItHolds) {
    for (unsigned count : {0xFFFFFFFFU, 0x80000000U, 0x10001U}) {
        answered(answerWith()) << count << TreflectObject(&rack);
        for (int index : {0, 1, 0x7FFFFFFF, -2}) {
            EXPECT_EQ("unchanged", read(members()[index])) << count << " " << index;
        }
    }
    answered(answerWith()) << 10U << TreflectObject(&rack) << TreflectObject(&shelf) << 5U;
    EXPECT_EQ("rack", read(members()[0]));
    EXPECT_EQ("shelf", read(members()[1]));
    EXPECT_EQ("nobody", read(members()[2]));
    EXPECT_EQ("nobody", read(members()[9]));
    EXPECT_EQ("unchanged", read(members()[10]));
}

TEST_F(AnswerTest, AnArrayThatEndsTooEarly) {
    answered(answerWith()) << TreflectObject(&rack) << TreflectObject(&shelf);
    EXPECT_EQ("shelf", read(lanes(4)[1]));
    EXPECT_EQ("nobody", read(lanes(4)[2]));
    EXPECT_EQ("nobody", read(lanes(4)[3]));
    EXPECT_EQ("nobody", read(lanes(0x7FFFFFFF)[0x7FFFFFFE])) << "in no time";
    EXPECT_EQ("unchanged", read(lanes(0x7FFFFFFF)[0x7FFFFFFF]));
}

TEST_F(AnswerTest, ANameThatIsLongerThanTheAnswer) {
    for (unsigned length : {0x7FFFFFFFU, 0x100001U, 13U}) {
        answered(answerWith()) << length << 1U << 2U << 3U;
        EXPECT_EQ("nobody", read(*scripted.attribute("carrier"))) << length;
    }
    for (unsigned length : {0xFFFFFFFFU, 0x80000000U}) { // below zero: no name
        answered(answerWith()) << length << 1U << 2U << 3U;
        EXPECT_EQ("rmi_3_2", read(*scripted.attribute("carrier"))) << length;
    }
}

TEST_F(AnswerTest, ReferencesToWhatIsNotThere) {
    // The name of the handle of no object, from a peer that would like to have all such calls.
    answered(answerWith()) << std::string("InvalidStub") << 1U << 0U << 0U;
    EXPECT_EQ("nobody", read(*scripted.attribute("carrier")));
    answered(answerWith()) << std::string("InvalidStub") << 1U << 5U << 0x00420201U;
    EXPECT_EQ("InvalidStub", read(*scripted.attribute("carrier"))) << "an object with that name";
    EXPECT_FALSE(TreflectObject().isConnected()) << "is not what handles of no object refer to";
    // An object of this process that does not exist: numbers are no addresses.
    answered(answerWith()) << std::string() << 1U << 0x41414141U << orb.orbId().value();
    TreflectObject out;
    EXPECT_EQ(0, scripted.attribute("carrier")->get(out));
    EXPECT_EQ(nullptr, out.getServer());
    EXPECT_TRUE(out.isConnected());
    EXPECT_EQ(nullptr, out.meta());
}

/** A plain skeleton in place of a reflective object, a port in place of text. */
TEST_F(AnswerTest, ReferencesToObjectsOfOtherKinds) {
    TipprmiObjectSkeleton plain(TipprmiOID("plain", NamespaceId(1)));
    answered(answerWith()) << TipprmiObjectClient(&plain);
    TreflectAttribute &carrier = *scripted.attribute("carrier");
    EXPECT_EQ("plain", read(carrier));
    EXPECT_EQ("", textOf(carrier.attribute("serial"))) << "it refuses the call";
    EXPECT_EQ(0, carrier.operation("reset")->call());
    TreflectObject out;
    EXPECT_EQ(0, carrier.get(out));
    EXPECT_EQ(nullptr, out.meta());
    EXPECT_EQ(4, out.attribute("serial")->get(port.text));
    EXPECT_EQ("plain", textOf(scripted.attribute("label"))) << "a reference begins with a text";
}

} // namespace
