#include "objects/MethodAtWork_p.h"
#include "objects/REFLECT_serverObject.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/FakePeer.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

// Objects that come and go while others are in their methods, or wait for another actor.

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;
using Transport::AddressedMessage;

constexpr Transport::TerminationId kPeer(0x0042, 2, 1);
constexpr unsigned kParent = 0x99; // the number of an object of the peer
constexpr char kFarName[] = "00 00 00 00 00 00 00 00 00 00 00 0A 2F 66 61 72 2F 6F 66 66 2F 63"; // "/far/off/c"
constexpr char kFarewell[] = "00 00 00 99 00 00 00 00 00 00 00 00 00 00 04 53 00 00 00 01 63";   // one-way
constexpr char kGone[] = "00 00 00 01 00 00 00 04 00 00 00 00";

class Node : public TreflectServerObject {
public:
    explicit Node(const char *text, const TreflectObject *parent = nullptr)
        : TreflectServerObject(TipprmiOID(text, NamespaceId(1)), parent, text) {}
    unsigned getServerClassId() const override { return 0x0BEEF001; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override { return {}; }
};

TreflectObject remoteParent() {
    TipprmiStream stream(100);
    stream << Location(kParent, TreflectOrbId(kPeer.value()), nullptr, TipprmiOID(nullptr, NamespaceId(1)));
    TreflectObject object;
    stream >> object;
    return object;
}

void nothingRaised(TipprmiStream &response) {
    response << TipprmiExceptionContainer();
}

void farName(TipprmiStream &response) {
    response << TipprmiExceptionContainer() << std::string("/far/off");
}

std::string body(const AddressedMessage &message) {
    const TreflectMessage whole(message);
    return hex(TipprmiStream(whole, false));
}

/** The method code of a call to the parent. */
unsigned codeOf(const AddressedMessage &message) {
    TipprmiStream request(TreflectMessage(message), false);
    unsigned number = 0;
    bool transaction = false;
    unsigned cc = 0;
    unsigned mc = 0;
    request >> number >> transaction >> cc >> mc;
    return number == kParent ? mc : 0;
}

/** A child of an object that the test plays. */
class ObjectEndTest : public Testing::BrokerTest {
protected:
    void SetUp() override {
        Testing::TestThread maker([this] {
            const TreflectHandlerState state(true);
            const TreflectObject parent = remoteParent();
            child = std::make_unique<Node>("c", &parent);
        });
        peer.respond(peer.next(), nothingRaised);
        maker.join();
        ASSERT_NE(nullptr, child);
        ioid = child->getInternalOID();
    }
    void destroy() {
        const TreflectHandlerState state(true);
        child.reset();
        freed = true;
    }
    /** Whether calls find the object no more. Who destroys it keeps the run permission from there on, unless he waits.
     */
    bool isForgotten() {
        peer.send(peer.call(ioid, true, 0, 1101));
        return body(peer.next()) == kGone;
    }

    Testing::ManualPeer peer{link, orb, kPeer};
    std::unique_ptr<Node> child;
    unsigned ioid = 0;
    std::atomic<bool> freed{false};
};

TEST_F(ObjectEndTest, WaitsForTheAnswerToACallThatCameWhileTheParentWasTold) {
    Testing::TestThread destroyer([this] { destroy(); });
    const AddressedMessage farewell = peer.next();
    ASSERT_EQ(1107U, codeOf(farewell));
    peer.send(peer.call(ioid, true, 0, 1100, 0x2B));
    const AddressedMessage question = peer.next();
    ASSERT_EQ(1100U, codeOf(question));
    peer.respond(farewell, nothingRaised);
    EXPECT_TRUE(Testing::eventually([this] { return isForgotten(); }));
    EXPECT_FALSE(freed);
    peer.respond(question, farName);
    EXPECT_EQ(kFarName, body(peer.next()));
    destroyer.join();
    EXPECT_TRUE(freed);
}

TEST_F(ObjectEndTest, WaitsForACallOfThisProcessToo) {
    std::string absolute;
    const TreflectObject handle(child.get());
    Testing::TestThread destroyer([this] { destroy(); });
    const AddressedMessage farewell = peer.next();
    ASSERT_EQ(1107U, codeOf(farewell));
    Testing::TestThread caller([&] {
        const TreflectHandlerState state(true);
        absolute = handle.getAbsName();
        EXPECT_FALSE(handle.isConnected()) << "nobody else may find it meanwhile";
    });
    const AddressedMessage question = peer.next();
    ASSERT_EQ(1100U, codeOf(question));
    peer.respond(farewell, nothingRaised);
    EXPECT_TRUE(Testing::eventually([this] { return isForgotten(); }));
    EXPECT_FALSE(freed);
    peer.respond(question, farName);
    caller.join();
    destroyer.join();
    EXPECT_EQ("/far/off/c", absolute);
}

/** That the method reads a reference which is but a name is enough. */
TEST_F(ObjectEndTest, WaitsForACallWhoseArgumentsAreLookedFor) {
    const auto notFound = [](TipprmiStream &response) { response << 0U; };
    const Location lost(0, TreflectOrbId(), nullptr, TipprmiOID("lost", NamespaceId(1)));
    for (const unsigned mc : {1000U, 1001U, 1106U}) {
        if (child == nullptr) {
            SetUp();
        }
        freed = false;
        Testing::TestThread destroyer([this] { destroy(); });
        const AddressedMessage farewell = peer.next();
        ASSERT_EQ(1107U, codeOf(farewell)) << mc;
        TipprmiStream call = peer.call(ioid, true, 0, mc, 0x2B);
        if (mc == 1000) {
            call << 0U << 7U << 8U;
        }
        if (mc == 1106) {
            call << std::string("grandchild");
        }
        call << lost;
        peer.send(call);
        AddressedMessage search = peer.next();
        ASSERT_NE(nullptr, search.buf());
        peer.respond(farewell, nothingRaised);
        EXPECT_TRUE(Testing::eventually([this] { return isForgotten(); }));
        EXPECT_FALSE(freed) << mc;
        for (int copies = 0; copies < 10 && TreflectMessage(search).type() == TreflectMessage::tRslve; ++copies) {
            peer.respond(search, notFound);
            search = peer.next();
        }
        EXPECT_EQ("00 00 00 00 00 00 00 00", body(search)) << mc;
        destroyer.join();
        EXPECT_TRUE(freed);
    }
}

/** Else nobody would ever take the name from the parent. */
TEST_F(ObjectEndTest, AnObjectThatComesIsNotCancelledWhileItTellsTheParent) {
    std::atomic<bool> made{false};
    std::atomic<bool> after{false};
    {
        Testing::TestThread maker([&] {
            const TreflectHandlerState state(true);
            const TreflectObject parent = remoteParent();
            const Node second("d", &parent);
            made = true;
            const TreflectReleaseHandlerState released;
            OSWrap::Thread::sleep(OSWrap::TimeSpec(60, 0)); // where it may be cancelled
            after = true;
        });
        const AddressedMessage request = peer.next();
        ASSERT_EQ(1106U, codeOf(request));
        EXPECT_TRUE(maker.stop());
        peer.respond(request, nothingRaised);
        const AddressedMessage farewell = peer.next();
        EXPECT_EQ(1107U, codeOf(farewell));
        peer.respond(farewell, nothingRaised);
    }
    EXPECT_TRUE(made);
    EXPECT_FALSE(after);
    Testing::TestThread destroyer([this] { destroy(); });
    peer.respond(peer.next(), nothingRaised);
}

TEST_F(ObjectEndTest, AParentThatThrowsDoesNotKeepTheChild) {
    class Parent : public Node {
    public:
        using Node::Node;
        void registerChild(const std::string &name, const TreflectObject &added) override {
            Node::registerChild(name, added);
            throw std::runtime_error("no room");
        }
    };
    {
        const TreflectHandlerState state(true);
        Parent parent("p");
        EXPECT_THROW(Node("x", parent.getClient()), std::runtime_error);
        EXPECT_EQ(0U, parent.getChilds().getLength());
    }
    Testing::TestThread destroyer([this] { destroy(); });
    peer.respond(peer.next(), nothingRaised);
}

// --- at the end of the process --------------------------------------------------------------------------------------

/** Nobody answers any more, and who gets the run permission meanwhile keeps it. */
SCENARIO(exitOfAChildOfAnotherActorsObject) {
    static Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB::getInstance(1);
    static Testing::Gate isSent;
    static std::atomic<unsigned long> greedy{0};
    new Testing::TestThread([] {
        greedy = OSWrap::Thread::getCurrentId();
        isSent.pass();
        HandlerState::enterHandlerState(true);
        Testing::Gate().pass();
    });
    Testing::FakePeer peer(link, kPeer);
    peer.answer(nothingRaised);
    const TreflectHandlerState state(true);
    const TreflectObject parent = remoteParent();
    SCENARIO_CHECK(std::atexit([] { // after the child
                       const std::vector<AddressedMessage> issued = link.takeIssued();
                       SCENARIO_CHECK(issued.size() == 1);
                       SCENARIO_CHECK(TreflectMessage(issued[0]).kind() == TreflectMessage::kMsg);
                       SCENARIO_CHECK(body(issued[0]) == kFarewell);
                   }) == 0);
    static const Node child("c", &parent);
    SCENARIO_CHECK(peer.requests().size() == 1);
    link.setFate([](const AddressedMessage &) {
        isSent.open();
        SCENARIO_CHECK(Testing::eventually([] {
            return handlerThreads()->waitingForPermission() != 0 || HandlerState::getRunPermissionOwner() == greedy;
        }));
        return Transport::FakeLink::Fate::deliver;
    });
    link.takeIssued();
    SCENARIO_CHECK(child.getParent().isConnected());
    std::exit(0);
}

TEST(ObjectEndAtExit, TellsTheParentsActorAndWaitsForNobody) {
    const Testing::ProcessResult result = Testing::runScenario("exitOfAChildOfAnotherActorsObject");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** One call has not returned, which ends with the broker only: after the object. */
SCENARIO(exitWhileACallOfAnObjectIsAtWork) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    static Testing::ManualPeer peer(link, orb, kPeer);
    const Node *made = nullptr;
    {
        Testing::TestThread maker([&made] {
            const TreflectHandlerState state(true);
            const TreflectObject parent = remoteParent();
            static const Node child("a name that needs memory of its own", &parent);
            static const Node grandchild("grandchild", child.getClient());
            made = &child;
        });
        peer.respond(peer.next(), nothingRaised);
    }
    peer.send(peer.call(made->getInternalOID(), true, 0, 1100));
    SCENARIO_CHECK(peer.next().buf() != nullptr); // the question for the parent's name
    std::exit(0);
}

TEST(ObjectEndAtExit, DoesNotWaitForEverForACallAtWork) {
    const Testing::ProcessResult result = Testing::runScenario("exitWhileACallOfAnObjectIsAtWork");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** Another thread takes the permission for good before the object goes, and gives it back only then. */
SCENARIO(exitWithoutThePermissionWhileACallIsAtWork) {
    static const Node *made = nullptr;
    static Testing::Gate holds;
    static Testing::Gate isGone;
    static Testing::TestThread *holder = nullptr;
    SCENARIO_CHECK(std::atexit([] { // after the broker, which the call has left
                       delete holder;
                       for (int turn = 0; turn < 3; ++turn) {
                           const TreflectHandlerState state(true);
                           SCENARIO_CHECK(MethodAtWork::isOtherIn(*made));
                       }
                   }) == 0);
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    static Testing::ManualPeer peer(link, orb, kPeer);
    SCENARIO_CHECK(std::atexit([] { isGone.open(); }) == 0);
    {
        Testing::TestThread maker([] {
            const TreflectHandlerState state(true);
            const TreflectObject parent = remoteParent();
            static const Node child("c", &parent);
            made = &child;
        });
        peer.respond(peer.next(), nothingRaised);
    }
    new Testing::TestThread([] {
        const TreflectHandlerState state(true);
        const TreflectObject handle(made);
        const std::string name = handle.getAbsName();
        Testing::failScenario(__FILE__, __LINE__, name.c_str());
    });
    SCENARIO_CHECK(codeOf(peer.next()) == 1100);
    holder = new Testing::TestThread([] {
        const TreflectHandlerState state(true);
        holds.open();
        isGone.pass();
    });
    SCENARIO_CHECK(holds.pass());
    std::exit(0);
}

TEST(ObjectEndAtExit, ACallAtWorkDoesNotGoOnInAnObjectThatWentWithoutThePermission) {
    const Testing::ProcessResult result = Testing::runScenario("exitWithoutThePermissionWhileACallIsAtWork");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** Somebody waits for the permission to call it while it goes. */
SCENARIO(exitWhileTheChildrenAreAskedFor) {
    static Testing::Gate mayAsk;
    static Testing::TestThread *asking = nullptr;
    class Parent : public Node {
    public:
        using Node::Node;
        void unregisterChild(const std::string &name) override {
            Node::unregisterChild(name);
            mayAsk.open();
            SCENARIO_CHECK(Testing::eventually([] { return handlerThreads()->waitingForPermission() != 0; }));
        }
    };
    Transport::FakeLink::install();
    TreflectORB::getInstance(1);
    SCENARIO_CHECK(std::atexit([] { delete asking; }) == 0); // after the objects
    static const Parent root("root");
    static const Node parent("parent", root.getClient());
    static std::vector<std::unique_ptr<Node>> &children = *new std::vector<std::unique_ptr<Node>>;
    {
        const TreflectHandlerState state(true);
        for (int number = 0; number < 100; ++number) {
            children.push_back(std::make_unique<Node>(std::to_string(number).c_str(), parent.getClient()));
        }
        SCENARIO_CHECK(parent.getChilds().getLength() == 100);
    }
    static const auto &handle = *new TreflectObject(&parent);
    asking = new Testing::TestThread([] {
        mayAsk.pass();
        const TreflectHandlerState state(true);
        SCENARIO_CHECK(handle.getChilds().getLength() == 0);
    });
    std::exit(0);
}

TEST(ObjectEndAtExit, IsNotFoundByWhoeverGetsThePermissionNext) {
    const Testing::ProcessResult result = Testing::runScenario("exitWhileTheChildrenAreAskedFor");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
