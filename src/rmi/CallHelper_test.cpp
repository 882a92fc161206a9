#include "rmi/CallHelper.h"

#include "objects/ObjectHandler.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/FakePeer.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <algorithm>

namespace {

constexpr unsigned kClass = 0x5A3C10F1;
constexpr unsigned kMethod = 7;

class Port : public TreflectServerObject {
public:
    explicit Port(const char *name) : TreflectServerObject(TipprmiOID(name, NamespaceId(1)), nullptr, name) {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override { return TipprmiSequence<unsigned>(); }
};

/** unsigned rate(in unsigned bps, inout string mode). Writes down in which order it was asked for what. */
class Rate : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    void invoke() const override {
        steps += "invoke ";
        result = 2 * bps;
        mode = "done";
    }
    void insertParameters(TipprmiSequence<TipprmiAny> &sequence) const override {
        steps += "parameters ";
        TipprmiAny any;
        any << mode;
        sequence.push_back(any);
    }
    const char *operationName() const override { return "rate"; }
    void evaluateResponse(TipprmiStream &response) const override {
        steps += "evaluate ";
        response >> result;
    }
    void marshallIn(TipprmiStream &request) const override {
        steps += "in ";
        request << bps << mode;
    }
    void unmarshallOut(TipprmiStream &response) const override {
        steps += "out ";
        response >> mode;
    }

    unsigned bps = 5;
    mutable unsigned result = 99;
    mutable std::string mode = "ask";
    mutable std::string steps;
};

class Watcher : public TreflectObserver {
public:
    explicit Watcher(const char *name) : TreflectObserver(TipprmiOID(name, NamespaceId(1)), nullptr, name) {}
    bool detected() override {
        told += getSource()->getRelName() + ":";
        const TipprmiSequence<TipprmiAny> &parameters = *getsvalue()->parameters;
        for (unsigned i = 0; i < parameters.getLength(); ++i) {
            TipprmiAny any = parameters[i];
            std::string text;
            if (!any.empty()) {
                any >> text;
            }
            told += "[" + text + "]";
        }
        told += " ";
        return verdict;
    }
    std::string told;
    bool verdict = true;
};

class CallHelperTest : public Testing::BrokerTest {
protected:
    TreflectObjectStub &stubOf(const TipprmiObjectClient &client) { return *client.getStub_(); }
    TipprmiObjectClient remote(unsigned number = 0x30) {
        TipprmiStream reference(100);
        reference << TreflectORB::TreflectObjectLocation(number, orb.convertId(peer.id()), nullptr,
                                                         TipprmiOID(nullptr, NamespaceId(1)));
        TipprmiObjectClient client;
        reference >> client;
        return client;
    }

    TreflectHandlerState state{true};
    Testing::FakePeer peer{link};
    Rate hook;
};

TEST_F(CallHelperTest, ARemoteCallMarshallsSendsAndReadsInOrder) {
    const TipprmiObjectClient client = remote();
    peer.answer([](TipprmiStream &response) { response << TipprmiExceptionContainer() << 77U << std::string("fast"); });
    ClientCallHelper(hook, hook, hook, stubOf(client), nullptr, kClass, kMethod, true);
    EXPECT_EQ("00 00 00 30 00 00 00 01 5A 3C 10 F1 00 00 00 07 00 00 00 05 00 00 00 03 61 73 6B", peer.lastRequest());
    EXPECT_EQ("in evaluate out ", hook.steps);
    EXPECT_EQ(77U, hook.result);
    EXPECT_EQ("fast", hook.mode);
    EXPECT_TRUE(log.with("Unmarshall error").empty());
}

TEST_F(CallHelperTest, AFailedCallReadsAsZerosAndIsReportedOnce) {
    const TipprmiObjectClient client = remote();
    peer.answer([](TipprmiStream &response) {
        TipprmiExceptionContainer failed;
        failed.setExceptionType(1);
        response << failed << 77U << std::string("fast");
    });
    ClientCallHelper(hook, hook, hook, stubOf(client), nullptr, kClass, kMethod, true);
    EXPECT_EQ(0U, hook.result);
    EXPECT_EQ("", hook.mode);
    EXPECT_EQ(1U, log.count(4, "Unmarshall error on cc=0x5A3C10F1, mc=7", "CallHelper"));
}

TEST_F(CallHelperTest, AUserExceptionDoesNotStopTheReader) {
    const TipprmiObjectClient client = remote();
    peer.answer([](TipprmiStream &response) {
        TipprmiExceptionContainer busy;
        busy.setExceptionType(0x2B5C0D11);
        response << busy << 1U << std::string("later");
    });
    ClientCallHelper(hook, hook, hook, stubOf(client), nullptr, kClass, kMethod, true);
    EXPECT_EQ("later", hook.mode);
}

TEST_F(CallHelperTest, AOneWayCallDoesNotWait) {
    class Blink : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
    public:
        void invoke() const override {}
        void insertParameters(TipprmiSequence<TipprmiAny> &) const override {}
        const char *operationName() const override { return "blink"; }
        void marshallIn(TipprmiStream &) const override { steps += "in "; }
        void evaluateResponse(TipprmiStream &response) const override {
            steps += response.empty() ? "evaluate " : "response? ";
        }
        void unmarshallOut(TipprmiStream &) const override { steps += "out "; }
        mutable std::string steps;
    } blink;
    const TipprmiObjectClient client = remote(); // which never answers
    ClientCallHelper(blink, blink, blink, stubOf(client), nullptr, kClass, kMethod, false);
    EXPECT_EQ("00 00 00 30 00 00 00 00 5A 3C 10 F1 00 00 00 07", peer.lastRequest());
    EXPECT_EQ("in evaluate out ", blink.steps);
    EXPECT_TRUE(log.with("Unmarshall error").empty());
}

TEST_F(CallHelperTest, AnObjectOfThisProcessIsCalledDirectly) {
    Port port("port");
    ClientCallHelper(hook, hook, hook, stubOf(*port.getClient()), &port, kClass, kMethod, true);
    EXPECT_EQ("invoke ", hook.steps);
    EXPECT_EQ(10U, hook.result);
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(CallHelperTest, ObserversAreToldBeforeAndAfter) {
    Port port("port");
    Watcher before("before");
    Watcher after("after");
    Watcher other("other");
    port.registerObserver(0, kClass, kMethod, *before.getClient());
    port.registerObserver(1, kClass, kMethod, *after.getClient());
    port.registerObserver(0, kClass, kMethod + 1, *other.getClient());
    ClientCallHelper(hook, hook, hook, stubOf(*port.getClient()), &port, kClass, kMethod, true);
    EXPECT_EQ("parameters invoke parameters ", hook.steps);
    EXPECT_EQ("port:[][ask] ", before.told);
    EXPECT_EQ("port:[][done] ", after.told) << "the place of the result, then the parameters after the call";
    EXPECT_EQ("", other.told);
}

TEST_F(CallHelperTest, APostObserverAloneIsEnoughForTheWholeWay) {
    Port port("port");
    Watcher after("after");
    port.registerObserver(7, kClass, kMethod, *after.getClient());
    ClientCallHelper(hook, hook, hook, stubOf(*port.getClient()), &port, kClass, kMethod, true);
    EXPECT_EQ("port:[][done] ", after.told);
    EXPECT_EQ(10U, hook.result);
}

TEST_F(CallHelperTest, AnObserverMayForbidTheCall) {
    Port port("port");
    Watcher before("before");
    Watcher after("after");
    before.verdict = false;
    port.registerObserver(0, kClass, kMethod, *before.getClient());
    port.registerObserver(1, kClass, kMethod, *after.getClient());
    ClientCallHelper(hook, hook, hook, stubOf(*port.getClient()), &port, kClass, kMethod, true);
    EXPECT_EQ("parameters ", hook.steps);
    EXPECT_EQ("port:[][ask] ", before.told);
    EXPECT_EQ("", after.told);
    EXPECT_EQ(99U, hook.result);
}

// A call without the run permission is reported, and made all the same where that does not end the actor.
SCENARIO(callWithoutPermission) {
    Transport::FakeLink::install();
    Testing::LogCapture log;
    TreflectORB::getInstance(1);
    Port *port = nullptr;
    {
        const TreflectHandlerState state(true);
        port = new Port("port");
        port->getClient();
    }
    const Rate hook;
    ClientCallHelper(hook, hook, hook, *port->getClient()->getStub_(), port, kClass, kMethod, true);
    const std::size_t reports = log.with("doing RMI, but has no RunPermission").size();
    delete port;
    std::exit(hook.result == 10 && reports == 1 ? 3 : 1);
}

TEST(CallHelperWithoutPermission, IsReportedAndMade) {
    const Testing::OverrideRoot root;
    EXPECT_EQ(3, Testing::runScenario("callWithoutPermission", root.environment()).exitStatus);
}

} // namespace
