#include "Puppets.h"

#include "Commands.h"
#include "Output.h"
#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_Observer.h"
#include "observation/REFLECT_ObserverClient.h"
#include "orb/REFLECT_orb.h"
#include "platform/Lock.h"
#include "rmi/StreamOperators.h"
#include "support/ReflectiveClasses.h"
#include "threads/BrokerLocks.h"

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <typeinfo>
#include <vector>

namespace {

using Locked = OSWrap::Lock<OSWrap::ConditionVar>;

/** Gives the run permission up while it waits, as everything under it must. */
TreflectConditionVar &gate() {
    static auto &instance = *new TreflectConditionVar(false);
    return instance;
}

TipprmiOID oid(const std::string &name) {
    return TipprmiOID(name, NamespaceId(1));
}

class Puppet : public TreflectServerObject {
public:
    Puppet(const TipprmiOID &id, const TreflectObject *parent, const std::string &name)
        : TreflectServerObject(id, parent, name) {}

    unsigned getServerClassId() const override { return classes.empty() ? 0 : classes.front(); }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        for (unsigned code : classes) {
            ids.push_back(code);
        }
        return ids;
    }
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) override {
        ++calls;
        {
            Locked lock(gate());
            if (held_) {
                say("asked %X %u", cc, mc);
            }
            while (held_) {
                gate().wait(OSWrap::TimeSpec::INFINITETIME);
            }
        }
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
    void hold(bool held) {
        Locked lock(gate());
        held_ = held;
        gate().broadcast();
    }

    std::vector<unsigned> classes;
    std::atomic<unsigned> calls{0};

private:
    bool held_ = false; // with the gate's lock
};

std::map<std::string, std::unique_ptr<Puppet>> &puppets() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<Puppet>>; // until the end of the process
    return instance;
}

unsigned hexadecimal(Arguments &arguments) {
    unsigned value = 0;
    arguments >> std::hex >> value >> std::dec;
    return value;
}

std::string hexadecimal(unsigned value) {
    std::ostringstream text;
    text << std::hex << std::uppercase << value;
    return text.str();
}

Puppet &own(Arguments &arguments) {
    return *puppets().at(word(arguments));
}

std::string make(Arguments &arguments, bool named) {
    const std::string name = word(arguments);
    const std::string parent = word(arguments);
    const TreflectObject above = parent.empty() ? TreflectObject() : TreflectObject(oid(parent));
    puppets()[name] = std::make_unique<Puppet>(named ? oid(name) : TipprmiOID(nullptr, NamespaceId(1)),
                                               parent.empty() ? nullptr : &above, name);
    return hexadecimal(puppets()[name]->getInternalOID());
}

std::string onMake(Arguments &arguments) {
    return make(arguments, true);
}

std::string onUnnamed(Arguments &arguments) {
    return make(arguments, false);
}

std::string onDrop(Arguments &arguments) {
    puppets().erase(word(arguments));
    return "dropped";
}

std::string onClasses(Arguments &arguments) {
    Puppet &puppet = own(arguments);
    puppet.classes.clear();
    for (std::string code = word(arguments); !code.empty(); code = word(arguments)) {
        puppet.classes.push_back(static_cast<unsigned>(std::stoul(code, nullptr, 16)));
    }
    return "ok";
}

std::string onHold(Arguments &arguments) {
    own(arguments).hold(true);
    return "ok";
}

std::string onRelease(Arguments &arguments) {
    own(arguments).hold(false);
    return "ok";
}

std::string onRaise(Arguments &arguments) {
    const Puppet &puppet = own(arguments);
    TipprmiExceptionContainer container;
    container.setExceptionType(hexadecimal(arguments));
    puppet.setExceptionContainer(container);
    return "ok";
}

std::string onCalls(Arguments &arguments) {
    return std::to_string(own(arguments).calls);
}

std::string onObserved(Arguments &arguments) {
    const Puppet &puppet = own(arguments);
    const unsigned cc = hexadecimal(arguments);
    const unsigned mc = hexadecimal(arguments);
    return std::string(puppet.preObserverAvailable(cc, mc) ? "1" : "0") +
           (puppet.postObserverAvailable(cc, mc) ? " 1" : " 0");
}

std::string onBegin(Arguments &arguments) {
    own(arguments).sendCreationEvent(nullptr);
    return "ok";
}

std::string onEnd(Arguments &arguments) {
    own(arguments).sendDeletionEvent(nullptr);
    return "ok";
}

std::string onBroker(Arguments &arguments) {
    Puppet &puppet = own(arguments);
    const TreflectObject *const before = puppet.getClient();
    puppet.connect(TreflectORB::getInstance(NamespaceId(hexadecimal(arguments))), oid(puppet.objectName()));
    const auto other = std::make_unique<TreflectObject>(); // lies where a handle was that is gone
    const bool kept = puppet.getClient() == before;
    return (kept ? "kept " : "other ") + hexadecimal(puppet.getClient()->getStub()->orbId().value());
}

/** An object with the rest of its life, and whether its client is of this type and of none that derives from it. */
template <class Client, class Object>
std::string add(Object *object) {
    static auto &kept = *new std::list<std::unique_ptr<Object>>;
    kept.emplace_back(object);
    const Client *const client = object->getClient();
    return typeid(*client) == typeid(Client) ? "1" : "0";
}

std::string onTypes(Arguments &arguments) {
    const TreflectObject above(oid(word(arguments)));
    const TipprmiOID unnamed(nullptr, NamespaceId(1));
    return add<TreflectObject>(new Puppet(unnamed, &above, "puppet")) + " " +
           add<Testing::Equipment>(new Testing::EquipmentImpl("equipment", &above, "equipment")) + " " +
           add<Testing::Port>(new Testing::PortImpl("port", &above, "port")) + " " +
           add<TreflectObserverClient>(new TreflectObserver(unnamed, &above, "observer"));
}

constexpr Command kCommands[] = {
    {"make", &onMake},         {"unnamed", &onUnnamed}, {"drop", &onDrop},   {"classes", &onClasses},
    {"hold", &onHold},         {"release", &onRelease}, {"raise", &onRaise}, {"calls", &onCalls},
    {"observed", &onObserved}, {"begin", &onBegin},     {"end", &onEnd},     {"broker", &onBroker},
    {"types", &onTypes},
};

} // namespace

TipprmiObjectSkeleton *puppetNamed(const std::string &name) {
    const auto found = puppets().find(name);
    return found != puppets().end() ? found->second.get() : nullptr;
}

void onPuppet(Arguments &arguments) {
    runOneOf(kCommands, "puppet", arguments);
}
