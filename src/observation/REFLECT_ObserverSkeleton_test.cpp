#include "observation/REFLECT_ObserverSkeleton.h"

#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_Observer.h"
#include "rmi/CallHelper.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Location = TreflectORB::TreflectObjectLocation;
using Parameters = TipprmiSequence<TipprmiAny>;
using Testing::hex;
using Transport::AddressedMessage;

constexpr char kSource[] = "REFLECT_ObserverSkeleton";
constexpr char kHead[] = "00 00 00 00 00 00 00 00";
constexpr unsigned kObserverClass = 0x641E8FCD;
constexpr unsigned kClass = 0x5C;
constexpr unsigned kDouble = 4;
constexpr unsigned kRemote = 0x99; // the number of an observer of the peer
constexpr Transport::TerminationId kPeer(0x0042, 2, 1);

TipprmiOID name(const char *text) {
    return TipprmiOID(text, NamespaceId(1));
}

class Watcher : public TreflectObserver {
public:
    explicit Watcher(const char *text, const TreflectObject *parent = nullptr)
        : TreflectObserver(::name(text), parent, "watcher") {}
    bool detected() override {
        ++times;
        return reaction();
    }
    std::atomic<int> times{0};
    std::function<bool()> reaction = [] { return true; };
};

/** As a generated class has it: an operation that doubles its number. */
class Counted : public TreflectServerObject {
public:
    explicit Counted(const char *text) : TreflectServerObject(::name(text), nullptr, text) {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override { return {}; }
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;
    unsigned twice(unsigned number) {
        ++calls;
        return 2 * number;
    }
    std::atomic<int> calls{0};
};

class DoubleCall : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    DoubleCall(Counted *object, unsigned number) : object_(object), number_(number) {}
    void invoke() const override { result_ = object_->twice(number_); }
    void insertParameters(TipprmiSequence<TipprmiAny> &sequence) const override { append(sequence, number_); }
    void insertResult(TipprmiSequence<TipprmiAny> &sequence) const override {
        append(sequence, result_);
        insertParameters(sequence);
    }
    const char *operationName() const override { return "double"; }
    void marshallIn(TipprmiStream &request) const override { request << number_; }
    void unmarshallOut(TipprmiStream &response) const override { response >> result_; }
    unsigned result() const { return result_; }

private:
    static void append(TipprmiSequence<TipprmiAny> &sequence, unsigned value) {
        TipprmiAny any;
        any.insert(value);
        sequence.push_back(any);
    }
    Counted *const object_;
    const unsigned number_;
    mutable unsigned result_ = 0;
};

bool Counted::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    if (cc != kClass || mc != kDouble) {
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
    unsigned number = 0;
    request >> number;
    if (request.hasUnmarshallingFailed()) {
        return false;
    }
    const DoubleCall call(this, number);
    ClientCallHelper(call, call, call, *getClient()->getStub(), this, cc, mc, transaction);
    prepareResponseStream_(response);
    response << call.result();
    return true;
}

class ObserverSkeletonTest : public Testing::BrokerTest {
protected:
    /** What an object here answers to the peer. */
    std::string ask(unsigned ioid, unsigned cc, unsigned mc, const std::function<void(TipprmiStream &)> &write) {
        TipprmiStream body = peer.call(ioid, true, cc, mc);
        write(body);
        peer.send(body);
        return bodyOf(peer.next());
    }
    static std::string bodyOf(const AddressedMessage &message) {
        const TreflectMessage whole(message);
        return hex(TipprmiStream(whole, false));
    }
    /** A notification with a source, two parameters, and what it is about. */
    static void writeNotification(TipprmiStream &stream, const TipprmiObjectClient &source) {
        stream << source << kClass << kDouble << twoParameters();
    }
    static Parameters twoParameters() {
        Parameters parameters;
        parameters.push_back(TipprmiAny());
        TipprmiAny any;
        any.insert(21U);
        parameters.push_back(any);
        return parameters;
    }
    /** Registers the observer of the peer at an object here. */
    void registerRemote(unsigned ioid, unsigned when) {
        EXPECT_EQ(kHead, ask(ioid, 0, 1000, [&](TipprmiStream &body) {
                      body << when << kClass << kDouble
                           << Location(kRemote, TreflectOrbId(kPeer.value()), nullptr, name(nullptr));
                  }));
    }
    static void writeVerdict(TipprmiStream &response, bool result, bool delivered) {
        response << TipprmiExceptionContainer() << result << delivered;
    }

    Testing::ManualPeer peer{link, orb, kPeer};
    TreflectHandlerState state{true};
    Counted object{"object"};
    Watcher watcher{"watcher"};
    const TreflectObject own{&object};
    const TreflectReleaseHandlerState released; // workers have it
};

// --- an observer here ------------------------------------------------------------------------------------------------

TEST_F(ObserverSkeletonTest, ToldByAPeerKnowsWhatAboutAndAnswers) {
    const unsigned ioid = watcher.getInternalOID();
    for (const bool verdict : {true, false}) {
        watcher.reaction = [&] {
            EXPECT_TRUE(TreflectORB::hasRunPermission());
            EXPECT_EQ(&object, watcher.getSource()->getServer());
            EXPECT_EQ(2U, watcher.getsvalue()->parameters->getLength());
            EXPECT_TRUE(watcher.getsvalue()->detailed);
            return verdict;
        };
        EXPECT_EQ(std::string(kHead) + (verdict ? " 00 00 00 01" : " 00 00 00 00") + " 00 00 00 01",
                  ask(ioid, kObserverClass, 0, [&](TipprmiStream &body) { writeNotification(body, own); }));
    }
    EXPECT_EQ(2, watcher.times);
}

TEST_F(ObserverSkeletonTest, CallsThatAreCutTellNothing) {
    TipprmiStream whole(100);
    {
        TreflectHandlerState held(true);
        writeNotification(whole, own);
    }
    for (int size = 0; size < whole.getDataSize(); ++size) {
        TreflectHandlerState held(true);
        log.clear();
        TipprmiStream request(whole.getDataPtr(), size);
        TipprmiStream response(100);
        EXPECT_TRUE(watcher.dispatch(true, kObserverClass, 0, request, response));
        EXPECT_EQ(std::string(kHead) + " 00 00 00 00 00 00 00 00", hex(response)) << size;
        EXPECT_EQ(1U, log.with("Unmarshall error on cc=0x641E8FCD, mc=0").size()) << size;
    }
    EXPECT_EQ(0, watcher.times);
}

TEST_F(ObserverSkeletonTest, CallsWithMoreParametersThanTheyHoldTellNothing) {
    EXPECT_EQ(std::string(kHead) + " 00 00 00 00 00 00 00 00",
              ask(watcher.getInternalOID(), kObserverClass, 0,
                  [&](TipprmiStream &body) { body << own << kClass << kDouble << 0xFFFFFFFFU; }));
    EXPECT_EQ(0, watcher.times);
}

TEST_F(ObserverSkeletonTest, OtherMethodsAreThoseOfEveryObjectOrUnknown) {
    TreflectHandlerState held(true);
    const auto dispatch = [&](unsigned cc, unsigned mc) {
        TipprmiStream request(100);
        TipprmiStream response(100);
        return watcher.dispatch(true, cc, mc, request, response) ? hex(response) : "refused";
    };
    EXPECT_EQ(std::string(kHead) + " 00 00 00 07 77 61 74 63 68 65 72", dispatch(kObserverClass, 1101));
    EXPECT_EQ(std::string(kHead) + " 00 00 00 01 64 1E 8F CD", dispatch(0, 1108));
    EXPECT_EQ("refused", dispatch(kObserverClass, 5));
    EXPECT_EQ(1U,
              log.count(3, "TreflectObserverSkeleton[oid=watcher]::dispatch(cc=0x641E8FCD, mc=5) - METHOD NOT FOUND",
                        kSource));
    EXPECT_EQ(1U, log.count(3, "Unknown method code 5", "IPPRMI_objectSkeleton"));
    EXPECT_EQ("refused", dispatch(0x2A, 0));
    EXPECT_EQ(1U,
              log.count(3, "TreflectObserverSkeleton[oid=watcher]::dispatch(cc=0x0000002A, mc=0) - METHOD NOT FOUND",
                        kSource));
    EXPECT_EQ(0, watcher.times);
}

/** Its client may have come to share a stub that a peer's reference made. */
TEST_F(ObserverSkeletonTest, DoesNotTellItselfByMessages) {
    TreflectHandlerState held(true);
    watcher.getClient()->getStub()->setServer(nullptr);
    TipprmiStream request(100);
    TipprmiStream response(100);
    writeNotification(request, own);
    EXPECT_TRUE(watcher.dispatch(true, kObserverClass, 0, request, response));
    EXPECT_EQ(1, watcher.times);
    EXPECT_EQ(std::string(kHead) + " 00 00 00 01 00 00 00 01", hex(response));
    EXPECT_TRUE(link.takeIssued().empty());
    watcher.getClient()->getStub()->setServer(&watcher);
}

// --- an observer elsewhere
// --------------------------------------------------------------------------------------------

TEST_F(ObserverSkeletonTest, OfAPeerIsToldByAMessage) {
    registerRemote(object.getInternalOID(), 0);
    bool accepted = true;
    Testing::TestThread caller([&] {
        TreflectHandlerState held(true);
        accepted = object.notifyObservers(0, kClass, kDouble, twoParameters());
    });
    const AddressedMessage message = peer.next();
    TipprmiStream expected(100);
    expected << kRemote << true << kObserverClass << 0U;
    {
        TreflectHandlerState held(true);
        writeNotification(expected, own);
    }
    EXPECT_EQ(hex(expected), bodyOf(message));
    peer.respond(message, [](TipprmiStream &response) { writeVerdict(response, false, true); });
    caller.join();
    EXPECT_FALSE(accepted);
    EXPECT_TRUE(object.preObserverAvailable(kClass, kDouble)) << "who refuses stays";
}

/** A notification that is cut would look as if the peer had no such observer. */
TEST_F(ObserverSkeletonTest, OfAPeerThatThereIsNoMemoryToTellStaysAndForbids) {
    registerRemote(object.getInternalOID(), 0);
    Parameters parameters = twoParameters();
    parameters[0].insert(std::string(300, 'p')); // more than the message has room for at first
    TipprmiStream expected(1000);
    {
        TreflectHandlerState held(true);
        expected << kRemote << true << kObserverClass << 0U << own << kClass << kDouble << parameters;
    }
    ASSERT_NE(nullptr, object.getClient()); // who calls it is there
    unsigned messages = 0;
    bool whole = true;
    link.setFate([&](const AddressedMessage &message) {
        const Testing::WorkingHeap others;
        ++messages;
        whole = whole && bodyOf(message) == hex(expected);
        peer.respond(message, [](TipprmiStream &response) { writeVerdict(response, true, true); });
        return Transport::FakeLink::Fate::lose;
    });
    unsigned failures = 0;
    for (unsigned allowed = 0; allowed < 40; ++allowed) {
        messages = 0;
        bool accepted = false;
        Testing::TestThread([&] { // which has not made any request
            TreflectHandlerState held(true);
            const Testing::FailingHeap heap(allowed);
            accepted = object.notifyObservers(0, kClass, kDouble, parameters);
        });
        ASSERT_EQ(messages == 1, accepted) << allowed;
        ASSERT_TRUE(object.preObserverAvailable(kClass, kDouble)) << allowed;
        failures += messages == 0 ? 1 : 0;
    }
    link.setFate({});
    EXPECT_TRUE(whole);
    EXPECT_LT(1U, failures);
    EXPECT_GT(40U, failures);
    EXPECT_EQ(failures, log.count(3, "no memory to tell an observer", "REFLECT_Observer"));
}

TEST_F(ObserverSkeletonTest, OfAPeerThatWasNotToldIsDropped) {
    const std::function<void(TipprmiStream &)> answers[] = {
        [](TipprmiStream &response) { writeVerdict(response, false, false); },
        [](TipprmiStream &response) { response << TipprmiExceptionContainer() << true; }, // cut
        [](TipprmiStream &response) { response << 1U << std::string(); },                 // a failed call
        [](TipprmiStream &) {},
    };
    for (const auto &answer : answers) {
        registerRemote(object.getInternalOID(), 0);
        registerRemote(object.getInternalOID(), 1);
        bool accepted = false;
        Testing::TestThread caller([&] {
            TreflectHandlerState held(true);
            accepted = object.notifyObservers(1, kClass, kDouble, twoParameters());
        });
        peer.respond(peer.next(), answer);
        caller.join();
        EXPECT_TRUE(accepted);
        EXPECT_FALSE(object.preObserverAvailable(kClass, kDouble));
        EXPECT_FALSE(object.postObserverAvailable(kClass, kDouble));
        TreflectHandlerState held(true);
        EXPECT_TRUE(object.notifyObservers(1, kClass, kDouble, twoParameters()));
        EXPECT_TRUE(link.takeIssued().empty()) << "it is not tried again";
    }
    EXPECT_EQ(3U, log.with("Unmarshall error on cc=0x641E8FCD, mc=0").size());
}

TEST_F(ObserverSkeletonTest, OfAPeerThatIsGoneIsDropped) {
    registerRemote(object.getInternalOID(), 0);
    link.peerVanishes(kPeer);
    EXPECT_TRUE(Testing::eventually([&] {
        TreflectHandlerState held(true);
        EXPECT_TRUE(object.notifyObservers(0, kClass, kDouble, twoParameters()));
        return !object.preObserverAvailable(kClass, kDouble);
    }));
}

/** While its parent in another actor is told of it, an observer can be reached, but is not one yet, or no more. */
TEST_F(ObserverSkeletonTest, ThatIsNotCompleteIsNotTold) {
    Location child(name(nullptr));
    const auto registerChild = [&] {
        EXPECT_EQ(kHead, ask(object.getInternalOID(), 0, 1000,
                             [&](TipprmiStream &body) { body << 0U << kClass << kDouble << child; }));
        EXPECT_TRUE(object.preObserverAvailable(kClass, kDouble));
    };
    const auto call = [&] {
        EXPECT_EQ(std::string(kHead) + " 00 00 00 2A",
                  ask(object.getInternalOID(), kClass, kDouble, [](TipprmiStream &body) { body << 21U; }));
    };
    const auto confirm = [&](const AddressedMessage &message) {
        peer.respond(message, [](TipprmiStream &response) { response << TipprmiExceptionContainer(); });
    };
    std::unique_ptr<Watcher> late;
    {
        Testing::TestThread maker([&] {
            TreflectHandlerState held(true);
            TreflectObject parent;
            TipprmiStream stream(100);
            stream << Location(0x77, TreflectOrbId(kPeer.value()), nullptr, name(nullptr));
            stream >> parent;
            late = std::make_unique<Watcher>("late", &parent);
        });
        const AddressedMessage message = peer.next();
        TipprmiStream arguments(TreflectMessage(message), false);
        unsigned head = 0;
        std::string text;
        arguments >> head >> head >> head >> head >> text >> child;
        EXPECT_EQ("watcher", text);
        registerChild();
        call();
        EXPECT_FALSE(object.preObserverAvailable(kClass, kDouble));
        EXPECT_EQ(
            "00 00 00 01 00 00 00 04 00 00 00 00",
            ask(child.getInternalOID(), kObserverClass, 0, [&](TipprmiStream &body) { writeNotification(body, own); }));
        confirm(message);
    }
    ASSERT_NE(nullptr, late);
    EXPECT_EQ(0, late->times);
    registerChild();
    call();
    EXPECT_EQ(1, late->times);
    EXPECT_TRUE(object.preObserverAvailable(kClass, kDouble));
    {
        Testing::TestThread breaker([&] {
            TreflectHandlerState held(true);
            late.reset();
        });
        const AddressedMessage message = peer.next();
        call();
        EXPECT_FALSE(object.preObserverAvailable(kClass, kDouble));
        confirm(message);
    }
    EXPECT_EQ(3, object.calls);
}

// --- calls that are observed
// ------------------------------------------------------------------------------------------

TEST_F(ObserverSkeletonTest, ForbidsTheCallOfAPeer) {
    {
        TreflectHandlerState held(true);
        object.registerObserver(0, kClass, kDouble, *watcher.getClient());
        object.registerObserver(1, kClass, kDouble, *watcher.getClient());
    }
    const auto call = [&] {
        return ask(object.getInternalOID(), kClass, kDouble, [](TipprmiStream &body) { body << 21U; });
    };
    EXPECT_EQ(std::string(kHead) + " 00 00 00 2A", call());
    EXPECT_EQ(2, watcher.times) << "before and after";
    EXPECT_EQ(1, object.calls);
    watcher.reaction = [] { return false; };
    EXPECT_EQ(std::string(kHead) + " 00 00 00 00", call());
    EXPECT_EQ(3, watcher.times) << "only before";
    EXPECT_EQ(1, object.calls);
}

TEST_F(ObserverSkeletonTest, GetsThePlaceOfTheResultFirstAndThenTheParameters) {
    std::vector<std::string> seen;
    watcher.reaction = [&] {
        const Parameters &parameters = *watcher.getsvalue()->parameters;
        std::string text;
        for (unsigned i = 0; i < parameters.getLength(); ++i) {
            text += "[" + hex(parameters[i]) + "]";
        }
        seen.push_back(text);
        return true;
    };
    {
        TreflectHandlerState held(true);
        object.registerObserver(0, kClass, kDouble, *watcher.getClient());
        object.registerObserver(1, kClass, kDouble, *watcher.getClient());
    }
    EXPECT_EQ(std::string(kHead) + " 00 00 00 2A",
              ask(object.getInternalOID(), kClass, kDouble, [](TipprmiStream &body) { body << 21U; }));
    ASSERT_EQ(2U, seen.size());
    EXPECT_EQ("[][00 00 00 15]", seen[0]);
    EXPECT_EQ("[00 00 00 2A][00 00 00 15]", seen[1]);
}

} // namespace
