#include "Chassis.h"
#include "Paths.h"
#include "chassis/Program.h"
#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <gtest/gtest.h>

#include <list>
#include <map>

namespace {

using Testing::runScenario;

constexpr std::uint64_t kLarge = 0xFEDCBA9876543210ULL;

/** Each attribute has another value. */
class FixedPort : public PortSkeleton {
public:
    FixedPort() : PortSkeleton(Paths::id(Paths::port(1, "fixed")), nullptr, "fixed") {}

    std::string name(Raised &) override { return "fixed"; }
    unsigned index(Raised &) override { return 1; }
    std::string macAddress(Raised &) override { return "02:00:00:00:00:01"; }
    unsigned mtu(Raised &) override { return mtuNow; }
    std::string adminState(Raised &) override { return "up"; }
    std::string operState(Raised &) override { return "dormant"; }
    unsigned speed(Raised &) override { return 2; }
    Counter64 rxBytes(Raised &) override { return {kLarge}; }
    Counter64 txBytes(Raised &) override { return {kLarge + 1}; }
    Counter64 rxPackets(Raised &) override { return {kLarge + 2}; }
    Counter64 txPackets(Raised &) override { return {kLarge + 3}; }
    Counter64 rxErrors(Raised &) override { return {kLarge + 4}; }
    Counter64 txErrors(Raised &) override { return {kLarge + 5}; }
    Counter64 rxDrops(Raised &) override { return {kLarge + 6}; }
    Counter64 txDrops(Raised &) override { return {kLarge + 7}; }
    void setMtu(unsigned mtu, Raised &raised) override {
        if (mtu > 1500) {
            raised.raise(PortRefused{22, "too large"});
        } else {
            mtuNow = mtu;
        }
    }
    void setAdminState(bool up, Raised &raised) override { raised.raise(PortRefused{1, up ? "not up" : "not down"}); }
    void counters(PortCounters &counters, Raised &raised) override {
        counters.rxBytes = rxBytes(raised);
        counters.txDrops = txDrops(raised);
    }
    void stateChanged(const std::string &, const std::string &, unsigned, Raised &) override {}

    unsigned mtuNow = 1500;
};

class Recorder : public TreflectObserver {
public:
    explicit Recorder(bool answer = true)
        : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, "recorder"), answer_(answer) {}
    bool detected() override {
        parameters = *getsvalue()->parameters;
        ++count;
        return answer_;
    }

    TipprmiSequence<TipprmiAny> parameters;
    int count = 0;

private:
    const bool answer_;
};

template <class T>
T valueOf(const TreflectObject &object, const std::string &attribute) {
    T value{};
    SCENARIO_CHECK(object.attribute(attribute)->get(value) == 0);
    return value;
}

SCENARIO(portByName) {
    const TreflectHandlerState state(true);
    FixedPort port;
    const TreflectObject object(Paths::id(Paths::port(1, "fixed")));
    SCENARIO_CHECK(object.meta() == PortMeta::instance());
    SCENARIO_CHECK(valueOf<std::string>(object, "name") == "fixed");
    SCENARIO_CHECK(valueOf<unsigned>(object, "index") == 1);
    SCENARIO_CHECK(valueOf<std::string>(object, "macAddress") == "02:00:00:00:00:01");
    SCENARIO_CHECK(valueOf<unsigned>(object, "mtu") == 1500);
    SCENARIO_CHECK(valueOf<std::string>(object, "adminState") == "up");
    SCENARIO_CHECK(valueOf<std::string>(object, "operState") == "dormant");
    SCENARIO_CHECK(valueOf<unsigned>(object, "speed") == 2);
    const char *const counters[] = {"rxBytes",  "txBytes",  "rxPackets", "txPackets",
                                    "rxErrors", "txErrors", "rxDrops",   "txDrops"};
    std::uint64_t expected = kLarge;
    for (const char *name : counters) {
        SCENARIO_CHECK(valueOf<Counter64>(object, name).value == expected++);
    }
}

SCENARIO(portCalls) {
    const TreflectHandlerState state(true);
    FixedPort server;
    const Port port(&server);
    TipprmiExceptionContainer raised;
    PortRefused refused;
    SCENARIO_CHECK(port.name() == "fixed" && port.index() == 1 && port.macAddress() == "02:00:00:00:00:01");
    SCENARIO_CHECK(port.mtu() == 1500 && port.adminState() == "up" && port.operState() == "dormant");
    SCENARIO_CHECK(port.speed() == 2 && port.rxBytes().value == kLarge && port.txBytes().value == kLarge + 1);
    SCENARIO_CHECK(port.rxPackets().value == kLarge + 2 && port.txPackets().value == kLarge + 3);
    SCENARIO_CHECK(port.rxErrors().value == kLarge + 4 && port.txErrors().value == kLarge + 5);
    SCENARIO_CHECK(port.rxDrops().value == kLarge + 6 && port.txDrops().value == kLarge + 7);

    port.setMtu(1400, &raised);
    SCENARIO_CHECK(raised.getExceptionType() == 0 && server.mtuNow == 1400);
    port.setMtu(1600, &raised);
    SCENARIO_CHECK(raised.holds(refused) && refused.code == 22 && refused.reason == "too large");
    port.setAdminState(true, &raised);
    SCENARIO_CHECK(raised.holds(refused) && refused.code == 1 && refused.reason == "not up");
    port.setAdminState(false, &raised);
    SCENARIO_CHECK(raised.holds(refused) && refused.reason == "not down");
    port.setMtu(1300, &raised);
    SCENARIO_CHECK(raised.getExceptionType() == 0);

    PortCounters counters;
    counters.rxErrors.value = 1; // an out parameter begins empty
    port.counters(counters);
    SCENARIO_CHECK(counters.rxBytes.value == kLarge && counters.txDrops.value == kLarge + 7);
    SCENARIO_CHECK(counters.rxErrors.value == 0);

    const Port nobody(Paths::id("/chassis/slot1/nobody"));
    SCENARIO_CHECK(nobody.mtu(&raised) == 0 && !raised.holds(refused));
    SCENARIO_CHECK(raised.getExceptionType() == TipprmiGeneralException::getExceptionClassType());
}

SCENARIO(portObservers) {
    const TreflectHandlerState state(true);
    FixedPort server;
    const Port port(&server);
    Recorder before;
    Recorder after;
    Recorder veto(false);
    PortState told;
    SCENARIO_CHECK(port.operation("stateChanged")->preObserve(&before));
    SCENARIO_CHECK(port.operation("stateChanged")->postObserve(&after));
    port.stateChanged("down", "notpresent", 1234);
    for (Recorder *recorder : {&before, &after}) {
        SCENARIO_CHECK(recorder->count == 1);
        SCENARIO_CHECK(stateFrom(recorder->parameters, told));
        SCENARIO_CHECK(told.adminState == "down" && told.operState == "notpresent" && told.mtu == 1234);
        recorder->parameters.setLength(3);
        SCENARIO_CHECK(!stateFrom(recorder->parameters, told));
    }
    SCENARIO_CHECK(port.operation("counters")->postObserve(&after));
    PortCounters counters;
    port.counters(counters);
    SCENARIO_CHECK(after.count == 2 && after.parameters.getLength() == 2);
    PortCounters seen;
    after.parameters[1].extract(seen);
    SCENARIO_CHECK(seen.rxBytes.value == kLarge && seen.txDrops.value == kLarge + 7);

    SCENARIO_CHECK(port.operation("setMtu")->preObserve(&veto));
    port.setMtu(1000);
    SCENARIO_CHECK(veto.count == 1 && server.mtuNow == 1500);
    unsigned wanted = 0;
    veto.parameters[1].extract(wanted);
    SCENARIO_CHECK(wanted == 1000);
}

class Interface : public testing::Test {
protected:
    void run(const char *scenario) const {
        const Testing::ProcessResult result = runScenario(scenario, unit_.environment(1));
        EXPECT_EQ(0, result.exitStatus) << result.output;
    }

    const Testing::ChassisUnit unit_;
};

TEST_F(Interface, AttributesHaveTheirValuesByName) {
    run("portByName");
}

TEST_F(Interface, OperationsGiveResultsAndExceptions) {
    run("portCalls");
}

TEST_F(Interface, ObserversAreToldTheArguments) {
    run("portObservers");
}

TEST_F(Interface, ClassesAreDescribedCompletely) {
    PortMeta *const port = PortMeta::instance();
    port->completeMetaInformation();
    std::list<TreflectMetaAttribute *> attributes;
    port->attributeList(attributes);
    const std::map<std::string, std::string> expected{
        {"name", "string"},        {"index", "unsigned long"}, {"macAddress", "string"},   {"mtu", "unsigned long"},
        {"adminState", "string"},  {"operState", "string"},    {"speed", "unsigned long"}, {"rxBytes", "Counter64"},
        {"txBytes", "Counter64"},  {"rxPackets", "Counter64"}, {"txPackets", "Counter64"}, {"rxErrors", "Counter64"},
        {"txErrors", "Counter64"}, {"rxDrops", "Counter64"},   {"txDrops", "Counter64"}};
    std::map<std::string, std::string> found;
    for (const TreflectMetaAttribute *attribute : attributes) {
        EXPECT_EQ(nullptr, attribute->metaOperSet()) << attribute->name();
        ASSERT_NE(nullptr, attribute->metaOperGet()) << attribute->name();
        found[attribute->name()] = attribute->metaOperGet()->parameterMap().at("value");
    }
    EXPECT_EQ(expected, found);
    std::list<TreflectMetaOperation *> operations;
    port->operationList(operations);
    EXPECT_EQ(expected.size() + 4, operations.size());
    EXPECT_EQ("boolean", port->metaOperation("setAdminState")->parameterMap().at("up"));

    SlotMeta::instance()->completeMetaInformation();
    EXPECT_EQ(port, SlotMeta::instance()->metaAttribute("ports")->typeMeta());
    ChassisMeta::instance()->completeMetaInformation();
    EXPECT_EQ(SlotMeta::instance(), ChassisMeta::instance()->metaAttribute("slots")->typeMeta());
}

} // namespace
