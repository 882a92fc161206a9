#pragma once

#include "platform/ConditionVar.h"
#include "platform/Lock.h"
#include "platform/ThreadAnnotations.h"

#include <list>

namespace View {

/**
 * From the threads in which the library tells what happens to the one that makes something of it. Elements may hold
 * handles, whose copying and destruction takes the run permission: so they are moved as list nodes, and nothing of them
 * happens under the lock.
 */
template <class T>
class EventQueue {
public:
    void push(std::list<T> &&node) {
        const Locked lock(changed_);
        waiting_.splice(waiting_.end(), node);
        changed_.signal();
    }
    /** Blocks until there is one, which is all that the list holds; empty once the queue is closed. Without the run
     *  permission. */
    std::list<T> pop() {
        std::list<T> first;
        const Locked lock(changed_);
        while (!closed_ && waiting_.empty()) {
            changed_.wait(OSWrap::TimeSpec::INFINITETIME);
        }
        if (!closed_) {
            first.splice(first.begin(), waiting_, waiting_.begin());
        }
        return first;
    }
    void close() {
        const Locked lock(changed_);
        closed_ = true;
        changed_.broadcast();
    }

private:
    using Locked = OSWrap::Lock<OSWrap::ConditionVar>;

    OSWrap::ConditionVar changed_;
    std::list<T> waiting_ RB_GUARDED_BY(changed_);
    bool closed_ RB_GUARDED_BY(changed_) = false;
};

} // namespace View
