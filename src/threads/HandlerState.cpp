#include "threads/HandlerState.h"

#include "platform/Cancellation.h"
#include "threads/HandlerThreadsType_p.h"

#include <pthread.h>

using namespace HandlerState;

// Entering, leaving and taking a free permission contain no cancellation point, so only what may wait or log is
// surrounded by a change of the cancellation state: that change costs more than all the rest.

TreflectHandlerState::TreflectHandlerState(bool withPermission)
    : wasHandler_(isHandlerThread()), hadPermission_(wasHandler_ && hasRunPermission()) {
    if (wasHandler_ && (!withPermission || hadPermission_)) {
        return;
    }
    if (!withPermission) {
        enterHandlerState(false);
        return;
    }
    if (handlerThreads() != nullptr && handlerThreads()->tryGet(!wasHandler_)) {
        return;
    }
    OSWrap::DisableCancelStateGuard guard;
    pthread_cleanup_push(&TreflectHandlerState::cleanupHandlerState, this);
    if (!wasHandler_) {
        enterHandlerState(true);
    } else {
        getRunPermission();
    }
    pthread_cleanup_pop(0);
}

TreflectHandlerState::~TreflectHandlerState() {
    cleanupHandlerState(this);
}

// Giving the permission back and leaving never wait; what they log, misuse, the log itself protects.
void TreflectHandlerState::cleanupHandlerState(void *state) {
    const auto *self = static_cast<const TreflectHandlerState *>(state);
    if (self == nullptr || !isHandlerThread()) {
        return;
    }
    if (!self->hadPermission_ && hasRunPermission()) {
        releaseRunPermission();
    }
    if (!self->wasHandler_) {
        leaveHandlerState(false);
    }
}

TreflectReleaseHandlerState::TreflectReleaseHandlerState() : released_(Released::nothing) {
    if (isHandlerThread() && hasRunPermission()) {
        releaseRunPermission();
        released_ = hasRunPermission() ? Released::level : Released::permission;
    }
}

TreflectReleaseHandlerState::~TreflectReleaseHandlerState() {
    if (released_ == Released::nothing) {
        return;
    }
    OSWrap::DisableCancelStateGuard guard;
    if (!isHandlerThread()) {
        enterHandlerState(true);
    } else if (!hasRunPermission()) {
        getRunPermission();
    } else if (released_ == Released::level) {
        restoreRunPermissionLevel();
    }
}

TreflectRestoreHandlerState::TreflectRestoreHandlerState()
    : wasHandler_(isHandlerThread()), hadPermission_(hasRunPermission()) {}

TreflectRestoreHandlerState::~TreflectRestoreHandlerState() {
    OSWrap::DisableCancelStateGuard guard;
    if (!wasHandler_) {
        releaseRunPermissionWhileHeld();
        while (isHandlerThread()) {
            leaveHandlerState(false);
        }
    } else if (!isHandlerThread()) {
        enterHandlerState(hadPermission_);
    } else if (hadPermission_ && !hasRunPermission()) {
        getRunPermission();
    } else if (!hadPermission_) {
        releaseRunPermissionWhileHeld();
    }
}
