#include "Ports.h"

#include "Commands.h"
#include "platform/Thread.h"
#include "support/ReflectiveClasses.h"
#include "threads/HandlerState.h"

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

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
    ports()[name]->faultCount = 3;
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
    TreflectObject element(object);
    const int code = attribute[static_cast<int>(number(arguments))].get(element);
    return std::to_string(code) + " " + nameOf(element);
}

std::string onPlain(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    TreflectAttribute &attribute = *object.attribute(word(arguments));
    TreflectObject element;
    const int code = attribute[static_cast<int>(number(arguments))].get(element);
    return std::to_string(code) + " " + nameOf(element);
}

std::string onSet(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    return std::to_string(object.attribute(word(arguments))->operSet()->call());
}

std::string onCarry(Arguments &arguments) {
    ActorPort &port = own(arguments);
    port.carriedBy = TreflectObject(TipprmiOID(word(arguments), NamespaceId(1)));
    return "ok";
}

/** All words but the last are attributes on the way, whose objects have the next. */
std::vector<std::string> words(Arguments &arguments) {
    std::vector<std::string> all;
    for (std::string text = word(arguments); !text.empty(); text = word(arguments)) {
        all.push_back(text);
    }
    return all;
}

std::string onVia(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    TreflectAttribute *attribute = nullptr;
    for (const std::string &name : words(arguments)) {
        attribute = attribute == nullptr ? object.attribute(name) : attribute->attribute(name);
    }
    std::string text;
    const int code = attribute->get(text);
    return std::to_string(code) + " " + text;
}

std::string onDo(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    std::vector<std::string> way = words(arguments);
    const std::string operation = way.back();
    way.pop_back();
    TreflectAttribute *attribute = nullptr;
    for (const std::string &name : way) {
        attribute = attribute == nullptr ? object.attribute(name) : attribute->attribute(name);
    }
    return std::to_string(
        (attribute == nullptr ? object.operation(operation) : attribute->operation(operation))->call());
}

std::string onClass(Arguments &arguments) {
    const TreflectMetaObject *const meta = named(arguments).meta();
    return meta != nullptr ? meta->name() : "-";
}

/** With handles of its own; true if all answers are those of a port that others use in the same way. */
bool useOnce(const std::string &name) {
    const Port port(TipprmiOID(name, NamespaceId(1)));
    std::string mode = "m";
    unsigned effective = 0;
    unsigned speed = 0;
    std::string serial;
    TreflectObject member;
    TreflectAttribute &carrier = *port.attribute("carrier");
    const auto *const members =
        dynamic_cast<const TreflectSequenceMetaAttribute *>(port.meta()->metaAttribute("members"));
    port.speed(115200);
    return port.setRate(5, mode, effective) == 50 && mode == "m?" && effective == 50 &&
           port.attribute("speed")->get(speed) == 0 && speed == 115200 &&
           carrier.attribute("serial")->get(serial) == 0 && serial.substr(0, 2) == "S-" &&
           carrier.operation("reset")->call() == 0 && (*members->getTied(&port))[0].get(member) == 0 &&
           member.isConnected() && port.operation("nothing")->call() == TreflectOperation::error;
}

class User : public OSWrap::Thread {
public:
    User(std::string name, unsigned rounds)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), 256 * 1024, "user", false), name_(std::move(name)),
          rounds_(rounds) {}
    unsigned good() const { return good_; } // when it has ended

protected:
    int run() override {
        const TreflectHandlerState state(true);
        for (unsigned i = 0; i < rounds_; ++i) {
            good_ += useOnce(name_) ? 1 : 0;
        }
        return 0;
    }

private:
    const std::string name_;
    const unsigned rounds_;
    unsigned good_ = 0;
};

std::string onThreads(Arguments &arguments) {
    const std::string name = word(arguments);
    const unsigned count = number(arguments);
    const unsigned rounds = number(arguments);
    std::list<User> users;
    for (unsigned i = 0; i < count; ++i) {
        users.emplace_back(name, rounds);
        users.back().start();
    }
    const TreflectReleaseHandlerState released;
    unsigned good = 0;
    for (User &user : users) {
        user.join();
        good += user.good();
    }
    return std::to_string(good) + " of " + std::to_string(count * rounds);
}

std::string onReads(Arguments &arguments) {
    const ActorPort &port = own(arguments);
    return std::to_string(port.carrierReads) + " " + std::to_string(port.memberReads);
}

std::string onBlink(Arguments &arguments) {
    named(arguments).blink();
    return "ok";
}

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
    {"carry", &onCarry},
    {"via", &onVia},
    {"do", &onDo},
    {"class", &onClass},
    {"threads", &onThreads},
    {"resets", [](Arguments &arguments) { return std::to_string(own(arguments).resets); }},
    {"reads", &onReads},
    {"blink", &onBlink},
    {"blinks", [](Arguments &arguments) { return std::to_string(own(arguments).blinks); }},
    {"number", &readByName<unsigned>},
    {"text", &readByName<std::string>},
    {"element", &onElement},
    {"plain", &onPlain},
    {"set", &onSet},
};

} // namespace

void onPort(Arguments &arguments) {
    runOneOf(kCommands, "port", arguments);
}
