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

std::size_t ThreadSpecificValue::size() const {
    Locked lock(lock_);
    return values_.size();
}

ThreadSpecificValue::Before ThreadSpecificValue::set(void *value) {
    Locked lock(lock_);
    try {
        const auto [entry, added] = values_.try_emplace(OSWrap::Thread::getCurrentId(), nullptr);
        const Before before{!added, entry->second};
        entry->second = value;
        return before;
    } catch (const std::bad_alloc &) {
        return {false, nullptr};
    }
}

// Where there was an entry there still is one, so the way back allocates nothing.
void ThreadSpecificValue::restore(const Before &before) {
    Locked lock(lock_);
    const auto found = values_.find(OSWrap::Thread::getCurrentId());
    if (found == values_.end()) {
        return;
    }
    if (before.existed) {
        found->second = before.value;
    } else {
        values_.erase(found);
    }
}
