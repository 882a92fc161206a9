#include "orb/Counted_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <new>

namespace {

constexpr unsigned kRequestSize = 100;
constexpr unsigned kResponseSize = 104;
constexpr unsigned kNoAnswer = 0x660006;
constexpr unsigned kPiece = 64; // objects looked at while others wait for the mutex
constexpr char kSource[] = "REFLECT_orb";

using Locked = OSWrap::Lock<OSWrap::Mutex>;

unsigned addressOf(const TipprmiObjectSkeleton *object) noexcept {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(object) & 0xFFFFFFFFU);
}

} // namespace

/** The number is the object's address cut to 32 bits; if that is nothing or another object's, the next one above. */
bool TreflectORB::registerObject(TipprmiObjectSkeleton *object) {
    if (object == nullptr) {
        return true;
    }
    unsigned id = 0;
    try {
        Locked lock(mutex_);
        const auto known = entryOf(object);
        if (known != objects_.end()) {
            id = known->first;
        } else {
            id = addressOf(object);
            while (id == 0 || !objects_.try_emplace(id, object).second) {
                ++id;
                displaced_ = true;
            }
        }
    } catch (const std::exception &) {
        id = 0;
    }
    if (id == 0) {
        LogDispatch(3, LogMakeString("ORB 0x%08X has no memory to register an object", termId().value()), kSource);
    }
    object->setInternalOID(id);
    return true;
}

/** By the address alone: the object may be gone. */
TreflectORB::Objects::iterator TreflectORB::entryOf(const TipprmiObjectSkeleton *object) {
    const auto entry = objects_.find(addressOf(object));
    if (entry != objects_.end() && entry->second == object) {
        return entry;
    }
    // Nearly never: only where addresses have more bits than numbers, and two objects have met.
    return !displaced_ ? objects_.end() : std::find_if(objects_.begin(), objects_.end(), [object](const auto &other) {
        return other.second == object;
    });
}

bool TreflectORB::unregisterObject(const TipprmiObjectSkeleton *object) {
    Locked lock(mutex_);
    const auto entry = entryOf(object);
    if (entry != objects_.end()) {
        objects_.erase(entry);
    }
    return true;
}

TipprmiObjectSkeleton *TreflectORB::findObject(unsigned internalOid) const {
    Locked lock(mutex_);
    const auto found = objects_.find(internalOid);
    return found != objects_.end() ? found->second : nullptr;
}

TreflectORB::TreflectObjectLocation TreflectORB::locateObject(const TipprmiOID &oid) const {
    if (SingletonInstances::inForkedChild()) {
        return TreflectObjectLocation(0, TreflectOrbId(), nullptr, oid);
    }
    const Counted inside(callers_);
    if (oid.getNamespaceId() != orbId_.namespaceId()) {
        const SingletonInstances::Pin other(oid.getNamespaceId());
        return other.get() != nullptr && other.get() != this ? other.get()->locateObject(oid)
                                                             : TreflectObjectLocation(0, TreflectOrbId(), nullptr, oid);
    }
    TreflectObjectLocation location(oid);
    if (location.internalOid_ != 0) {
        if (location.orbId_ == orbId_) {
            TreflectHandlerState state(true);
            location.server_ = findObject(location.internalOid_);
        }
        return location;
    }
    location = locateLocalObject_(oid);
    return location.internalOid_ != 0 ? location : locateRemoteObject_(oid);
}

/** The table changes with the run permission only, so it may be walked in pieces. */
TreflectORB::TreflectObjectLocation TreflectORB::locateLocalObject_(const TipprmiOID &oid) const {
    TreflectHandlerState state(true);
    unsigned last = 0; // which is no object's number
    for (bool more = true; more;) {
        Locked lock(mutex_);
        auto entry = objects_.upper_bound(last);
        for (unsigned i = 0; i < kPiece && entry != objects_.end(); ++i, ++entry) {
            if (entry->second->storedOID() == oid) {
                return TreflectObjectLocation(entry->first, orbId_, entry->second, oid);
            }
            last = entry->first;
        }
        more = entry != objects_.end();
    }
    return TreflectObjectLocation(0, TreflectOrbId(), nullptr, oid);
}

bool TreflectORB::isHere(const TreflectObjectLocation &location) const {
    const TipprmiObjectSkeleton *const object = findObject(location.internalOid_);
    return object != nullptr && object == location.server_ &&
           (!location.hasOID() || object->storedOID() == location.oid_);
}

TreflectORB::TreflectObjectLocation TreflectORB::locateRemoteObject_(const TipprmiOID &oid) const {
    std::list<Transport::TerminationId> asked = otherMembers();
    for (asked.reverse(); !asked.empty(); asked.pop_front()) {
        const Transport::TerminationId member = asked.front();
        const unsigned found = resolve(member, oid);
        if (found != 0) {
            return TreflectObjectLocation(found, convertId(member), nullptr, oid);
        }
    }
    return TreflectObjectLocation(0, TreflectOrbId(), nullptr, oid);
}

unsigned TreflectORB::resolve(const Transport::TerminationId &target, TipprmiOID oid) const {
    const Counted inside(callers_);
    TipprmiStream request(allocateRequest(kRequestSize), true);
    request.msg().type(TreflectMessage::tRslve);
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    request << oid;
    unsigned found = 0;
    if (forwardMsg_(target, true, request.msg(), response)) {
        response >> found;
        return found;
    }
    TipprmiExceptionContainer failure;
    TipprmiGeneralException exception(kNoAnswer);
    response >> failure;
    failure.getExceptionData(exception);
    return 0;
}

/** The brokers of the group, this one included; none without memory for the list. */
std::list<Transport::TerminationId> TreflectORB::members() const noexcept {
    try {
        return Transport::TransportLayer::getGroup(termId().groupId()).contains();
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "ORB has no memory for the members of its group", kSource);
        return {};
    }
}

std::list<Transport::TerminationId> TreflectORB::otherMembers() const noexcept {
    std::list<Transport::TerminationId> others = members();
    others.remove(termId());
    return others;
}
