#pragma once

#include "platform/Lock.h"
#include "threads/BrokerLocks.h"

/** How many calls of an object are at work: one that tells an observer gives the run permission up, so its object may
 *  have to go in the middle of it. With the run permission. */
class CallsAtWork {
public:
    class Scope {
    public:
        explicit Scope(CallsAtWork &calls) : calls_(calls) {
            const Locked lock(calls_.none_);
            ++calls_.count_;
        }
        ~Scope() {
            const Locked lock(calls_.none_);
            --calls_.count_;
            calls_.none_.broadcast();
        }
        Scope(const Scope &) = delete;
        Scope &operator=(const Scope &) = delete;

    private:
        CallsAtWork &calls_;
    };

    /** Gives the run permission up while it waits. */
    void awaitNone() {
        const Locked lock(none_);
        while (count_ != 0) {
            none_.wait(OSWrap::TimeSpec::INFINITETIME);
        }
    }

private:
    using Locked = OSWrap::Lock<TreflectConditionVar>;

    TreflectConditionVar none_{false};
    unsigned count_ RB_GUARDED_BY(none_) = 0;
};
