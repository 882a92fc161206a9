#include "reflection/REFLECT_attribute.h"

#include "support/FakePeer.h"
#include "support/HeapProbe.h"
#include "support/ScriptedObject.h"

#include <memory>

namespace {

using Testing::answered;
using Testing::Equipment;
using Testing::EquipmentImpl;
using Testing::EquipmentMeta;
using Testing::hex;
using Testing::Port;
using Testing::PortImpl;
using Testing::PortMeta;
using Testing::ScriptedObject;

constexpr Transport::TerminationId kPeer(0x0042, 2, 1);

class AttributeTest : public Testing::BrokerTest {
protected:
    void SetUp() override {
        meta.completeMetaInformation();
        for (int i = 0; i < 4; ++i) {
            things.push_back(std::make_unique<EquipmentImpl>(("thing" + std::to_string(i)).c_str()));
            references[i] = TreflectObject(things.back().get());
            sequence.push_back(references[i]);
        }
        port.carriedBy = references[0];
        port.memberList = sequence;
        port.laneList = references;
    }
    /** Handles that know of their container. */
    TreflectAttribute &members() {
        return *dynamic_cast<TreflectSequenceMetaAttribute *>(meta.metaAttribute("members"))->getTied(&object);
    }
    TreflectAttribute &lanes() {
        return *dynamic_cast<TreflectArrayMetaAttribute *>(meta.metaAttribute("lanes"))->getTied(&object);
    }
    /** "thing2", or "unchanged", or "nobody". */
    std::string read(TreflectAttribute &attribute, int expected = 0) {
        TreflectObject out(&port);
        EXPECT_EQ(expected, attribute.get(out));
        return out == object ? "unchanged" : nameOf(out);
    }
    static std::string nameOf(const TreflectObject &object) {
        return object.isConnected() ? object.getOID().getIdString() : "nobody";
    }

    TreflectHandlerState state{true};
    PortMeta &meta = *PortMeta::instance();
    std::vector<std::unique_ptr<EquipmentImpl>> things;
    Testing::Lanes references;
    TipprmiSequence<TreflectObject> sequence;
    PortImpl port{"port"};
    const TreflectObject object{&port};
};

TEST_F(AttributeTest, TheErrorHandleAnswersWithoutACall) {
    link.peerAppears(kPeer);
    TreflectAttribute &none = TreflectAttribute::errorAttribute;
    EXPECT_EQ("unchanged", read(none, 4));
    EXPECT_EQ(4, TreflectAttribute::error);
    EXPECT_EQ(&none, none.attribute("x"));
    EXPECT_EQ(&TreflectAttribute::errorOperation, none.operation("x"));
    EXPECT_EQ(&TreflectAttribute::errorOperation, none.operGet());
    EXPECT_EQ(&TreflectAttribute::errorOperation, none.operSet());
    EXPECT_EQ(0, none.constLength());
    EXPECT_EQ(nullptr, none.meta());
    none.updateContainedObject();
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(AttributeTest, TheErrorHandlesOfObjectsAreOthers) {
    TreflectAttribute *const ofObjects = &TreflectObject::errorAttribute;
    EXPECT_NE(ofObjects, &TreflectAttribute::errorAttribute);
    EXPECT_NE(static_cast<TreflectOperation *>(&TreflectObject::errorOperation), &TreflectAttribute::errorOperation);
    EXPECT_EQ("unchanged", read(*ofObjects, 4));
    EXPECT_EQ(ofObjects, ofObjects->attribute("x"));
    EXPECT_EQ(&TreflectAttribute::errorOperation, ofObjects->operation("x"));
}

/** All threads share it. */
TEST_F(AttributeTest, TheErrorHandleStaysAsItIs) {
    TreflectAttribute &none = TreflectAttribute::errorAttribute;
    EXPECT_EQ(&none, &none[5]);
    none.setContainerType(TreflectAttribute::array);
    EXPECT_EQ(-1, none.index());
    EXPECT_EQ(TreflectAttribute::plain, none.containerType());
}

TEST_F(AttributeTest, AHandleWithoutDescriptionOrWithoutGetterIsAsTheErrorHandle) {
    TreflectAttribute *const noMeta = TreflectMemberFactory<TreflectAttribute>::makeTied(nullptr, &object);
    const TreflectMetaAttribute description("x", &meta, nullptr, nullptr);
    for (TreflectAttribute *attribute : {noMeta, description.getTied(&object)}) {
        EXPECT_EQ("unchanged", read(*attribute, 4));
        EXPECT_EQ(5, attribute->operGet()->call());
        EXPECT_EQ(5, attribute->operSet()->call());
        EXPECT_EQ(4, (*attribute)[2].attribute("x")->get(sequence));
        EXPECT_EQ(5, attribute->operation("x")->call());
        attribute->updateContainedObject();
    }
}

TEST_F(AttributeTest, AReadIsACallOfTheGetterOfTheClassThatListsIt) {
    ScriptedObject thing("thing", [](TipprmiStream &response) {
        answered(response) << std::string("value");
        return true;
    });
    const TreflectObject scripted(&thing);
    std::string text;
    EXPECT_EQ(0, scripted.attribute("label")->get(text));
    EXPECT_EQ("value", text);
    EXPECT_EQ(0, scripted.attribute("serial")->get(text));
    const TreflectMetaAttribute listed("serial", &meta, meta.metaOperation("getserial"), nullptr);
    EXPECT_EQ(0, listed.getTied(&scripted)->get(text));
    const std::vector<ScriptedObject::Call> expected{{true, Port::CLASS_ID, Port::mcGetlabel, ""},
                                                     {true, Equipment::CLASS_ID, Equipment::mcGetserial, ""},
                                                     {true, Port::CLASS_ID, Equipment::mcGetserial, ""}};
    EXPECT_EQ(expected, thing.calls);
}

TEST_F(AttributeTest, ARemoteReadIsAHeadAndItsAnswerAReference) {
    Testing::FakePeer peer(link, kPeer);
    peer.answer(
        [](TipprmiStream &response) { answered(response) << std::string("far") << 1U << 0x77U << kPeer.value(); });
    TipprmiStream reference(100);
    reference << std::string() << 1U << 0x30U << kPeer.value();
    TreflectObject far;
    reference >> far;
    TreflectAttribute &carrier = *meta.metaAttribute("carrier")->getTied(&far);
    EXPECT_EQ("far", read(carrier));
    EXPECT_EQ(std::vector<std::string>{"00 00 00 30 00 00 00 01 7A 11 C0 E1 00 00 00 02"}, peer.requests());
    peer.answer([](TipprmiStream &response) { response << 2U << std::string("other exception"); });
    EXPECT_EQ("nobody", read(carrier)) << "the value is missing";
    peer.answer([](TipprmiStream &) {});
    EXPECT_EQ("nobody", read(carrier));
    link.setFate([](const Transport::AddressedMessage &) { return Transport::FakeLink::Fate::bounce; });
    EXPECT_EQ("nobody", read(carrier)) << "and no error";
    TreflectAttribute &list =
        *dynamic_cast<TreflectSequenceMetaAttribute *>(meta.metaAttribute("members"))->getTied(&far);
    EXPECT_EQ("unchanged", read(list[0])) << "a list without elements";
}

TEST_F(AttributeTest, HandlesOfAccessorsAreKept) {
    TreflectAttribute &label = *object.attribute("label");
    TreflectOperation *const get = label.operGet();
    EXPECT_EQ(get, label.operGet());
    EXPECT_EQ("getlabel", get->meta()->name());
    EXPECT_EQ(&object, get->object());
    TreflectOperation *const set = label.operSet();
    EXPECT_EQ(set, label.operSet());
    EXPECT_EQ("setlabel", set->meta()->name());
    EXPECT_NE(get, object.attribute("label")->operGet()) << "each attribute handle has its own";
    TreflectAttribute &serial = *object.attribute("serial");
    TreflectOperation *const none = serial.operSet();
    EXPECT_EQ(none, serial.operSet()) << "there is one also for what cannot be set";
    EXPECT_EQ(nullptr, none->meta());
    EXPECT_EQ(5, none->call());
}

// --- elements -------------------------------------------------------------------------------------------------------

TEST_F(AttributeTest, ElementsOfASequence) {
    TreflectAttribute &attribute = members();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(&attribute, &attribute[i]);
        EXPECT_EQ("thing" + std::to_string(i), read(attribute));
    }
    for (int past : {4, 0x7FFFFFFF, -2, -0x7FFFFFFF - 1}) {
        EXPECT_EQ("unchanged", read(attribute[past])) << past;
    }
    port.memberList.setLength(0);
    EXPECT_EQ("unchanged", read(attribute[0]));
    EXPECT_EQ("unchanged", read(attribute[-2]));
}

TEST_F(AttributeTest, ASequenceOfThreeHasNoElementThree) {
    port.memberList.setLength(3);
    EXPECT_EQ("unchanged", read(members()[3]));
    EXPECT_EQ("thing2", read(members()[2]));
}

TEST_F(AttributeTest, ElementsOfAnArray) {
    TreflectAttribute &attribute = lanes();
    EXPECT_EQ(4, attribute.constLength());
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ("thing" + std::to_string(i), read(attribute[i]));
    }
    for (int past : {4, 0x7FFFFFFF, -2, -0x7FFFFFFF - 1}) {
        EXPECT_EQ("unchanged", read(attribute[past])) << past;
    }
}

TEST_F(AttributeTest, AnArrayOfNegativeLengthHasNoElements) {
    const TreflectArrayMetaAttribute odd("lanes", &meta, meta.metaOperation("getlanes"), nullptr, -1);
    TreflectAttribute &attribute = *odd.getTied(&object);
    for (int index : {0, 2, -2}) {
        EXPECT_EQ("unchanged", read(attribute[index])) << index;
    }
}

/** Whoever made it a container must select: else the first bytes are taken for one object. */
TEST_F(AttributeTest, WithoutIndexOneObjectIsReadWhateverTheContainer) {
    EXPECT_EQ("thing0", read(lanes())) << "an array begins with one";
    EXPECT_EQ("thing0", read(*object.attribute("lanes"))) << "as every plain attribute does";
    EXPECT_EQ("thing0", read((*object.attribute("lanes"))[2])) << "which has no elements";
    TreflectAttribute &attribute = lanes()[3];
    EXPECT_EQ("thing3", read(attribute));
    attribute.clearIndex();
    EXPECT_EQ(-1, attribute.index());
    EXPECT_EQ("thing0", read(attribute));
    EXPECT_EQ("thing1", read(attribute[1]));
    EXPECT_EQ("thing0", read(attribute[-1]));

    ScriptedObject one("one", [this](TipprmiStream &response) {
        answered(response) << references[1];
        return true;
    });
    const TreflectObject scripted(&one);
    auto *const list = dynamic_cast<TreflectSequenceMetaAttribute *>(meta.metaAttribute("members"));
    EXPECT_EQ("thing1", read(*list->getTied(&scripted)));
}

TEST_F(AttributeTest, OfAnUnknownContainerNothingIsRead) {
    TreflectAttribute &carrier = *object.attribute("carrier");
    for (int type : {3, 7, -1}) {
        carrier.setContainerType(static_cast<TreflectAttribute::TreflectAttributeType>(type));
        EXPECT_EQ("unchanged", read(carrier));
    }
    EXPECT_EQ(3, port.carrierReads) << "but asked for";
    carrier.setContainerType(TreflectAttribute::plain);
    EXPECT_EQ("thing0", read(carrier));
}

} // namespace
