#pragma once

#include "platform/Export.h"

namespace OSWrap {

/** No cancellation of this thread inside the scope; restores what was before, so guards nest. Not a cancellation
 *  point itself: a request made meanwhile acts at the next wait or sleep after the outermost guard. */
class REFLECTORB_API DisableCancelStateGuard {
public:
    DisableCancelStateGuard() noexcept;
    ~DisableCancelStateGuard();
    DisableCancelStateGuard(const DisableCancelStateGuard &) = delete;
    DisableCancelStateGuard &operator=(const DisableCancelStateGuard &) = delete;

private:
    int previous_;
};

/** Deferred cancellation inside the scope; restores what was before. Asynchronous cancellation is not supported
 *  anywhere else in the library. */
class REFLECTORB_API DeferredCancelTypeGuard {
public:
    DeferredCancelTypeGuard() noexcept;
    ~DeferredCancelTypeGuard();
    DeferredCancelTypeGuard(const DeferredCancelTypeGuard &) = delete;
    DeferredCancelTypeGuard &operator=(const DeferredCancelTypeGuard &) = delete;

private:
    int previous_;
};

} // namespace OSWrap
