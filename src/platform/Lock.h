#pragma once

#include "platform/ThreadAnnotations.h"

namespace OSWrap {

/**
 * Holds a lock for a scope. Calls the virtual lock() where there is one, so a Lock over a ConditionVar& that is in
 * truth a run-permission-aware lock behaves as such.
 */
template <class L>
class RB_SCOPED_CAPABILITY Lock {
public:
    explicit Lock(L &lock) RB_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~Lock() RB_RELEASE() { lock_.unlock(); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    L &lock_;
};

} // namespace OSWrap
