/*
 * An actor that uses what port agents publish, one command a line:
 *   chassis                 owns /chassis from now on                   -> "chassis made"
 *   trap                    the same, but it dies when a slot comes to it
 *   slots                   that have come to its chassis               -> "slots 1:PID 2:PID"
 *   watch                   ports that come and go, and their changes   -> "watching"; then "created PATH",
 *                           "deleted PATH", "changed PATH ADMIN OPER MTU" as they come, and "came SLOT" when it has
 *                           subscribed at a broker there
 *   ends                    of a chassis                                -> "watching"; "came SLOT" as for watch
 *   make NAME [ATTRIBUTE gone|death]                                    -> "made"; a ScriptedPort of slot 3
 *   observed NAME           of one that was made: are its changes?      -> "observed 0|1"
 *   forbid PATH             forbids changes of its MTU                  -> "forbidden"
 *   hold PATH               holds the next change of its MTU            -> "ready"; then "held", until "go" -> "gone"
 *   port PATH               -> "port NAME INDEX MAC MTU ADMIN OPER SPEED", each that is empty as "-", and the exception
 *   attribute PATH NAME     by name alone                               -> "attribute VALUE"
 *   counters PATH           -> "counters RXBYTES TXBYTES RXPACKETS TXPACKETS RXERRORS TXERRORS RXDROPS TXDROPS"
 *   mtu PATH N | admin PATH up|down                                     -> "done" and the exception
 *   ports N                 of a slot                                   -> "ports NAME NAME ..."
 *   slot N                  -> "slot NUMBER PID PATH PARENT"
 *   figures                 -> "figures", behind all that was said before
 *   path PATH               what the object says that its path is       -> "path PATH PARENT"
 * An exception is nothing, or " refused CODE REASON", or " unreachable".
 */
#include "Chassis.h"
#include "Paths.h"
#include "ScriptedPort.h"
#include "observation/REFLECT_Observer.h"
#include "observation/REFLECT_OrbObserver.h"
#include "orb/REFLECT_orb.h"
#include "platform/Lock.h"
#include "system/actor/Output.h"
#include "threads/BrokerLocks.h"
#include "threads/HandlerState.h"

#include <csignal>
#include <functional>
#include <map>
#include <sstream>
#include <string>

namespace {

using Arguments = std::istringstream;

std::string word(Arguments &arguments) {
    std::string text;
    arguments >> text;
    return text;
}

Port portAt(Arguments &arguments) {
    return Port(Paths::id(word(arguments)));
}

std::string orDash(const std::string &text) {
    return text.empty() ? "-" : text;
}

std::string pathOf(const TreflectObject &object) {
    const TipprmiOID id = object.getOID();
    return id.getIdString() != nullptr ? id.getIdString() : "-";
}

std::string exception(TipprmiExceptionContainer &raised) {
    PortRefused refused;
    if (raised.holds(refused)) {
        return " refused " + std::to_string(refused.code) + " " + refused.reason;
    }
    return raised.getExceptionType() != 0 ? " unreachable" : "";
}

class ChassisObject : public ChassisSkeleton {
public:
    explicit ChassisObject(bool fatal)
        : ChassisSkeleton(Paths::id(Paths::chassis()), nullptr, "chassis"), fatal_(fatal) {}

    TipprmiSequence<Slot> slots(Raised &) override {
        const TipprmiSequence<TreflectObject> childs = getChilds();
        TipprmiSequence<Slot> slots;
        for (unsigned i = 0; i < childs.getLength(); ++i) {
            slots.push_back(Slot(childs[i]));
        }
        return slots;
    }
    void registerChild(const std::string &name, const TreflectObject &child) override {
        if (fatal_) {
            ::raise(SIGKILL);
        }
        ChassisSkeleton::registerChild(name, child);
    }

private:
    const bool fatal_;
};

/** Does something when it is told. */
class Observer : public TreflectObserver {
public:
    explicit Observer(std::function<bool(Observer &)> reaction)
        : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, "observer"), reaction_(std::move(reaction)) {}
    bool detected() override { return reaction_(*this); }

private:
    const std::function<bool(Observer &)> reaction_;
};

bool changed(Observer &observer) {
    PortState state;
    stateFrom(*observer.getsvalue()->parameters, state);
    say("changed %s %s %s %u", pathOf(*observer.getSource()).c_str(), state.adminState.c_str(), state.operState.c_str(),
        state.mtu);
    return true;
}

/** A port may be told of twice, by the event and as one that was there. */
bool created(Observer &observer, Observer &changes) {
    const TreflectHandlerState state(true);
    const TreflectObject port(*observer.getSource());
    TreflectOperation *const operation = port.operation("stateChanged");
    operation->removeObserver(&changes);
    operation->postObserve(&changes);
    say("created %s", pathOf(port).c_str());
    return true;
}

class Brokers : public TreflectOrbObserverIf {
public:
    void orbAppearance(const Transport::TerminationId &id, const Appear_t &) override { say("came %u", id.slot()); }
};

/** Told before a subscription: those that are there now are asked by it, and others tell that they come when they have
 *  been asked. */
void tellBrokers() {
    static auto *const brokers = new Brokers;
    TreflectORB::getInstance(NamespaceId(1))->registerOrbCreation(brokers, true);
}

void onWatch(Arguments &) {
    // They live as long as the process: it may be told something when it ends.
    static auto *const changes = new Observer(&changed);
    static auto *const creations = new Observer([](Observer &observer) { return created(observer, *changes); });
    static auto *const deletions = new Observer([](Observer &observer) {
        say("deleted %s", pathOf(*observer.getSource()).c_str());
        return true;
    });
    tellBrokers();
    PortMeta::instance()->observeCreations(creations, false); // of what is created while it asks for the existing ones
    PortMeta::instance()->observeCreations(creations, true);
    PortMeta::instance()->observeDeletions(deletions);
    say("watching");
}

void onEnds(Arguments &) {
    static auto *const ends = new Observer([](Observer &) { return true; });
    tellBrokers();
    ChassisMeta::instance()->observeDeletions(ends);
    say("watching");
}

void onForbid(Arguments &arguments) {
    static auto *const observer = new Observer([](Observer &) { return false; });
    const Port port = portAt(arguments);
    port.operation("setMtu")->preObserve(observer);
    say("forbidden");
}

struct Hold {
    TreflectConditionVar changed{false};
    bool held RB_GUARDED_BY(changed) = true;
};

Hold &hold() {
    static auto &instance = *new Hold;
    return instance;
}

bool waitInTheMiddle(Observer &) {
    say("held");
    const OSWrap::Lock<OSWrap::ConditionVar> lock(hold().changed);
    while (hold().held) {
        hold().changed.wait(OSWrap::TimeSpec::INFINITETIME);
    }
    return true;
}

void onHold(Arguments &arguments) {
    static auto *const observer = new Observer(&waitInTheMiddle);
    const Port port = portAt(arguments);
    port.operation("setMtu")->preObserve(observer);
    say("ready");
}

void onGo(Arguments &) {
    const OSWrap::Lock<OSWrap::ConditionVar> lock(hold().changed);
    hold().held = false;
    hold().changed.broadcast();
    say("gone");
}

void makeChassis(bool fatal) {
    static auto *const chassis = new ChassisObject(fatal);
    chassis->sendCreationEvent(ChassisMeta::instance());
    say("chassis made");
}

void onChassis(Arguments &) {
    makeChassis(false);
}

void onTrap(Arguments &) {
    makeChassis(true);
}

std::map<std::string, const ScriptedPort *> &madePorts() {
    static auto &ports = *new std::map<std::string, const ScriptedPort *>;
    return ports;
}

void onObserved(Arguments &arguments) {
    say("observed %d",
        madePorts().at(word(arguments))->postObserverAvailable(Port::CLASS_ID, Port::mcStateChanged) ? 1 : 0);
}

void onMake(Arguments &arguments) {
    const std::string name = word(arguments);
    PortMeta::instance()->completeMetaInformation();
    const TreflectMetaOperation *const get = PortMeta::instance()->metaOperation("get" + word(arguments));
    ScriptedPort::Faulty faulty;
    if (get != nullptr) {
        faulty.mc = static_cast<unsigned>(get->id());
        faulty.fatal = word(arguments) == "death";
    }
    const auto *const port = new ScriptedPort(Paths::port(3, name), name, faulty);
    madePorts()[name] = port;
    port->sendCreationEvent(PortMeta::instance());
    say("made");
}

void onSlots(Arguments &) {
    const TipprmiSequence<Slot> slots = Chassis(Paths::id(Paths::chassis())).slots();
    std::string list;
    for (unsigned i = 0; i < slots.getLength(); ++i) {
        list += " " + std::to_string(slots[i].number()) + ":" + std::to_string(slots[i].pid());
    }
    say("slots%s", list.c_str());
}

void onPort(Arguments &arguments) {
    const Port port = portAt(arguments);
    TipprmiExceptionContainer raised[7];
    const std::string name = port.name(&raised[0]);
    const unsigned index = port.index(&raised[1]);
    const std::string mac = port.macAddress(&raised[2]);
    const unsigned mtu = port.mtu(&raised[3]);
    const std::string admin = port.adminState(&raised[4]);
    const std::string oper = port.operState(&raised[5]);
    const unsigned speed = port.speed(&raised[6]);
    std::string exceptions;
    for (TipprmiExceptionContainer &each : raised) {
        exceptions = exceptions.empty() ? exception(each) : exceptions;
    }
    say("port %s %u %s %u %s %s %u%s", orDash(name).c_str(), index, orDash(mac).c_str(), mtu, orDash(admin).c_str(),
        orDash(oper).c_str(), speed, exceptions.c_str());
}

void onAttribute(Arguments &arguments) {
    const Port port = portAt(arguments);
    const std::string name = word(arguments);
    TreflectAttribute *const attribute = port.attribute(name);
    if (attribute->meta() == nullptr) {
        say("attribute none");
        return;
    }
    const auto &types = attribute->meta()->metaOperGet()->parameterMap();
    const std::string type = types.count("value") != 0 ? types.at("value") : "";
    if (type == "string") {
        std::string value;
        attribute->get(value);
        say("attribute %s", value.c_str());
    } else if (type == "unsigned long") {
        unsigned value = 0;
        attribute->get(value);
        say("attribute %u", value);
    } else {
        Counter64 value;
        attribute->get(value);
        say("attribute %s", std::to_string(value.value).c_str());
    }
}

void onCounters(Arguments &arguments) {
    PortCounters counters;
    TipprmiExceptionContainer raised;
    portAt(arguments).counters(counters, &raised);
    std::string text;
    for (const Counter64 &counter : {counters.rxBytes, counters.txBytes, counters.rxPackets, counters.txPackets,
                                     counters.rxErrors, counters.txErrors, counters.rxDrops, counters.txDrops}) {
        text += " " + std::to_string(counter.value);
    }
    say("counters%s%s", text.c_str(), exception(raised).c_str());
}

void onMtu(Arguments &arguments) {
    const Port port = portAt(arguments);
    TipprmiExceptionContainer raised;
    port.setMtu(static_cast<unsigned>(std::stoul(word(arguments))), &raised);
    say("done%s", exception(raised).c_str());
}

void onAdmin(Arguments &arguments) {
    const Port port = portAt(arguments);
    TipprmiExceptionContainer raised;
    port.setAdminState(word(arguments) == "up", &raised);
    say("done%s", exception(raised).c_str());
}

Slot slotWith(Arguments &arguments) {
    return Slot(Paths::id(Paths::slot(static_cast<unsigned>(std::stoul(word(arguments))))));
}

void onPorts(Arguments &arguments) {
    const TipprmiSequence<Port> ports = slotWith(arguments).ports();
    std::string list;
    for (unsigned i = 0; i < ports.getLength(); ++i) {
        list += " " + ports[i].getRelName();
    }
    say("ports%s", list.c_str());
}

void onSlot(Arguments &arguments) {
    const Slot slot = slotWith(arguments);
    const unsigned number = slot.number();
    const unsigned pid = slot.pid();
    const std::string path = slot.getAbsName();
    say("slot %u %u %s %s", number, pid, path.c_str(), orDash(slot.getParent().getRelName()).c_str());
}

void onPath(Arguments &arguments) {
    const Port port = portAt(arguments);
    const std::string path = port.getAbsName();
    say("path %s %s", path.c_str(), orDash(port.getParent().getRelName()).c_str());
}

void onFigures(Arguments &) {
    say("figures");
}

const std::map<std::string, void (*)(Arguments &)> commands = {
    {"chassis", onChassis}, {"slots", onSlots}, {"watch", onWatch},         {"forbid", onForbid},     {"hold", onHold},
    {"go", onGo},           {"port", onPort},   {"attribute", onAttribute}, {"counters", onCounters}, {"mtu", onMtu},
    {"admin", onAdmin},     {"ports", onPorts}, {"slot", onSlot},           {"figures", onFigures},   {"path", onPath},
    {"ends", onEnds},       {"make", onMake},   {"observed", onObserved},   {"trap", onTrap},
};

} // namespace

int main() {
    if (TreflectORB::getInstance(NamespaceId(1)) == nullptr) {
        say("no broker");
        return 1;
    }
    for (std::string line; nextLine(line);) {
        Arguments arguments(line);
        const auto command = commands.find(word(arguments));
        if (command == commands.end()) {
            say("unknown command: %s", line.c_str());
            continue;
        }
        const TreflectHandlerState state(true);
        command->second(arguments);
    }
    return 0;
}
