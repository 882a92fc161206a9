#include "threads/ThreadSpecificGuard.h"

#include "platform/Lock.h"
#include "platform/Thread.h"

#include <new>

using Locked = OSWrap::Lock<OSWrap::Mutex>;

void *ThreadSpecificValue::get() const {
    Locked lock(lock_);
    const auto found = values_.find(OSWrap::Thread::getCurrentId());
    return found != values_.end() ? found->second : nullptr;
}

void *ThreadSpecificValue::exchange(void *value) {
    const unsigned long self = OSWrap::Thread::getCurrentId();
    Locked lock(lock_);
    const auto found = values_.find(self);
    void *const before = found != values_.end() ? found->second : nullptr;
    if (value == nullptr) {
        values_.erase(self);
    } else if (found != values_.end()) {
        found->second = value; // also the way back at the end of a scope: allocates nothing
    } else {
        try {
            values_.emplace(self, value);
        } catch (const std::bad_alloc &) {
        }
    }
    return before;
}

std::size_t ThreadSpecificValue::size() const {
    Locked lock(lock_);
    return values_.size();
}
