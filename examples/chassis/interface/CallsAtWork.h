#pragma once

#include "platform/Lock.h"
#include "rmi/IPPRMI_stream.h"
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

/** A server object that may be destroyed at any time. */
template <class Skeleton>
class OutlivesCalls : public Skeleton {
public:
    using Skeleton::Skeleton;

    using Skeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) override {
        const CallsAtWork::Scope atWork(calls_);
        return Skeleton::dispatch(transaction, cc, mc, request, response);
    }

protected:
    /** For the destructor of the outermost class: no call comes any more, and none is at work. */
    void endCalls() {
        this->unregister_();
        calls_.awaitNone();
    }

private:
    CallsAtWork calls_;
};
