#include "rmi/IPPRMI_objectSkeleton.h"

#include "rmi/IPPRMI_objectClient.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "threads/HandlerState.h"

#include <memory>

namespace {

using Testing::hex;

/** With a broker and a number of a test's choice. */
class Numbered : public TipprmiObjectBase {
public:
    Numbered(const char *name, unsigned orb, unsigned number)
        : TipprmiObjectBase(TipprmiOID(name, NamespaceId(5)), number), orb_(orb) {}
    TreflectOrbId orbId() const override { return TreflectOrbId(orb_); }

private:
    unsigned orb_;
};

class ObjectTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
};

TEST_F(ObjectTest, ANamelessObjectHasANameMadeOfBrokerAndNumber) {
    const Numbered nameless("", 0x1A2B, 0x10);
    EXPECT_FALSE(nameless.hasOID());
    EXPECT_STREQ("rmi_1A2B_10", nameless.getOID().getIdString());
    EXPECT_EQ(1U, nameless.getOID().getNamespaceId());
    const Numbered named("port", 0x1A2B, 0x10);
    EXPECT_TRUE(named.hasOID());
    EXPECT_STREQ("port", named.getOID().getIdString());
    EXPECT_EQ(5U, named.getNamespaceId());
    EXPECT_STREQ("rmi_FFFFFFFF_FFFFFFFF", Numbered(nullptr, ~0U, ~0U).getOID().getIdString());
}

TEST_F(ObjectTest, WhatABaseCannotDoIsReported) {
    const Numbered object("x", 1, 1);
    object.setExceptionContainer(TipprmiExceptionContainer());
    EXPECT_EQ(1U, log.count(2, "setExceptionContainer should never be called", "IPPRMI_objectBase"));
    EXPECT_EQ(0U, object.getExceptionContainer().getExceptionType());
    EXPECT_EQ(1U, log.count(2, "getExceptionContainer should never be called", "IPPRMI_objectBase"));
    TipprmiStream stream(4);
    EXPECT_FALSE(object.dispatch(true, 1, 1, stream, stream));
    EXPECT_FALSE(Numbered("x", 1, 1).dispatch(true, 1, 1, stream, stream));
}

TEST_F(ObjectTest, ASkeletonIsRegisteredWithTheBrokerOfItsNamespace) {
    TreflectORB *const other = TreflectORB::getInstance(NSID_NODE);
    TipprmiObjectSkeleton object(other, TipprmiOID("thing", NamespaceId(1)));
    EXPECT_EQ(&orb, object.getORB());
    EXPECT_EQ(orb.orbId(), object.orbId());
    EXPECT_NE(0U, object.getInternalOID());
    EXPECT_EQ(&object, orb.locateObject(TipprmiOID("thing", NamespaceId(1))).getServer());

    const TipprmiObjectSkeleton apart;
    EXPECT_EQ(nullptr, apart.getORB());
    EXPECT_EQ(0U, apart.getInternalOID());
    EXPECT_EQ(0U, apart.orbId().value());
    EXPECT_EQ(1U, apart.getNamespaceId());
}

TEST_F(ObjectTest, ConnectingToTheSameBrokerKeepsTheClientAndToAnotherDropsIt) {
    TipprmiObjectSkeleton object(TipprmiOID("thing", NamespaceId(1)));
    const TipprmiObjectClient *const client = object.getClient();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(client, object.getClient());
    EXPECT_EQ(&object, client->getServer());
    const unsigned number = object.getInternalOID();
    object.connect(nullptr, TipprmiOID("whatever", NamespaceId(1)));
    object.connect(&orb, TipprmiOID("whatever", NSID_NODE));
    EXPECT_EQ(client, object.getClient());
    EXPECT_EQ(number, object.getInternalOID());

    TreflectORB *const other = TreflectORB::getInstance(NSID_NODE);
    object.connect(nullptr, TipprmiOID("whatever", NSID_NODE));
    EXPECT_EQ(other, object.getORB());
    EXPECT_STREQ("thing", object.getOID().getIdString());
    EXPECT_EQ(1U, object.getNamespaceId());
    EXPECT_EQ(nullptr,
              orb.locateObject(
                     TipprmiOID(("rmi_" + LogMakeString("%X_%X", orb.orbId().value(), number)).c_str(), NamespaceId(1)))
                  .getServer());
}

TEST_F(ObjectTest, RegisteringTwiceLeavesOneEntryWithTheSameNumber) {
    TipprmiObjectSkeleton object(TipprmiOID("thing", NamespaceId(1)));
    const unsigned number = object.getInternalOID();
    EXPECT_TRUE(orb.registerObject(&object));
    EXPECT_EQ(number, object.getInternalOID());
    EXPECT_TRUE(orb.unregisterObject(&object));
    EXPECT_EQ(0U, orb.locateObject(TipprmiOID("thing", NamespaceId(1))).getInternalOID());
    EXPECT_TRUE(orb.unregisterObject(&object)) << "always";
}

TEST_F(ObjectTest, MethodCodes2100And2101SetAndReadTheContainer) {
    TipprmiObjectSkeleton object(TipprmiOID("thing", NamespaceId(1)));
    TipprmiExceptionContainer container;
    container.setExceptionType(7);
    TipprmiStream request(100);
    request << container;
    TipprmiStream response(100);
    EXPECT_TRUE(object.dispatch(true, 0x99, 2100, request, response));
    EXPECT_EQ("00 00 00 07 00 00 00 00", hex(response)) << "the new one";
    response.clear();
    EXPECT_TRUE(object.dispatch(true, 0, 2101, request, response));
    EXPECT_EQ("00 00 00 07 00 00 00 00 00 00 00 07 00 00 00 00", hex(response));

    EXPECT_TRUE(log.with("general exception").empty());
    container.setExceptionType(1);
    request.clear();
    request << container;
    EXPECT_TRUE(object.dispatch(true, 0, 2100, request, response));
    EXPECT_EQ(1U, log.count(4,
                            LogMakeString("Object %X is given the general exception: all its answers read as failures",
                                          object.getInternalOID()),
                            "IPPRMI_objectSkeleton"));
    container.setExceptionType(7);
    object.setExceptionContainer(container);

    TipprmiStream cut(2);
    cut << 1U;
    EXPECT_TRUE(object.dispatch(true, 0x2A, 2100, cut, response));
    EXPECT_EQ(1U, log.count(4, "Unmarshall error on cc=0x2A, mc=2100", "CallHelper"));
    EXPECT_EQ(7U, object.getExceptionContainer().getExceptionType()) << "half a container is not set";
}

TEST_F(ObjectTest, AnUnknownMethodIsReported) {
    TipprmiObjectSkeleton object(TipprmiOID("thing", NamespaceId(1)));
    TipprmiStream request(4);
    TipprmiStream response(4);
    EXPECT_FALSE(object.dispatch(true, 0, 7, request, response));
    EXPECT_TRUE(response.empty());
    EXPECT_EQ(1U, log.count(3, "Unknown method code 7", "IPPRMI_objectSkeleton"));
}

TEST_F(ObjectTest, ClientsFindTheirObjectNoMoreWhenItIsGone) {
    auto object = std::make_unique<TipprmiObjectSkeleton>(TipprmiOID("thing", NamespaceId(1)));
    const TipprmiObjectClient client(object.get());
    const TipprmiObjectClient byName(TipprmiOID("thing", NamespaceId(1)));
    EXPECT_TRUE(client.isConnected());
    EXPECT_TRUE(client == byName);
    EXPECT_EQ(client.getStub_(), byName.getStub_());
    object.reset();
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(nullptr, byName.getServer());
    TipprmiStream request(100);
    TipprmiStream response(100);
    byName.prepareRequestStream_(true, 1, 1, request);
    EXPECT_FALSE(byName.dispatch(true, 1, 1, request, response));
    EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 00", hex(response));
    byName.prepareResponseStream_(true, response);
    EXPECT_TRUE(response.hasUnmarshallingFailed());
}

TEST_F(ObjectTest, AReferenceTravelsAndFindsTheObjectAgain) {
    TipprmiObjectSkeleton object(TipprmiOID("thing", NamespaceId(1)));
    const TipprmiObjectClient client(&object);
    TipprmiStream stream(100);
    stream << client << TipprmiObjectClient();
    TipprmiObjectClient read;
    stream >> read;
    EXPECT_EQ(client.getStub_(), read.getStub_());
    EXPECT_EQ(&object, read.getServer());
    TipprmiObjectClient nobody(&object);
    stream >> nobody;
    EXPECT_FALSE(nobody.isConnected());
    EXPECT_EQ(TipprmiObjectClient().getStub_(), nobody.getStub_());
}

} // namespace
