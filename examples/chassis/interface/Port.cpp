#include "Port.h"

#include "CallHooks.h"
#include "threads/HandlerState.h"

#include <new>

namespace {

using Interface::Operation;
using Interface::Request;

class SetMtu : public Interface::Call {
public:
    SetMtu(PortSkeleton *server, unsigned mtu) : Call("setMtu"), server_(server), mtu_(mtu) {}

    void invoke() const override { server_->setMtu(mtu_, raised); }
    void insertParameters(TipprmiSequence<TipprmiAny> &parameters) const override {
        Interface::append(parameters, mtu_);
    }
    void marshallIn(TipprmiStream &request) const override { request << mtu_; }

private:
    PortSkeleton *const server_;
    const unsigned mtu_;
};

class SetAdminState : public Interface::Call {
public:
    SetAdminState(PortSkeleton *server, bool up) : Call("setAdminState"), server_(server), up_(up) {}

    void invoke() const override { server_->setAdminState(up_, raised); }
    void insertParameters(TipprmiSequence<TipprmiAny> &parameters) const override {
        Interface::append(parameters, up_);
    }
    void marshallIn(TipprmiStream &request) const override { request << up_; }

private:
    PortSkeleton *const server_;
    const bool up_;
};

class Counters : public Interface::Call {
public:
    Counters(PortSkeleton *server, PortCounters &counters) : Call("counters"), server_(server), counters_(counters) {
        counters_ = PortCounters();
    }

    void invoke() const override { server_->counters(counters_, raised); }
    void insertParameters(TipprmiSequence<TipprmiAny> &parameters) const override {
        Interface::append(parameters, counters_);
    }
    void unmarshallOut(TipprmiStream &response) const override { response >> counters_; }
    void writeAnswer(TipprmiStream &response) const override { response << counters_; }

private:
    PortSkeleton *const server_;
    PortCounters &counters_;
};

class StateChanged : public Interface::Call {
public:
    StateChanged(PortSkeleton *server, const PortState &state) : Call("stateChanged"), server_(server), state_(state) {}

    void invoke() const override { server_->stateChanged(state_, raised); }
    void insertParameters(TipprmiSequence<TipprmiAny> &parameters) const override {
        Interface::append(parameters, state_.adminState);
        Interface::append(parameters, state_.operState);
        Interface::append(parameters, state_.mtu);
    }
    void marshallIn(TipprmiStream &request) const override {
        request << state_.adminState << state_.operState << state_.mtu;
    }

private:
    PortSkeleton *const server_;
    const PortState &state_;
};

bool answerSetMtu(PortSkeleton &port, const Operation<PortSkeleton> &, const Request &request) {
    unsigned mtu = 0;
    request.arguments >> mtu;
    return request.complete() && request.answer(port, SetMtu(&port, mtu));
}

bool answerSetAdminState(PortSkeleton &port, const Operation<PortSkeleton> &, const Request &request) {
    bool up = false;
    request.arguments >> up;
    return request.complete() && request.answer(port, SetAdminState(&port, up));
}

bool answerCounters(PortSkeleton &port, const Operation<PortSkeleton> &, const Request &request) {
    PortCounters counters;
    return request.answer(port, Counters(&port, counters));
}

bool answerStateChanged(PortSkeleton &port, const Operation<PortSkeleton> &, const Request &request) {
    PortState state;
    request.arguments >> state.adminState >> state.operState >> state.mtu;
    return request.complete() && request.answer(port, StateChanged(&port, state));
}

template <auto Getter>
constexpr auto read = &Interface::answerRead<PortSkeleton, Getter>;

constexpr Operation<PortSkeleton> kOperations[] = {
    {"getname", Port::mcGetname, read<&PortSkeleton::name>},
    {"getindex", Port::mcGetindex, read<&PortSkeleton::index>},
    {"getmacAddress", Port::mcGetmacAddress, read<&PortSkeleton::macAddress>},
    {"getmtu", Port::mcGetmtu, read<&PortSkeleton::mtu>},
    {"getadminState", Port::mcGetadminState, read<&PortSkeleton::adminState>},
    {"getoperState", Port::mcGetoperState, read<&PortSkeleton::operState>},
    {"getspeed", Port::mcGetspeed, read<&PortSkeleton::speed>},
    {"getrxBytes", Port::mcGetrxBytes, read<&PortSkeleton::rxBytes>},
    {"gettxBytes", Port::mcGettxBytes, read<&PortSkeleton::txBytes>},
    {"getrxPackets", Port::mcGetrxPackets, read<&PortSkeleton::rxPackets>},
    {"gettxPackets", Port::mcGettxPackets, read<&PortSkeleton::txPackets>},
    {"getrxErrors", Port::mcGetrxErrors, read<&PortSkeleton::rxErrors>},
    {"gettxErrors", Port::mcGettxErrors, read<&PortSkeleton::txErrors>},
    {"getrxDrops", Port::mcGetrxDrops, read<&PortSkeleton::rxDrops>},
    {"gettxDrops", Port::mcGettxDrops, read<&PortSkeleton::txDrops>},
    {"setMtu", Port::mcSetMtu, &answerSetMtu},
    {"setAdminState", Port::mcSetAdminState, &answerSetAdminState},
    {"counters", Port::mcCounters, &answerCounters},
    {"stateChanged", Port::mcStateChanged, &answerStateChanged},
};

template <auto Getter>
auto get(const Port &port, unsigned mc, Port::Raised *raised) {
    return Interface::Read<Getter>::from(port, Interface::find(kOperations, mc)->name, Port::CLASS_ID, mc, raised);
}

} // namespace

// --- client ---------------------------------------------------------------------------------------------------------

std::string Port::name(Raised *raised) const {
    return get<&PortSkeleton::name>(*this, mcGetname, raised);
}
unsigned Port::index(Raised *raised) const {
    return get<&PortSkeleton::index>(*this, mcGetindex, raised);
}
std::string Port::macAddress(Raised *raised) const {
    return get<&PortSkeleton::macAddress>(*this, mcGetmacAddress, raised);
}
unsigned Port::mtu(Raised *raised) const {
    return get<&PortSkeleton::mtu>(*this, mcGetmtu, raised);
}
std::string Port::adminState(Raised *raised) const {
    return get<&PortSkeleton::adminState>(*this, mcGetadminState, raised);
}
std::string Port::operState(Raised *raised) const {
    return get<&PortSkeleton::operState>(*this, mcGetoperState, raised);
}
unsigned Port::speed(Raised *raised) const {
    return get<&PortSkeleton::speed>(*this, mcGetspeed, raised);
}
Counter64 Port::rxBytes(Raised *raised) const {
    return get<&PortSkeleton::rxBytes>(*this, mcGetrxBytes, raised);
}
Counter64 Port::txBytes(Raised *raised) const {
    return get<&PortSkeleton::txBytes>(*this, mcGettxBytes, raised);
}
Counter64 Port::rxPackets(Raised *raised) const {
    return get<&PortSkeleton::rxPackets>(*this, mcGetrxPackets, raised);
}
Counter64 Port::txPackets(Raised *raised) const {
    return get<&PortSkeleton::txPackets>(*this, mcGettxPackets, raised);
}
Counter64 Port::rxErrors(Raised *raised) const {
    return get<&PortSkeleton::rxErrors>(*this, mcGetrxErrors, raised);
}
Counter64 Port::txErrors(Raised *raised) const {
    return get<&PortSkeleton::txErrors>(*this, mcGettxErrors, raised);
}
Counter64 Port::rxDrops(Raised *raised) const {
    return get<&PortSkeleton::rxDrops>(*this, mcGetrxDrops, raised);
}
Counter64 Port::txDrops(Raised *raised) const {
    return get<&PortSkeleton::txDrops>(*this, mcGettxDrops, raised);
}

void Port::setMtu(unsigned mtu, Raised *raised) const {
    auto *const server = Interface::here<PortSkeleton>(*this);
    Interface::send(*this, server, SetMtu(server, mtu), CLASS_ID, mcSetMtu, raised);
}

void Port::setAdminState(bool up, Raised *raised) const {
    auto *const server = Interface::here<PortSkeleton>(*this);
    Interface::send(*this, server, SetAdminState(server, up), CLASS_ID, mcSetAdminState, raised);
}

void Port::counters(PortCounters &counters, Raised *raised) const {
    auto *const server = Interface::here<PortSkeleton>(*this);
    Interface::send(*this, server, Counters(server, counters), CLASS_ID, mcCounters, raised);
}

void Port::stateChanged(const PortState &state, Raised *raised) const {
    auto *const server = Interface::here<PortSkeleton>(*this);
    Interface::send(*this, server, StateChanged(server, state), CLASS_ID, mcStateChanged, raised);
}

// --- skeleton -------------------------------------------------------------------------------------------------------

Port *PortSkeleton::getClient() const {
    const TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) Port(this));
    }
    return static_cast<Port *>(client_slot_());
}

TipprmiSequence<unsigned> PortSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Port::CLASS_ID);
    return ids;
}

bool PortSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                            TipprmiStream &response) {
    const Operation<PortSkeleton> *const operation = cc == Port::CLASS_ID ? Interface::find(kOperations, mc) : nullptr;
    if (operation == nullptr) {
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
    return operation->answer(*this, *operation, Request{transaction, cc, mc, request, response});
}
