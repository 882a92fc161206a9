#include "Port.h"

#include "rmi/Method.h"
#include "threads/HandlerState.h"

#include <new>

namespace {

using Raises = TipprmiRaises<PortRefused>;

template <class T>
using Read = TipprmiMethod<PortSkeleton, T, Raises>;

constexpr Read<std::string> kGetname{"getname", Port::CLASS_ID, Port::mcGetname, &PortSkeleton::name};
constexpr Read<unsigned> kGetindex{"getindex", Port::CLASS_ID, Port::mcGetindex, &PortSkeleton::index};
constexpr Read<std::string> kGetmacAddress{"getmacAddress", Port::CLASS_ID, Port::mcGetmacAddress,
                                           &PortSkeleton::macAddress};
constexpr Read<unsigned> kGetmtu{"getmtu", Port::CLASS_ID, Port::mcGetmtu, &PortSkeleton::mtu};
constexpr Read<std::string> kGetadminState{"getadminState", Port::CLASS_ID, Port::mcGetadminState,
                                           &PortSkeleton::adminState};
constexpr Read<std::string> kGetoperState{"getoperState", Port::CLASS_ID, Port::mcGetoperState,
                                          &PortSkeleton::operState};
constexpr Read<unsigned> kGetspeed{"getspeed", Port::CLASS_ID, Port::mcGetspeed, &PortSkeleton::speed};
constexpr Read<Counter64> kGetrxBytes{"getrxBytes", Port::CLASS_ID, Port::mcGetrxBytes, &PortSkeleton::rxBytes};
constexpr Read<Counter64> kGettxBytes{"gettxBytes", Port::CLASS_ID, Port::mcGettxBytes, &PortSkeleton::txBytes};
constexpr Read<Counter64> kGetrxPackets{"getrxPackets", Port::CLASS_ID, Port::mcGetrxPackets, &PortSkeleton::rxPackets};
constexpr Read<Counter64> kGettxPackets{"gettxPackets", Port::CLASS_ID, Port::mcGettxPackets, &PortSkeleton::txPackets};
constexpr Read<Counter64> kGetrxErrors{"getrxErrors", Port::CLASS_ID, Port::mcGetrxErrors, &PortSkeleton::rxErrors};
constexpr Read<Counter64> kGettxErrors{"gettxErrors", Port::CLASS_ID, Port::mcGettxErrors, &PortSkeleton::txErrors};
constexpr Read<Counter64> kGetrxDrops{"getrxDrops", Port::CLASS_ID, Port::mcGetrxDrops, &PortSkeleton::rxDrops};
constexpr Read<Counter64> kGettxDrops{"gettxDrops", Port::CLASS_ID, Port::mcGettxDrops, &PortSkeleton::txDrops};

constexpr TipprmiMethod<PortSkeleton, void, TipprmiIn<unsigned>, Raises> kSetMtu{"setMtu", Port::CLASS_ID,
                                                                                 Port::mcSetMtu, &PortSkeleton::setMtu};
constexpr TipprmiMethod<PortSkeleton, void, TipprmiIn<bool>, Raises> kSetAdminState{
    "setAdminState", Port::CLASS_ID, Port::mcSetAdminState, &PortSkeleton::setAdminState};
constexpr TipprmiMethod<PortSkeleton, void, TipprmiOut<PortCounters>, Raises> kCounters{
    "counters", Port::CLASS_ID, Port::mcCounters, &PortSkeleton::counters};
constexpr TipprmiMethod<PortSkeleton, void, TipprmiIn<std::string>, TipprmiIn<std::string>, TipprmiIn<unsigned>,
                        TipprmiRaises<>>
    kStateChanged{"stateChanged", Port::CLASS_ID, Port::mcStateChanged, &PortSkeleton::stateChanged};

template <const auto &Method>
bool answer(PortSkeleton &port, TipprmiStream &request, TipprmiStream &response) {
    return Method.answer(port, request, response);
}

struct Operation {
    unsigned mc;
    bool (*answer)(PortSkeleton &port, TipprmiStream &request, TipprmiStream &response);
};

constexpr Operation kOperations[] = {
    {Port::mcGetname, answer<kGetname>},
    {Port::mcGetindex, answer<kGetindex>},
    {Port::mcGetmacAddress, answer<kGetmacAddress>},
    {Port::mcGetmtu, answer<kGetmtu>},
    {Port::mcGetadminState, answer<kGetadminState>},
    {Port::mcGetoperState, answer<kGetoperState>},
    {Port::mcGetspeed, answer<kGetspeed>},
    {Port::mcGetrxBytes, answer<kGetrxBytes>},
    {Port::mcGettxBytes, answer<kGettxBytes>},
    {Port::mcGetrxPackets, answer<kGetrxPackets>},
    {Port::mcGettxPackets, answer<kGettxPackets>},
    {Port::mcGetrxErrors, answer<kGetrxErrors>},
    {Port::mcGettxErrors, answer<kGettxErrors>},
    {Port::mcGetrxDrops, answer<kGetrxDrops>},
    {Port::mcGettxDrops, answer<kGettxDrops>},
    {Port::mcSetMtu, answer<kSetMtu>},
    {Port::mcSetAdminState, answer<kSetAdminState>},
    {Port::mcCounters, answer<kCounters>},
    {Port::mcStateChanged, answer<kStateChanged>},
};

template <class T>
T read(const Port &port, const Read<T> &method, Port::Raised *raised) {
    Port::Raised nobodys;
    return method.call(port, raised != nullptr ? *raised : nobodys);
}

} // namespace

// --- client ---------------------------------------------------------------------------------------------------------

std::string Port::name(Raised *raised) const {
    return read(*this, kGetname, raised);
}
unsigned Port::index(Raised *raised) const {
    return read(*this, kGetindex, raised);
}
std::string Port::macAddress(Raised *raised) const {
    return read(*this, kGetmacAddress, raised);
}
unsigned Port::mtu(Raised *raised) const {
    return read(*this, kGetmtu, raised);
}
std::string Port::adminState(Raised *raised) const {
    return read(*this, kGetadminState, raised);
}
std::string Port::operState(Raised *raised) const {
    return read(*this, kGetoperState, raised);
}
unsigned Port::speed(Raised *raised) const {
    return read(*this, kGetspeed, raised);
}
Counter64 Port::rxBytes(Raised *raised) const {
    return read(*this, kGetrxBytes, raised);
}
Counter64 Port::txBytes(Raised *raised) const {
    return read(*this, kGettxBytes, raised);
}
Counter64 Port::rxPackets(Raised *raised) const {
    return read(*this, kGetrxPackets, raised);
}
Counter64 Port::txPackets(Raised *raised) const {
    return read(*this, kGettxPackets, raised);
}
Counter64 Port::rxErrors(Raised *raised) const {
    return read(*this, kGetrxErrors, raised);
}
Counter64 Port::txErrors(Raised *raised) const {
    return read(*this, kGettxErrors, raised);
}
Counter64 Port::rxDrops(Raised *raised) const {
    return read(*this, kGetrxDrops, raised);
}
Counter64 Port::txDrops(Raised *raised) const {
    return read(*this, kGettxDrops, raised);
}

void Port::setMtu(unsigned mtu, Raised *raised) const {
    Raised nobodys;
    kSetMtu.call(*this, mtu, raised != nullptr ? *raised : nobodys);
}

void Port::setAdminState(bool up, Raised *raised) const {
    Raised nobodys;
    kSetAdminState.call(*this, up, raised != nullptr ? *raised : nobodys);
}

void Port::counters(PortCounters &counters, Raised *raised) const {
    Raised nobodys;
    kCounters.call(*this, counters, raised != nullptr ? *raised : nobodys);
}

void Port::stateChanged(const std::string &adminState, const std::string &operState, unsigned mtu,
                        Raised *raised) const {
    Raised nobodys;
    kStateChanged.call(*this, adminState, operState, mtu, raised != nullptr ? *raised : nobodys);
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
    for (const Operation &operation : kOperations) {
        if (cc == Port::CLASS_ID && mc == operation.mc) {
            return operation.answer(*this, request, response);
        }
    }
    return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
}
