#include "rmi/Method.h"

#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_Observer.h"
#include "support/BrokerTest.h"
#include "support/FakePeer.h"
#include "support/HeapProbe.h"
#include "support/ReflectiveClasses.h"
#include "support/ScriptedObject.h"

#include <memory>

namespace {

using Testing::Busy;
using Testing::Equipment;
using Testing::hex;
using Testing::Port;
using Testing::PortImpl;
using Location = TreflectORB::TreflectObjectLocation;

constexpr char kNoException[] = "00 00 00 00 00 00 00 00";

/** Writes down what it is shown, as hexadecimal values in brackets. */
class Watcher : public TreflectObserver {
public:
    explicit Watcher(const char *name) : TreflectObserver(TipprmiOID(name, NamespaceId(1)), nullptr, name) {}
    bool detected() override {
        const TipprmiSequence<TipprmiAny> &parameters = *getsvalue()->parameters;
        for (unsigned i = 0; i < parameters.getLength(); ++i) {
            shown += "[" + hex(parameters[i]) + "]";
        }
        return verdict;
    }
    std::string shown;
    bool verdict = true;
};

struct Full {
    static constexpr unsigned getExceptionClassType() noexcept { return 0x88; }
};
TipprmiStream &operator<<(TipprmiStream &stream, const Full &) {
    return stream;
}
TipprmiStream &operator>>(TipprmiStream &stream, Full &) {
    return stream;
}

class MethodTest : public Testing::BrokerTest {
protected:
    MethodTest() {
        port.text = "up";
        port.ownSpeed = 9600;
        port.faultCount = 3;
        port.serialNumber = "S1";
    }
    /** Of an object in another actor, where the test answers. */
    Port remote() {
        TipprmiStream reference(100);
        reference << Location(0x30, orb.convertId(peer.id()), nullptr, TipprmiOID(nullptr, NamespaceId(1)));
        Port handle;
        reference >> handle;
        return handle;
    }
    /** An answer with this exception, followed by a result that must not be read when the exception is not whole. */
    void raise(unsigned type, const std::function<void(TipprmiStream &)> &write) {
        peer.answer([type, write](TipprmiStream &response) {
            TipprmiStream data(100);
            write(data);
            response << type << data << 7U << std::string("mode") << 8U;
        });
    }
    /** What setRate of the remote object gives: "RESULT MODE EFFECTIVE TYPE". */
    std::string setRate(const Port &object) {
        std::string mode = "fast";
        unsigned effective = 99;
        const unsigned result = object.setRate(5, mode, effective, &raised);
        return std::to_string(result) + " " + mode + " " + std::to_string(effective) + " " +
               LogMakeString("%X", raised.getExceptionType());
    }
    /** What the port answers to a request; "refused" if it does not handle it. */
    std::string answer(unsigned cc, unsigned mc, const std::function<void(TipprmiStream &)> &write) {
        TipprmiStream request(100);
        TipprmiStream response(100);
        write(request);
        return port.dispatch(true, cc, mc, request, response) ? hex(response) : "refused";
    }

    TreflectHandlerState state{true};
    Testing::FakePeer peer{link};
    PortImpl port{"port"};
    const Port local{&port};
    TipprmiExceptionContainer raised;
};

TEST_F(MethodTest, CallsAnObjectOfThisProcessWithAllKindsOfParameters) {
    EXPECT_EQ("5000 fast? 1000 0", [&] {
        std::string mode = "fast";
        unsigned effective = 99;
        const unsigned result = local.setRate(500, mode, effective, &raised);
        return std::to_string(result) + " " + mode + " " + std::to_string(effective) + " " +
               std::to_string(raised.getExceptionType());
    }());
    local.speed(115200);
    EXPECT_EQ(115200U, port.ownSpeed);
    EXPECT_EQ(115200U, local.speed());
    EXPECT_EQ(3U, local.faults());
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(MethodTest, SendsInAndInoutAndReadsResultInoutAndOut) {
    peer.answer(
        [](TipprmiStream &response) { response << TipprmiExceptionContainer() << 7U << std::string("slow") << 8U; });
    EXPECT_EQ("7 slow 8 0", setRate(remote()));
    EXPECT_EQ("00 00 00 30 00 00 00 01 5A 3C 10 F1 " + LogMakeString("00 00 00 %02X", unsigned{Port::mcSetRate}) +
                  " 00 00 00 05 00 00 00 04 66 61 73 74",
              peer.lastRequest());
    EXPECT_TRUE(log.with("Unmarshall error").empty());
}

TEST_F(MethodTest, AnswersInTheOrderThatClientsReadIn) {
    const auto arguments = [](TipprmiStream &request) { request << 5U << std::string("x"); };
    EXPECT_EQ(std::string(kNoException) + " 00 00 00 32 00 00 00 02 78 3F 00 00 00 32",
              answer(Port::CLASS_ID, Port::mcSetRate, arguments));
    const auto nothing = [](TipprmiStream &) {};
    EXPECT_EQ(std::string(kNoException) + " 00 00 25 80", answer(Port::CLASS_ID, Port::mcGetspeed, nothing));
    EXPECT_EQ(kNoException, answer(Port::CLASS_ID, Port::mcSetspeed, [](TipprmiStream &request) { request << 1U; }));
    EXPECT_EQ(1U, port.ownSpeed);
    EXPECT_EQ(std::string(kNoException) + " 00 00 00 02 53 31",
              answer(Equipment::CLASS_ID, Equipment::mcGetserial, nothing));
}

TEST_F(MethodTest, DoesNotRunWithoutAllItsArguments) {
    EXPECT_EQ("refused", answer(Port::CLASS_ID, Port::mcSetRate, [](TipprmiStream &request) { request << 5U; }));
    EXPECT_EQ(0, port.rateCalls);
    EXPECT_EQ("refused", answer(Port::CLASS_ID, Port::mcSetspeed, [](TipprmiStream &) {}));
    EXPECT_EQ(9600U, port.ownSpeed);
    EXPECT_EQ(1U, log.count(4, LogMakeString("Unmarshall error on cc=0x5A3C10F1, mc=%u", unsigned{Port::mcSetspeed}),
                            "CallHelper"));
}

TEST_F(MethodTest, OfAnotherClassIsRefused) {
    EXPECT_EQ("refused", answer(Equipment::CLASS_ID, Port::mcGetspeed, [](TipprmiStream &) {}));
    Testing::EquipmentImpl equipment("equipment");
    EXPECT_EQ("0  0 1", setRate(Port(&equipment))) << "a handle may say what it likes";
}

TEST_F(MethodTest, ReadOnlyAttributesCannotBeSet) {
    TreflectOperation &set = *local.attribute("faults")->operSet();
    EXPECT_EQ(TreflectOperation::error, set.call());
    EXPECT_EQ(3U, port.faultCount);
    EXPECT_EQ(&TreflectObject::errorOperation, local.operation("setfaults"));
    EXPECT_EQ(0, local.attribute("speed")->operSet()->call()) << "without a value";
    EXPECT_EQ(9600U, port.ownSpeed);
}

// --- exceptions -----------------------------------------------------------------------------------------------------

TEST_F(MethodTest, AnExceptionReachesACallerOfThisProcess) {
    port.busy = Busy{"in use", 60};
    EXPECT_EQ("0 fast 0 2B5C0D11", setRate(local));
    Busy busy;
    ASSERT_TRUE(raised.holds(busy));
    EXPECT_EQ("in use", busy.reason);
    EXPECT_EQ(60U, busy.retryAfter);
    port.busy = Busy{};
    EXPECT_EQ("50 fast? 50 0", setRate(local)) << "it does not stick";
    EXPECT_FALSE(raised.holds(busy));
}

TEST_F(MethodTest, AnExceptionHeadsTheAnswerOfThatCallOnly) {
    const auto arguments = [](TipprmiStream &request) { request << 5U << std::string("x"); };
    port.busy = Busy{"no", 60};
    EXPECT_EQ("2B 5C 0D 11 00 00 00 0A 00 00 00 02 6E 6F 00 00 00 3C 00 00 00 00 00 00 00 01 78 00 00 00 00",
              answer(Port::CLASS_ID, Port::mcSetRate, arguments));
    EXPECT_EQ(std::string(kNoException) + " 00 00 00 03", answer(Port::CLASS_ID, Port::mcGetfaults, [](auto &) {}));
    EXPECT_EQ(0U, port.getExceptionContainer().getExceptionType());
}

TEST_F(MethodTest, AnExceptionReachesARemoteCaller) {
    raise(Busy::getExceptionClassType(), [](TipprmiStream &data) { data << Busy{"in use", 60}; });
    EXPECT_EQ("7 mode 8 2B5C0D11", setRate(remote()));
    Busy busy;
    ASSERT_TRUE(raised.holds(busy));
    EXPECT_EQ("in use", busy.reason);
    EXPECT_EQ(60U, busy.retryAfter);
    EXPECT_TRUE(log.with("Unmarshall error").empty());
}

/** Its members are missing, in part, or make no sense: nobody can tell what happened. */
TEST_F(MethodTest, AnExceptionThatIsNotWholeIsAFailedCall) {
    const std::function<void(TipprmiStream &)> bodies[] = {
        [](TipprmiStream &) {},
        [](TipprmiStream &data) { data << std::string("in use"); },
        [](TipprmiStream &data) { data << 0x7FFFFFFFU << 60U; },
    };
    for (const auto &body : bodies) {
        raise(Busy::getExceptionClassType(), body);
        EXPECT_EQ("0  0 1", setRate(remote()));
        Busy busy;
        EXPECT_FALSE(raised.holds(busy));
    }
    EXPECT_EQ(3U, log.with("Unmarshall error").size());
    peer.answer([](TipprmiStream &response) { response << Busy::getExceptionClassType() << 50U << 1U; });
    EXPECT_EQ("0  0 1", setRate(remote())) << "larger than the message";
    peer.answer([](TipprmiStream &) {});
    EXPECT_EQ("0  0 1", setRate(remote()));
}

TEST_F(MethodTest, AFailedCallRaisesTheGeneralException) {
    raise(1, [](TipprmiStream &data) { data << 4U; });
    EXPECT_EQ("0  0 1", setRate(remote()));
    const Port nobody;
    EXPECT_EQ("0  0 1", setRate(nobody));
}

TEST_F(MethodTest, ACallByAHandleThatThereWasNoMemoryForHasFailed) {
    const Testing::EquipmentImpl fresh("fresh");
    const Port handle = [&fresh] {
        const Testing::FailingHeap heap;
        return Port(&fresh);
    }();
    ASSERT_EQ(nullptr, handle.getStub());
    log.clear();
    EXPECT_EQ("0  0 1", setRate(handle));
    handle.blink();
    EXPECT_EQ("", handle.serial());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MethodTest, AnExceptionOfAnotherClassIsLeftToTheCaller) {
    raise(0x77, [](TipprmiStream &data) { data << 4U; });
    EXPECT_EQ("7 mode 8 77", setRate(remote()));
    Busy busy;
    EXPECT_FALSE(raised.holds(busy));
}

TEST_F(MethodTest, ExceptionsMayHaveNoMembers) {
    TipprmiExceptionContainer container;
    container.raise(Full{});
    TipprmiStream wire(1);
    wire << container;
    TipprmiExceptionContainer arrived;
    wire >> arrived;
    Full full;
    EXPECT_TRUE(arrived.holds(full));
    EXPECT_FALSE(wire.hasUnmarshallingFailed());
    TipprmiExceptionContainer none;
    EXPECT_FALSE(none.holds(full));
}

// --- one-way, arrays and observers ----------------------------------------------------------------------------------

TEST_F(MethodTest, OneWayCallsReadNoAnswer) {
    remote().blink();
    EXPECT_EQ("00 00 00 30 00 00 00 00 5A 3C 10 F1 " + LogMakeString("00 00 00 %02X", unsigned{Port::mcBlink}),
              peer.lastRequest());
    local.blink();
    EXPECT_EQ(1, port.blinks);
    EXPECT_TRUE(log.with("nmarshall").empty());
}

TEST_F(MethodTest, ArraysHaveNoCountAndSequencesHave) {
    const Testing::EquipmentImpl one("one");
    port.laneList[1] = TreflectObject(&one);
    port.memberList.push_back(TreflectObject(&one));
    TipprmiStream expected(200);
    expected << TipprmiExceptionContainer() << TreflectObject() << TreflectObject(&one) << TreflectObject()
             << TreflectObject();
    EXPECT_EQ(hex(expected), answer(Port::CLASS_ID, Port::mcGetlanes, [](TipprmiStream &) {}));
    expected.clear();
    expected << TipprmiExceptionContainer() << 1U << TreflectObject(&one);
    EXPECT_EQ(hex(expected), answer(Port::CLASS_ID, Port::mcGetmembers, [](TipprmiStream &) {}));
    peer.answer([&one](TipprmiStream &response) {
        response << TipprmiExceptionContainer() << TreflectObject() << TreflectObject(&one) << TreflectObject()
                 << TreflectObject();
    });
    EXPECT_EQ(port.laneList, remote().lanes());
}

TEST_F(MethodTest, ObserversSeeParametersAndResults) {
    Watcher before("before");
    Watcher after("after");
    ASSERT_TRUE(local.operation("setRate")->preObserve(&before));
    ASSERT_TRUE(local.operation("setRate")->postObserve(&after));
    const std::string shownBefore = "[][00 00 00 05][00 00 00 01 78][00 00 00 00]";
    const std::string shownAfter = "[00 00 00 32][00 00 00 05][00 00 00 02 78 3F][00 00 00 32]";
    answer(Port::CLASS_ID, Port::mcSetRate, [](TipprmiStream &request) { request << 5U << std::string("x"); });
    EXPECT_EQ(shownBefore, before.shown);
    EXPECT_EQ(shownAfter, after.shown);
    std::string mode = "x";
    unsigned effective = 99;
    local.setRate(5, mode, effective);
    EXPECT_EQ(shownBefore + shownBefore, before.shown) << "an out parameter has no value yet";
    EXPECT_EQ(shownAfter + shownAfter, after.shown);
}

TEST_F(MethodTest, AForbiddenCallKeepsWhatItWasGivenAndHasNoResults) {
    Watcher veto("veto");
    veto.verdict = false;
    ASSERT_TRUE(local.operation("setRate")->preObserve(&veto));
    EXPECT_EQ("0 fast 0 0", setRate(local));
    EXPECT_EQ(
        std::string(kNoException) + " 00 00 00 00 00 00 00 01 78 00 00 00 00",
        answer(Port::CLASS_ID, Port::mcSetRate, [](TipprmiStream &request) { request << 5U << std::string("x"); }));
    EXPECT_EQ(0, port.rateCalls);
}

} // namespace
