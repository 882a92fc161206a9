#include "reflection/REFLECT_operation.h"

#include "objects/ObjectHandler.h"
#include "observation/REFLECT_Observer.h"
#include "reflection/REFLECT_attribute.h"
#include "support/FakePeer.h"
#include "support/ScriptedObject.h"

namespace {

using Testing::Equipment;
using Testing::hex;
using Testing::Port;
using Testing::PortImpl;
using Testing::PortMeta;
using Testing::ScriptedObject;

constexpr Transport::TerminationId kPeer(0x0042, 2, 1);
constexpr unsigned kFarNumber = 0x30;

class OperationTest : public Testing::BrokerTest {
protected:
    void SetUp() override { meta.completeMetaInformation(); }
    /** An object of the peer, without name, as it comes in a message. */
    TreflectObject farObject() {
        TipprmiStream reference(100);
        reference << std::string() << 1U << kFarNumber << kPeer.value();
        TreflectObject object;
        reference >> object;
        EXPECT_TRUE(object.isConnected());
        EXPECT_EQ(nullptr, object.getServer());
        return object;
    }

    TreflectHandlerState state{true};
    PortMeta &meta = *PortMeta::instance();
    TreflectObserver observer{TipprmiOID("observer", NamespaceId(1)), nullptr, "observer"};
};

TEST_F(OperationTest, TheErrorHandleDoesNothing) {
    link.peerAppears(kPeer);
    for (TreflectErrorOperation *operation : {&TreflectAttribute::errorOperation, &TreflectObject::errorOperation}) {
        EXPECT_EQ(5, operation->call());
        EXPECT_FALSE(operation->preObserve(&observer));
        EXPECT_FALSE(operation->postObserve(&observer));
        operation->removeObserver(&observer);
        EXPECT_EQ(nullptr, operation->meta());
        EXPECT_EQ(nullptr, operation->object());
    }
    EXPECT_EQ(5, TreflectOperation::error);
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(OperationTest, ACallHasNoArgumentsAndItsAnswerIsDropped) {
    ScriptedObject thing("thing", [](TipprmiStream &response) {
        response << 1U << 2U << 3U;
        return true;
    });
    const TreflectObject object(&thing);
    EXPECT_EQ(0, meta.metaOperation("setRate")->getTied(&object)->call());
    EXPECT_EQ(0, meta.metaOperation("reset")->getTied(&object)->call());
    const std::vector<ScriptedObject::Call> expected{{true, Port::CLASS_ID, Port::mcSetRate, ""},
                                                     {true, Equipment::CLASS_ID, Equipment::mcReset, ""}};
    EXPECT_EQ(expected, thing.calls) << "under the class that has the operation";
    thing.answer = [](TipprmiStream &) { return false; };
    EXPECT_EQ(0, meta.metaOperation("blink")->getTied(&object)->call()) << "nobody is told that it failed";
    EXPECT_EQ(3U, thing.calls.size());
}

TEST_F(OperationTest, ACallOfNoObjectSucceedsToo) {
    const TreflectObject nobody;
    EXPECT_EQ(0, meta.metaOperation("blink")->getTied(&nobody)->call());
    EXPECT_EQ(1U, log.with(") request to invalid stub object").size());
}

TEST_F(OperationTest, ARemoteCallIsAHeadOnly) {
    Testing::FakePeer peer(link, kPeer);
    peer.answer([](TipprmiStream &response) { response << 1U << std::string("fault"); });
    const TreflectObject object = farObject();
    EXPECT_EQ(0, meta.metaOperation("reset")->getTied(&object)->call());
    EXPECT_EQ(std::vector<std::string>{"00 00 00 30 00 00 00 01 7A 11 C0 E1 00 00 00 03"}, peer.requests());
}

TEST_F(OperationTest, ACallThatDoesNotArriveSucceedsToo) {
    link.peerAppears(kPeer);
    link.setFate([](const Transport::AddressedMessage &) { return Transport::FakeLink::Fate::bounce; });
    const TreflectObject object = farObject();
    const TreflectOperation &reset = *meta.metaOperation("reset")->getTied(&object);
    EXPECT_EQ(0, reset.call());
    EXPECT_EQ(1U, link.takeIssued(1).size());
    link.setFate([](const Transport::AddressedMessage &) { return Transport::FakeLink::Fate::refuse; });
    EXPECT_EQ(0, reset.call());
}

TEST_F(OperationTest, AnObserverIsToldBeforeOrAfter) {
    PortImpl port("port");
    const TreflectObject object(&port);
    const auto before = [&] { return port.preObserverAvailable(Port::CLASS_ID, Port::mcBlink); };
    const auto after = [&] { return port.postObserverAvailable(Port::CLASS_ID, Port::mcBlink); };
    const TreflectOperation &blink = *object.operation("blink");
    EXPECT_TRUE(blink.preObserve(&observer));
    EXPECT_TRUE(before());
    EXPECT_FALSE(after());
    blink.removeObserver(&observer);
    EXPECT_FALSE(before());
    EXPECT_TRUE(blink.postObserve(&observer));
    EXPECT_FALSE(before());
    EXPECT_TRUE(after());
    EXPECT_TRUE(object.operation("reset")->preObserve(&observer));
    EXPECT_TRUE(port.preObserverAvailable(Equipment::CLASS_ID, Equipment::mcReset)) << "an inherited one";
    blink.removeObserver(&observer);
    EXPECT_FALSE(after());
    EXPECT_FALSE(port.preObserverAvailable(Equipment::CLASS_ID, Equipment::mcReset)) << "from all operations";
}

TEST_F(OperationTest, WithoutObserverThatIsReportedElsewhere) {
    PortImpl port("port");
    const TreflectObject object(&port);
    const TreflectOperation &blink = *object.operation("blink");
    log.clear();
    EXPECT_TRUE(blink.preObserve(nullptr));
    EXPECT_TRUE(blink.postObserve(nullptr));
    blink.removeObserver(nullptr);
    EXPECT_EQ(2U, log.with("registerObserver FAILED").size());
    EXPECT_EQ(1U, log.with("removeObserver FAILED").size());
    EXPECT_FALSE(port.preObserverAvailable(Port::CLASS_ID, Port::mcBlink));
}

/** Such a one is made for the setter of an attribute that has none. */
TEST_F(OperationTest, AHandleWithoutDescriptionIsAsTheErrorHandle) {
    ScriptedObject thing("thing");
    const TreflectObject object(&thing);
    const TreflectOperation &none = *TreflectMemberFactory<TreflectOperation>::makeTied(nullptr, &object);
    EXPECT_EQ(5, none.call());
    EXPECT_FALSE(none.preObserve(&observer));
    EXPECT_FALSE(none.postObserve(&observer));
    none.removeObserver(&observer);
    EXPECT_TRUE(thing.calls.empty());
    EXPECT_EQ(nullptr, none.meta());
}

} // namespace
