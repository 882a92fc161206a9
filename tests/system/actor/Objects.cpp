#include "Objects.h"

#include "Commands.h"
#include "Output.h"
#include "Reaction.h"
#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "platform/Log.h"
#include "platform/Thread.h"
#include "reflection/REFLECT_metaObject.h"
#include "reflection/REFLECT_operation.h"
#include "rmi/CallHelper.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace {

constexpr unsigned kClass = 0x0DD0B1E5;
constexpr unsigned kDouble = 4;

TipprmiOID oid(const std::string &name) {
    return TipprmiOID(name, NamespaceId(1));
}

class DoublerMeta : public TreflectMetaObject {
public:
    DoublerMeta() : TreflectMetaObject("Doubler", kClass) {}
    void completeMetaInformation() override {
        const TreflectHandlerState state(true);
        if (completed_ != 0) {
            return;
        }
        completed_ = 1;
        static const MetaOpData operations[] = {{"double", static_cast<int>(kDouble)}};
        static const MetaAttrData none[] = {{""}};
        completeMetaInformationHelper(operations, 1, none, 0);
    }
};
DoublerMeta &meta = *new DoublerMeta; // until the end of the process

} // namespace

TreflectMetaObject &doublers() {
    return meta;
}

namespace {

class Doubler : public TreflectServerObject {
public:
    Doubler(const std::string &name, const TreflectObject *parent) : TreflectServerObject(oid(name), parent, name) {}
    unsigned getServerClassId() const override { return meta.id(); }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(meta.id());
        return ids;
    }
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;
    unsigned twice(unsigned number) {
        ++calls;
        return 2 * number;
    }
    std::atomic<unsigned> calls{0};
};

/** As code that was generated for the class. */
class DoubleCall : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    DoubleCall(Doubler *object, unsigned number) : object_(object), number_(number) {}
    void invoke() const override { result_ = object_->twice(number_); }
    void insertParameters(TipprmiSequence<TipprmiAny> &sequence) const override { append(sequence, number_); }
    void insertResult(TipprmiSequence<TipprmiAny> &sequence) const override {
        append(sequence, result_);
        insertParameters(sequence);
    }
    const char *operationName() const override { return "double"; }
    void marshallIn(TipprmiStream &request) const override { request << number_; }
    void unmarshallOut(TipprmiStream &response) const override { response >> result_; }
    unsigned run(const TreflectObject &object, bool transaction) const {
        ClientCallHelper(*this, *this, *this, *object.getStub(), object_, kClass, kDouble, transaction);
        return result_;
    }

private:
    static void append(TipprmiSequence<TipprmiAny> &sequence, unsigned value) {
        TipprmiAny any;
        any.insert(value);
        sequence.push_back(any);
    }
    Doubler *const object_;
    const unsigned number_;
    mutable unsigned result_ = 0;
};

bool Doubler::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    if (cc != kClass || mc != kDouble) {
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
    unsigned number = 0;
    request >> number;
    if (request.hasUnmarshallingFailed()) {
        return false;
    }
    const unsigned result = DoubleCall(this, number).run(*getClient(), transaction);
    prepareResponseStream_(response);
    response << result;
    return true;
}

std::atomic<bool> verdict{true};
std::string &lastParameters = *new std::string; // with the run permission

std::string describe(const TipprmiSequence<TipprmiAny> &parameters) {
    std::string text;
    for (unsigned i = 0; i < parameters.getLength(); ++i) {
        text += "[";
        for (int byte = 0; byte < parameters[i].getDataSize(); ++byte) {
            text += LogMakeString("%02X", static_cast<unsigned>(parameters[i].getDataPtr()[byte]));
        }
        text += "]";
    }
    return text;
}

class Lookout : public TreflectObserver {
public:
    Lookout() : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, "lookout") {}
    bool detected() override {
        const TreflectObject *const source = getSource();
        lastParameters = describe(*getsvalue()->parameters);
        say("told %s", source->getAbsName().c_str()); // asks the actor that waits for this
        react();
        if (getSource() != source) {
            say("mixed up");
        }
        if (leaves()) {
            source->operation("double")->removeObserver(this);
        }
        return verdict;
    }
};

std::unique_ptr<Lookout> &lookoutPlace() {
    static auto &instance = *new std::unique_ptr<Lookout>;
    return instance;
}

Lookout &lookout() {
    if (lookoutPlace() == nullptr) {
        lookoutPlace() = std::make_unique<Lookout>();
    }
    return *lookoutPlace();
}

std::map<std::string, std::unique_ptr<Doubler>> &objects() {
    static auto &instance = *new std::map<std::string, std::unique_ptr<Doubler>>;
    return instance;
}

TreflectObject named(Arguments &arguments) {
    std::string name;
    arguments >> name;
    return TreflectObject(oid(name));
}

Doubler *own(Arguments &arguments) {
    std::string name;
    arguments >> name;
    const auto found = objects().find(name);
    return found != objects().end() ? found->second.get() : nullptr;
}

unsigned number(Arguments &arguments) {
    unsigned value = 0;
    arguments >> value;
    return value;
}

std::string onMake(Arguments &arguments) {
    std::string name;
    std::string parent;
    arguments >> name >> parent;
    const TreflectObject above(oid(parent));
    objects()[name] = std::make_unique<Doubler>(name, parent.empty() ? nullptr : &above);
    return "made";
}

std::string onDrop(Arguments &arguments) {
    std::string name;
    arguments >> name;
    objects().erase(name);
    return "dropped";
}

/** Makes and deletes so many, one after the other, with their events, in a thread of its own; says "churned NUMBER"
 * when all that watch know of both. */
class Churner : public OSWrap::Thread {
public:
    Churner(std::string prefix, unsigned count)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), ~0U, "churner", false), prefix_(std::move(prefix)),
          count_(count) {}

protected:
    int run() override {
        const TreflectHandlerState state(true);
        for (unsigned i = 0; i < count_; ++i) {
            const std::string name = prefix_ + std::to_string(i);
            const Doubler object(name, nullptr);
            object.sendCreationEvent(&meta);
            object.sendDeletionEvent(&meta);
            say("churned %u", i);
        }
        return 0;
    }

private:
    const std::string prefix_;
    const unsigned count_;
};

std::string onChurn(Arguments &arguments) {
    std::string prefix;
    unsigned count = 0;
    arguments >> prefix >> count;
    static auto &churners = *new std::list<Churner>;
    churners.emplace_back(prefix, count);
    return churners.back().start() ? "churning" : "failed";
}

/** With the events that its owner sends. */
std::string onCreate(Arguments &arguments) {
    std::string name;
    arguments >> name;
    objects()[name] = std::make_unique<Doubler>(name, nullptr);
    objects()[name]->sendCreationEvent(nullptr);
    return "created";
}

std::string onDelete(Arguments &arguments) {
    std::string name;
    arguments >> name;
    objects()[name]->sendDeletionEvent(&meta);
    objects().erase(name);
    return "deleted";
}

std::string onAbs(Arguments &arguments) {
    return named(arguments).getAbsName();
}

std::string onParent(Arguments &arguments) {
    return named(arguments).getParent().getAbsName();
}

std::string onChildren(Arguments &arguments) {
    std::string names;
    const TipprmiSequence<TreflectObject> children = named(arguments).getChilds();
    for (unsigned i = 0; i < children.getLength(); ++i) {
        names += (i == 0 ? "" : " ") + children[i].getAbsName();
    }
    return names;
}

std::string onDouble(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    const DoubleCall call(dynamic_cast<Doubler *>(object.getServer()), number(arguments));
    return std::to_string(call.run(object, true));
}

std::string onCalls(Arguments &arguments) {
    const Doubler *const object = own(arguments);
    return object != nullptr ? std::to_string(object->calls) : "none";
}

std::string onObserve(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    const TreflectOperation *const operation = object.operation("double");
    const unsigned when = number(arguments);
    if (when > 1) { // which no handle of an operation sends
        object.getStub()->registerObserver(when, operation->meta(), &lookout());
        return "1";
    }
    return (when == 0 ? operation->preObserve(&lookout()) : operation->postObserve(&lookout())) ? "1" : "0";
}

std::string onForget(Arguments &arguments) {
    const TreflectObject object = named(arguments);
    object.operation("double")->removeObserver(&lookout());
    return "forgotten";
}

std::string onObserved(Arguments &arguments) {
    const Doubler *const object = own(arguments);
    if (object == nullptr) {
        return "none";
    }
    return std::string(object->preObserverAvailable(kClass, kDouble) ? "1" : "0") +
           (object->postObserverAvailable(kClass, kDouble) ? " 1" : " 0");
}

std::string onVerdict(Arguments &arguments) {
    verdict = number(arguments) != 0;
    return "ok";
}

std::string onParameters(Arguments &) {
    return lastParameters;
}

std::string onBlind(Arguments &) {
    lookoutPlace().reset();
    return "ok";
}

constexpr Command kCommands[] = {
    {"make", &onMake},         {"drop", &onDrop},         {"abs", &onAbs},
    {"parent", &onParent},     {"children", &onChildren}, {"double", &onDouble},
    {"calls", &onCalls},       {"observe", &onObserve},   {"churn", &onChurn},
    {"create", &onCreate},     {"delete", &onDelete},     {"forget", &onForget},
    {"observed", &onObserved}, {"verdict", &onVerdict},   {"parameters", &onParameters},
    {"blind", &onBlind},
};

} // namespace

void onObject(Arguments &arguments) {
    runOneOf(kCommands, "object", arguments);
}
