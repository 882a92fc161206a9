#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/HeapProbe.h"
#include "threads/HandlerState.h"

#include <functional>
#include <memory>
#include <string>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Testing::hex;

constexpr char kSource[] = "IPPRMI_objectSkeleton";
constexpr unsigned kClass = 0x0BEEF001;
constexpr unsigned kPeerOrb = 0x00420201;
constexpr char kHead[] = "00 00 00 00 00 00 00 00"; // no exception

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
        ids.push_back(0x7F);
        return ids;
    }
};

class DispatchTest : public Testing::BrokerTest {
protected:
    using Write = std::function<void(TipprmiStream &)>;

    /** What an object answers; "refused" if it does not handle the call. */
    static std::string answer(
        TreflectServerObject &object, unsigned mc, const Write &write = [](TipprmiStream &) {}, unsigned cc = 0) {
        TipprmiStream request(100);
        TipprmiStream response(100);
        write(request);
        return object.dispatch(true, cc, mc, request, response) ? hex(response) : "refused";
    }
    static std::string answer(const std::function<void(TipprmiStream &)> &write) {
        TipprmiStream response(100);
        write(response);
        return std::string(kHead) + " " + hex(response);
    }
    std::size_t reports(unsigned cc, unsigned mc) const {
        return log.with(LogMakeString("Unmarshall error on cc=0x%X, mc=%u", cc, mc)).size();
    }

    TreflectHandlerState state{true};
    Node root{"r"};
};

TEST_F(DispatchTest, TheNamesOfAnObject) {
    Node child("c", root.getClient());
    EXPECT_EQ(std::string(kHead) + " 00 00 00 04 2F 72 2F 63", answer(child, 1100));
    EXPECT_EQ(std::string(kHead) + " 00 00 00 01 63", answer(child, 1101));
}

TEST_F(DispatchTest, TheRelativesOfAnObject) {
    Node b("b", root.getClient());
    Node a("a", root.getClient());
    const auto handle = [](const TipprmiObjectClient &client) {
        return [&client](TipprmiStream &stream) { stream << client; };
    };
    const auto nameOf = [](const char *text) { return [text](TipprmiStream &stream) { stream << std::string(text); }; };
    const TreflectObject none;
    EXPECT_EQ(answer(handle(*root.getClient())), answer(a, 1103));
    EXPECT_EQ(answer(handle(none)), answer(root, 1103));
    EXPECT_EQ(answer(handle(*b.getClient())), answer(root, 1104, nameOf("b")));
    EXPECT_EQ(answer(handle(none)), answer(root, 1104, nameOf("c")));
    EXPECT_EQ(answer([&](TipprmiStream &stream) { stream << 2U << *a.getClient() << *b.getClient(); }),
              answer(root, 1105));
    EXPECT_EQ(std::string(kHead) + " 00 00 00 00", answer(a, 1105));
}

TEST_F(DispatchTest, ChildrenComeAndGo) {
    Node other("o");
    EXPECT_EQ(kHead,
              answer(root, 1106, [&](TipprmiStream &stream) { stream << std::string("x") << *other.getClient(); }));
    EXPECT_EQ(&other, root.getChild("x").getServer());
    EXPECT_EQ(kHead, answer(root, 1106, [&](TipprmiStream &stream) {
                  stream << std::string("x") << Location(0x55, TreflectOrbId(kPeerOrb), nullptr, name(nullptr));
              }));
    EXPECT_EQ(0x55U, root.getChild("x").getStub()->getInternalOID());
    EXPECT_EQ(kPeerOrb, root.getChild("x").getStub()->orbId().value());
    EXPECT_EQ(kHead, answer(root, 1107, [](TipprmiStream &stream) { stream << std::string("y"); }));
    EXPECT_EQ(1U, root.getChilds().getLength());
    EXPECT_EQ(kHead, answer(root, 1107, [](TipprmiStream &stream) { stream << std::string("x"); }));
    EXPECT_EQ(0U, root.getChilds().getLength());
}

TEST_F(DispatchTest, TheClassesOfAnObject) {
    EXPECT_EQ(std::string(kHead) + " 00 00 00 02 0B EE F0 01 00 00 00 7F", answer(root, 1108));
}

TEST_F(DispatchTest, ObserversComeAndGo) {
    TreflectObserver observer(name("observer"), nullptr, "observer");
    const auto registration = [&](unsigned when) {
        return [&, when](TipprmiStream &stream) { stream << when << 7U << 8U << *observer.getClient(); };
    };
    EXPECT_EQ(kHead, answer(root, 1000, registration(0)));
    EXPECT_TRUE(root.preObserverAvailable(7, 8));
    EXPECT_FALSE(root.postObserverAvailable(7, 8));
    EXPECT_EQ(kHead, answer(root, 1000, registration(3)));
    EXPECT_TRUE(root.postObserverAvailable(7, 8));
    EXPECT_FALSE(root.postObserverAvailable(8, 7));
    EXPECT_EQ(kHead, answer(root, 1001, [&](TipprmiStream &stream) { stream << *observer.getClient(); }));
    EXPECT_FALSE(root.preObserverAvailable(7, 8));
    EXPECT_FALSE(root.postObserverAvailable(7, 8));
}

TEST_F(DispatchTest, TheClassCodeIsNotLookedAt) {
    for (unsigned mc : {1000U, 1001U, 1100U, 1101U, 1103U, 1104U, 1105U, 1106U, 1107U, 1108U}) {
        const auto nothing = [](TipprmiStream &) {};
        const std::string expected = answer(root, mc, nothing, 0);
        EXPECT_EQ(0U, expected.find(kHead)) << mc;
        for (unsigned cc : {1U, kClass, 0xFFFFFFFFU}) {
            EXPECT_EQ(expected, answer(root, mc, nothing, cc)) << cc << ", " << mc;
        }
    }
}

TEST_F(DispatchTest, OtherMethodsAreTheBusinessOfTheBase) {
    for (unsigned mc : {0U, 1U, 999U, 1002U, 1099U, 1102U, 1109U, 2099U, 2102U}) {
        log.clear();
        EXPECT_EQ("refused", answer(
                                 root, mc, [](TipprmiStream &) {}, kClass))
            << mc;
        EXPECT_EQ(1U, log.count(3, "Unknown method code " + std::to_string(mc), kSource)) << mc;
    }
    EXPECT_EQ(std::string(kHead) + " " + kHead, answer(root, 2101));
}

TEST_F(DispatchTest, AnswersBeginWithTheExceptionOfTheObject) {
    TipprmiExceptionContainer container;
    container.setExceptionType(1);
    container.setExceptionData(TipprmiGeneralException(9));
    EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 09",
              answer(root, 2100, [&](TipprmiStream &stream) { stream << container; }));
    for (unsigned mc : {1000U, 1001U, 1100U, 1101U, 1103U, 1104U, 1105U, 1106U, 1107U, 1108U}) {
        EXPECT_EQ(0U, answer(root, mc).find("00 00 00 01 00 00 00 04 00 00 00 09")) << mc;
    }
}

// --- what a peer may send -------------------------------------------------------------------------------------------

/** Whatever of the arguments is missing, the call is answered and has no effect. */
TEST_F(DispatchTest, CallsThatAreCutHaveNoEffect) {
    TreflectObserver observer(name("observer"), nullptr, "observer");
    root.registerObserver(0, 7, 8, *observer.getClient());
    root.registerChild("kept", *observer.getClient());
    root.registerChild("", *observer.getClient());
    const auto arguments = [&](unsigned mc, TipprmiStream &whole) {
        if (mc == 1000) {
            whole << 1U << 7U << 8U;
        }
        if (mc == 1106 || mc == 1107) {
            whole << std::string("kept");
        }
        if (mc != 1107) {
            whole << *root.getClient();
        }
    };
    for (unsigned mc : {1000U, 1001U, 1106U, 1107U}) {
        TipprmiStream whole(100);
        arguments(mc, whole);
        for (int size = 0; size < whole.getDataSize(); ++size) {
            log.clear();
            TipprmiStream request(whole.getDataPtr(), size);
            TipprmiStream response(100);
            EXPECT_TRUE(root.dispatch(true, 0x33, mc, request, response));
            EXPECT_EQ(kHead, hex(response)) << mc << " of " << size;
            EXPECT_EQ(1U, reports(0x33, mc)) << mc << " of " << size;
            EXPECT_TRUE(root.preObserverAvailable(7, 8));
            EXPECT_FALSE(root.postObserverAvailable(0, 0) || root.postObserverAvailable(7, 0) ||
                         root.postObserverAvailable(7, 8) || root.preObserverAvailable(0, 0));
            EXPECT_EQ(2U, root.getChilds().getLength());
            EXPECT_EQ(&observer, root.getChild("kept").getServer());
        }
    }
}

/** It is none for the child of the empty name. */
TEST_F(DispatchTest, ACutQuestionForAChildIsReported) {
    root.registerChild("", *root.getClient());
    TipprmiStream request = Testing::received({0, 0, 0, 5, 'a'});
    TipprmiStream response(100);
    EXPECT_TRUE(root.dispatch(true, 0, 1104, request, response));
    EXPECT_EQ(1U, reports(0, 1104));
    const TreflectObject none;
    EXPECT_EQ(answer([&](TipprmiStream &stream) { stream << none; }), hex(response));
}

TEST_F(DispatchTest, NamesFromPeersAreKeptWhole) {
    const std::string odd("%s%n\0x", 6);
    EXPECT_EQ(kHead, answer(root, 1106, [&](TipprmiStream &stream) { stream << odd << *root.getClient(); }));
    EXPECT_EQ(&root, root.getChild(odd).getServer());
    EXPECT_FALSE(root.getChild("%s%n").isConnected());
}

/** One that peers made up is no observer, whatever they registered. */
TEST_F(DispatchTest, AnObjectOfThisProcessThatIsNoObserverIsDropped) {
    Node other("other");
    TipprmiObjectSkeleton bare(name("bare"));
    for (const TipprmiObjectClient *client : {static_cast<const TipprmiObjectClient *>(other.getClient()),
                                              static_cast<const TipprmiObjectClient *>(bare.getClient())}) {
        EXPECT_EQ(kHead, answer(root, 1000, [&](TipprmiStream &stream) { stream << 0U << 7U << 8U << *client; }));
        EXPECT_TRUE(root.preObserverAvailable(7, 8));
        EXPECT_TRUE(root.notifyObservers(0, 7, 8, TipprmiSequence<TipprmiAny>()));
        EXPECT_FALSE(root.preObserverAvailable(7, 8));
    }
}

/** Somebody may be among them who forbids the call. */
TEST_F(DispatchTest, AnObjectWithoutMemoryToTellItsObserversForbidsTheCall) {
    TreflectObserver observer(name("observer"), nullptr, "observer");
    const TipprmiSequence<TipprmiAny> none;
    root.registerObserver(0, 7, 8, *observer.getClient());
    root.registerObserver(1, 7, 9, *observer.getClient());
    {
        const Testing::FailingHeap heap; // no client
        EXPECT_FALSE(root.notifyObservers(0, 7, 8, none));
        EXPECT_TRUE(root.notifyObservers(1, 7, 8, none)) << "it has none after the method";
        EXPECT_TRUE(root.notifyObservers(0, 7, 9, none)) << "nor one before this";
        EXPECT_TRUE(root.notifyObservers(1, 7, 9, none)) << "it has been called";
    }
    EXPECT_EQ(2U, log.count(3, "no memory to tell the observers of \"r\"", "REFLECT_serverObject"));
    EXPECT_TRUE(root.notifyObservers(0, 7, 8, none));
}

/** What they are told of stays the object's handle. */
TEST_F(DispatchTest, AnObjectMayMoveWhileItsObserversAreTold) {
    class Mover : public TreflectObserver {
    public:
        explicit Mover(Node &node) : TreflectObserver(::name("mover"), nullptr, "mover"), node_(node) {}
        bool detected() override {
            node_.connect(nullptr, TipprmiOID("r", NamespaceId(300))); // there is no such broker; its client goes
            instead = std::make_unique<TreflectObject>(this);
            return true;
        }
        std::unique_ptr<TreflectObject> instead;

    private:
        Node &node_;
    };
    class Witness : public TreflectObserver {
    public:
        Witness() : TreflectObserver(::name("witness"), nullptr, "witness") {}
        bool detected() override {
            seen = getSource()->getServer();
            return true;
        }
        const TipprmiObjectSkeleton *seen = nullptr;
    };
    Mover mover(root);
    Witness witness;
    root.registerObserver(0, 7, 8, *mover.getClient());
    root.registerObserver(0, 7, 8, *witness.getClient());
    EXPECT_TRUE(root.notifyObservers(0, 7, 8, TipprmiSequence<TipprmiAny>()));
    EXPECT_NE(nullptr, mover.instead);
    EXPECT_EQ(&root, witness.seen);
}

TEST_F(DispatchTest, AnObjectThatIsNotReflectiveHasNoTree) {
    TipprmiObjectSkeleton bare(name("bare"));
    const TreflectObject object(name("bare"));
    EXPECT_EQ(&bare, object.getServer());
    EXPECT_EQ("", object.getAbsName());
    EXPECT_EQ("", object.getRelName());
    EXPECT_EQ(nullptr, object.meta());
    EXPECT_FALSE(object.getParent().isConnected());
    EXPECT_FALSE(object.getChild("a").isConnected());
    EXPECT_EQ(0U, object.getChilds().getLength());
    object.registerChild("a", object);
    object.unregisterChild("a");
    TreflectObserver observer(name("observer"), nullptr, "observer");
    object.removeObserver(nullptr, &observer);
}

} // namespace
