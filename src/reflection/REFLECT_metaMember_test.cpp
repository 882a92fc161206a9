#include "reflection/REFLECT_metaMember.h"

#include "reflection/REFLECT_attribute.h"
#include "reflection/REFLECT_operation.h"
#include "support/BrokerTest.h"
#include "support/ReflectiveClasses.h"

namespace {

using Testing::Equipment;
using Testing::EquipmentMeta;
using Testing::Port;
using Testing::PortImpl;
using Testing::PortMeta;
using Parameters = std::map<std::string, std::string>;

class MetaMemberTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
    PortMeta *const meta = PortMeta::instance();
    void SetUp() override { meta->completeMetaInformation(); }
};

TEST_F(MetaMemberTest, AnOperationKnowsItsParametersByName) {
    TreflectMetaOperation operation("setRate", meta, -3);
    EXPECT_EQ("setRate", operation.name());
    EXPECT_EQ(meta, operation.containingMetaObject());
    EXPECT_EQ(-3, operation.id());
    EXPECT_TRUE(operation.parameterMap().empty());
    operation.registerParameter("mode", "string");
    operation.registerParameter("bps", "long");
    EXPECT_EQ((Parameters{{"bps", "long"}, {"mode", "string"}}), operation.parameterMap());
    operation.registerParameter("bps", "unsigned long");
    EXPECT_EQ((Parameters{{"bps", "unsigned long"}, {"mode", "string"}}), operation.parameterMap());
}

TEST_F(MetaMemberTest, AnAttributeHasATypeOnceItIsRegistered) {
    const TreflectMetaOperation get("getx", meta, 1);
    const TreflectMetaOperation set("setx", meta, 2);
    TreflectMetaAttribute attribute("x", meta, &get, &set);
    EXPECT_EQ("x", attribute.name());
    EXPECT_EQ(meta, attribute.containingMetaObject());
    EXPECT_EQ(&get, attribute.metaOperGet());
    EXPECT_EQ(&set, attribute.metaOperSet());
    EXPECT_EQ(1, attribute.constLength());
    EXPECT_EQ("", attribute.typeName());
    EXPECT_EQ(nullptr, attribute.typeMeta());
    attribute.registerType(EquipmentMeta::instance());
    EXPECT_EQ("Equipment", attribute.typeName());
    EXPECT_EQ(EquipmentMeta::instance(), attribute.typeMeta());
}

TEST_F(MetaMemberTest, ArraysAndSequencesHaveALength) {
    const TreflectMetaOperation get("getx", meta, 1);
    const TreflectArrayMetaAttribute array("x", meta, &get, nullptr, 4);
    const TreflectSequenceMetaAttribute sequence("x", meta, &get, nullptr, -1);
    EXPECT_EQ(4, array.constLength());
    EXPECT_EQ(-1, sequence.constLength());
    const TreflectObject object;
    EXPECT_EQ(4, array.getTied(&object)->constLength());
    EXPECT_EQ(-1, sequence.getTied(&object)->constLength());
}

/** The factory and what an object looks up know nothing of containers: that is what handles have always been. */
TEST_F(MetaMemberTest, OnlyTheDerivedTypesMakeHandlesOfContainers) {
    const auto *const array = dynamic_cast<const TreflectArrayMetaAttribute *>(meta->metaAttribute("lanes"));
    const auto *const sequence = dynamic_cast<const TreflectSequenceMetaAttribute *>(meta->metaAttribute("members"));
    ASSERT_NE(nullptr, array);
    ASSERT_NE(nullptr, sequence);
    PortImpl port("port");
    const TreflectObject object(&port);
    EXPECT_EQ(2, array->getTied(&object)->containerType());
    EXPECT_EQ(1, sequence->getTied(&object)->containerType());
    const TreflectMetaAttribute *const plain = array;
    EXPECT_EQ(0, plain->getTied(&object)->containerType());
    EXPECT_EQ(0, object.attribute("lanes")->containerType());
    EXPECT_EQ(0, object.attribute("members")->containerType());
    EXPECT_EQ(array, object.attribute("lanes")->meta());
    // Nor does what an attribute of an attribute finds.
    port.carriedBy = object;
    TreflectMetaAttribute carrier("carrier", meta, EquipmentMeta::instance()->metaOperation("getcarrier"), nullptr);
    carrier.registerType(meta);
    TreflectAttribute *const found = carrier.getTied(&object)->attribute("lanes");
    EXPECT_EQ(array, found->meta());
    EXPECT_EQ(0, found->containerType());
}

TEST_F(MetaMemberTest, EachHandleIsNewAndKnowsItsMember) {
    const TreflectObject object;
    const TreflectMetaOperation *const blink = meta->metaOperation("blink");
    TreflectOperation *const first = blink->getTied(&object);
    TreflectOperation *const second = blink->getTied(&object);
    EXPECT_NE(first, second);
    EXPECT_EQ(blink, first->meta());
    EXPECT_EQ(&object, first->object());
    const TreflectMetaAttribute *const label = meta->metaAttribute("label");
    TreflectAttribute *const attribute = label->getTied(&object);
    EXPECT_NE(attribute, label->getTied(&object));
    EXPECT_EQ(label, attribute->meta());
    EXPECT_EQ(-1, attribute->index());
    EXPECT_EQ(0, attribute->containerType());
}

/** The classes that the other tests use are what they say. */
TEST_F(MetaMemberTest, TheTestClassesAreDescribed) {
    EXPECT_TRUE(meta->isA(EquipmentMeta::instance()));
    EXPECT_EQ(EquipmentMeta::instance(), meta->metaAttribute("serial")->containingMetaObject());
    EXPECT_EQ((Parameters{{"bps", "unsigned long"}, {"effective", "unsigned long"}, {"mode", "string"}}),
              meta->metaOperation("setRate")->parameterMap());
    PortImpl port("port");
    port.text = "up";
    port.serialNumber = "S1";
    const Port client(&port);
    std::string mode = "fast";
    unsigned effective = 0;
    EXPECT_EQ(50U, client.setRate(5, mode, effective));
    EXPECT_EQ("fast?", mode);
    EXPECT_EQ(50U, effective);
    client.label("down");
    EXPECT_EQ("down", port.text);
    EXPECT_EQ("down", client.label());
    EXPECT_EQ("S1", client.serial());
    client.speed(9600);
    port.faultCount = 3;
    EXPECT_EQ(9600U, client.speed());
    EXPECT_EQ(3U, client.faults());
    EXPECT_NE(nullptr, meta->metaAttribute("speed")->metaOperSet());
    EXPECT_EQ(nullptr, meta->metaAttribute("faults")->metaOperSet());
    client.blink();
    client.reset();
    EXPECT_EQ(1, port.blinks);
    EXPECT_EQ(1, port.resets);
    EXPECT_EQ(meta, TreflectObject(&port).meta());
}

} // namespace
