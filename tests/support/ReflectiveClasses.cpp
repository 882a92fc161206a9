#include "support/ReflectiveClasses.h"

#include "rmi/CallHelper.h"
#include "threads/HandlerState.h"

#include <functional>
#include <utility>

namespace Testing {
namespace {

using Parameters = TipprmiSequence<TipprmiAny>;

// An array has no count.

TipprmiStream &operator<<(TipprmiStream &stream, const Lanes &lanes) {
    for (const TreflectObject &lane : lanes) {
        stream << lane;
    }
    return stream;
}

TipprmiStream &operator>>(TipprmiStream &stream, Lanes &lanes) {
    for (TreflectObject &lane : lanes) {
        stream >> lane;
    }
    return stream;
}

template <class T>
void add(Parameters &parameters, const T &value) {
    TipprmiAny any;
    any << value;
    parameters.push_back(any);
}

/** One call of a method, at either side: result and arguments are the caller's variables. */
class Method : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    explicit Method(const char *name) : name_(name) {}

    void invoke() const override { run(); }
    void insertParameters(Parameters &parameters) const override { arguments(parameters); }
    void insertResult(Parameters &parameters) const override {
        result(parameters);
        arguments(parameters);
    }
    const char *operationName() const override { return name_; }
    void evaluateResponse(TipprmiStream &response) const override { readResult(response); }
    void marshallIn(TipprmiStream &request) const override { write(request); }
    void unmarshallOut(TipprmiStream &response) const override { readOut(response); }

    std::function<void()> run = [] {};
    std::function<void(Parameters &)> arguments = [](Parameters &) {};
    std::function<void(Parameters &)> result = [](Parameters &parameters) { parameters.push_back(TipprmiAny()); };
    std::function<void(TipprmiStream &)> readResult = [](TipprmiStream &) {};
    std::function<void(TipprmiStream &)> write = [](TipprmiStream &) {};
    std::function<void(TipprmiStream &)> readOut = [](TipprmiStream &) {};

private:
    const char *const name_;
};

template <class Server, class T>
Method getter(const char *name, Server *server, T (Server::*function)(), T &value) {
    Method method(name);
    method.run = [=, &value] { value = (server->*function)(); };
    method.result = [&value](Parameters &parameters) { add(parameters, value); };
    method.readResult = [&value](TipprmiStream &response) { response >> value; };
    return method;
}

template <class Server>
Method command(const char *name, Server *server, void (Server::*function)()) {
    Method method(name);
    method.run = [=] { (server->*function)(); };
    return method;
}

Method setlabel(PortSkeleton *server, const std::string &value) {
    Method method("setlabel");
    method.run = [server, &value] { server->label(value); };
    method.arguments = [&value](Parameters &parameters) { add(parameters, value); };
    method.write = [&value](TipprmiStream &request) { request << value; };
    return method;
}

Method setRate(PortSkeleton *server, const unsigned &bps, std::string &mode, unsigned &result) {
    Method method("setRate");
    method.run = [server, &bps, &mode, &result] { result = server->setRate(bps, mode); };
    method.arguments = [&bps, &mode](Parameters &parameters) {
        add(parameters, bps);
        add(parameters, mode);
    };
    method.result = [&result](Parameters &parameters) { add(parameters, result); };
    method.readResult = [&result](TipprmiStream &response) { response >> result; };
    method.write = [&bps, &mode](TipprmiStream &request) { request << bps << mode; };
    method.readOut = [&mode](TipprmiStream &response) { response >> mode; };
    return method;
}

/** Here only if the object is of the class: any other is called as a remote one, and refuses. */
template <class Server>
Server *here(const TipprmiObjectClient &client) {
    return dynamic_cast<Server *>(client.getServer());
}

void call(const TipprmiObjectClient &client, TreflectServerObject *server, const Method &method, unsigned cc,
          unsigned mc, bool transaction = true) {
    if (TreflectObjectStub *stub = client.getStub_()) {
        ClientCallHelper(method, method, method, *stub, server, cc, mc, transaction);
    }
}

template <class Server, class T>
T read(const TipprmiObjectClient &client, const char *name, T (Server::*function)(), unsigned cc, unsigned mc) {
    auto *const server = here<Server>(client);
    T value{};
    call(client, server, getter(name, server, function, value), cc, mc);
    return value;
}

/** What a dispatch() was given. */
struct Request {
    bool transaction;
    unsigned cc;
    unsigned mc;
    TipprmiStream &arguments;
    TipprmiStream &response;

    bool complete() const {
        if (arguments.hasUnmarshallingFailed()) {
            arguments.printUnmarshallError(cc, mc);
            return false;
        }
        return true;
    }
    /** Observers are told as for a call of this process. */
    template <class Server>
    bool answer(Server &server, const Method &method) const {
        call(*server.getClient(), &server, method, cc, mc, transaction);
        server.prepareResponseStream_(response);
        return true;
    }
    template <class Server, class T>
    bool answerRead(Server &server, const char *name, T (Server::*function)()) const {
        T value{};
        answer(server, getter(name, &server, function, value));
        response << value;
        return true;
    }
};

bool answerSetlabel(PortSkeleton &port, const Request &request) {
    std::string value;
    request.arguments >> value;
    return request.complete() && request.answer(port, setlabel(&port, value));
}

bool answerSetRate(PortSkeleton &port, const Request &request) {
    unsigned bps = 0;
    unsigned result = 0;
    std::string mode;
    request.arguments >> bps >> mode;
    if (!request.complete()) {
        return false;
    }
    request.answer(port, setRate(&port, bps, mode, result));
    request.response << result << mode;
    return true;
}

const TreflectMetaObject *const atLoad[] __attribute__((used)) = {EquipmentMeta::instance(), PortMeta::instance()};

} // namespace

// --- clients --------------------------------------------------------------------------------------------------------

std::string Equipment::serial() const {
    return read(*this, "getserial", &EquipmentSkeleton::serial, CLASS_ID, mcGetserial);
}

TreflectObject Equipment::carrier() const {
    return read(*this, "getcarrier", &EquipmentSkeleton::carrier, CLASS_ID, mcGetcarrier);
}

void Equipment::reset() const {
    auto *const server = here<EquipmentSkeleton>(*this);
    call(*this, server, command("reset", server, &EquipmentSkeleton::reset), CLASS_ID, mcReset);
}

std::string Port::label() const {
    return read<PortSkeleton, std::string>(*this, "getlabel", &PortSkeleton::label, CLASS_ID, mcGetlabel);
}

void Port::label(const std::string &value) const {
    auto *const server = here<PortSkeleton>(*this);
    call(*this, server, setlabel(server, value), CLASS_ID, mcSetlabel);
}

TipprmiSequence<TreflectObject> Port::members() const {
    return read(*this, "getmembers", &PortSkeleton::members, CLASS_ID, mcGetmembers);
}

Lanes Port::lanes() const {
    return read(*this, "getlanes", &PortSkeleton::lanes, CLASS_ID, mcGetlanes);
}

unsigned Port::setRate(unsigned bps, std::string &mode) const {
    auto *const server = here<PortSkeleton>(*this);
    unsigned result = 0;
    call(*this, server, Testing::setRate(server, bps, mode, result), CLASS_ID, mcSetRate);
    return result;
}

void Port::blink() const {
    auto *const server = here<PortSkeleton>(*this);
    call(*this, server, command("blink", server, &PortSkeleton::blink), CLASS_ID, mcBlink, false);
}

// --- skeletons ------------------------------------------------------------------------------------------------------

Equipment *EquipmentSkeleton::getClient() const {
    const TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) Equipment(this));
    }
    return static_cast<Equipment *>(client_slot_());
}

Port *PortSkeleton::getClient() const {
    const TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) Port(this));
    }
    return static_cast<Port *>(client_slot_());
}

TipprmiSequence<unsigned> EquipmentSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Equipment::CLASS_ID);
    return ids;
}

TipprmiSequence<unsigned> PortSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Port::CLASS_ID);
    ids.push_back(Equipment::CLASS_ID);
    return ids;
}

bool EquipmentSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                                 TipprmiStream &response) {
    const Request call{transaction, cc, mc, request, response};
    switch (cc == Equipment::CLASS_ID ? mc : 0) {
    case Equipment::mcGetserial:
        return call.answerRead(*this, "getserial", &EquipmentSkeleton::serial);
    case Equipment::mcGetcarrier:
        return call.answerRead(*this, "getcarrier", &EquipmentSkeleton::carrier);
    case Equipment::mcReset:
        return call.answer(*this, command("reset", this, &EquipmentSkeleton::reset));
    default:
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
}

bool PortSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                            TipprmiStream &response) {
    const Request call{transaction, cc, mc, request, response};
    switch (cc == Port::CLASS_ID ? mc : 0) {
    case Port::mcGetlabel:
        return call.answerRead<PortSkeleton, std::string>(*this, "getlabel", &PortSkeleton::label);
    case Port::mcSetlabel:
        return answerSetlabel(*this, call);
    case Port::mcGetmembers:
        return call.answerRead(*this, "getmembers", &PortSkeleton::members);
    case Port::mcGetlanes:
        return call.answerRead(*this, "getlanes", &PortSkeleton::lanes);
    case Port::mcSetRate:
        return answerSetRate(*this, call);
    case Port::mcBlink:
        return call.answer(*this, command("blink", this, &PortSkeleton::blink));
    default:
        return EquipmentSkeleton::dispatch(transaction, cc, mc, request, response);
    }
}

// --- meta objects ---------------------------------------------------------------------------------------------------

EquipmentMeta *EquipmentMeta::instance() {
    static auto *const meta = new EquipmentMeta;
    return meta;
}

PortMeta *PortMeta::instance() {
    static auto *const meta = new PortMeta;
    return meta;
}

// Under the run permission, which counts: classes that refer to each other are completed in one go.

void EquipmentMeta::completeMetaInformation() {
    const TreflectHandlerState state(true);
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    static const MetaOpData operations[] = {
        {"getserial", Equipment::mcGetserial}, {"getcarrier", Equipment::mcGetcarrier}, {"reset", Equipment::mcReset}};
    static const MetaAttrData attributes[] = {{"serial"}, {"carrier"}};
    completeMetaInformationHelper(operations, 3, attributes, 2);
    metaAttribute("carrier")->registerType(this);
}

void PortMeta::completeMetaInformation() {
    const TreflectHandlerState state(true);
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    EquipmentMeta *const equipment = EquipmentMeta::instance();
    equipment->completeMetaInformation(); // its getters may be needed here
    registerParent(equipment);
    static const MetaOpData operations[] = {{"getlabel", Port::mcGetlabel},     {"setlabel", Port::mcSetlabel},
                                            {"getmembers", Port::mcGetmembers}, {"getlanes", Port::mcGetlanes},
                                            {"setRate", Port::mcSetRate},       {"blink", Port::mcBlink}};
    static const MetaAttrData attributes[] = {{"label"}};
    completeMetaInformationHelper(operations, 6, attributes, 1);
    auto *const members = new TreflectSequenceMetaAttribute("members", this, metaOperation_("getmembers"), nullptr, 0);
    members->registerType(equipment);
    registerAttribute(members);
    auto *const lanes = new TreflectArrayMetaAttribute("lanes", this, metaOperation_("getlanes"), nullptr, 4);
    lanes->registerType(equipment);
    registerAttribute(lanes);
    metaOperation_("setRate")->registerParameter("bps", "unsigned long");
    metaOperation_("setRate")->registerParameter("mode", "string");
}

} // namespace Testing
