#include "orb/REFLECT_orb.h"

#include "platform/TransportLayer.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <memory>
#include <new>
#include <sys/mman.h>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Message = TreflectMessage;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

TipprmiOID name(const char *text, unsigned ns = 1) {
    return TipprmiOID(text, NamespaceId(ns));
}

class LocationTest : public Testing::BrokerTest {
protected:
    TipprmiOID generated(unsigned orbId, unsigned number) const {
        return name(LogMakeString("rmi_%X_%X", orbId, number).c_str());
    }
    static bool isNowhere(const Location &location) {
        return location.getInternalOID() == 0 && location.orbId().value() == 0 && location.getServer() == nullptr;
    }
};

TEST_F(LocationTest, AGeneratedNameOfAnOwnObjectFindsItWithoutAMessage) {
    const Testing::ManualPeer peer(link, orb, TerminationId(0x0042, 2, 1));
    const TipprmiObjectSkeleton object(name(nullptr));
    const Location location = orb.locateObject(object.getOID());
    EXPECT_EQ(&object, location.getServer());
    EXPECT_EQ(object.getInternalOID(), location.getInternalOID());
    EXPECT_EQ(orb.orbId(), location.orbId());
    EXPECT_FALSE(location.hasOID());
    const Location unknown = orb.locateObject(generated(orb.orbId().value(), object.getInternalOID() + 1));
    EXPECT_EQ(nullptr, unknown.getServer());
    EXPECT_EQ(object.getInternalOID() + 1, unknown.getInternalOID());
    EXPECT_EQ(orb.orbId(), unknown.orbId());
    const Location elsewhere = orb.locateObject(generated(0x00420201, object.getInternalOID()));
    EXPECT_EQ(nullptr, elsewhere.getServer()) << "an object of another broker, though the number is known here";
    EXPECT_EQ(object.getInternalOID(), elsewhere.getInternalOID());
    EXPECT_EQ(0x00420201U, elsewhere.orbId().value());
    EXPECT_FALSE(elsewhere.hasOID());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(LocationTest, AnObjectIsFoundByItsNameHereFirst) {
    const Testing::ManualPeer peer(link, orb, TerminationId(0x0042, 2, 1));
    const TipprmiObjectSkeleton nameless(name(nullptr));
    TipprmiObjectSkeleton one(name("same"));
    TipprmiObjectSkeleton two(name("same"));
    const TipprmiObjectSkeleton other(name("other"));
    const Location location = orb.locateObject(name("same"));
    EXPECT_EQ(one.getInternalOID() < two.getInternalOID() ? &one : &two, location.getServer()) << "the lower number";
    EXPECT_EQ(location.getServer()->getInternalOID(), location.getInternalOID());
    EXPECT_EQ(orb.orbId(), location.orbId());
    EXPECT_STREQ("same", location.getOID().getIdString());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(LocationTest, OthersAreAskedOneAfterTheOtherTheLastFirst) {
    std::vector<TerminationId> members;
    for (unsigned nameId : {0x0300U, 0x0042U, 0x0043U}) {
        link.peerAppears(TerminationId(static_cast<unsigned short>(nameId), 2, 1));
    }
    link.peerAppears(TerminationId(0x0301, 2, 2)); // in another group
    for (TerminationId member : Transport::TransportLayer::getGroup(orb.termId().groupId()).contains()) {
        if (member != orb.termId()) {
            members.insert(members.begin(), member);
        }
    }
    ASSERT_EQ(3U, members.size());
    const Testing::ManualPeer peer(link, orb, TerminationId(0x0042, 2, 1));
    for (std::size_t knows = 0; knows <= members.size(); ++knows) {
        Location found(name("before"));
        Testing::TestThread caller([&] {
            const TreflectHandlerState state(true);
            found = orb.locateObject(name("thing"));
        });
        for (std::size_t i = 0; i <= knows && i < members.size(); ++i) {
            const AddressedMessage request = peer.next();
            const TreflectMessage head(request);
            EXPECT_EQ(members[i], request.destination());
            EXPECT_EQ(Message::tRslve, head.type());
            EXPECT_EQ(Message::kRequ, head.kind());
            EXPECT_EQ(100U, head.size());
            EXPECT_EQ("00 00 00 05 74 68 69 6E 67 00 00 00 01", hex(TipprmiStream(head, false)));
            const TreflectHandlerState state(true); // which the caller does not keep
            if (i == 0 && knows == members.size()) {
                link.bounce(request); // as good as not having it
            } else {
                peer.respond(request, [&](TipprmiStream &body) { body << (i == knows ? 0x55U : 0U); });
            }
        }
        caller.join();
        EXPECT_TRUE(link.takeIssued().empty()) << "nobody after the first that has it";
        EXPECT_STREQ("thing", found.getOID().getIdString());
        EXPECT_EQ(nullptr, found.getServer());
        if (knows < members.size()) {
            EXPECT_EQ(0x55U, found.getInternalOID());
            EXPECT_EQ(orb.convertId(members[knows]), found.orbId());
        } else {
            EXPECT_TRUE(isNowhere(found));
        }
    }
}

TEST_F(LocationTest, TheBrokerDoesNotAskItself) {
    EXPECT_TRUE(isNowhere(orb.locateObject(name("nothing"))));
    const Testing::ManualPeer peer(link, orb, TerminationId(0x0042, 2, 1));
    peer.send(peer.message(Message::tPfCnt, Message::kRequ, 1));
    TipprmiStream answer(TreflectMessage(peer.next()), false);
    std::string actor;
    TipprmiSequence<TreflectORB::PerfCnts> counters;
    answer >> actor >> counters;
    EXPECT_FALSE(answer.hasUnmarshallingFailed());
    for (unsigned i = 0; i < counters.getLength(); ++i) {
        EXPECT_NE(orb.termId(), counters[i].target);
    }
}

TEST_F(LocationTest, ASingleBrokerIsAskedForAName) {
    const TerminationId target(0x0042, 2, 1);
    const Testing::ManualPeer peer(link, orb, target);
    EXPECT_EQ(0U, orb.resolve(TerminationId(0x0099, 2, 1), name("thing"))) << "nobody there";
    unsigned number = 1;
    Testing::TestThread caller([&] { number = orb.resolve(target, name("thing")); });
    peer.respond(peer.next(), [](TipprmiStream &body) { body << 0xFFFFFFF0U; });
    caller.join();
    EXPECT_EQ(0xFFFFFFF0U, number);
    Testing::TestThread again([&] { number = orb.resolve(target, name("thing")); });
    peer.respond(peer.next(), [](TipprmiStream &) {}); // an answer without number
    again.join();
    EXPECT_EQ(0U, number);
}

TEST_F(LocationTest, EachNamespaceHasItsOwnBroker) {
    TreflectORB &node = *TreflectORB::getInstance(NSID_NODE);
    const TipprmiObjectSkeleton object(name("thing", 2));
    EXPECT_EQ(&object, orb.locateObject(name("thing", 2)).getServer());
    EXPECT_EQ(node.orbId(), orb.locateObject(name("thing", 2)).orbId());
    EXPECT_TRUE(isNowhere(orb.locateObject(name("thing"))));
    const TipprmiObjectSkeleton here(name("here"));
    EXPECT_EQ(&here, node.locateObject(name("here")).getServer());
}

TEST_F(LocationTest, NamespacesWithoutBrokersOfTheirOwnHaveNoObjects) {
    for (unsigned ns : {5U, 300U, 0xFFFFFFFFU}) {
        const Location location = orb.locateObject(name("thing", ns));
        EXPECT_TRUE(isNowhere(location)) << ns;
        EXPECT_STREQ("thing", location.getOID().getIdString());
        EXPECT_EQ(ns, location.getNamespaceId());
    }
    EXPECT_TRUE(isNowhere(TreflectORB::getInstance(5)->locateObject(name("thing", 5)))) << "it does not ask itself";
}

// --- objects with another name --------------------------------------------------------------------------------------

TEST_F(LocationTest, AnObjectIsFoundUnderTheNameThatItWasGivenLast) {
    TipprmiObjectSkeleton object(name("before"));
    object.setOID(name("after"));
    EXPECT_TRUE(isNowhere(orb.locateObject(name("before"))));
    EXPECT_EQ(&object, orb.locateObject(name("after")).getServer());
    TipprmiObjectBase &base = object;
    base.setOID(name(nullptr));
    EXPECT_TRUE(isNowhere(orb.locateObject(name("after"))));
    base.setOID(name("again"));
    EXPECT_EQ(&object, orb.locateObject(name("again")).getServer());
    const TipprmiObjectSkeleton other(name("other"));
    const unsigned number = object.getInternalOID();
    base = other;
    object.setInternalOID(number);
    const Location location = orb.locateObject(name("other"));
    EXPECT_EQ(number < other.getInternalOID() ? &object : &other, location.getServer()) << "now both have the name";
    EXPECT_TRUE(isNowhere(orb.locateObject(name("again"))));
}

/** It has the name wherever it was registered, whichever broker it says is its own. */
TEST_F(LocationTest, EachBrokerOfAnObjectLearnsItsName) {
    TreflectORB &node = *TreflectORB::getInstance(NSID_NODE);
    TipprmiObjectSkeleton object;
    orb.registerObject(&object);
    node.registerObject(&object);
    object.setOID(name("late"));
    EXPECT_EQ(&object, orb.locateObject(name("late")).getServer());
    EXPECT_TRUE(isNowhere(node.locateObject(name("late", 2))));
    object.setOID(name("late", 2));
    EXPECT_TRUE(isNowhere(orb.locateObject(name("late"))));
    EXPECT_EQ(&object, node.locateObject(name("late", 2)).getServer());
    orb.unregisterObject(&object);
    node.unregisterObject(&object);
    EXPECT_TRUE(isNowhere(node.locateObject(name("late", 2))));
}

TEST_F(LocationTest, WithoutMemoryForItsFirstNameAnObjectIsNotFoundByIt) {
    TipprmiObjectSkeleton object(name(nullptr));
    const TipprmiOID first = name("first");
    log.clear();
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all, 1);
        object.setOID(first);
    }
    EXPECT_EQ(1U,
              log.count(3, LogMakeString("ORB 0x%08X has no memory for the name of an object", orb.termId().value()),
                        "REFLECT_orb"));
    EXPECT_TRUE(isNowhere(orb.locateObject(first)));
    EXPECT_EQ(&object, orb.locateObject(generated(orb.orbId().value(), object.getInternalOID())).getServer());
    object.setOID(first);
    EXPECT_EQ(&object, orb.locateObject(first).getServer());
}

// --- numbers of objects ---------------------------------------------------------------------------------------------

TEST_F(LocationTest, AnObjectsNumberIsItsAddress) {
    TipprmiObjectSkeleton object(name("thing"));
    const auto address = reinterpret_cast<std::uintptr_t>(&object);
    EXPECT_EQ(static_cast<unsigned>(address & 0xFFFFFFFFU), object.getInternalOID());
    EXPECT_TRUE(orb.registerObject(nullptr));
    EXPECT_TRUE(orb.unregisterObject(nullptr));
}

TEST_F(LocationTest, AnObjectWhoseNumberWasChangedIsFoundAllTheSameWhenItGoes) {
    TipprmiObjectSkeleton object(name("thing"));
    const unsigned number = object.getInternalOID();
    object.setInternalOID(7);
    EXPECT_TRUE(orb.unregisterObject(&object));
    EXPECT_TRUE(isNowhere(orb.locateObject(name("thing"))));
    EXPECT_TRUE(orb.registerObject(&object));
    EXPECT_EQ(number, object.getInternalOID());
    object.setInternalOID(7);
    EXPECT_TRUE(orb.registerObject(&object));
    EXPECT_EQ(number, object.getInternalOID()) << "no second entry";
    EXPECT_TRUE(orb.unregisterObject(&object));
    EXPECT_TRUE(orb.unregisterObject(&object)) << "also when it is not there";
    EXPECT_TRUE(isNowhere(orb.locateObject(name("thing"))));
}

TEST_F(LocationTest, WithoutMemoryARegisteredObjectKeepsItsNumberAndAnotherGetsNone) {
    TipprmiObjectSkeleton object(name("thing"));
    TipprmiObjectSkeleton other(name("other"));
    const unsigned number = object.getInternalOID();
    object.setInternalOID(7);
    orb.unregisterObject(&other);
    {
        const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
        EXPECT_TRUE(orb.registerObject(&object));
        EXPECT_TRUE(orb.registerObject(&other));
    }
    EXPECT_EQ(number, object.getInternalOID());
    EXPECT_EQ(&object, orb.locateObject(name("thing")).getServer());
    EXPECT_EQ(0U, other.getInternalOID());
    EXPECT_TRUE(isNowhere(orb.locateObject(name("other"))));
}

TEST_F(LocationTest, AnObjectThatIsGoneAlreadyCanBeTakenOut) {
    class NotAsked : public TipprmiObjectSkeleton {
    public:
        using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
        unsigned getInternalOID() const override {
            asked = true;
            return TipprmiObjectSkeleton::getInternalOID();
        }
        mutable bool asked = false;
    } object(name("thing"));
    object.asked = false;
    EXPECT_TRUE(orb.unregisterObject(&object));
    EXPECT_TRUE(orb.unregisterObject(&object));
    EXPECT_FALSE(object.asked);
    EXPECT_TRUE(isNowhere(orb.locateObject(name("thing"))));
}

TEST_F(LocationTest, TheFirstOfManyObjectsIsFoundWhereverItIs) {
    std::vector<std::unique_ptr<TipprmiObjectSkeleton>> objects;
    for (unsigned i = 0; i < 200; ++i) {
        objects.push_back(std::make_unique<TipprmiObjectSkeleton>(name(LogMakeString("%u", i % 100).c_str())));
    }
    for (unsigned i = 0; i < 100; ++i) {
        const TipprmiObjectSkeleton *const first = objects[i]->getInternalOID() < objects[i + 100]->getInternalOID()
                                                       ? objects[i].get()
                                                       : objects[i + 100].get();
        EXPECT_EQ(first, orb.locateObject(name(LogMakeString("%u", i).c_str())).getServer());
    }
    EXPECT_TRUE(isNowhere(orb.locateObject(name("100"))));
}

#if UINTPTR_MAX > 0xFFFFFFFFU
/** Where addresses have more than 32 bits, two objects can have the same low ones, or none. */
TEST_F(LocationTest, NumbersAreNotGivenTwiceAndNeverZero) {
    constexpr std::uintptr_t k4G = static_cast<std::uintptr_t>(1) << 32U;
    void *const room = ::mmap(nullptr, 3 * k4G, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, room);
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(room) + k4G - 1) / k4G * k4G;
    std::vector<TipprmiObjectSkeleton *> objects;
    for (std::uintptr_t address : {first, first + k4G}) {
        void *const page = reinterpret_cast<void *>(address);
        ASSERT_EQ(0, ::mprotect(page, 4096, PROT_READ | PROT_WRITE));
        objects.push_back(new (page) TipprmiObjectSkeleton(name(objects.empty() ? "one" : "two")));
    }
    EXPECT_EQ(1U, objects[0]->getInternalOID());
    EXPECT_EQ(2U, objects[1]->getInternalOID());
    EXPECT_EQ(objects[1], orb.locateObject(name("two")).getServer());
    EXPECT_EQ(objects[1], orb.locateObject(generated(orb.orbId().value(), 2)).getServer());
    orb.unregisterObject(objects[0]);
    orb.registerObject(objects[1]);
    EXPECT_EQ(2U, objects[1]->getInternalOID()) << "who is registered keeps his number";
    orb.registerObject(objects[0]);
    EXPECT_EQ(1U, objects[0]->getInternalOID());
    for (TipprmiObjectSkeleton *object : objects) {
        object->setInternalOID(7);
        object->~TipprmiObjectSkeleton();
    }
    EXPECT_TRUE(isNowhere(orb.locateObject(name("one"))));
    EXPECT_TRUE(isNowhere(orb.locateObject(name("two"))));
    ::munmap(room, 3 * k4G);
}
#endif

} // namespace
