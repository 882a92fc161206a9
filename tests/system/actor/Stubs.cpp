#include "Stubs.h"

#include "Commands.h"
#include "Objects.h"
#include "Puppets.h"
#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_Observer.h"
#include "reflection/REFLECT_metaObject.h"
#include "rmi/StreamOperators.h"

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kCallSize = 100;

std::map<std::string, std::unique_ptr<TreflectObject>> &handles() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<TreflectObject>>; // until the process ends
    return instance;
}

TipprmiOID oid(const std::string &name) {
    return TipprmiOID(name, NamespaceId(1));
}

unsigned number(const std::string &text) {
    return static_cast<unsigned>(std::stoul(text, nullptr, 16));
}

TreflectObject &handle(const std::string &name) {
    return *handles().at(name);
}

TreflectObject &handle(Arguments &arguments) {
    return handle(word(arguments));
}

std::string connected(const TreflectObject &object) {
    return object.isConnected() ? "1" : "0";
}

/** By its identifier; for one without, the one that is made of its place. */
std::string nameOf(const TreflectObject &object) {
    return object.isConnected() ? object.getOID().getIdString() : "-";
}

std::string namesOf(const TipprmiSequence<TreflectObject> &objects) {
    std::string names;
    for (unsigned i = 0; i < objects.getLength(); ++i) {
        names += (i == 0 ? "" : " ") + nameOf(objects[i]);
    }
    return names;
}

std::string describe(TipprmiExceptionContainer container) {
    TipprmiGeneralException exception(99);
    return container.holds(exception) ? "1/" + std::to_string(exception.getCode())
                                      : std::to_string(container.getExceptionType());
}

// --- making and changing them ---------------------------------------------------------------------------------------

/** A handle of the name that is there before goes first. */
template <class... Parts>
std::string keep(const std::string &name, const Parts &...parts) {
    handles().erase(name);
    handles()[name] = std::make_unique<TreflectObject>(parts...);
    return connected(handle(name));
}

std::string onNone(Arguments &arguments) {
    return keep(word(arguments));
}

std::string onName(Arguments &arguments) {
    const std::string name = word(arguments);
    return keep(name, oid(word(arguments)));
}

std::string onCopy(Arguments &arguments) {
    const std::string name = word(arguments);
    return keep(name, handle(arguments));
}

std::string onChild(Arguments &arguments) {
    const std::string name = word(arguments);
    const TreflectObject &parent = handle(arguments);
    return keep(name, parent.getChild(word(arguments)));
}

std::string onParent(Arguments &arguments) {
    const std::string name = word(arguments);
    return keep(name, handle(arguments).getParent());
}

std::string onConnect(Arguments &arguments) {
    TreflectObject &object = handle(arguments);
    object.connect(oid(word(arguments)));
    return connected(object);
}

std::string onOwn(Arguments &arguments) {
    TreflectObject &object = handle(arguments);
    object.connect(puppetNamed(word(arguments)));
    return connected(object);
}

std::string onRevive(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    object.getStub()->connect(oid(word(arguments)));
    return connected(object);
}

std::string onReviveOwn(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    object.getStub()->connect(puppetNamed(word(arguments)));
    return connected(object);
}

std::string onDrop(Arguments &arguments) {
    handles().erase(word(arguments));
    return "dropped";
}

std::string onState(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    return connected(object) + (object.getStub()->isValid() ? " 1 " : " 0 ") +
           std::to_string(object.getStub()->refCount());
}

std::string onSame(Arguments &arguments) {
    const TreflectObject &one = handle(arguments);
    const TreflectObject &other = handle(arguments);
    return std::string(one.getStub() == other.getStub() ? "1" : "0") + (one == other ? " 1" : " 0");
}

std::string onMany(Arguments &arguments) {
    const TreflectObject &model = handle(arguments);
    unsigned count = 0;
    arguments >> count;
    const TreflectObjectStub &stub = *model.getStub();
    char place[32];
    std::snprintf(place, sizeof place, "rmi_%X_%X", stub.orbId().value(), stub.getInternalOID());
    std::vector<std::unique_ptr<TreflectObject>> all;
    while (all.size() < count) {
        all.push_back(std::make_unique<TreflectObject>(model));
        all.push_back(std::make_unique<TreflectObject>(oid(place)));
        TipprmiStream reference(kCallSize);
        reference << model;
        all.push_back(std::make_unique<TreflectObject>());
        reference >> *all.back();
        if (all.size() % 10 == 0) {
            all.push_back(std::make_unique<TreflectObject>(model.getOID())); // asks the others for it
        }
    }
    unsigned sharing = 0;
    for (const auto &each : all) {
        sharing += each->getStub() == model.getStub() ? 1 : 0;
    }
    return std::to_string(sharing) + " of " + std::to_string(all.size()) + " references " +
           std::to_string(stub.refCount());
}

// --- what the objects tell ------------------------------------------------------------------------------------------

std::string onAbs(Arguments &arguments) {
    return handle(arguments).getAbsName();
}

std::string onRel(Arguments &arguments) {
    return handle(arguments).getRelName();
}

std::string onUp(Arguments &arguments) {
    return nameOf(handle(arguments).getParent());
}

std::string onDown(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    return nameOf(object.getChild(word(arguments)));
}

std::string onChildren(Arguments &arguments) {
    return namesOf(handle(arguments).getChilds());
}

std::string onClass(Arguments &arguments) {
    const TreflectMetaObject *const meta = handle(arguments).meta();
    return meta != nullptr ? meta->name() : "-";
}

std::string onRegister(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    const std::string name = word(arguments);
    object.registerChild(name, handle(arguments));
    return "ok";
}

std::string onUnregister(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    object.unregisterChild(word(arguments));
    return "ok";
}

const TreflectMetaOperation *operation(Arguments &arguments) {
    static const auto &loose = *new TreflectMetaOperation("loose", nullptr, 1);
    doublers().completeMetaInformation();
    const std::string name = word(arguments);
    return name == "loose" ? &loose : name == "-" ? nullptr : doublers().metaOperation(name);
}

/** One, whatever its name, but for "-". */
TreflectObserver *observer(Arguments &arguments) {
    static auto &instance = *new TreflectObserver(oid("watcher"), nullptr, "watcher");
    return word(arguments) == "-" ? nullptr : &instance;
}

std::string onObserve(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    const unsigned when = number(word(arguments));
    const TreflectMetaOperation *const what = operation(arguments);
    object.registerObserver(when, what, observer(arguments));
    return "ok";
}

std::string onUnobserve(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    const TreflectMetaOperation *const what = operation(arguments);
    object.removeObserver(what, observer(arguments));
    return "ok";
}

std::string onContainer(Arguments &arguments) {
    return describe(handle(arguments).getStub()->getExceptionContainer());
}

std::string onRaise(Arguments &arguments) {
    const TreflectObject &object = handle(arguments);
    TipprmiExceptionContainer container;
    container.setExceptionType(number(word(arguments)));
    container.setExceptionData(TipprmiGeneralException(7));
    object.getStub()->setExceptionContainer(container);
    return "ok";
}

// --- calls ----------------------------------------------------------------------------------------------------------

template <class Value>
Value read(TipprmiStream &response) {
    Value value{};
    response >> value;
    return value;
}

std::string readNumbers(TipprmiStream &response) {
    const auto numbers = read<TipprmiSequence<unsigned>>(response);
    std::ostringstream text;
    for (unsigned i = 0; i < numbers.getLength(); ++i) {
        text << (i == 0 ? "" : " ") << std::hex << std::uppercase << numbers[i];
    }
    return text.str();
}

struct Kind {
    const char *name;
    std::string (*read)(TipprmiStream &);
};

constexpr Kind kKinds[] = {
    {"nothing", [](TipprmiStream &) { return std::string(); }},
    {"text", &read<std::string>},
    {"object", [](TipprmiStream &response) { return nameOf(read<TreflectObject>(response)); }},
    {"objects", [](TipprmiStream &response) { return namesOf(read<TipprmiSequence<TreflectObject>>(response)); }},
    {"numbers", &readNumbers},
    {"container", [](TipprmiStream &response) { return describe(read<TipprmiExceptionContainer>(response)); }},
};

void writeArguments(Arguments &arguments, TipprmiStream &request) {
    for (std::string each = word(arguments); !each.empty(); each = word(arguments)) {
        const std::string value = each.substr(2);
        if (each.front() == 't') {
            request << value;
        } else if (each.front() == 'u') {
            request << number(value);
        } else {
            request << handle(value);
        }
    }
}

std::string onCall(Arguments &arguments) {
    const TreflectObjectStub &stub = *handle(arguments).getStub();
    const unsigned cc = number(word(arguments));
    unsigned mc = 0;
    arguments >> mc;
    const std::string kind = word(arguments);
    TipprmiStream request(kCallSize);
    TipprmiStream response(kCallSize);
    request << 0x0B5E55EDU;
    stub.prepareRequestStream(true, cc, mc, request);
    std::string text = "head " + std::to_string(request.getDataSize());
    writeArguments(arguments, request);
    text += stub.dispatch(true, cc, mc, request, response) ? " sent 1" : " sent 0";
    if (response.empty()) {
        return text + " empty";
    }
    text += " exception " + describe(read<TipprmiExceptionContainer>(response));
    for (const Kind &each : kKinds) {
        text += kind == each.name ? " value " + each.read(response) : "";
    }
    return text + " left " + std::to_string(response.getRemaining());
}

std::string onSend(Arguments &arguments) {
    const TreflectObjectStub &stub = *handle(arguments).getStub();
    const unsigned cc = number(word(arguments));
    unsigned mc = 0;
    arguments >> mc;
    TipprmiStream request(kCallSize);
    TipprmiStream response(kCallSize);
    stub.prepareRequestStream(false, cc, mc, request);
    return stub.dispatch(false, cc, mc, request, response) ? "sent 1" : "sent 0";
}

class KnownClass : public TreflectMetaObject {
public:
    using TreflectMetaObject::TreflectMetaObject;
    void completeMetaInformation() override {}
};

std::string onKnow(Arguments &arguments) {
    const unsigned code = number(word(arguments));
    static auto &known = *new std::vector<std::unique_ptr<KnownClass>>;
    known.push_back(std::make_unique<KnownClass>(word(arguments), code));
    return "ok";
}

constexpr Command kCommands[] = {
    {"none", &onNone},
    {"name", &onName},
    {"copy", &onCopy},
    {"child", &onChild},
    {"parent", &onParent},
    {"connect", &onConnect},
    {"own", &onOwn},
    {"revive", &onRevive},
    {"reviveown", &onReviveOwn},
    {"drop", &onDrop},
    {"state", &onState},
    {"same", &onSame},
    {"many", &onMany},
    {"abs", &onAbs},
    {"rel", &onRel},
    {"up", &onUp},
    {"down", &onDown},
    {"children", &onChildren},
    {"class", &onClass},
    {"register", &onRegister},
    {"unregister", &onUnregister},
    {"observe", &onObserve},
    {"unobserve", &onUnobserve},
    {"container", &onContainer},
    {"raise", &onRaise},
    {"call", &onCall},
    {"send", &onSend},
    {"know", &onKnow},
};

} // namespace

void onStub(Arguments &arguments) {
    runOneOf(kCommands, "stub", arguments);
}
