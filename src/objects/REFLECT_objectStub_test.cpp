#include "objects/REFLECT_objectStub.h"

#include "objects/ObjectHandler.h"
#include "objects/REFLECT_object.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_objectStub";
constexpr char kFailure[] = "00 00 00 01 00 00 00 04 00 00 00 00";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr unsigned kPeerOrb = 0x00420201;

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

Location remote(unsigned number, const char *text = nullptr) {
    return Location(number, TreflectOrbId(kPeerOrb), nullptr, name(text));
}

class ObjectStubTest : public Testing::BrokerTest {
protected:
    ~ObjectStubTest() override {
        for (TreflectObjectStub *stub : adopted_) {
            handler.releaseStub(stub);
        }
    }
    template <class... What>
    TreflectObjectStub &adopt(const What &...what) {
        adopted_.push_back(handler.adoptStub(what...));
        return *adopted_.back();
    }
    /** Runs a body, as a thread with the run permission, against a peer that answers in turn. */
    static void against(const std::function<void()> &body, const std::function<void()> &peerDoes) {
        TreflectReleaseHandlerState released;
        Testing::TestThread caller([&] {
            const TreflectHandlerState own(true);
            body();
        });
        peerDoes();
    }
    /** The next request must ask for a name; the answer to it. */
    void resolveTo(unsigned number) const {
        const AddressedMessage question = peer.next();
        EXPECT_EQ(TreflectMessage::tRslve, TreflectMessage(question).type());
        peer.respond(question, [number](TipprmiStream &body) { body << number; });
    }
    /** A line about a stub and a call with class code 5 and method code 6. */
    static std::string about(const char *format, const TreflectObjectStub &stub, unsigned orbId) {
        std::string text = format;
        text.replace(text.find("..."), 3,
                     LogMakeString("this=0x%p,cc=0x5,mc=6,orbId=%X", static_cast<const void *>(&stub), orbId));
        return text;
    }

    /** Lines of stubs so far. */
    std::size_t reports() const {
        const std::vector<Testing::LogLine> lines = log.lines();
        return static_cast<std::size_t>(
            std::count_if(lines.begin(), lines.end(), [](const auto &line) { return line.source == kSource; }));
    }

    TreflectHandlerState state{true};
    Testing::ManualPeer peer{link, orb, kPeer};
    TreflectObjectHandler &handler = *TreflectObjectHandler::getInstance();
    TipprmiStream request{100};
    TipprmiStream response{100};

private:
    std::vector<TreflectObjectStub *> adopted_;
};

TEST_F(ObjectStubTest, WhatIsNotThereIsLookedForAtEachAdoptionAndBeforeEachCall) {
    TreflectObjectStub *stub = nullptr;
    against([&] { stub = handler.adoptStub(name("late")); },
            [&] {
                resolveTo(0);
                resolveTo(0);
            });
    EXPECT_FALSE(stub->isConnected());
    EXPECT_STREQ("late", stub->getOID().getIdString());
    against([&] { handler.adoptStub(stub); }, [&] { resolveTo(0); });
    log.clear();
    against([&] { stub->prepareRequestStream(true, 5, 6, request); }, [&] { resolveTo(0x77); });
    EXPECT_EQ(1U,
              log.count(6, about("prepareRequestStream_(...) to non connected stub object", *stub, orb.orbId().value()),
                        kSource));
    EXPECT_EQ("00 00 00 77 00 00 00 01 00 00 00 05 00 00 00 06", hex(request));
    EXPECT_TRUE(stub->isConnected());
    EXPECT_EQ(kPeerOrb, stub->orbId().value());
    stub->prepareRequestStream(true, 5, 6, request); // asks nobody any more
    EXPECT_EQ(stub, handler.adoptStub(remote(0x77, "late"))) << "it is found where it is now";
    EXPECT_EQ(3, stub->refCount());
    for (int i = 0; i < 3; ++i) {
        handler.releaseStub(stub);
    }
    EXPECT_FALSE(adopt(remote(0x77)).hasOID()) << "nothing is left of it";
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(ObjectStubTest, AStubThatBecomesInvalidWhileItIsLookedForStaysInvalid) {
    TreflectObjectStub stub(remote(0, "late"));
    against([&] { stub.connect(name("late")); },
            [&] {
                const AddressedMessage asked = peer.next();
                {
                    const TreflectHandlerState own(true);
                    stub.setInvalid();
                }
                peer.respond(asked, [](TipprmiStream &body) { body << 0x77U; });
            });
    EXPECT_FALSE(stub.isValid());
    EXPECT_EQ(0U, stub.getInternalOID());
}

/** While the other one is looked for, the stub of the first is still there. */
TEST_F(ObjectStubTest, AHandleLetsItsObjectGoWhenItHasTheOther) {
    TreflectObject handle;
    TipprmiStream reference(100);
    reference << remote(0x10, "old");
    reference >> handle;
    const TreflectObjectStub *const old = handle.getStub();
    std::unique_ptr<TreflectObject> late;
    against([&] { late = std::make_unique<TreflectObject>(name("late")); },
            [&] {
                resolveTo(0);
                resolveTo(0);
            });
    against([&] { handle = *late; },
            [&] {
                const AddressedMessage question = peer.next();
                {
                    const TreflectHandlerState own(true);
                    EXPECT_EQ(old, handle.getStub());
                    EXPECT_EQ(1, old->refCount());
                    EXPECT_EQ(2, late->getStub()->refCount());
                }
                peer.respond(question, [](TipprmiStream &body) { body << 0x77U; });
            });
    EXPECT_EQ(late->getStub(), handle.getStub());
    EXPECT_EQ(2, handle.getStub()->refCount());
    EXPECT_EQ(1, adopt(remote(0x10, "old")).refCount()) << "nothing is left of the old one";
}

TEST_F(ObjectStubTest, AfterItWasFoundHereACallHasNoHead) {
    TreflectObjectStub *stub = nullptr;
    against([&] { stub = handler.adoptStub(name("here")); },
            [&] {
                resolveTo(0);
                resolveTo(0);
            });
    TipprmiObjectSkeleton object(name("here"));
    request << 1U;
    stub->prepareRequestStream(true, 5, 6, request);
    EXPECT_EQ(&object, stub->getServer());
    EXPECT_TRUE(request.empty());
    EXPECT_TRUE(stub->dispatch(true, 5, 2101, request, response)) << "the object's own method";
    EXPECT_EQ("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00", hex(response));
    handler.releaseStub(stub);
}

TEST_F(ObjectStubTest, AMethodThatRefusesHereIsReportedAndNothingElseIsWritten) {
    TipprmiObjectSkeleton object(name("here"));
    const TipprmiObjectClient client(&object);
    EXPECT_FALSE(client.dispatch(true, 5, 6, request, response));
    EXPECT_EQ(1U,
              log.count(3, about("dispatch(...) to object failed", *client.getStub_(), orb.orbId().value()), kSource));
    EXPECT_TRUE(response.empty());
}

TEST_F(ObjectStubTest, ACallThatFailsOnTheWayHasTwoContainers) {
    TreflectObjectStub &stub = adopt(remote(0x10));
    link.setFate([](const AddressedMessage &) { return Transport::FakeLink::Fate::refuse; });
    stub.prepareRequestStream(true, 5, 6, request);
    EXPECT_FALSE(stub.dispatch(true, 5, 6, request, response));
    EXPECT_EQ(std::string(kFailure) + " " + kFailure, hex(response));
    EXPECT_EQ(1U, log.count(3, "Message forwarding failed", kSource));
}

TEST_F(ObjectStubTest, AnUnconnectedStubCallsNobody) {
    const TreflectObjectStub stub(remote(0));
    stub.prepareRequestStream(false, 5, 6, request);
    EXPECT_EQ("00 00 00 00 00 00 00 00 00 00 00 05 00 00 00 06", hex(request));
    EXPECT_FALSE(stub.dispatch(true, 5, 6, request, response));
    EXPECT_EQ(1U,
              log.count(6, about("dispatch(...) request to invalid stub object", stub, orb.orbId().value()), kSource));
    EXPECT_EQ(kFailure, hex(response));
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(ObjectStubTest, AnInvalidStubAnswersByItself) {
    TreflectObjectStub &stub = adopt(remote(0x10));
    handler.invalidateStubs(TreflectOrbId(kPeerOrb));
    log.clear();
    EXPECT_FALSE(stub.dispatch(true, 5, 6, request, response));
    EXPECT_EQ(1U, log.count(4, about("dispatch(...) request to stub object set to invalid", stub, orb.orbId().value()),
                            kSource));
    EXPECT_EQ(1U, reports());
    EXPECT_EQ(kFailure, hex(response));
    TipprmiExceptionContainer container = stub.getExceptionContainer();
    TipprmiGeneralException exception(99);
    container.getExceptionData(exception);
    EXPECT_EQ(1U, container.getExceptionType());
    EXPECT_EQ(0U, exception.getCode());
    stub.setExceptionContainer(container);
    EXPECT_EQ(1U, reports()) << "nothing was tried";
    EXPECT_TRUE(link.takeIssued().empty());
    EXPECT_EQ(0x10U, stub.getInternalOID()) << "where it was can still be read";
    EXPECT_EQ(kPeerOrb, stub.orbId().value());
    EXPECT_FALSE(stub.isConnected());
    EXPECT_EQ(nullptr, stub.getServer());

    TipprmiObjectSkeleton object(name("new"));
    stub.connect(&object);
    EXPECT_TRUE(stub.isConnected()) << "only this revives it";
    EXPECT_EQ(&object, stub.getServer());
    EXPECT_STREQ("new", stub.getOID().getIdString());
    EXPECT_EQ(orb.orbId(), stub.orbId());
}

TEST_F(ObjectStubTest, TheContainerOfARemoteObjectIsSetAndReadWithCalls) {
    TreflectObjectStub &stub = adopt(remote(0x10));
    TipprmiExceptionContainer container;
    container.setExceptionType(7);
    against([&] { stub.setExceptionContainer(container); },
            [&] {
                const AddressedMessage call = peer.next();
                EXPECT_EQ("00 00 00 10 00 00 00 01 00 00 00 00 00 00 08 34 00 00 00 07 00 00 00 00",
                          hex(TipprmiStream(TreflectMessage(call), false)));
                peer.respond(call, [&](TipprmiStream &body) { body << container; });
            });
    EXPECT_TRUE(log.with("Unmarshall error").empty());
    unsigned type = 0;
    against([&] { type = stub.getExceptionContainer().getExceptionType(); },
            [&] {
                const AddressedMessage call = peer.next();
                EXPECT_EQ("00 00 00 10 00 00 00 01 00 00 00 00 00 00 08 35",
                          hex(TipprmiStream(TreflectMessage(call), false)));
                peer.respond(call, [&](TipprmiStream &body) { body << TipprmiExceptionContainer() << container; });
            });
    EXPECT_EQ(7U, type);
    EXPECT_TRUE(log.with("Unmarshall error").empty());
    // When that fails both are reported as the reading of it.
    link.setFate([](const AddressedMessage &) { return Transport::FakeLink::Fate::refuse; });
    stub.setExceptionContainer(container);
    EXPECT_EQ(1U, log.count(4, "Unmarshall error on cc=0x0, mc=2101", "CallHelper"));
    EXPECT_EQ(0U, stub.getExceptionContainer().getExceptionType());
    EXPECT_EQ(2U, log.count(4, "Unmarshall error on cc=0x0, mc=2101", "CallHelper"));
}

TEST_F(ObjectStubTest, TheContainerOfAnObjectHereIsItsOwn) {
    TipprmiObjectSkeleton object(name("here"));
    const TipprmiObjectClient client(&object);
    TipprmiExceptionContainer container;
    container.setExceptionType(7);
    client.getStub_()->setExceptionContainer(container);
    EXPECT_EQ(7U, object.getExceptionContainer().getExceptionType());
    EXPECT_EQ(7U, client.getStub_()->getExceptionContainer().getExceptionType());
}

TEST_F(ObjectStubTest, ItsReportsAreExact) {
    TipprmiObjectSkeleton object;
    log.clear();
    const TreflectObjectStub ofObject(&object);
    const void *const self = &ofObject;
    const void *const server = &object;
    EXPECT_EQ(
        1U, log.count(3, LogMakeString("TreflectObjectStub(object) this=0x%p,object=%p,ioid=0,orbId=0x0", self, server),
                      kSource));
    const TreflectObjectStub copy(ofObject);
    EXPECT_EQ(1U, log.count(3,
                            LogMakeString("TreflectObjectStub(other) this=0x%p,object=%p,ioid=0,orbId=0x0",
                                          static_cast<const void *>(&copy), server),
                            kSource));
    EXPECT_EQ(2U, reports());
    TreflectObjectStub assigned;
    const TreflectObjectStub nowhere(Location(0, TreflectOrbId(0xAB), nullptr, name("named")));
    EXPECT_EQ(2U, reports()) << "with a name it is not reported";
    assigned = nowhere;
    EXPECT_EQ(1U,
              log.count(3, LogMakeString("operator=() object=%p,ioid=0,orbId=0xAB", static_cast<const void *>(nullptr)),
                        kSource));
    assigned = *&assigned;
    EXPECT_EQ(3U, reports()) << "nothing happens with itself";
    const TreflectObjectStub connected(remote(1));
    const TreflectObjectStub second(connected);
    assigned = connected;
    EXPECT_EQ(3U, reports());
    EXPECT_EQ(0, second.refCount());
}

TEST_F(ObjectStubTest, AssignmentCopiesThePlaceAndKeepsTheCount) {
    TipprmiObjectSkeleton object(name("here"));
    const TreflectObjectStub source(&object);
    TreflectObjectStub target(remote(0x10, "there"));
    target.incRefCount();
    target = source;
    EXPECT_EQ(1, target.refCount());
    EXPECT_EQ(&object, target.getServer());
    EXPECT_EQ(object.getInternalOID(), target.getInternalOID());
    EXPECT_EQ(orb.orbId(), target.orbId());
    EXPECT_STREQ("here", target.getOID().getIdString());
    EXPECT_TRUE(target.decRefCount());
    target.connect(static_cast<TipprmiObjectSkeleton *>(nullptr));
    EXPECT_EQ(orb.orbId(), target.orbId()) << "that of the broker stays";
    EXPECT_FALSE(target.hasOID());
    EXPECT_FALSE(target.isConnected());
}

TEST_F(ObjectStubTest, EqualityWithoutNamesGoesByTheObjectToo) {
    TipprmiObjectSkeleton one;
    TipprmiObjectSkeleton two;
    EXPECT_TRUE(TreflectObjectStub(&one) == TreflectObjectStub(&one));
    EXPECT_FALSE(TreflectObjectStub(&one) == TreflectObjectStub(&two));
    EXPECT_TRUE(TreflectObjectStub(&one) != TreflectObjectStub(&two));
    TreflectObjectStub gone(&one);
    gone.setInvalid();
    EXPECT_FALSE(gone == TreflectObjectStub(&one));
    EXPECT_FALSE(gone == TreflectObjectStub());
    EXPECT_TRUE(TreflectObjectStub(remote(1, "a")) == TreflectObjectStub(remote(1))) << "only one has a name";
    const Location otherNamespace(1, TreflectOrbId(kPeerOrb), nullptr, TipprmiOID("a", NSID_NODE));
    EXPECT_FALSE(TreflectObjectStub(remote(1, "a")) == TreflectObjectStub(otherNamespace));
}

TEST_F(ObjectStubTest, WithoutBrokerAnObjectIsNotFound) {
    TreflectObjectStub stub(remote(0x10, "there"));
    stub.connect(TipprmiOID("elsewhere", NamespaceId(300)));
    EXPECT_STREQ("elsewhere", stub.getOID().getIdString());
    EXPECT_FALSE(stub.isConnected());
    EXPECT_EQ(0U, stub.orbId().value());
}

SCENARIO(callOfAnObjectInAnotherNamespace) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    SCENARIO_CHECK(TreflectORB::getInstance(2) != nullptr);
    const Testing::ManualPeer peer(link, orb, kPeer);
    const TreflectHandlerState state(true);
    const TreflectObjectStub stub(Location(0x10, TreflectOrbId(kPeerOrb), nullptr, TipprmiOID("x", NamespaceId(2))));
    TipprmiStream request(100);
    TipprmiStream response(100);
    stub.prepareRequestStream(false, 5, 6, request);
    SCENARIO_CHECK(stub.dispatch(false, 5, 6, request, response));
    SCENARIO_CHECK(peer.next().originator() == orb.termId());
}

TEST_F(ObjectStubTest, CallsGoByTheBrokerOfNamespaceOneWhateverThatOfTheName) {
    const Testing::ProcessResult result = Testing::runScenario("callOfAnObjectInAnotherNamespace");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** Place of a virtual function in the table of its class: the first word of such a pointer is the place in bytes, on
 *  some machines plus one. */
template <class Member>
std::ptrdiff_t slot(Member function) {
    std::ptrdiff_t words[2];
    static_assert(sizeof function == sizeof words);
    std::memcpy(words, &function, sizeof words);
    return words[0] / static_cast<std::ptrdiff_t>(sizeof(void *));
}

TEST_F(ObjectStubTest, ItsVirtualFunctionsAreInTheOrderOfTheBinaryInterface) {
    using Stub = TreflectObjectStub;
    using Dispatch = bool (Stub::*)(bool, unsigned, unsigned, TipprmiStream &, TipprmiStream &) const;
    const std::ptrdiff_t slots[] = {
        slot(&Stub::hasOID),
        slot(&Stub::getOID),
        slot(&Stub::orbId),
        slot(&Stub::getInternalOID),
        slot(&Stub::getNamespaceId),
        slot(&Stub::getServer),
        slot(&Stub::forwardMsg),
        slot(static_cast<Dispatch>(&Stub::dispatch)),
        slot(&Stub::meta),
        slot(&Stub::getAbsName),
        slot(&Stub::getRelName),
        slot(&Stub::getParent),
        slot(&Stub::getChild),
        slot(&Stub::getChilds),
        slot(&Stub::registerChild),
        slot(&Stub::unregisterChild),
        slot(static_cast<void (Stub::*)(const TreflectORB *, const TipprmiOID &)>(&Stub::connect)),
        slot(static_cast<void (Stub::*)(const TipprmiOID &)>(&Stub::connect)),
        slot(static_cast<void (Stub::*)(TipprmiObjectSkeleton *)>(&Stub::connect)),
        slot(&Stub::isConnected),
        slot(&Stub::className),
        slot(&Stub::setExceptionContainer),
        slot(&Stub::getExceptionContainer),
        slot(&Stub::registerObserver),
        slot(&Stub::removeObserver),
    };
    std::ptrdiff_t expected = 2; // behind the destructor, which has two
    for (std::ptrdiff_t each : slots) {
        EXPECT_EQ(expected++, each);
    }
}

} // namespace
