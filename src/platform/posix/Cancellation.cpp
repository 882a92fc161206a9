#include "platform/Cancellation.h"

#include <pthread.h>

namespace OSWrap {

DisableCancelStateGuard::DisableCancelStateGuard() noexcept {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_);
}

DisableCancelStateGuard::~DisableCancelStateGuard() {
    pthread_setcancelstate(previous_, &previous_);
}

DeferredCancelTypeGuard::DeferredCancelTypeGuard() noexcept {
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &previous_);
}

DeferredCancelTypeGuard::~DeferredCancelTypeGuard() {
    pthread_setcanceltype(previous_, &previous_);
}

} // namespace OSWrap
