#include "rmi/IPPRMI_objectBase.h"

#include "platform/Log.h"
#include "rmi/IPPRMI_objectSkeleton.h"

#include <cstdio>

namespace {

void neverToBeCalled(const char *what) {
    LogDispatch(2, LogMakeString("%s should never be called", what), "IPPRMI_objectBase");
}

} // namespace

TipprmiObjectBase::~TipprmiObjectBase() = default;

TipprmiObjectBase &TipprmiObjectBase::operator=(const TipprmiObjectBase &other) {
    internalOID_ = other.internalOID_;
    setOID(other.oid_);
    return *this;
}

void TipprmiObjectBase::setOID(const TipprmiOID &oid) {
    oid_ = oid;
    if (const auto *object = dynamic_cast<const TipprmiObjectSkeleton *>(this)) {
        object->renamed_(); // of stubs the broker knows nothing
    }
}

TipprmiOID TipprmiObjectBase::getOID() const {
    if (hasOID()) {
        return oid_;
    }
    char name[31];
    std::snprintf(name, sizeof name, "rmi_%X_%X", orbId().value(), getInternalOID());
    return TipprmiOID(name, NamespaceId(1));
}

unsigned TipprmiObjectBase::getInternalOID() const {
    return internalOID_;
}

NamespaceId TipprmiObjectBase::getNamespaceId() const {
    return oid_.getNamespaceId();
}

bool TipprmiObjectBase::dispatch(bool, unsigned, unsigned, TipprmiStream &, TipprmiStream &) {
    return false;
}

bool TipprmiObjectBase::dispatch(bool, unsigned, unsigned, TipprmiStream &, TipprmiStream &) const {
    return false;
}

void TipprmiObjectBase::setExceptionContainer(const TipprmiExceptionContainer &) const {
    neverToBeCalled("setExceptionContainer");
}

TipprmiExceptionContainer TipprmiObjectBase::getExceptionContainer() const {
    neverToBeCalled("getExceptionContainer");
    return {};
}

bool TipprmiObjectBase::hasOID() const {
    return oid_.getIdString() != nullptr;
}
