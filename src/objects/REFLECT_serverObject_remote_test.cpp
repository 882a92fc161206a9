#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;
using Transport::AddressedMessage;

constexpr Transport::TerminationId kPeer(0x0042, 2, 1);
constexpr unsigned kClass = 0x0BEEF001;
constexpr unsigned kParent = 0x99; // the number of an object of the peer
constexpr char kHead[] = "00 00 00 00 00 00 00 00";

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

class Node : public TreflectServerObject {
public:
    explicit Node(const char *text, const TreflectObject *parent = nullptr)
        : TreflectServerObject(::name(text), parent, text) {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(kClass);
        return ids;
    }
};

/** A parent in another actor, which the test plays. */
class RemoteParentTest : public Testing::BrokerTest {
protected:
    /** Of an object of the peer. */
    TreflectObject at(unsigned number) const {
        TipprmiStream stream(100);
        stream << Location(number, TreflectOrbId(kPeer.value()), nullptr, name(nullptr));
        TreflectObject object;
        stream >> object;
        return object;
    }
    /** The head of a call to the parent, and the arguments. */
    static std::string callBody(unsigned mc, const std::function<void(TipprmiStream &)> &write) {
        TipprmiStream body(100);
        body << kParent << true << 0U << mc;
        write(body);
        return hex(body);
    }
    static std::string body(const AddressedMessage &message) {
        const TreflectMessage whole(message);
        return hex(TipprmiStream(whole, false));
    }
    /** Calls an object here; what it answers. */
    std::string ask(unsigned ioid, unsigned mc) {
        peer.send(peer.call(ioid, true, 0, mc));
        return body(peer.next());
    }
    void confirm(const AddressedMessage &request) {
        peer.respond(request, [](TipprmiStream &response) { response << TipprmiExceptionContainer(); });
    }

    Testing::ManualPeer peer{link, orb, kPeer};
};

TEST_F(RemoteParentTest, IsToldOfAChildThatComesAndGoes) {
    std::unique_ptr<Node> child;
    TreflectObject parent;
    {
        TreflectHandlerState state(true);
        parent = at(kParent);
    }
    {
        Testing::TestThread maker([&] {
            TreflectHandlerState state(true);
            child = std::make_unique<Node>("c", &parent);
        });
        const AddressedMessage request = peer.next();
        ASSERT_NE(nullptr, request.buf());
        TipprmiStream arguments(TreflectMessage(request), false);
        unsigned ioid = 0;
        bool transaction = false;
        unsigned cc = 1;
        unsigned mc = 0;
        std::string text;
        Location location(name(nullptr));
        arguments >> ioid >> transaction >> cc >> mc >> text >> location;
        EXPECT_EQ(kParent, ioid);
        EXPECT_TRUE(transaction);
        EXPECT_EQ(0U, cc);
        EXPECT_EQ(1106U, mc);
        EXPECT_EQ("c", text);
        EXPECT_EQ(orb.orbId(), location.orbId());
        // While the parent is told, the class's own part is not there yet: what all objects have is.
        EXPECT_EQ(std::string(kHead) + " 00 00 00 00", ask(location.getInternalOID(), 1108));
        EXPECT_EQ(std::string(kHead) + " 00 00 00 01 63", ask(location.getInternalOID(), 1101));
        confirm(request);
    }
    ASSERT_NE(nullptr, child);
    const unsigned ioid = child->getInternalOID();
    EXPECT_EQ(std::string(kHead) + " 00 00 00 01 0B EE F0 01", ask(ioid, 1108));
    {
        Testing::TestThread breaker([&] {
            TreflectHandlerState state(true);
            child.reset();
        });
        const AddressedMessage request = peer.next();
        EXPECT_EQ(callBody(1107, [](TipprmiStream &stream) { stream << std::string("c"); }), body(request));
        EXPECT_EQ(std::string(kHead) + " 00 00 00 00", ask(ioid, 1108));
        EXPECT_EQ(std::string(kHead) + " 00 00 00 01 63", ask(ioid, 1101));
        confirm(request);
    }
    EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 00", ask(ioid, 1101)) << "it is gone";
    TreflectHandlerState state(true);
    parent = TreflectObject();
}

TEST_F(RemoteParentTest, GivesTheNamesBeforeThatOfTheChild) {
    std::unique_ptr<Node> child;
    std::string absolute;
    Testing::TestThread thread([&] {
        TreflectHandlerState state(true);
        const TreflectObject parent = at(kParent);
        child = std::make_unique<Node>("c", &parent);
        absolute = child->getAbsName();
        child.reset();
    });
    confirm(peer.next());
    const AddressedMessage question = peer.next();
    EXPECT_EQ(callBody(1100, [](TipprmiStream &) {}), body(question));
    peer.respond(question,
                 [](TipprmiStream &response) { response << TipprmiExceptionContainer() << std::string("/far/off"); });
    confirm(peer.next());
    thread.join();
    EXPECT_EQ("/far/off/c", absolute);
}

TEST_F(RemoteParentTest, ThatIsGoneIsNotTold) {
    std::unique_ptr<Node> child;
    {
        Testing::TestThread maker([&] {
            TreflectHandlerState state(true);
            const TreflectObject parent = at(kParent);
            child = std::make_unique<Node>("c", &parent);
        });
        confirm(peer.next());
    }
    link.peerVanishes(kPeer);
    EXPECT_TRUE(Testing::eventually([&] {
        TreflectHandlerState state(true);
        return !child->getParent().isConnected();
    }));
    TreflectHandlerState state(true);
    EXPECT_EQ("/c", child->getAbsName());
    log.clear();
    child.reset();
    EXPECT_TRUE(link.takeIssued().empty());
    EXPECT_TRUE(log.with("set to invalid").empty()) << "nor is it tried";
}

/** It could not be left half destroyed, and no exception may leave a destructor. */
TEST_F(RemoteParentTest, AnObjectThatGoesIsNotCancelledWhileItTellsTheParent) {
    std::unique_ptr<Node> child;
    {
        Testing::TestThread maker([&] {
            TreflectHandlerState state(true);
            const TreflectObject parent = at(kParent);
            child = std::make_unique<Node>("c", &parent);
        });
        confirm(peer.next());
    }
    std::atomic<bool> gone{false};
    std::atomic<bool> after{false};
    {
        Testing::TestThread destroyer([&] {
            {
                TreflectHandlerState state(true);
                child.reset();
                gone = true;
            }
            OSWrap::Thread::sleep(OSWrap::TimeSpec(60, 0)); // where it may be cancelled
            after = true;
        });
        const AddressedMessage request = peer.next();
        EXPECT_TRUE(destroyer.stop());
        EXPECT_FALSE(gone);
        confirm(request);
    }
    EXPECT_TRUE(gone);
    EXPECT_FALSE(after);
    TreflectHandlerState state(true); // has been given back
}

/** That half of a reference, in an answer, must not send this process looking for names. */
TEST_F(RemoteParentTest, WhoseAnswerIsCutHasNoChildren) {
    Testing::TestThread thread([&] {
        TreflectHandlerState state(true);
        const TreflectObject parent = at(kParent);
        EXPECT_FALSE(parent.getChild("x").isConnected());
        const TipprmiSequence<TreflectObject> childs = parent.getChilds();
        EXPECT_EQ(3U, childs.getLength()) << "as many as are announced, of no object";
        for (unsigned i = 0; i < childs.getLength(); ++i) {
            EXPECT_FALSE(childs[i].isConnected());
            EXPECT_EQ(TreflectObject().getStub(), childs[i].getStub());
        }
        EXPECT_EQ("", parent.getAbsName());
    });
    const auto cut = [](TipprmiStream &response) {
        response << TipprmiExceptionContainer() << std::string("some name") << 1U;
    };
    peer.respond(peer.next(), cut);
    peer.respond(peer.next(), [](TipprmiStream &response) {
        response << TipprmiExceptionContainer() << 3U << std::string("some name") << 1U;
    });
    const AddressedMessage last = peer.next(); // nothing was asked between
    EXPECT_EQ(callBody(1100, [](TipprmiStream &) {}), body(last));
    peer.respond(last, [](TipprmiStream &response) { response << TipprmiExceptionContainer() << 0x7FFFFFFFU; });
    thread.join();
    EXPECT_EQ(1U, log.with("Unmarshall error on cc=0x0, mc=1104").size());
    EXPECT_EQ(1U, log.with("Unmarshall error on cc=0x0, mc=1105").size());
    EXPECT_EQ(1U, log.with("Unmarshall error on cc=0x0, mc=1100").size());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(RemoteParentTest, WithMoreChildrenOrClassesThanTheAnswerHoldsHasNone) {
    Testing::TestThread thread([&] {
        TreflectHandlerState state(true);
        const TreflectObject parent = at(kParent);
        EXPECT_EQ(0U, parent.getChilds().getLength());
        EXPECT_EQ(nullptr, parent.meta());
    });
    const auto tooMany = [](TipprmiStream &response) { response << TipprmiExceptionContainer() << 0xFFFFFFFFU; };
    peer.respond(peer.next(), tooMany);
    peer.respond(peer.next(), tooMany);
    thread.join();
    EXPECT_EQ(1U, log.with("Unmarshall error on cc=0x0, mc=1105").size());
    EXPECT_EQ(1U, log.with("Unmarshall error on cc=0x0, mc=1108").size());
}

/** The list is made longer for children that come while it is made, and those may have gone again by then. */
TEST_F(RemoteParentTest, ListsItsChildrenWhileTheyComeAndGo) {
    std::unique_ptr<Node> root;
    std::unique_ptr<Node> others[3];
    TipprmiSequence<TreflectObject> childs;
    const auto notFound = [](TipprmiStream &response) { response << 0U; };
    std::unique_ptr<TreflectObject> lost;
    Testing::TestThread finder([&] {
        const TreflectHandlerState state(true);
        lost = std::make_unique<TreflectObject>(name("lost"));
    });
    peer.respond(peer.next(), notFound); // by its name
    peer.respond(peer.next(), notFound); // by its handle, as for every copy
    finder.join();
    Testing::TestThread maker([&] {
        const TreflectHandlerState state(true);
        root = std::make_unique<Node>("root");
        root->registerChild("a", *lost);
    });
    peer.respond(peer.next(), notFound);
    maker.join();

    Testing::TestThread lister([&] {
        const TreflectHandlerState state(true);
        childs = root->getChilds();
    });
    AddressedMessage search = peer.next(); // "a" is put into the list
    {
        const TreflectHandlerState state(true);
        int next = 0;
        for (const char *text : {"b", "c", "d"}) {
            others[next++] = std::make_unique<Node>(text, root->getClient());
        }
    }
    peer.respond(search, notFound);
    search = peer.next(); // "a" is put into a longer list
    {
        const TreflectHandlerState state(true);
        for (const char *text : {"b", "c", "d"}) {
            root->unregisterChild(text);
        }
    }
    peer.respond(search, notFound);
    lister.join();
    const TreflectHandlerState state(true);
    ASSERT_EQ(2U, childs.getLength());
    EXPECT_EQ(lost->getStub(), childs[0].getStub());
    EXPECT_EQ(others[0].get(), childs[1].getServer()) << "was there before \"a\" was copied again";
    EXPECT_TRUE(link.takeIssued().empty());
    childs.setLength(0);
    root.reset();
    lost.reset();
}

} // namespace
