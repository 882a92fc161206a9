#include "rmi/IPPRMI_objectClient.h"

#include "objects/ObjectHandler.h"
#include "objects/REFLECT_objectStub.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <memory>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr unsigned kPeerOrb = 0x00420201;

TipprmiOID name(const char *text, unsigned ns = 1) {
    return TipprmiOID(text, NamespaceId(ns));
}

class ClientTest : public Testing::BrokerTest {
protected:
    static int references(const TipprmiObjectClient &client) { return client.getStub_()->refCount(); }

    TreflectHandlerState state{true};
    TipprmiObjectSkeleton object{name("object")};
    const TipprmiObjectClient first{&object};
    TreflectObjectStub *const stub = first.getStub_();
};

TEST_F(ClientTest, EachWayToMakeOneSharesTheStubOfTheObject) {
    ASSERT_EQ(1, stub->refCount());
    const TipprmiObjectClient byName(name("object"));
    const TipprmiObjectClient byBroker(TreflectORB::getInstance(NSID_NODE), name("object"));
    const TipprmiObjectClient byObject(&object);
    const TipprmiObjectClient byStub(stub);
    const TipprmiObjectClient copy(byStub);
    for (const TipprmiObjectClient *client : {&byName, &byBroker, &byObject, &byStub, &copy}) {
        EXPECT_EQ(stub, client->getStub_());
        EXPECT_EQ(&object, client->getServer());
        EXPECT_TRUE(client->isConnected());
        EXPECT_STREQ("object", client->getOID().getIdString());
        EXPECT_TRUE(*client == first);
    }
    EXPECT_EQ(6, stub->refCount());
    { const TipprmiObjectClient another(copy); }
    EXPECT_EQ(6, stub->refCount());
}

TEST_F(ClientTest, OneOfNoObjectSharesTheStubOfNone) {
    const TipprmiObjectClient nobody;
    const int before = references(nobody);
    const TipprmiObjectClient byName(name(nullptr));
    const TipprmiObjectClient byObject(static_cast<const TipprmiObjectSkeleton *>(nullptr));
    EXPECT_TRUE(TreflectObjectHandler::isInvalidStub(*nobody.getStub_()));
    EXPECT_EQ(nobody.getStub_(), byName.getStub_());
    EXPECT_EQ(nobody.getStub_(), byObject.getStub_());
    EXPECT_EQ(before + 2, references(nobody));
    EXPECT_FALSE(nobody == first);
    EXPECT_TRUE(nobody != first);
}

TEST_F(ClientTest, AssignmentTakesTheNewStubAndReleasesTheOld) {
    TipprmiObjectClient client;
    TipprmiObjectClient &self = client;
    client = first;
    EXPECT_EQ(2, stub->refCount());
    client = self;
    EXPECT_EQ(2, stub->refCount());
    client = TipprmiObjectClient(first); // another handle of the same object
    EXPECT_EQ(2, stub->refCount());
    client = TipprmiObjectClient();
    EXPECT_EQ(1, stub->refCount());
    EXPECT_EQ(nullptr, client.getServer());
}

TEST_F(ClientTest, AssignmentToItselfLooksForNothing) {
    TipprmiObjectClient client(name("nowhere"));
    TipprmiObjectClient &self = client;
    link.peerAppears(TerminationId(0x0042, 2, 1));
    link.setFate([](const AddressedMessage &) { return Transport::FakeLink::Fate::refuse; });
    log.clear();
    client = self;
    EXPECT_TRUE(log.with("could not find destination").empty());
    const TipprmiObjectClient copy(client); // which another handle does
    EXPECT_FALSE(log.with("could not find destination").empty());
}

TEST_F(ClientTest, ConnectingTakesTheNewStubAndReleasesTheOld) {
    TipprmiObjectSkeleton other(name("other"));
    TipprmiObjectClient client;
    client.connect(&object);
    EXPECT_EQ(stub, client.getStub_());
    EXPECT_EQ(2, stub->refCount());
    client.connect(nullptr, name("other"));
    EXPECT_EQ(&other, client.getServer());
    EXPECT_EQ(1, stub->refCount());
    client.connect(nullptr, name("object"));
    client.connect(TreflectORB::getInstance(NSID_NODE), name("object")); // the broker does not matter
    EXPECT_EQ(2, stub->refCount());
    client.connect(static_cast<TipprmiObjectSkeleton *>(nullptr));
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(1, stub->refCount());
}

TEST_F(ClientTest, AHandleThatIsGivenAnotherObjectWhileItIsReadReleasesThat) {
    TipprmiObjectSkeleton other(name("other"));
    const TipprmiObjectClient second(&other);
    const Testing::ManualPeer peer(link, orb, TerminationId(0x0042, 2, 1));
    TipprmiStream stream(100);
    stream << Location(0, TreflectOrbId(), nullptr, name("nowhere")); // is looked for when it is read
    TipprmiObjectClient client(first);
    Testing::TestThread reader([&] {
        const TreflectHandlerState own(true);
        stream >> client;
    });
    {
        const TreflectReleaseHandlerState released;
        const AddressedMessage asked = peer.next();
        {
            const TreflectHandlerState own(true);
            client.connect(&other);
        }
        peer.respond(asked, [](TipprmiStream &body) { body << 0U; });
        reader.join();
    }
    EXPECT_EQ(1, stub->refCount());
    EXPECT_EQ(1, references(second));
    EXPECT_STREQ("nowhere", client.getOID().getIdString());
    EXPECT_EQ(1, references(client));
}

TEST_F(ClientTest, ReadingAReferenceReleasesTheOldStub) {
    TipprmiObjectClient client(first);
    TipprmiStream stream(100);
    stream << Location(0x10, TreflectOrbId(kPeerOrb), nullptr, name("far"));
    stream >> client;
    EXPECT_EQ(1, stub->refCount());
    EXPECT_EQ(0x10U, client.getStub_()->getInternalOID());
    EXPECT_EQ(kPeerOrb, client.getStub_()->orbId().value());
    EXPECT_EQ(1, references(client));
    TipprmiStream again(100);
    again << client;
    EXPECT_EQ("00 00 00 03 66 61 72 00 00 00 01 00 00 00 10 00 42 02 01", hex(again));
    again.clear();
    again << TipprmiObjectClient();
    EXPECT_EQ("00 00 00 0B 49 6E 76 61 6C 69 64 53 74 75 62 00 00 00 01 00 00 00 00 00 00 00 00", hex(again));
    client.connect(&object);
    TipprmiStream cut(2);
    cut << 1U; // a reference that breaks off
    cut >> client;
    EXPECT_TRUE(TreflectObjectHandler::isInvalidStub(*client.getStub_()));
}

TEST_F(ClientTest, TheRequestIsEmptiedWhateverTheStub) {
    TipprmiStream request(100);
    request << 1U << 2U;
    first.prepareRequestStream_(true, 5, 6, request);
    EXPECT_TRUE(request.empty());
    TipprmiObjectClient client;
    TipprmiStream stream(100);
    stream << Location(0x10, TreflectOrbId(kPeerOrb), nullptr, name(nullptr));
    stream >> client;
    client.getStub_()->setInvalid();
    request << 1U << 2U;
    client.prepareRequestStream_(true, 5, 6, request);
    EXPECT_TRUE(request.empty());
}

TEST_F(ClientTest, CallsGoThroughTheStub) {
    const Testing::ManualPeer peer(link, orb, TerminationId(0x0042, 2, 1));
    TipprmiStream stream(100);
    stream << Location(0x10, TreflectOrbId(kPeerOrb), nullptr, name(nullptr));
    TipprmiObjectClient client;
    stream >> client;
    TipprmiStream response(100);
    bool results[2] = {false, false};
    {
        TreflectReleaseHandlerState released;
        Testing::TestThread caller([&] {
            const TreflectHandlerState own(true);
            TipprmiStream request(100);
            client.prepareRequestStream_(true, 5, 6, request);
            results[0] = client.dispatch(true, 5, 6, request, response);
            results[1] = client.forwardMsg(TreflectOrbId(kPeerOrb), true, request, response);
        });
        for (int i = 0; i < 2; ++i) {
            const AddressedMessage call = peer.next();
            EXPECT_EQ("00 00 00 10 00 00 00 01 00 00 00 05 00 00 00 06",
                      hex(TipprmiStream(TreflectMessage(call), false)));
            peer.respond(call, [](TipprmiStream &body) { body << TipprmiExceptionContainer() << 9U; });
        }
    }
    EXPECT_TRUE(results[0] && results[1]);
    client.prepareResponseStream_(true, response);
    unsigned number = 0;
    response >> number;
    EXPECT_EQ(9U, number);
}

TEST_F(ClientTest, HandlesMayBeMadeAndDestroyedWithoutThePermission) {
    TreflectReleaseHandlerState released;
    ASSERT_FALSE(TreflectORB::hasRunPermission());
    {
        const TipprmiObjectClient client(&object);
        TipprmiObjectClient copy(client);
        copy = TipprmiObjectClient(name("object"));
        EXPECT_EQ(3, stub->refCount());
    }
    EXPECT_EQ(1, stub->refCount());
    EXPECT_FALSE(TreflectORB::hasRunPermission());
}

} // namespace
