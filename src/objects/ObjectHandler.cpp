#include "objects/ObjectHandler.h"

#include "objects/Locate_p.h"
#include "threads/PartingState_p.h"

#include <algorithm>
#include <memory>
#include <new>

std::atomic<TreflectObjectHandler *> TreflectObjectHandler::instance_{nullptr};

TreflectObjectHandler::TreflectObjectInvalidStub::~TreflectObjectInvalidStub() = default;

TreflectObjectHandler *TreflectObjectHandler::getInstance() {
    if (TreflectObjectHandler *handler = getExisting()) {
        return handler;
    }
    TreflectHandlerState state(true);
    if (getExisting() == nullptr) {
        instance_.store(new (std::nothrow) TreflectObjectHandler, std::memory_order_release);
    }
    return getExisting();
}

/** Two references, so that it never counts down to nothing. */
TreflectObjectHandler::TreflectObjectHandler() {
    invalidStub_.incRefCount();
    stubs_.insert(&invalidStub_);
    adoptStub(TipprmiOID(nullptr, NamespaceId(1)));
}

TreflectObjectStub *TreflectObjectHandler::adoptStub(const TreflectORB *, const TipprmiOID &oid) {
    return adoptStub(oid);
}

TreflectObjectStub *TreflectObjectHandler::adoptStub(const TipprmiOID &oid) {
    if (oid.getIdString() == nullptr) {
        TreflectHandlerState state(true);
        invalidStub_.incRefCount();
        return &invalidStub_;
    }
    // In the caller's own state: this may block.
    const TreflectORB::TreflectObjectLocation location = locate(1, oid);
    TreflectHandlerState state(true);
    return adoptStub(confirmed(location));
}

TreflectObjectStub *TreflectObjectHandler::adoptStub(const TreflectObjectLocationIf &location) {
    TreflectHandlerState state(true);
    const bool nothing = !location.hasOID() && location.getInternalOID() == 0 && location.orbId().value() == 0 &&
                         location.getServer() == nullptr;
    TreflectObjectStub *const stub = nothing ? &invalidStub_ : findOrMake(location);
    return adopted(stub);
}

TreflectObjectStub *TreflectObjectHandler::findOrMake(const TreflectObjectLocationIf &location) {
    TreflectObjectStub *stub = nullptr;
    if (location.hasOID() || location.getNamespaceId() == 1U) {
        stub = stubs_.find(location);
    } else { // a stub without name has namespace 1
        stub = stubs_.find(TreflectORB::TreflectObjectLocation(
            location.getInternalOID(), location.orbId(), location.getServer(), TipprmiOID(nullptr, NamespaceId(1))));
    }
    if (stub != nullptr) {
        if (stub->getServer() == nullptr && location.getServer() != nullptr) {
            stub->setServer(location.getServer()); // it came from a message, which cannot know
            if (!rememberServer(stub)) {
                stub->setServer(nullptr);
            }
        }
        return stub;
    }
    stub = new (std::nothrow) TreflectObjectStub(location);
    if (stub != nullptr && !(stubs_.insert(stub) && rememberServer(stub))) {
        stubs_.erase(stub);
        delete stub;
        return nullptr;
    }
    return stub;
}

TreflectObjectStub *TreflectObjectHandler::adoptStub(TreflectObjectStub *stub) {
    TreflectHandlerState state(true);
    return adopted(stub);
}

/** The attempt to connect may block, and its thread be cancelled there: then nobody gets the reference. */
TreflectObjectStub *TreflectObjectHandler::adopted(TreflectObjectStub *stub) {
    if (stub == nullptr) {
        return nullptr;
    }
    const auto release = [this](TreflectObjectStub *unfinished) { releaseStub(unfinished); };
    stub->incRefCount();
    std::unique_ptr<TreflectObjectStub, decltype(release)> reference(stub, release);
    checkConnect(stub);
    return reference.release();
}

void TreflectObjectHandler::releaseStub(TreflectObjectStub *stub) {
    if (stub == nullptr) {
        return;
    }
    const PartingState state;
    if (state.hasPermission() && stub->decRefCount() && stub != &invalidStub_) {
        forgetServer(*stub);
        stubs_.erase(stub);
        delete stub;
    }
}

void TreflectObjectHandler::checkConnect(TreflectObjectStub *stub) {
    if (stub != &invalidStub_ && stub->hasOID() && !stub->isConnected()) {
        stub->connect(nullptr, stub->getOID());
    }
}

void TreflectObjectHandler::invalidateStubs(const TreflectOrbId &orb) {
    TreflectHandlerState state(true);
    stubs_.invalidateStubs(
        [&](const TreflectObjectStub &stub) { return &stub != &invalidStub_ && stub.orbId() == orb; });
}

void TreflectObjectHandler::invalidateStubs(const TipprmiObjectSkeleton *object) {
    TreflectHandlerState state(true);
    for (auto entry = localStubs_.find(object); entry != localStubs_.end(); entry = localStubs_.find(object)) {
        TreflectObjectStub *const stub = entry->second;
        localStubs_.erase(entry);
        stub->setInvalid();
    }
}

bool TreflectObjectHandler::isInvalidStub(const TreflectObjectStub &stub) noexcept {
    const TreflectObjectHandler *handler = getExisting();
    return handler != nullptr && &stub == &handler->invalidStub_;
}

/** False if memory is short. */
bool TreflectObjectHandler::rememberServer(TreflectObjectStub *stub) {
    try {
        if (TipprmiObjectSkeleton *object = stub->getServer()) {
            localStubs_.emplace(object, stub);
        }
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

void TreflectObjectHandler::forgetServer(const TreflectObjectStub &stub) noexcept {
    TreflectObjectHandler *const handler = getExisting();
    if (handler == nullptr || stub.getServer() == nullptr) {
        return;
    }
    const auto range = handler->localStubs_.equal_range(stub.getServer());
    const auto entry =
        std::find_if(range.first, range.second, [&stub](const auto &each) { return each.second == &stub; });
    if (entry != range.second) {
        handler->localStubs_.erase(entry);
    }
}
