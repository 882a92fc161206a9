#include "objects/REFLECT_objectStub.h"

#include "objects/Locate_p.h"
#include "objects/ObjectHandler.h"
#include "orb/CallFailure_p.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Log.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "threads/HandlerState.h"

#include <cstdint>

namespace {

constexpr char kSource[] = "REFLECT_objectStub";

TipprmiObjectSkeleton *invalidMark() noexcept {
    return reinterpret_cast<TipprmiObjectSkeleton *>(~std::uintptr_t{0});
}

TipprmiOID noName() {
    return TipprmiOID(nullptr, NamespaceId(1));
}

const void *address(const void *pointer) noexcept {
    return pointer;
}

} // namespace

TreflectObjectStub::TreflectObjectStub() : TipprmiObjectBase(noName(), 0) {}

TreflectObjectStub::TreflectObjectStub(const TreflectObjectLocationIf &location)
    : TipprmiObjectBase(location.hasOID() ? location.getOID() : noName(), location.getInternalOID()),
      orbId_(location.orbId()), object_(location.getServer()) {
    if (TreflectObjectStub::getInternalOID() == 0 && !TreflectObjectStub::hasOID()) {
        LogDispatch(3,
                    LogMakeString("TreflectObjectStub(ol) this=0x%p,object=%p,oid=NULL,ioid=%X,orbId=0x%X",
                                  address(this), address(object_), 0U, orbId_.value()),
                    kSource);
    }
}

TreflectObjectStub::TreflectObjectStub(TipprmiObjectSkeleton *object)
    : TipprmiObjectBase(object->hasOID() ? object->getOID() : noName(), object->getInternalOID()),
      orbId_(object->orbId()), object_(object) {
    if (TreflectObjectStub::getInternalOID() == 0) {
        LogDispatch(3,
                    LogMakeString("TreflectObjectStub(object) this=0x%p,object=%p,ioid=%X,orbId=0x%X", address(this),
                                  address(object_), 0U, orbId_.value()),
                    kSource);
    }
}

TreflectObjectStub::TreflectObjectStub(const TreflectObjectStub &other)
    : TreflectObjectLocationIf(other), TipprmiObjectBase(other), orbId_(other.orbId_), object_(other.object_) {
    if (TreflectObjectStub::getInternalOID() == 0) {
        LogDispatch(3,
                    LogMakeString("TreflectObjectStub(other) this=0x%p,object=%p,ioid=%X,orbId=0x%X", address(this),
                                  address(object_), 0U, orbId_.value()),
                    kSource);
    }
}

TreflectObjectStub &TreflectObjectStub::operator=(const TreflectObjectStub &other) {
    if (this == &other) {
        return *this;
    }
    TreflectObjectHandler::changeKey(*this, [&] {
        TipprmiObjectBase::operator=(other);
        object_ = other.object_;
        orbId_ = other.orbId_;
        meta_ = nullptr;
    });
    if (getInternalOID() == 0) {
        LogDispatch(3, LogMakeString("operator=() object=%p,ioid=%X,orbId=0x%X", address(object_), 0U, orbId_.value()),
                    kSource);
    }
    return *this;
}

TreflectObjectStub::~TreflectObjectStub() = default;

bool TreflectObjectStub::hasOID() const {
    return TipprmiObjectBase::hasOID();
}
TipprmiOID TreflectObjectStub::getOID() const {
    return TipprmiObjectBase::getOID();
}
TreflectOrbId TreflectObjectStub::orbId() const {
    return orbId_;
}
unsigned TreflectObjectStub::getInternalOID() const {
    return TipprmiObjectBase::getInternalOID();
}
NamespaceId TreflectObjectStub::getNamespaceId() const {
    return TipprmiObjectBase::getNamespaceId();
}

TipprmiObjectSkeleton *TreflectObjectStub::getServer() const {
    return isValid() ? object_ : nullptr;
}

void TreflectObjectStub::setInvalid() noexcept {
    TreflectObjectHandler::forgetServer(*this);
    object_ = invalidMark();
}

bool TreflectObjectStub::isValid() const noexcept {
    return object_ != invalidMark();
}

bool TreflectObjectStub::isConnected() const {
    return isValid() && getInternalOID() != 0;
}

std::string TreflectObjectStub::className() const {
    return "TreflectObjectStub";
}

// --- where the object is --------------------------------------------------------------------------------------------

void TreflectObjectStub::connect(const TreflectORB *, const TipprmiOID &oid) {
    if (!isValid()) {
        return;
    }
    const TipprmiOID name = oid; // which may be our own
    const TreflectORB::TreflectObjectLocation found = locate(name.getNamespaceId(), name);
    TreflectHandlerState state(true);
    const TreflectORB::TreflectObjectLocation location = confirmed(found);
    if (!isValid()) { // its broker may have gone while we waited
        return;
    }
    TreflectObjectHandler::changeKey(*this, [&] {
        setOID(name);
        setInternalOID(location.getInternalOID());
        orbId_ = location.orbId();
        object_ = location.getServer();
        meta_ = nullptr;
    });
}

void TreflectObjectStub::connect(const TipprmiOID &oid) {
    connect(nullptr, oid);
}

void TreflectObjectStub::connect(TipprmiObjectSkeleton *object) {
    TreflectHandlerState state(true);
    TreflectObjectHandler::changeKey(*this, [&] {
        object_ = object;
        meta_ = nullptr;
        if (object != nullptr) {
            setOID(object->hasOID() ? object->getOID() : noName());
            setInternalOID(object->getInternalOID());
            orbId_ = object->orbId();
        } else {
            setOID(noName());
            setInternalOID(0);
        }
    });
}

// --- calls ----------------------------------------------------------------------------------------------------------

unsigned TreflectObjectStub::localOrbId() const {
    const SingletonInstances::Pin orb(getNamespaceId());
    return orb.get() != nullptr ? orb.get()->orbId().value() : 0;
}

void TreflectObjectStub::prepareRequestStream(bool transaction, unsigned cc, unsigned mc,
                                              TipprmiStream &request) const {
    prepareRequestStream_(transaction, cc, mc, request);
}

void TreflectObjectStub::prepareResponseStream(bool transaction, TipprmiStream &response) const {
    prepareResponseStream_(transaction, response);
}

void TreflectObjectStub::prepareRequestStream_(bool transaction, unsigned cc, unsigned mc,
                                               TipprmiStream &request) const {
    if (!isValid()) {
        LogDispatch(
            4,
            LogMakeString("prepareRequestStream_(this=0x%p,cc=0x%X,mc=%d,orbId=%X) to stub object set to invalid",
                          address(this), cc, static_cast<int>(mc), orbId_.value()),
            kSource);
        return;
    }
    request.clear();
    if (getServer() != nullptr) {
        return; // a call in this process has no head
    }
    if (getInternalOID() == 0) {
        LogDispatch(
            6,
            LogMakeString("prepareRequestStream_(this=0x%p,cc=0x%X,mc=%d,orbId=%X) to non connected stub object",
                          address(this), cc, static_cast<int>(mc), localOrbId()),
            kSource);
        if (hasOID() && !TreflectObjectHandler::isInvalidStub(*this)) {
            const_cast<TreflectObjectStub *>(this)->connect(getOID());
        }
        if (getServer() != nullptr) {
            return; // it has turned up in this process
        }
    }
    request << getInternalOID() << transaction << cc << mc;
}

void TreflectObjectStub::prepareResponseStream_(bool transaction, TipprmiStream &response) const {
    if (!transaction) {
        return;
    }
    TipprmiExceptionContainer container;
    response >> container;
    if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType()) {
        response.stopUnmarshalling();
    }
}

bool TreflectObjectStub::forwardMsg(const TreflectOrbId &orb, bool transaction, TipprmiStream &request,
                                    TipprmiStream &response) const {
    const SingletonInstances::Pin own(1);
    return own.get() != nullptr && own.get()->forwardMsg(orb, transaction, request, response);
}

bool TreflectObjectStub::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                                  TipprmiStream &response) const {
    if (!isValid()) {
        LogDispatch(4,
                    LogMakeString("dispatch(this=0x%p,cc=0x%X,mc=%d,orbId=%X) request to stub object set to invalid",
                                  address(this), cc, static_cast<int>(mc), localOrbId()),
                    kSource);
        writeCallFailure(response);
        return false;
    }
    if (TipprmiObjectSkeleton *object = getServer()) {
        const bool result = object->dispatch(transaction, cc, mc, request, response);
        if (!result) {
            LogDispatch(3,
                        LogMakeString("dispatch(this=0x%p,cc=0x%X,mc=%d,orbId=%X) to object failed", address(this), cc,
                                      static_cast<int>(mc), localOrbId()),
                        kSource);
        }
        return result;
    }
    if (getInternalOID() != 0) {
        const bool result = forwardMsg(orbId_, transaction, request, response);
        if (!result) {
            LogDispatch(3, "Message forwarding failed", kSource);
            writeCallFailure(response);
        }
        return result;
    }
    LogDispatch(6,
                LogMakeString("dispatch(this=0x%p,cc=0x%X,mc=%d,orbId=%X) request to invalid stub object",
                              address(this), cc, static_cast<int>(mc), localOrbId()),
                kSource);
    writeCallFailure(response);
    return false;
}

bool operator==(const TreflectObjectStub &a, const TreflectObjectStub &b) {
    if (a.hasOID() && b.hasOID()) {
        return a.getOID() == b.getOID();
    }
    return a.getInternalOID() == b.getInternalOID() && a.orbId() == b.orbId() &&
           a.getNamespaceId() == b.getNamespaceId() && a.isValid() == b.isValid() && a.getServer() == b.getServer();
}
