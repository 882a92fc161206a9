#include "objects/ObjectHandler.h"

#include "objects/REFLECT_object.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/IPPRMI_sequence.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <random>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;

constexpr char kSource[] = "REFLECT_objectStub";
constexpr unsigned kPeerOrb = 0x00420201;

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

/** A location at another broker. */
Location remote(unsigned number, const char *text = nullptr, unsigned orb = kPeerOrb) {
    return Location(number, TreflectOrbId(orb), nullptr, name(text));
}

class StubTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
    TreflectObjectHandler &handler = *TreflectObjectHandler::getInstance();
};

TEST_F(StubTest, TwoAdoptionsOfALocationShareAStubAndTwoReleasesEndIt) {
    TreflectObjectStub *const stub = handler.adoptStub(remote(0x10));
    EXPECT_EQ(stub, handler.adoptStub(remote(0x10)));
    EXPECT_EQ(2, stub->refCount());
    EXPECT_TRUE(stub->isConnected());
    EXPECT_EQ(nullptr, stub->getServer());
    TreflectObjectStub *const other = handler.adoptStub(remote(0x11));
    EXPECT_NE(stub, other);
    handler.releaseStub(stub);
    EXPECT_EQ(1, stub->refCount());
    EXPECT_EQ(stub, handler.adoptStub(remote(0x10, "a"))) << "a nameless stub is that of all names";
    handler.releaseStub(stub);
    handler.releaseStub(stub);
    handler.releaseStub(other);
    handler.releaseStub(nullptr);
    // Had the nameless one been left behind, this would find it.
    TreflectObjectStub *const named = handler.adoptStub(remote(0x10, "a"));
    EXPECT_TRUE(named->hasOID());
    handler.releaseStub(named);
}

TEST_F(StubTest, WithoutNameThereIsTheInvalidStub) {
    TreflectObjectStub *const stub = handler.adoptStub(name(nullptr));
    EXPECT_TRUE(TreflectObjectHandler::isInvalidStub(*stub));
    EXPECT_STREQ("InvalidStub", stub->getOID().getIdString());
    EXPECT_FALSE(stub->isConnected());
    const int references = stub->refCount();
    EXPECT_GE(references, 3);
    EXPECT_EQ(stub, handler.adoptStub(Location(name(""))));
    EXPECT_EQ(references + 1, stub->refCount());
    handler.releaseStub(stub);
    handler.releaseStub(stub);
    // A call of it is made known, and asks nobody for an object with its name.
    link.peerAppears(Transport::TerminationId(0x0042, 2, 1));
    const TipprmiObjectClient nobody;
    TipprmiStream request(100);
    TipprmiStream response(100);
    log.clear();
    nobody.prepareRequestStream_(true, 5, 6, request);
    EXPECT_FALSE(nobody.dispatch(true, 5, 6, request, response));
    EXPECT_EQ(1U, log.with(") to non connected stub object").size());
    EXPECT_EQ(1U, log.with(") request to invalid stub object").size());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(StubTest, StubsOfABrokerThatIsGoneStayInvalidAndHaveSuccessors) {
    TreflectObjectStub *const old = handler.adoptStub(remote(0x20, "a"));
    TreflectObjectStub *const elsewhere = handler.adoptStub(remote(0x20, "a", 0x00430201));
    handler.invalidateStubs(TreflectOrbId(kPeerOrb));
    EXPECT_FALSE(old->isValid());
    EXPECT_TRUE(elsewhere->isValid());
    TreflectObjectStub *const fresh = handler.adoptStub(remote(0x20, "a"));
    EXPECT_NE(old, fresh);
    EXPECT_TRUE(fresh->isConnected());
    old->connect(name("a"));
    EXPECT_FALSE(old->isValid()) << "it does not come back";

    TipprmiStream request(100);
    TipprmiStream response(100);
    log.clear();
    request << 1U;
    old->prepareRequestStream(true, 5, 6, request);
    EXPECT_EQ("00 00 00 01", hex(request)) << "untouched";
    EXPECT_EQ(1U, log.count(4,
                            LogMakeString("prepareRequestStream_(this=0x%p,cc=0x5,mc=6,orbId=%X) to stub object set to "
                                          "invalid",
                                          static_cast<void *>(old), kPeerOrb),
                            kSource));
    EXPECT_FALSE(old->dispatch(true, 5, 6, request, response));
    EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 00", hex(response));
    EXPECT_EQ(1U, old->getExceptionContainer().getExceptionType());
    for (TreflectObjectStub *stub : {old, elsewhere, fresh}) {
        handler.releaseStub(stub);
    }
}

TEST_F(StubTest, ARemoteCallBeginsWithItsHead) {
    TreflectObjectStub *const stub = handler.adoptStub(remote(0x30));
    TipprmiStream request(100);
    stub->prepareRequestStream(true, 0x2A, 7, request);
    EXPECT_EQ("00 00 00 30 00 00 00 01 00 00 00 2A 00 00 00 07", hex(request));
    handler.releaseStub(stub);
    TipprmiObjectSkeleton object(name("here"));
    const TipprmiObjectClient local(&object);
    local.prepareRequestStream_(true, 0x2A, 7, request);
    EXPECT_TRUE(request.empty()) << "none in this process";
}

TEST_F(StubTest, AnExceptionOfTypeOneStopsTheReader) {
    TreflectObjectStub *const stub = handler.adoptStub(remote(0x31));
    for (unsigned type : {0U, 1U, 2U}) {
        TipprmiExceptionContainer container;
        container.setExceptionType(type);
        TipprmiStream response(100);
        response << container << 5U;
        stub->prepareResponseStream(false, response);
        stub->prepareResponseStream(true, response);
        EXPECT_EQ(type == 1, response.hasUnmarshallingFailed()) << type;
    }
    handler.releaseStub(stub);
}

TEST_F(StubTest, AReferenceFromAMessageFindsTheObjectOfThisProcess) {
    TipprmiObjectSkeleton object(name("own"));
    // As a peer sends it back: number and broker, no pointer.
    TreflectObjectStub *const stub =
        handler.adoptStub(Location(object.getInternalOID(), orb.orbId(), nullptr, name("own")));
    EXPECT_EQ(nullptr, stub->getServer());
    const TipprmiObjectClient client(&object);
    EXPECT_EQ(stub, client.getStub_());
    EXPECT_EQ(&object, stub->getServer());
    handler.releaseStub(stub);
}

/** Stubs with and without name at one place: each is found under its own location, whatever the order they came in. */
TEST_F(StubTest, NamedAndNamelessStubsOfOneObjectAreAllFound) {
    std::mt19937 random(7);
    std::vector<std::string> names{""};
    for (int i = 0; i < 20; ++i) {
        names.push_back("n" + std::to_string(i));
    }
    for (int round = 0; round < 100; ++round) {
        std::shuffle(names.begin(), names.end(), random);
        std::vector<TreflectObjectStub *> stubs;
        for (const std::string &text : names) {
            stubs.push_back(handler.adoptStub(remote(0x40, text.c_str())));
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            TreflectObjectStub *const again = handler.adoptStub(remote(0x40, names[i].c_str()));
            if (names[i].empty() || !again->hasOID()) {
                EXPECT_EQ(0x40U, again->getInternalOID());
            } else {
                EXPECT_EQ(names[i], again->getOID().getIdString());
            }
            handler.releaseStub(again);
        }
        for (TreflectObjectStub *stub : stubs) {
            handler.releaseStub(stub);
        }
        // Had one been left behind, these would find it.
        TreflectObjectStub *const named = handler.adoptStub(remote(0x40, "fresh"));
        EXPECT_TRUE(named->hasOID());
        handler.releaseStub(named);
        TreflectObjectStub *const nameless = handler.adoptStub(remote(0x40));
        EXPECT_FALSE(nameless->hasOID());
        handler.releaseStub(nameless);
    }
}

TEST_F(StubTest, AssignmentKeepsTheCountAndConnectsAnew) {
    TreflectObjectStub *const stub = handler.adoptStub(remote(0x50, "x"));
    handler.adoptStub(stub);
    const TreflectObjectStub other(remote(0x51, "y"));
    *stub = other;
    EXPECT_EQ(2, stub->refCount());
    EXPECT_EQ(0x51U, stub->getInternalOID());
    EXPECT_EQ(stub, handler.adoptStub(remote(0x51, "y"))) << "found under its new location";
    TipprmiObjectSkeleton object(name("z"));
    stub->connect(&object);
    EXPECT_EQ(&object, stub->getServer());
    stub->connect(static_cast<TipprmiObjectSkeleton *>(nullptr));
    EXPECT_FALSE(stub->isConnected());
    EXPECT_FALSE(stub->hasOID());
    for (int i = 0; i < 3; ++i) {
        handler.releaseStub(stub);
    }
}

TEST_F(StubTest, EqualIsWhatHasTheSameNameOrTheSamePlace) {
    const TreflectObjectStub a(remote(1, "a"));
    EXPECT_TRUE(a == TreflectObjectStub(remote(2, "a", 0x00990101)));
    EXPECT_FALSE(a == TreflectObjectStub(remote(1, "b")));
    EXPECT_TRUE(TreflectObjectStub(remote(1)) == TreflectObjectStub(remote(1)));
    EXPECT_FALSE(TreflectObjectStub(remote(1)) == TreflectObjectStub(remote(2)));
    EXPECT_FALSE(TreflectObjectStub(remote(1)) == TreflectObjectStub(remote(1, nullptr, 5)));
    EXPECT_EQ("TreflectObjectStub", a.className());
}

TEST_F(StubTest, AStubWithoutPlaceIsReported) {
    log.clear();
    const TreflectObjectStub nowhere((Location(name(""))));
    EXPECT_EQ(1U, log.count(3,
                            LogMakeString("TreflectObjectStub(ol) this=0x%p,object=%p,oid=NULL,ioid=0,orbId=0x0",
                                          static_cast<const void *>(&nowhere), static_cast<void *>(nullptr)),
                            kSource));
    const TreflectObjectStub copy(nowhere);
    EXPECT_EQ(1U, log.with("TreflectObjectStub(other) this=0x").size());
    const TreflectObjectStub named((Location(name("known by name only"))));
    EXPECT_EQ(2U, log.lines().size());
}

TEST_F(StubTest, LocationsAreOrderedByNamespaceNumberNameAndBroker) {
    const auto at = [](unsigned ns, unsigned number, unsigned orbId, const char *text) {
        return Location(number, TreflectOrbId(orbId), nullptr, TipprmiOID(text, NamespaceId(ns)));
    };
    EXPECT_TRUE(at(0x80000000, 9, 9, "b") < at(1, 1, 1, "a")) << "namespaces are signed";
    EXPECT_TRUE(at(1, 1, 9, "b") < at(1, 0x80000000, 1, "a")) << "numbers are not";
    EXPECT_TRUE(at(1, 1, 1, "a") < at(1, 1, 1, "b"));
    EXPECT_TRUE(at(1, 1, 1, "b") < at(1, 1, 2, "a")) << "names only count in one broker";
    EXPECT_FALSE(at(1, 1, 1, "a") < at(1, 1, 1, ""));
    EXPECT_FALSE(at(1, 1, 1, "") < at(1, 1, 1, "a"));
}

TEST_F(StubTest, GeneratedNamesAreAddresses) {
    const Location direct(name("rmi_420201_1F"));
    EXPECT_FALSE(direct.hasOID());
    EXPECT_EQ(0x1FU, direct.getInternalOID());
    EXPECT_EQ(kPeerOrb, direct.orbId().value());
    for (const char *text : {"rmi_420201", "rmi_x_1", "RMI_1_1", "port"}) {
        EXPECT_TRUE(Location(name(text)).hasOID()) << text;
        EXPECT_EQ(0U, Location(name(text)).getInternalOID()) << text;
    }
    link.peerAppears(Transport::TerminationId(0x0042, 2, 1));
    EXPECT_EQ(0x1FU, orb.locateObject(name("rmi_420201_1F")).getInternalOID());
    EXPECT_TRUE(link.takeIssued().empty()) << "nobody is asked";
}

TEST_F(StubTest, HalfAReferenceIsNone) {
    TipprmiStream stream(100);
    stream << std::string("name") << 1U << 5U; // the broker is missing
    Location location(name("before"));
    stream >> location;
    EXPECT_FALSE(location.hasOID());
    EXPECT_EQ(0U, location.getInternalOID());
    TipprmiStream complete(100);
    complete << Location(5, TreflectOrbId(6), nullptr, name("x"));
    EXPECT_EQ("00 00 00 01 78 00 00 00 01 00 00 00 05 00 00 00 06", hex(complete));
}

// --- look-ups without the run permission ----------------------------------------------------------------------------

/** An object that is destroyed in the moment between its look-up and the adoption of its stub. */
class OvertakenTest : public Testing::BrokerTest {
protected:
    /** The permission goes to those who wait for it in their order. */
    void overtake(const std::function<void()> &lookUp, const std::function<void()> &end) {
        ASSERT_NE(nullptr, TreflectObjectHandler::getInstance());
        std::unique_ptr<Testing::TestThread> finder;
        std::unique_ptr<Testing::TestThread> destroyer;
        const TreflectHandlerState state(true);
        const auto waiting = [](unsigned threads) {
            return Testing::eventually([=] { return handlerThreads()->waitingForPermission() >= threads; });
        };
        finder = std::make_unique<Testing::TestThread>(lookUp);
        EXPECT_TRUE(waiting(1));
        destroyer = std::make_unique<Testing::TestThread>([&] {
            const TreflectHandlerState own(true);
            end();
        });
        EXPECT_TRUE(waiting(2));
        const TreflectReleaseHandlerState released;
        finder->join();
        destroyer->join();
    }

    alignas(TipprmiObjectSkeleton) unsigned char room[sizeof(TipprmiObjectSkeleton)];
};

TEST_F(OvertakenTest, AHandleByNameIsOfNoObject) {
    for (const char *text : {"thing", static_cast<const char *>(nullptr)}) {
        auto *const object = new (room) TipprmiObjectSkeleton(name(text));
        const TipprmiOID oid = object->getOID(); // generated if it has no name
        std::unique_ptr<TipprmiObjectClient> handle;
        overtake([&] { handle = std::make_unique<TipprmiObjectClient>(oid); },
                 [&] { object->~TipprmiObjectSkeleton(); });
        EXPECT_EQ(nullptr, handle->getServer());
        EXPECT_EQ(text == nullptr, handle->isConnected()) << "a generated name is an address, whoever lives there";
    }
}

TEST_F(OvertakenTest, AHandleByNameIsNotOfAnotherObjectAtTheSameAddress) {
    auto *object = new (room) TipprmiObjectSkeleton(name("thing"));
    std::unique_ptr<TipprmiObjectClient> handle;
    overtake([&] { handle = std::make_unique<TipprmiObjectClient>(name("thing")); },
             [&] {
                 object->~TipprmiObjectSkeleton();
                 object = new (room) TipprmiObjectSkeleton(name("other"));
             });
    EXPECT_EQ(nullptr, handle->getServer());
    EXPECT_FALSE(handle->isConnected());
    object->~TipprmiObjectSkeleton();
}

TEST_F(OvertakenTest, AStubThatConnectsIsNotConnected) {
    const TipprmiObjectClient handle(name("thing"));
    auto *const object = new (room) TipprmiObjectSkeleton(name("thing"));
    overtake([&] { handle.getStub_()->connect(name("thing")); }, [&] { object->~TipprmiObjectSkeleton(); });
    EXPECT_EQ(nullptr, handle.getServer());
    EXPECT_FALSE(handle.isConnected());
}

// --- cancellation ---------------------------------------------------------------------------------------------------

/** Threads that are cancelled while the copy of a handle looks for its object. */
class CancelledCopyTest : public Testing::BrokerTest {
protected:
    using Handles = TipprmiSequence<TreflectObject>;

    static Handles oneOf(const TreflectObject &object) {
        Handles handles;
        handles.setLength(1);
        handles[0] = object;
        return handles;
    }
    /** In its first request, or a later one; those before find nothing. */
    void cancel(const std::function<void()> &copy, unsigned requestsBefore = 0) {
        Testing::TestThread copier([&] {
            const TreflectHandlerState state(true);
            copy();
        });
        for (; requestsBefore > 0; --requestsBefore) {
            peer.respond(peer.next(), [](TipprmiStream &body) { body << 0U; });
        }
        EXPECT_EQ(TreflectMessage::tRslve, TreflectMessage(peer.next()).type());
        EXPECT_TRUE(copier.stop());
        EXPECT_TRUE(copier.join());
        EXPECT_EQ(0, copier.result()) << "it was cancelled";
        const TreflectHandlerState state(true);
        EXPECT_EQ(2, unknown.getStub()->refCount());
        EXPECT_EQ(1U, handles.getLength());
    }

    const TreflectObject unknown{name("nowhere")};
    Handles handles = oneOf(unknown);
    const Testing::ManualPeer peer{link, orb, Transport::TerminationId(0x0042, 2, 1)};
};

TEST_F(CancelledCopyTest, OfAHandleLeavesNoReference) {
    cancel([this] { const TreflectObject copy(unknown); });
    cancel([this] {
        TreflectObject other;
        other = unknown;
    });
    cancel([] { const TreflectObject another(name("nowhere")); }, 1); // which finds the stub, and tries to connect it
}

TEST_F(CancelledCopyTest, OfASequenceEndsTheThreadAlone) {
    cancel([this] { const Handles copy(handles); });
    cancel([this] {
        Handles copy;
        copy = handles;
    });
    cancel([this] { handles.push_back(unknown); });
    cancel([this] { handles.setLength(100); });
}

} // namespace
