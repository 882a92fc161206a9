#include "orb/Counted_p.h"
#include "orb/ObjectTable_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "threads/HandlerState.h"

#include <new>

namespace {

constexpr unsigned kRequestSize = 100;
constexpr unsigned kResponseSize = 104;
constexpr unsigned kNoAnswer = 0x660006;
constexpr char kSource[] = "REFLECT_orb";

using Locked = OSWrap::Lock<OSWrap::Mutex>;

} // namespace

bool TreflectORB::registerObject(TipprmiObjectSkeleton *object) {
    if (object == nullptr) {
        return true;
    }
    unsigned id = 0;
    {
        Locked lock(mutex_);
        id = objects_->add(*object);
    }
    if (id == 0) {
        LogDispatch(3, LogMakeString("ORB 0x%08X has no memory to register an object", termId().value()), kSource);
    }
    object->setInternalOID(id);
    return true;
}

bool TreflectORB::unregisterObject(const TipprmiObjectSkeleton *object) {
    Locked lock(mutex_);
    objects_->remove(object);
    return true;
}

void TreflectORB::renamed(const TipprmiObjectSkeleton &object) {
    SingletonInstances::forEach([&object](TreflectORB &orb) {
        bool known = false;
        {
            Locked lock(orb.mutex_);
            known = orb.objects_->rename(object);
        }
        if (!known) {
            LogDispatch(3, LogMakeString("ORB 0x%08X has no memory for the name of an object", orb.termId().value()),
                        kSource);
        }
    });
}

TipprmiObjectSkeleton *TreflectORB::findObject(unsigned internalOid) const {
    Locked lock(mutex_);
    return objects_->find(internalOid);
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

TreflectORB::TreflectObjectLocation TreflectORB::locateLocalObject_(const TipprmiOID &oid) const {
    TreflectHandlerState state(true);
    ObjectTable::Found found;
    {
        Locked lock(mutex_);
        found = objects_->find(oid);
    }
    return TreflectObjectLocation(found.number, found.object != nullptr ? orbId_ : TreflectOrbId(), found.object, oid);
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
