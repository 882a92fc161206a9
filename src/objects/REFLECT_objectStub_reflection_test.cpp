#include "objects/REFLECT_objectStub.h"

#include "objects/ObjectHandler.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "reflection/REFLECT_metaObject.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/FakePeer.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "threads/HandlerState.h"

namespace {

constexpr char kSource[] = "REFLECT_objectStub";
constexpr unsigned kClass = 0x5A3C10F7; // not that of a class of all tests

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

class Port : public TreflectServerObject {
public:
    explicit Port(const char *text, const TreflectObject *parent = nullptr)
        : TreflectServerObject(name(text), parent, text) {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(7);
        ids.push_back(kClass);
        return ids;
    }
};

class PortMeta : public TreflectMetaObject {
public:
    PortMeta() : TreflectMetaObject("Port", kClass) {}
    void completeMetaInformation() override { ++completed_; }
    unsigned completions() const { return completed_; }
};

class StubReflectionTest : public Testing::BrokerTest {
protected:
    ~StubReflectionTest() override { handler.releaseStub(stub); }

    TreflectORB::TreflectObjectLocation at(unsigned number, const char *text = nullptr) const {
        return TreflectORB::TreflectObjectLocation(number, orb.convertId(peer.id()), nullptr, name(text));
    }
    /** "00 00 00 30 00 00 00 01 00 00 00 00 00 00 04 4C": two-way, class 0, this method. */
    static std::string head(unsigned mc) {
        TipprmiStream expected(100);
        expected << 0x30U << true << 0U << mc;
        return Testing::hex(expected);
    }
    /** What the exception container is followed by. */
    template <class T>
    void answer(const T &value) {
        peer.answer([value](TipprmiStream &response) { response << TipprmiExceptionContainer() << value; });
    }
    void answerNothing() {
        peer.answer([](TipprmiStream &response) { response << TipprmiExceptionContainer(); });
    }
    std::size_t reports(unsigned mc) const {
        return log.count(4, LogMakeString("Unmarshall error on cc=0x0, mc=%d", static_cast<int>(mc)), "CallHelper");
    }

    TreflectHandlerState state{true};
    Testing::FakePeer peer{link};
    TreflectObjectHandler &handler = *TreflectObjectHandler::getInstance();
    TreflectObjectStub *const stub = handler.adoptStub(at(0x30));
};

TEST_F(StubReflectionTest, NamesAreAskedFor) {
    answer(std::string("/shelf/port"));
    EXPECT_EQ("/shelf/port", stub->getAbsName());
    EXPECT_EQ(head(1100), peer.lastRequest());
    EXPECT_EQ("/shelf/port", stub->getRelName());
    EXPECT_EQ(head(1101), peer.lastRequest());
    answerNothing();
    EXPECT_EQ("", stub->getAbsName());
    EXPECT_EQ("", stub->getRelName());
    EXPECT_EQ(1U, reports(1100));
    EXPECT_EQ(1U, reports(1101));
}

TEST_F(StubReflectionTest, RelativesAreAskedFor) {
    answer(at(0x77, "other"));
    EXPECT_EQ(0x77U, stub->getParent().getStub()->getInternalOID());
    EXPECT_EQ(head(1103), peer.lastRequest());
    EXPECT_STREQ("other", stub->getChild("ab").getOID().getIdString());
    EXPECT_EQ(head(1104) + " 00 00 00 02 61 62", peer.lastRequest());
    peer.answer([this](TipprmiStream &response) {
        response << TipprmiExceptionContainer() << 2U << at(0x77, "other") << at(0x78);
    });
    const TipprmiSequence<TreflectObject> childs = stub->getChilds();
    EXPECT_EQ(head(1105), peer.lastRequest());
    ASSERT_EQ(2U, childs.getLength());
    EXPECT_EQ(0x77U, childs[0].getStub()->getInternalOID());
    EXPECT_EQ(0x78U, childs[1].getStub()->getInternalOID());
}

TEST_F(StubReflectionTest, FailedQuestionsAboutRelativesGiveNone) {
    answerNothing();
    const TreflectObject nobody;
    EXPECT_EQ(nobody.getStub(), stub->getParent().getStub());
    EXPECT_EQ(nobody.getStub(), stub->getChild("x").getStub());
    EXPECT_EQ(0U, stub->getChilds().getLength());
    for (unsigned mc : {1103U, 1104U, 1105U}) {
        EXPECT_EQ(1U, reports(mc)) << mc;
    }
    peer.answer([](TipprmiStream &response) { response << TipprmiExceptionContainer() << 0xFFFFFFFFU; });
    EXPECT_EQ(0U, stub->getChilds().getLength()) << "a count that cannot be";
}

/** The answer is not looked at, whatever it says. */
TEST_F(StubReflectionTest, ChildrenAreRegisteredWithoutReadingTheAnswer) {
    peer.answer([](TipprmiStream &response) {
        TipprmiExceptionContainer failed;
        failed.setExceptionType(1);
        response << failed;
    });
    Port child("child");
    stub->registerChild("ab", *child.getClient());
    TipprmiStream expected(100);
    expected << 0x30U << true << 0U << 1106U << std::string("ab") << *child.getClient();
    EXPECT_EQ(Testing::hex(expected), peer.lastRequest());
    stub->unregisterChild("ab");
    EXPECT_EQ(head(1107) + " 00 00 00 02 61 62", peer.lastRequest());
    EXPECT_TRUE(log.with("Unmarshall error").empty());
}

/** Half a name would be that of another child. */
TEST_F(StubReflectionTest, AQuestionWithoutMemoryIsNotAsked) {
    const std::string text(5000, 'x');
    TipprmiStream arguments(100);
    arguments << text;
    const std::string whole = head(1104) + " " + Testing::hex(arguments);
    answerNothing();
    bool asked = false;
    for (unsigned allowed = 0; allowed < 20 && !asked; ++allowed) {
        log.clear();
        {
            const Testing::FailingHeap heap(allowed);
            EXPECT_FALSE(stub->getChild(text).isConnected());
        }
        asked = !peer.requests().empty();
        for (const std::string &request : peer.requests()) {
            EXPECT_EQ(whole, request) << allowed;
        }
    }
    EXPECT_TRUE(asked);
    {
        const Testing::FailingHeap heap(1); // for the head
        stub->unregisterChild(text);
    }
    EXPECT_EQ(1U, log.count(3, "no memory for a call of method 1107", kSource));
    EXPECT_EQ(1U, peer.requests().size());
}

TEST_F(StubReflectionTest, TheFirstKnownClassIsTheObjectsClass) {
    const PortMeta meta;
    peer.answer([](TipprmiStream &response) { response << TipprmiExceptionContainer() << 3U << 5U << kClass << 6U; });
    EXPECT_EQ(&meta, stub->meta());
    EXPECT_EQ(head(1108), peer.lastRequest());
    EXPECT_EQ(1U, meta.completions());
    EXPECT_EQ(1U, log.with("findInterface(0x5)").size());
    EXPECT_TRUE(log.with("findInterface(0x6)").empty()) << "nothing is asked for after that";
    const std::size_t before = peer.requests().size();
    EXPECT_EQ(&meta, stub->meta());
    EXPECT_EQ(before + 1, peer.requests().size()) << "each time anew";
    peer.answer([](TipprmiStream &response) { response << TipprmiExceptionContainer() << 1U << 5U; });
    EXPECT_EQ(nullptr, stub->meta());
    EXPECT_EQ(1U,
              log.count(4, "TreflectObjectStub::meta() - did not find any meta information, returning NULL", kSource));
}

/** While one thread waits for its answer another one gets that to its own question. */
TEST_F(StubReflectionTest, ThreadsThatAskForTheClassAtTheSameTimeEachHaveTheirAnswer) {
    const PortMeta meta;
    link.setFate({});
    const Testing::ManualPeer byHand(link, orb, peer.id());
    const TreflectReleaseHandlerState released;
    const TreflectMetaObject *first = nullptr;
    const TreflectMetaObject *second = &meta;
    const auto ask = [this](const TreflectMetaObject *&result) {
        return [this, &result] {
            const TreflectHandlerState own(true);
            result = stub->meta();
        };
    };
    Testing::TestThread one(ask(first));
    const Transport::AddressedMessage ofOne = byHand.next();
    Testing::TestThread other(ask(second));
    const Transport::AddressedMessage ofOther = byHand.next();
    byHand.respond(ofOne, [](TipprmiStream &response) { response << TipprmiExceptionContainer() << 1U << kClass; });
    EXPECT_TRUE(one.join());
    byHand.respond(ofOther, [](TipprmiStream &response) { response << TipprmiExceptionContainer() << 0U; });
    EXPECT_TRUE(other.join());
    EXPECT_EQ(&meta, first);
    EXPECT_EQ(nullptr, second);
    EXPECT_EQ(1U,
              log.count(4, "TreflectObjectStub::meta() - did not find any meta information, returning NULL", kSource));
}

TEST_F(StubReflectionTest, AStubWithoutPlaceHasNoClassAndAsksNobody) {
    const TreflectObjectStub nowhere;
    EXPECT_EQ(nullptr, nowhere.meta());
    EXPECT_EQ(1U,
              log.count(4, "TreflectObjectStub::meta() - did not find any meta information, returning NULL", kSource));
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(StubReflectionTest, AnObjectOfThisProcessAnswersDirectly) {
    const PortMeta meta;
    Port parent("parent");
    Port object("object", parent.getClient());
    const TreflectObjectStub &own = *object.getClient()->getStub();
    EXPECT_EQ("/parent/object", own.getAbsName());
    EXPECT_EQ("object", own.getRelName());
    EXPECT_EQ(&parent, own.getParent().getServer());
    EXPECT_EQ(&object, parent.getClient()->getChild("object").getServer());
    EXPECT_EQ(1U, parent.getClient()->getChilds().getLength());
    EXPECT_EQ(&meta, own.meta());
    parent.getClient()->unregisterChild("object");
    EXPECT_EQ(0U, parent.getClient()->getChilds().getLength());
    parent.getClient()->registerChild("again", *object.getClient());
    EXPECT_EQ(&object, parent.getChild("again").getServer());
    EXPECT_TRUE(peer.requests().empty());
}

/** A reference to any object may come from a peer; what is no reflective object answers as one that failed. */
TEST_F(StubReflectionTest, AnObjectOfAnotherKindIsNotTakenForAReflectiveOne) {
    TipprmiObjectSkeleton plain(name("plain"));
    const TipprmiObjectClient client(&plain);
    const TreflectObjectStub &own = *client.getStub_();
    EXPECT_EQ("", own.getAbsName());
    EXPECT_EQ("", own.getRelName());
    EXPECT_EQ(nullptr, own.getParent().getServer());
    EXPECT_EQ(nullptr, own.getChild("x").getServer());
    EXPECT_EQ(0U, own.getChilds().getLength());
    EXPECT_EQ(nullptr, own.meta());
    TreflectObserver observer(name("observer"), nullptr, "observer");
    const PortMeta meta;
    const TreflectMetaOperation operation("go", &meta, 3);
    own.registerChild("x", *observer.getClient());
    own.unregisterChild("x");
    own.registerObserver(0, &operation, &observer);
    own.removeObserver(&operation, &observer);
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(StubReflectionTest, ObserversAreRegisteredAtTheObject) {
    answerNothing();
    const PortMeta meta;
    const TreflectMetaOperation operation("go", &meta, 3);
    TreflectObserver observer(name("observer"), nullptr, "observer");
    stub->registerObserver(1, &operation, &observer);
    TipprmiStream expected(100);
    expected << 0x30U << true << 0U << 1000U << 1U << kClass << 3U << *observer.getClient();
    EXPECT_EQ(Testing::hex(expected), peer.lastRequest());
    stub->removeObserver(nullptr, &observer);
    TipprmiStream removed(100);
    removed << 0x30U << true << 0U << 1001U << *observer.getClient();
    EXPECT_EQ(Testing::hex(removed), peer.lastRequest());

    Port port("port");
    const TreflectObjectStub &own = *port.getClient()->getStub();
    own.registerObserver(0, &operation, &observer);
    EXPECT_TRUE(port.preObserverAvailable(kClass, 3));
    own.removeObserver(nullptr, &observer);
    EXPECT_FALSE(port.preObserverAvailable(kClass, 3));
    EXPECT_EQ(2U, peer.requests().size());
}

TEST_F(StubReflectionTest, AnAnswerWithoutContainerIsReportedWhenObserversAreRegistered) {
    peer.answer([](TipprmiStream &) {});
    const PortMeta meta;
    const TreflectMetaOperation operation("go", &meta, 3);
    TreflectObserver observer(name("observer"), nullptr, "observer");
    stub->registerObserver(1, &operation, &observer);
    EXPECT_EQ(1U, reports(1000));
    EXPECT_EQ(0U, reports(1001));
    stub->removeObserver(&operation, &observer);
    EXPECT_EQ(1U, reports(1000));
    EXPECT_EQ(1U, reports(1001));
}

TEST_F(StubReflectionTest, WithoutOperationOrObserverNothingIsRegistered) {
    const PortMeta meta;
    const TreflectMetaOperation operation("go", &meta, 3);
    const TreflectMetaOperation ofNoClass("go", nullptr, 3);
    TreflectObserver observer(name("observer"), nullptr, "observer");
    stub->registerObserver(0, nullptr, &observer);
    stub->registerObserver(0, &ofNoClass, &observer);
    stub->registerObserver(0, &operation, nullptr);
    EXPECT_EQ(3U,
              log.count(3, "TreflectObjectStub::registerObserver FAILED: oper, oper->meta() or obs is NULL", kSource));
    stub->removeObserver(&operation, nullptr);
    EXPECT_EQ(1U, log.count(3, "TreflectObjectStub::removeObserver FAILED: observer is NULL", kSource));
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(StubReflectionTest, TheExceptionContainerTravels) {
    TipprmiExceptionContainer container;
    container.setExceptionType(5);
    answerNothing();
    stub->setExceptionContainer(container);
    TipprmiStream expected(100);
    expected << 0x30U << true << 0U << 2100U << container;
    EXPECT_EQ(Testing::hex(expected), peer.lastRequest());
    answer(container);
    EXPECT_EQ(5U, stub->getExceptionContainer().getExceptionType());
    EXPECT_EQ(head(2101), peer.lastRequest());
    EXPECT_TRUE(log.with("Unmarshall error").empty());
    peer.answer([](TipprmiStream &) {});
    stub->setExceptionContainer(container);
    EXPECT_EQ(1U, reports(2101)) << "by design, under this code";
    EXPECT_EQ(0U, reports(2100));
    EXPECT_EQ(0U, stub->getExceptionContainer().getExceptionType());
    EXPECT_EQ(2U, reports(2101));
}

TEST_F(StubReflectionTest, AnInvalidStubCallsNobody) {
    TreflectObjectStub *const lost = handler.adoptStub(at(0x31));
    lost->setInvalid();
    EXPECT_EQ("", lost->getAbsName());
    EXPECT_EQ(nullptr, lost->meta());
    EXPECT_EQ(0U, lost->getChilds().getLength());
    lost->setExceptionContainer(TipprmiExceptionContainer());
    const TipprmiExceptionContainer container = lost->getExceptionContainer();
    EXPECT_EQ(1U, container.getExceptionType());
    EXPECT_TRUE(peer.requests().empty());
    handler.releaseStub(lost);
}

/** The response has the broker's container first, and the stub's behind it; who reads takes the first. */
TEST_F(StubReflectionTest, AFailedCallHasTwoContainers) {
    link.setFate([](const Transport::AddressedMessage &) { return Transport::FakeLink::Fate::refuse; });
    TipprmiStream request(100);
    TipprmiStream response(100);
    stub->prepareRequestStream(true, 0, 5, request);
    EXPECT_FALSE(stub->dispatch(true, 0, 5, request, response));
    EXPECT_EQ("00 00 00 01 00 00 00 04 00 00 00 00 00 00 00 01 00 00 00 04 00 00 00 00", Testing::hex(response));
    EXPECT_EQ(1U, log.count(3, "Message forwarding failed", kSource));
    stub->prepareResponseStream(true, response);
    EXPECT_TRUE(response.hasUnmarshallingFailed());
}

/** Found when the call is made, in this process: then the call has no head. */
TEST_F(StubReflectionTest, AStubThatFindsItsObjectHereSendsNoHead) {
    peer.answer([](TipprmiStream &response) { response << 0U; }); // it does not know the name
    TreflectObjectStub *const late =
        handler.adoptStub(TreflectORB::TreflectObjectLocation(0, TreflectOrbId(), nullptr, name("late")));
    EXPECT_FALSE(late->isConnected());
    Port object("late");
    TipprmiStream request(100);
    late->prepareRequestStream(true, kClass, 5, request);
    EXPECT_TRUE(request.empty());
    EXPECT_EQ(&object, late->getServer());
    handler.releaseStub(late);
}

} // namespace
