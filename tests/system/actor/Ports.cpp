#include "Ports.h"

#include "Output.h"
#include "support/ReflectiveClasses.h"
#include "threads/HandlerState.h"

#include <map>
#include <memory>
#include <string>

namespace {

using Arguments = std::istringstream;
using Testing::Busy;
using Testing::Port;

class ActorPort : public Testing::PortImpl {
public:
    using PortImpl::PortImpl;

    unsigned setRate(unsigned bps, std::string &mode, unsigned &effective, TipprmiExceptionContainer &raised) override {
        if (broken.empty() || broken == "none") {
            return PortImpl::setRate(bps, mode, effective, raised);
        }
        raised.setExceptionType(Busy::getExceptionClassType());
        if (broken == "short") {
            raised.setExceptionData(std::string("half"));
        } else if (broken == "wild") {
            raised.setExceptionData(0x7FFFFFFFU);
        }
        return 7;
    }

    std::string broken;
};

std::map<std::string, std::unique_ptr<ActorPort>> &ports() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<ActorPort>>; // until the end of the process
    return instance;
}

std::string word(Arguments &arguments) {
    std::string text;
    arguments >> text;
    return text;
}

unsigned number(Arguments &arguments) {
    unsigned value = 0;
    arguments >> value;
    return value;
}

Port named(Arguments &arguments) {
    return Port(TipprmiOID(word(arguments), NamespaceId(1)));
}

ActorPort &own(Arguments &arguments) {
    return *ports().at(word(arguments));
}

std::string nameOf(const TreflectObject &object) {
    return object.isConnected() ? object.getOID().getIdString() : "-";
}

std::string onMake(Arguments &arguments) {
    const std::string name = word(arguments);
    ports()[name] = std::make_unique<ActorPort>(name.c_str(), nullptr, name);
    ports()[name]->serialNumber = "S-" + name;
    return "made";
}

std::string onBusy(Arguments &arguments) {
    ActorPort &port = own(arguments);
    port.busy.retryAfter = number(arguments);
    port.busy.reason = word(arguments);
    return "ok";
}

std::string onBroken(Arguments &arguments) {
    ActorPort &port = own(arguments);
    port.broken = word(arguments);
    return "ok";
}

std::string onJoin(Arguments &arguments) {
    ActorPort &port = own(arguments);
    port.memberList.setLength(0);
    for (std::string name = word(arguments); !name.empty(); name = word(arguments)) {
        const TreflectObject member(TipprmiOID(name, NamespaceId(1)));
        port.laneList[port.memberList.getLength() % port.laneList.size()] = member;
        port.memberList.push_back(member);
    }
    return "ok";
}

std::string onRate(Arguments &arguments) {
    const Port port = named(arguments);
    const unsigned bps = number(arguments);
    std::string mode = word(arguments);
    unsigned effective = 99;
    TipprmiExceptionContainer raised;
    const unsigned result = port.setRate(bps, mode, effective, &raised);
    std::string text = std::to_string(result) + " " + mode + " " + std::to_string(effective);
    Busy busy;
    if (raised.holds(busy)) {
        text += " busy " + busy.reason + " " + std::to_string(busy.retryAfter);
    } else if (raised.getExceptionType() != 0) {
        text += " failed";
    }
    return text;
}

std::string onLabel(Arguments &arguments) {
    const Port port = named(arguments);
    const std::string value = word(arguments);
    if (!value.empty()) {
        port.label(value);
    }
    return port.label();
}

std::string onSpeed(Arguments &arguments) {
    const Port port = named(arguments);
    unsigned value = 0;
    if (arguments >> value) {
        port.speed(value);
    }
    return std::to_string(port.speed());
}

std::string onMembers(Arguments &arguments) {
    const TipprmiSequence<TreflectObject> members = named(arguments).members();
    std::string names;
    for (unsigned i = 0; i < members.getLength(); ++i) {
        names += (i == 0 ? "" : " ") + nameOf(members[i]);
    }
    return names;
}

std::string onLanes(Arguments &arguments) {
    std::string names;
    for (const TreflectObject &lane : named(arguments).lanes()) {
        names += (names.empty() ? "" : " ") + nameOf(lane);
    }
    return names;
}

template <class T>
std::string readByName(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    T value{};
    const int code = object.attribute(word(arguments))->get(value);
    std::ostringstream text;
    text << code << ' ' << value;
    return text.str();
}

std::string onElement(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    const TreflectMetaAttribute *const described = object.meta()->metaAttribute(word(arguments));
    const auto *const array = dynamic_cast<const TreflectArrayMetaAttribute *>(described);
    const auto *const sequence = dynamic_cast<const TreflectSequenceMetaAttribute *>(described);
    TreflectAttribute &attribute = *(array != nullptr ? array->getTied(&object) : sequence->getTied(&object));
    TreflectObject element;
    const int code = attribute[static_cast<int>(number(arguments))].get(element);
    return std::to_string(code) + " " + nameOf(element);
}

std::string onSet(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    return std::to_string(object.attribute(word(arguments))->operSet()->call());
}

std::string onBlink(Arguments &arguments) {
    named(arguments).blink();
    return "ok";
}

struct Command {
    const char *name;
    std::string (*run)(Arguments &);
};

constexpr Command kCommands[] = {
    {"make", &onMake},
    {"busy", &onBusy},
    {"broken", &onBroken},
    {"join", &onJoin},
    {"rate", &onRate},
    {"label", &onLabel},
    {"speed", &onSpeed},
    {"faults", [](Arguments &arguments) { return std::to_string(named(arguments).faults()); }},
    {"serial", [](Arguments &arguments) { return named(arguments).serial(); }},
    {"members", &onMembers},
    {"lanes", &onLanes},
    {"blink", &onBlink},
    {"blinks", [](Arguments &arguments) { return std::to_string(own(arguments).blinks); }},
    {"number", &readByName<unsigned>},
    {"text", &readByName<std::string>},
    {"element", &onElement},
    {"set", &onSet},
};

} // namespace

void onPort(Arguments &arguments) {
    const std::string name = word(arguments);
    for (const Command &command : kCommands) {
        if (name == command.name) {
            const TreflectHandlerState state(true);
            say("port %s", command.run(arguments).c_str());
            return;
        }
    }
    say("unknown command 'port %s'", name.c_str());
}
