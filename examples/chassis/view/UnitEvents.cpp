#include "view/UnitEvents.h"

#include "Port.h"
#include "objects/REFLECT_objectStub.h"
#include "orb/REFLECT_orb.h"
#include "platform/TransportLayer.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"
#include "view/PortReader.h"

#include <chrono>
#include <future>
#include <thread>

namespace View {

namespace {

using Transport::TerminationId;

const TipprmiOID kNameless(nullptr, NamespaceId(1)); // found by reference only

/** Null once the process has begun to end, which callbacks may see. */
TreflectORB *broker() {
    return TreflectORB::getInstance(NamespaceId(1));
}

bool isOtherBroker(TerminationId id) {
    const TreflectORB *const own = broker();
    return own != nullptr && (id.groupId() == Transport::GRPID_SLOT1 || id.groupId() == Transport::GRPID_OTHER) &&
           id != own->termId();
}

/** With the run permission. Nobody's if this process ends. */
TerminationId brokerOf(const TreflectObject &object) {
    const TreflectObjectStub *const stub = object.getStub();
    const TreflectORB *const own = broker();
    return stub != nullptr && own != nullptr ? own->convertId(stub->orbId()) : TerminationId();
}

ObjectKey keyOf(const TreflectObject &object) {
    const TreflectObjectStub *const stub = object.getStub();
    return {brokerOf(object).value(), stub != nullptr ? stub->getInternalOID() : 0};
}

} // namespace

// --- what the library tells, in its threads -------------------------------------------------------------------------

UnitEvents::PortObserver::PortObserver(UnitEvents &events, Event::Kind kind)
    : TreflectObserver(kNameless, nullptr, "ports"), events_(events), kind_(kind) {}

/** Without the run permission, while the actor of the port waits: the port is there until this returns. */
bool UnitEvents::PortObserver::detected() {
    const TreflectHandlerState state(true);
    const TreflectObject *const port = getSource();
    const TerminationId from = brokerOf(*port);
    if (from != TerminationId()) {
        events_.push(kind_, from, port);
    }
    return true;
}

UnitEvents::ChangeObserver::ChangeObserver(UnitEvents &events)
    : TreflectObserver(kNameless, nullptr, "changes"), events_(events) {}

/** With the run permission, after the operation. */
bool UnitEvents::ChangeObserver::detected() {
    const SValue *const notification = getsvalue();
    std::list<Raw> node(1);
    Event &event = node.front().event;
    event.kind = Event::Kind::portChanged;
    event.time = std::chrono::system_clock::now();
    event.key = keyOf(*notification->source);
    event.broker = event.key.first;
    event.slot = TerminationId(event.broker).slot();
    if (event.broker != 0 && stateFrom(*notification->parameters, event.state)) {
        events_.queue_.push(std::move(node));
    }
    return true;
}

void UnitEvents::BrokerObserver::orbAppearance(const TerminationId &id, const Appear_t &type) {
    if (isOtherBroker(id)) {
        events_.push(type == appear ? Event::Kind::brokerCame : Event::Kind::brokerGone, id, nullptr);
    }
}

void UnitEvents::push(Event::Kind kind, const TerminationId &from, const TreflectObject *port) {
    std::list<Raw> node(1);
    Raw &raw = node.front();
    raw.event.kind = kind;
    raw.event.time = std::chrono::system_clock::now();
    raw.event.broker = from.value();
    raw.event.slot = from.slot();
    if (port != nullptr) {
        raw.event.key = keyOf(*port);
        if (kind != Event::Kind::portDeleted) {
            raw.event.name = port->getRelName();
            raw.port = *port;
        }
    }
    queue_.push(std::move(node));
}

// --- what is made of it ---------------------------------------------------------------------------------------------

UnitEvents &UnitEvents::instance() {
    static auto *const events = [] {
        const TreflectHandlerState state(true);
        return new UnitEvents;
    }();
    return *events;
}

UnitEvents::UnitEvents()
    : created_(*this, Event::Kind::portCreated), existing_(*this, Event::Kind::portFound),
      deleted_(*this, Event::Kind::portDeleted), changed_(*this), brokers_(*this) {}

void UnitEvents::subscribe() {
    TreflectORB *const own = broker();
    if (own == nullptr) {
        return;
    }
    // Ends before beginnings: who comes and goes between two subscriptions would be taken for being there.
    own->registerOrbDeletion(&brokers_);
    own->registerOrbCreation(&brokers_, true);
    PortMeta &ports = *PortMeta::instance();
    ports.observeDeletions(&deleted_);
    // An observer misses what is created while it asks all brokers for what exists: another one is there before.
    ports.observeCreations(&created_, false);
    ports.observeCreations(&existing_, true);
    ports.removeObserver(&existing_);
}

bool UnitEvents::next(Event &event) {
    for (;;) {
        std::list<Raw> node;
        if (missed_.empty()) {
            node = queue_.pop();
        } else {
            node.splice(node.begin(), missed_, missed_.begin());
        }
        if (node.empty()) {
            return false;
        }
        if (complete(node.front())) {
            event = node.front().event;
            return true;
        }
    }
}

void UnitEvents::unsubscribe() {
    std::packaged_task<void()> removal([this] {
        const TreflectHandlerState permission(true);
        for (const auto &entry : ports_) {
            entry.second.removeObserver(nullptr, &changed_); // of whatever operation
        }
    });
    const std::future<void> done = removal.get_future();
    std::thread(std::move(removal)).detach();
    done.wait_for(std::chrono::seconds(2));
}

/** False if the event is overtaken: what it tells of belongs to a broker whose end has been told, or will be. */
bool UnitEvents::complete(Raw &raw) {
    const TerminationId from(raw.event.broker);
    switch (raw.event.kind) {
    case Event::Kind::brokerCame:
        if (TreflectORB *const own = broker()) {
            raw.event.actor = own->getPerfCnts(from).actor;
        }
        verifyPorts(raw.event);
        break;
    case Event::Kind::portFound:
    case Event::Kind::portCreated:
        askPort(raw);
        break;
    case Event::Kind::portDeleted:
        ports_.erase(raw.event.key);
        return true;
    case Event::Kind::brokerGone:
        ports_.erase(ports_.lower_bound({raw.event.broker, 0}), ports_.lower_bound({raw.event.broker + 1, 0}));
        return true;
    case Event::Kind::portChanged:
        return true;
    }
    return Transport::TransportLayer::exists(from);
}

void UnitEvents::askPort(Raw &raw) {
    const TreflectHandlerState permission(true);
    const Port port(raw.port);
    port.operation("stateChanged")->postObserve(&changed_); // first: what changes after the reads is not missed
    PortReader read(port);
    const PortState state{read(&Port::adminState), read(&Port::operState), read(&Port::mtu)};
    const std::string address = read(&Port::macAddress);
    if (!read.failed()) {
        raw.event.state = state;
        raw.event.address = address;
    }
    // After the event of a creation one of the deletion is sure to come. But one that was there before, and is not well
    // now, may have been told of as deleted already.
    raw.event.lasting = raw.event.kind == Event::Kind::portCreated || !read.failed();
    if (raw.event.lasting) {
        ports_[raw.event.key] = raw.port;
    }
}

/** A broker that comes is asked for its ports first, and then to tell of deletions: what it deletes in between is found
 *  out here, since it is told to have come after that. */
void UnitEvents::verifyPorts(const Event &cameNow) {
    const TreflectHandlerState state(true);
    const auto end = ports_.lower_bound({cameNow.broker + 1, 0});
    std::list<Raw> deleted;
    for (auto entry = ports_.lower_bound({cameNow.broker, 0}); entry != end; ++entry) {
        Port::Raised raised;
        Port(entry->second).index(&raised);
        if (raised.getExceptionType() != 0) { // a port lives on until its deletion was told, without its interface
            deleted.emplace_back();
            deleted.back().event = cameNow;
            deleted.back().event.kind = Event::Kind::portDeleted;
            deleted.back().event.key = entry->first;
        }
    }
    // None can be reached if the broker has gone meanwhile; but its end is still to be told, and says so of them all.
    if (Transport::TransportLayer::exists(TerminationId(cameNow.broker))) {
        missed_.splice(missed_.end(), deleted);
    }
}

} // namespace View
