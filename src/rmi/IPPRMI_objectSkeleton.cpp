#include "rmi/IPPRMI_objectSkeleton.h"

#include "objects/ObjectHandler.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Environment_p.h"
#include "platform/Log.h"
#include "rmi/IPPRMI_objectClient.h"
#include "threads/PartingState_p.h"

#include <new>
#include <utility>

namespace {

constexpr unsigned kSetContainer = 2100;
constexpr unsigned kGetContainer = 2101;

} // namespace

TipprmiObjectSkeleton::TipprmiObjectSkeleton(TreflectORB *, const TipprmiOID &oid) : TipprmiObjectSkeleton(oid) {}

TipprmiObjectSkeleton::TipprmiObjectSkeleton(const TipprmiOID &oid)
    : TipprmiObjectBase(oid, static_cast<unsigned>(oid.getNamespaceId())) {
    TipprmiObjectSkeleton::connect(nullptr, oid);
}

TipprmiObjectSkeleton::TipprmiObjectSkeleton() : TipprmiObjectBase(TipprmiOID(nullptr, NamespaceId(1)), 0) {}

TipprmiObjectSkeleton::~TipprmiObjectSkeleton() {
    const PartingState state;
    unregister_();
    orb_ = nullptr;
    if (!state.hasPermission()) {
        return;
    }
    if (TreflectObjectHandler *handler = TreflectObjectHandler::getExisting()) {
        handler->invalidateStubs(this); // clients must not find it any more
    }
    dropClient_();
}

/** A static object may go after the brokers. */
void TipprmiObjectSkeleton::unregister_() {
    const SingletonInstances::Pin orb(orb_);
    if (orb.get() != nullptr) {
        orb.get()->unregisterObject(this);
    }
}

/** It may be registered with others than the one it names. */
void TipprmiObjectSkeleton::renamed_() const {
    if (!Platform::inForkedChild()) { // where the locks are as they happened to be
        TreflectORB::renamed(*this);
    }
}

void TipprmiObjectSkeleton::dropClient_() const {
    delete std::exchange(client_, nullptr);
}

void TipprmiObjectSkeleton::client_slot_(TipprmiObjectClient *client) const {
    if (client != nullptr && client->getStub_() == nullptr) {
        delete client;
        client = nullptr;
    }
    client_ = client;
}

void TipprmiObjectSkeleton::connect(TreflectORB *orb, const TipprmiOID &oid) {
    if (orb == nullptr) {
        orb = TreflectORB::getInstance(oid.getNamespaceId());
    }
    TipprmiObjectClient *old = nullptr; // it stood for the old registration
    {
        TreflectHandlerState state(true);
        if (orb == orb_) {
            return;
        }
        unregister_();
        const SingletonInstances::Pin pinned(orb);
        orb_ = pinned.get();
        if (orb_ != nullptr) {
            orb_->registerObject(this);
        }
        old = std::exchange(client_, nullptr);
    }
    delete old;
}

TipprmiObjectClient *TipprmiObjectSkeleton::getClient() const {
    TreflectHandlerState state(true);
    if (client_ == nullptr) {
        client_slot_(new (std::nothrow) TipprmiObjectClient(this));
    }
    return client_;
}

TreflectOrbId TipprmiObjectSkeleton::orbId() const {
    TreflectHandlerState state(true);
    const SingletonInstances::Pin orb(orb_);
    return orb.get() != nullptr ? orb.get()->orbId() : TreflectOrbId();
}

void TipprmiObjectSkeleton::setExceptionContainer(const TipprmiExceptionContainer &container) const {
    container_ = container;
}

TipprmiExceptionContainer TipprmiObjectSkeleton::getExceptionContainer() const {
    return container_;
}

bool TipprmiObjectSkeleton::dispatch(bool, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    if (mc == kSetContainer) {
        TipprmiExceptionContainer container;
        request >> container;
        if (request.hasUnmarshallingFailed()) {
            request.printUnmarshallError(cc, mc);
        } else {
            setExceptionContainer(container);
            if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType()) {
                LogDispatch(4,
                            LogMakeString("Object %X is given the general exception: all its answers read as failures",
                                          getInternalOID()),
                            "IPPRMI_objectSkeleton");
            }
        }
        prepareResponseStream_(response);
        return true;
    }
    if (mc == kGetContainer) {
        prepareResponseStream_(response);
        response << getExceptionContainer();
        return true;
    }
    LogDispatch(3, LogMakeString("Unknown method code %d", static_cast<int>(mc)), "IPPRMI_objectSkeleton");
    return false;
}
