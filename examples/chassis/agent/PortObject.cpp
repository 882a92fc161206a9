#include "PortObject.h"

#include "Paths.h"

namespace {

void refuse(TipprmiExceptionContainer &raised, const Failure &failure) {
    raised.raise(PortRefused{static_cast<unsigned>(failure.code), failure.reason});
}

PortCounters countersOf(const Link &link) {
    PortCounters counters;
    counters.rxBytes.value = link.rx.bytes;
    counters.txBytes.value = link.tx.bytes;
    counters.rxPackets.value = link.rx.packets;
    counters.txPackets.value = link.tx.packets;
    counters.rxErrors.value = link.rx.errors;
    counters.txErrors.value = link.tx.errors;
    counters.rxDrops.value = link.rx.drops;
    counters.txDrops.value = link.tx.drops;
    return counters;
}

} // namespace

PortObject::PortObject(unsigned slot, const TreflectObject &parent, const Link &link, Kernel &kernel)
    : OutlivesCalls(Paths::id(Paths::port(slot, link.name)), &parent, link.name), kernel_(kernel), index_(link.index),
      name_(link.name), state_(stateOf(link)) {}

PortObject::~PortObject() {
    endCalls();
}

PortState PortObject::stateOf(const Link &link) {
    PortState state;
    state.adminState = link.up ? "up" : "down";
    state.operState = link.operState;
    state.mtu = link.mtu;
    return state;
}

/** Of an interface that is gone nothing. */
Link PortObject::read(Raised &raised) {
    Link link;
    if (const Failure failure = kernel_.link(index_, link)) {
        refuse(raised, failure);
    }
    return link;
}

// --- attributes -----------------------------------------------------------------------------------------------------

std::string PortObject::name(Raised &raised) {
    return read(raised).name;
}
unsigned PortObject::index(Raised &raised) {
    return read(raised).index;
}
std::string PortObject::macAddress(Raised &raised) {
    return read(raised).macAddress;
}
unsigned PortObject::mtu(Raised &raised) {
    return read(raised).mtu;
}
std::string PortObject::adminState(Raised &raised) {
    const Link link = read(raised);
    return link.index != 0 ? stateOf(link).adminState : "";
}
std::string PortObject::operState(Raised &raised) {
    return read(raised).operState;
}
unsigned PortObject::speed(Raised &raised) {
    const Link link = read(raised);
    return link.index != 0 ? kernel_.speed(link.name) : 0;
}
Counter64 PortObject::rxBytes(Raised &raised) {
    return countersOf(read(raised)).rxBytes;
}
Counter64 PortObject::txBytes(Raised &raised) {
    return countersOf(read(raised)).txBytes;
}
Counter64 PortObject::rxPackets(Raised &raised) {
    return countersOf(read(raised)).rxPackets;
}
Counter64 PortObject::txPackets(Raised &raised) {
    return countersOf(read(raised)).txPackets;
}
Counter64 PortObject::rxErrors(Raised &raised) {
    return countersOf(read(raised)).rxErrors;
}
Counter64 PortObject::txErrors(Raised &raised) {
    return countersOf(read(raised)).txErrors;
}
Counter64 PortObject::rxDrops(Raised &raised) {
    return countersOf(read(raised)).rxDrops;
}
Counter64 PortObject::txDrops(Raised &raised) {
    return countersOf(read(raised)).txDrops;
}

// --- operations -----------------------------------------------------------------------------------------------------

void PortObject::setMtu(unsigned mtu, Raised &raised) {
    if (const Failure failure = kernel_.setMtu(index_, mtu)) {
        refuse(raised, failure);
    }
}

void PortObject::setAdminState(bool up, Raised &raised) {
    if (const Failure failure = kernel_.setUp(index_, up)) {
        refuse(raised, failure);
    }
}

void PortObject::counters(PortCounters &counters, Raised &raised) {
    counters = countersOf(read(raised));
}

void PortObject::stateChanged(const std::string &, const std::string &, unsigned, Raised &) {}

void PortObject::update(const Link &link) {
    const PortState state = stateOf(link);
    if (state != state_) {
        state_ = state;
        getClient()->stateChanged(state.adminState, state.operState,
                                  state.mtu); // by way of the client, which tells the observers
    }
}
