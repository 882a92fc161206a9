#include "platform/transport/OwnTermination_p.h"

#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Thread.h"

#include <cstdlib>
#include <exception>
#include <new>

namespace Transport {

namespace {

using Locked = OSWrap::Lock<OSWrap::ConditionVar>;

[[noreturn]] void threw(const char *what) {
    LogDispatch(0, LogMakeString("Transport: a callback threw: %s", what), "Transport");
    Log::flushBeforeAbort();
    std::abort();
}

} // namespace

/** Detached: stop() waits for the end of the callback, not of the thread, so a callback may stop its termination. */
class OwnTermination::Membership : public OSWrap::Thread {
public:
    explicit Membership(std::shared_ptr<OwnTermination> own)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), ~0U, "TrspMembership", true), own_(std::move(own)) {
        deleteOnThreadTermination();
    }

protected:
    int run() override {
        OSWrap::DisableCancelStateGuard guard;
        own_->deliverEvents();
        return 0;
    }

private:
    const std::shared_ptr<OwnTermination> own_;
};

bool OwnTermination::listen(std::deque<TerminationPtr> present) {
    {
        Locked lock(gate_);
        for (TerminationPtr &termination : present) {
            events_.push_back({std::move(termination), true});
        }
        listening_ = true;
    }
    auto *thread = new (std::nothrow) Membership(shared_from_this());
    if (thread == nullptr || !thread->start()) {
        LogDispatch(3, "Transport: membership thread cannot be started", "Transport");
        return false;
    }
    return true;
}

void OwnTermination::push(Event event) {
    Locked lock(gate_);
    if (listening_ && !stopped_) {
        events_.push_back(std::move(event));
        gate_.broadcast();
    }
}

void OwnTermination::deliverEvents() {
    Event event{};
    while (nextEvent(event)) {
        try {
            if (event.appeared) {
                termination_.appeared(*event.termination);
            } else {
                termination_.disappeare(*event.termination);
            }
        } catch (const std::exception &error) {
            threw(error.what());
        }
    }
}

bool OwnTermination::nextEvent(Event &event) {
    event = Event{};
    Locked lock(gate_);
    membership_ = 0;
    gate_.broadcast();
    while (events_.empty() && !stopped_) {
        gate_.wait(OSWrap::TimeSpec::INFINITETIME);
    }
    if (stopped_) {
        return false;
    }
    event = std::move(events_.front());
    events_.pop_front();
    membership_ = OSWrap::Thread::getCurrentId();
    return true;
}

bool OwnTermination::call(Callback callback, const AddressedMessage &message) {
    unsigned long outer = 0; // this call may be inside another one, which stopped or started a termination
    {
        Locked lock(gate_);
        if (stopped_) {
            return false;
        }
        outer = receiving_;
        receiving_ = OSWrap::Thread::getCurrentId();
    }
    try {
        static_cast<void>((termination_.*callback)(message));
    } catch (const std::exception &error) {
        threw(error.what());
    }
    Locked lock(gate_);
    receiving_ = outer;
    if (stopped_) {
        gate_.broadcast();
    }
    return true;
}

bool OwnTermination::stopped() {
    Locked lock(gate_);
    return stopped_;
}

bool OwnTermination::stop(const OSWrap::TimeSpec &limit) {
    OSWrap::DisableCancelStateGuard guard;
    const unsigned long self = OSWrap::Thread::getCurrentId();
    const OSWrap::TimeSpec end = OSWrap::Clock::getObsTime() + limit;
    std::deque<Event> dropped; // destroyed after the lock is released
    Locked lock(gate_);
    stopped_ = true;
    dropped.swap(events_);
    gate_.broadcast();
    while (othersInside(self)) {
        if (!gate_.wait(end - OSWrap::Clock::getObsTime())) {
            return !othersInside(self);
        }
    }
    return true;
}

void OwnTermination::beginStop() {
    Locked lock(gate_);
    stopping_ = true;
}

bool OwnTermination::awaitStop(const OSWrap::TimeSpec &limit) {
    OSWrap::DisableCancelStateGuard guard;
    const unsigned long self = OSWrap::Thread::getCurrentId();
    const OSWrap::TimeSpec end = OSWrap::Clock::getObsTime() + limit;
    Locked lock(gate_);
    if (!stopping_ || receiving_ == self || membership_ == self) {
        return true; // a callback does not wait here: who stops waits for it
    }
    while (!stopped_ || othersInside(self)) {
        if (!gate_.wait(end - OSWrap::Clock::getObsTime())) {
            return stopped_ && !othersInside(self);
        }
    }
    return true;
}

bool OwnTermination::othersInside(unsigned long self) const {
    return (receiving_ != 0 && receiving_ != self) || (membership_ != 0 && membership_ != self);
}

} // namespace Transport
