#include "Classes.h"

#include "Commands.h"
#include "Counts.h"
#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "platform/TerminationId.h"
#include "reflection/REFLECT_InterfaceRepository.h"
#include "reflection/REFLECT_metaObject.h"
#include "reflection/REFLECT_operation.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using MetaOpData = TreflectMetaObject::MetaOpData;
using MetaAttrData = TreflectMetaObject::MetaAttrData;

constexpr unsigned kDevice = 0x6D000001;
constexpr unsigned kGauge = 0x9D000002; // with the highest bit

enum Method : int { getModel = 1, getUnit = 11, setUnit, getReading, getBackup, calibrate };

// --- what actors take the class for ---------------------------------------------------------------------------------

constexpr MetaOpData kDeviceOperations[] = {{"getmodel", getModel}};
constexpr MetaAttrData kDeviceAttributes[] = {{"model"}};
constexpr MetaOpData kGaugeOperations[] = {{"getunit", getUnit},
                                           {"setunit", setUnit},
                                           {"getreading", getReading},
                                           {"getbackup", getBackup},
                                           {"calibrate", calibrate}};
constexpr MetaAttrData kGaugeAttributes[] = {{"unit"}, {"reading"}, {"model"}}; // the last with the getter of Device
constexpr MetaAttrData kCutAttributes[] = {{"unit"}, {"model"}, {"range"}, {"reading"}};
constexpr MetaOpData kScaleOperations[] = {{"getweight", getReading}};
constexpr MetaAttrData kScaleAttributes[] = {{"weight"}};

struct Definition {
    const char *kind;
    const char *name;
    unsigned id;
    bool isDevice;
    const MetaOpData *operations;
    unsigned operationCount;
    const MetaAttrData *attributes;
    unsigned attributeCount;
};

constexpr Definition kDefinitions[] = {
    {"device", "Device", kDevice, false, kDeviceOperations, 1, kDeviceAttributes, 1},
    {"gauge", "Gauge", kGauge, true, kGaugeOperations, 5, kGaugeAttributes, 3},
    {"cut", "Gauge", kGauge, true, kGaugeOperations, 5, kCutAttributes, 4},
    {"nooperations", "Gauge", kGauge, true, nullptr, 0, kGaugeAttributes, 3},
    {"noattributes", "Gauge", kGauge, true, kGaugeOperations, 5, nullptr, 0},
    {"bare", "Gauge", kGauge, true, kGaugeOperations, 5, kGaugeAttributes, 0},
    {"scale", "Scale", kGauge, false, kScaleOperations, 1, kScaleAttributes, 1},
};

class Class;
std::map<std::string, std::unique_ptr<Class>> &classes() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<Class>>; // until the end of the process
    return instance;
}

class Class : public TreflectMetaObject {
public:
    explicit Class(const Definition &definition)
        : TreflectMetaObject(definition.name, definition.id), definition_(definition) {}
    void completeMetaInformation() override;

    unsigned completions = 0;

private:
    const Definition &definition_;
};

void Class::completeMetaInformation() {
    const TreflectHandlerState state(true);
    ++completions;
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    if (definition_.isDevice) {
        Class &device = *classes().at("device");
        device.completeMetaInformation(); // its getters are needed here
        registerParent(&device);
    }
    completeMetaInformationHelper(definition_.operations, definition_.operationCount, definition_.attributes,
                                  definition_.attributeCount);
}

// --- the object -----------------------------------------------------------------------------------------------------

TipprmiOID oid(const std::string &name) {
    return TipprmiOID(name, NamespaceId(1));
}

class Gauge : public TreflectServerObject {
public:
    explicit Gauge(const std::string &name) : TreflectServerObject(oid(name), nullptr, name) {}
    unsigned getServerClassId() const override { return kGauge; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(kGauge);
        ids.push_back(kDevice);
        return ids;
    }
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    unsigned classCode = 0; // of the last call
    unsigned methodCode = 0;
};

/** By the method code alone: that of an inherited getter comes with the class that lists the attribute. */
bool Gauge::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    static const std::map<unsigned, std::string> &answers =
        *new std::map<unsigned, std::string>{{getModel, "model-"},     {getUnit, "unit-"},     {setUnit, ""},
                                             {getReading, "reading-"}, {getBackup, "backup-"}, {calibrate, ""}};
    const auto answer = answers.find(mc);
    if (answer == answers.end()) {
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
    classCode = cc;
    methodCode = mc;
    prepareResponseStream_(response);
    if (!answer->second.empty()) {
        response << answer->second + objectName();
    }
    return true;
}

std::map<std::string, std::unique_ptr<Gauge>> &gauges() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<Gauge>>;
    return instance;
}

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, "watcher") {}
    bool detected() override { return true; }
};

Watcher &watcher() {
    static Watcher &instance = *new Watcher;
    return instance;
}

// --- commands -------------------------------------------------------------------------------------------------------

TreflectObject named(Arguments &arguments) {
    return TreflectObject(oid(word(arguments)));
}

std::string onDefine(Arguments &arguments) {
    const std::string kind = word(arguments);
    for (const Definition &definition : kDefinitions) {
        if (kind == definition.kind) {
            if (classes().count(kind) == 0) { // else it stays
                classes()[kind] = std::make_unique<Class>(definition);
            }
            return "ok";
        }
    }
    return "unknown";
}

std::string onUndefine(Arguments &arguments) {
    return classes().erase(word(arguments)) == 1 ? "ok" : "unknown";
}

std::string onReplace(Arguments &arguments) {
    static auto &replaced = *new std::vector<TreflectMetaAttribute *>; // nobody deletes them
    Class &type = *classes().at(word(arguments));
    const std::string name = word(arguments);
    const TreflectMetaOperation *const getter = type.metaOperation(word(arguments));
    replaced.push_back(type.metaAttribute(name));
    type.registerAttribute(new TreflectMetaAttribute(name, &type, getter, nullptr));
    return "ok";
}

std::string listOf(const std::vector<unsigned> &ids) {
    std::string list;
    for (const unsigned id : ids) {
        char text[16];
        std::snprintf(text, sizeof text, "%08X", id);
        list += (list.empty() ? "" : " ") + std::string(text);
    }
    return list;
}

std::string onIds(Arguments &) {
    return listOf(InterfaceRepository::instance()->getIfIds());
}

std::string onLearned(Arguments &arguments) {
    const auto broker = static_cast<unsigned>(std::strtoul(word(arguments).c_str(), nullptr, 16));
    return listOf(learnedClasses(Transport::TerminationId(broker)));
}

std::string onMake(Arguments &arguments) {
    const std::string name = word(arguments);
    gauges()[name] = std::make_unique<Gauge>(name);
    return "ok";
}

std::string onAsked(Arguments &arguments) {
    const Gauge &gauge = *gauges().at(word(arguments));
    return listOf({gauge.classCode}) + " " + std::to_string(gauge.methodCode);
}

std::string onOf(Arguments &arguments) {
    const TreflectMetaObject *const meta = named(arguments).meta();
    return meta != nullptr ? meta->name() : "-";
}

template <class Member>
std::string onList(Arguments &arguments, void (TreflectMetaObject::*list)(std::list<Member *> &) const) {
    const TreflectMetaObject *const meta = named(arguments).meta();
    std::list<Member *> members{nullptr};
    (meta->*list)(members);
    std::string names;
    for (const Member *member : members) {
        names += names.empty() ? "" : " ";
        names += member == nullptr ? "-" : member->containingMetaObject()->name() + "." + member->name();
    }
    return names;
}

std::string readBy(const TreflectAttribute &attribute) {
    std::string value;
    const int code = attribute.get(value);
    return std::to_string(code) + " " + value;
}

std::string onRead(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    return readBy(*object.attribute(word(arguments)));
}

std::string onSet(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    TreflectAttribute &attribute = *object.attribute(word(arguments));
    TreflectOperation &setter = *attribute.operSet();
    const unsigned before = sentRequests();
    const int code = setter.call();
    return std::to_string(code) + (attribute.meta()->metaOperSet() != nullptr ? " there " : " none ") +
           std::to_string(sentRequests() - before);
}

std::string onCall(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    return std::to_string(object.operation(word(arguments))->call());
}

std::string onHas(Arguments &arguments) {
    const TreflectMetaObject *const meta = named(arguments).meta();
    return meta->metaOperation_(word(arguments)) != nullptr ? "1" : "0";
}

TreflectObject &keptObject() {
    static TreflectObject &object = *new TreflectObject;
    return object;
}

TreflectAttribute *&keptAttribute() {
    static TreflectAttribute *attribute = nullptr;
    return attribute;
}

std::string onKeep(Arguments &arguments) {
    keptObject() = named(arguments);
    keptAttribute() = keptObject().attribute(word(arguments));
    return "ok";
}

/** What the calls return, and how many requests they have sent to others. */
template <class... Calls>
std::string results(const Calls &...calls) {
    const unsigned before = sentRequests();
    std::string list;
    ((list += std::to_string(static_cast<int>(calls())) + " "), ...);
    return list + "sent " + std::to_string(sentRequests() - before);
}

std::string onWatch(Arguments &) {
    return results(
        [] { return InterfaceRepository::instance()->findInterface(kGauge)->observeCreations(&watcher(), false); });
}

std::string onUnwatch(Arguments &) {
    return results([] {
        InterfaceRepository::instance()->findInterface(kGauge)->removeObserver(&watcher());
        return true;
    });
}

std::string onWatchNobody(Arguments &) {
    TreflectMetaObject &type = *InterfaceRepository::instance()->findInterface(kGauge);
    return results([&type] { return type.observeCreations(nullptr, false); },
                   [&type] { return type.observeCreations(nullptr, true); },
                   [&type] { return type.observeDeletions(nullptr); },
                   [&type] {
                       type.removeObserver(nullptr);
                       return false;
                   });
}

/** Codes of reads, then of calls, then whether observers are taken. */
std::string onErrors(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    TreflectAttribute &attribute = *object.attribute("nothing");
    TreflectOperation &operation = *object.operation("nothing");
    std::string text;
    TreflectObject element;
    return results([&] { return attribute.get(text); }, [&] { return attribute[3].get(element); },
                   [&] { return attribute.attribute("model")->get(text); }, [&] { return operation.call(); },
                   [&] { return attribute.operation("reset")->call(); }, [&] { return attribute.operGet()->call(); },
                   [&] { return attribute.operSet()->call(); }, [&] { return operation.preObserve(&watcher()); },
                   [&] { return operation.postObserve(&watcher()); },
                   [&] {
                       operation.removeObserver(&watcher());
                       return attribute.operGet()->preObserve(&watcher());
                   });
}

constexpr Command kCommands[] = {
    {"define", &onDefine},
    {"undefine", &onUndefine},
    {"completions", [](Arguments &arguments) { return std::to_string(classes().at(word(arguments))->completions); }},
    {"replace", &onReplace},
    {"ids", &onIds},
    {"learned", &onLearned},
    {"make", &onMake},
    {"asked", &onAsked},
    {"of", &onOf},
    {"attributes", [](Arguments &arguments) { return onList(arguments, &TreflectMetaObject::attributeList); }},
    {"operations", [](Arguments &arguments) { return onList(arguments, &TreflectMetaObject::operationList); }},
    {"read", &onRead},
    {"set", &onSet},
    {"call", &onCall},
    {"has", &onHas},
    {"keep", &onKeep},
    {"kept", [](Arguments &) { return readBy(*keptAttribute()); }},
    {"watch", &onWatch},
    {"unwatch", &onUnwatch},
    {"watchnobody", &onWatchNobody},
    {"errors", &onErrors},
};

} // namespace

void onClass(Arguments &arguments) {
    runOneOf(kCommands, "class", arguments);
}
