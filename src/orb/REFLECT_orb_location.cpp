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
    unsigned id = object->getInternalOID();
    try {
        Locked lock(mutex_);
        const auto known = objects_.find(id);
        if (known == objects_.end() || known->second != object) {
            id = addressOf(object);
            while (id == 0 || objects_.emplace(id, object).first->second != object) {
                ++id;
            }
        }
    } catch (const std::exception &) { // not registered: number 0
        id = 0;
    }
    object->setInternalOID(id);
    return true;
}

bool TreflectORB::unregisterObject(const TipprmiObjectSkeleton *object) {
    if (object == nullptr) {
        return true;
    }
    const unsigned number = object->getInternalOID();
    Locked lock(mutex_);
    auto entry = objects_.find(number);
    if (entry == objects_.end() || entry->second != object) { // somebody has changed its number
        entry =
            std::find_if(objects_.begin(), objects_.end(), [object](auto &other) { return other.second == object; });
    }
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

TreflectORB::TreflectObjectLocation TreflectORB::locateLocalObject_(const TipprmiOID &oid) const {
    TreflectHandlerState state(true);
    Locked lock(mutex_);
    for (const auto &[id, object] : objects_) {
        if (object->storedOID() == oid) {
            return TreflectObjectLocation(id, orbId_, object, oid);
        }
    }
    return TreflectObjectLocation(0, TreflectOrbId(), nullptr, oid);
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
        LogDispatch(3, "ORB has no memory for the members of its group", "REFLECT_orb");
        return {};
    }
}

std::list<Transport::TerminationId> TreflectORB::otherMembers() const noexcept {
    std::list<Transport::TerminationId> others = members();
    others.remove(termId());
    return others;
}
