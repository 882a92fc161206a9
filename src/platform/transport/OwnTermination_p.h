#pragma once

#include "platform/ConditionVar.h"
#include "platform/Termination.h"
#include "platform/ThreadAnnotations.h"

#include <deque>
#include <memory>

namespace Transport {

/**
 * The transport's side of a termination of this process: the gate to its callbacks, and its membership thread. Outlives
 * the termination as long as a callback is on its way, so that stop() may be called from within one.
 */
class OwnTermination : public std::enable_shared_from_this<OwnTermination> {
public:
    explicit OwnTermination(TerminationImpl &termination) noexcept : termination_(termination) {}

    /** Events are queued from now on, `present` first; they come on the membership thread, in order. */
    bool listen(std::deque<TerminationPtr> present);
    void appeared(const TerminationPtr &termination) { push({termination, true}); }
    void vanished(const TerminationPtr &termination) { push({termination, false}); }

    /** Receiving thread. False: it takes nothing any more. */
    bool deliver(const AddressedMessage &message) { return call(&TerminationImpl::receive, message); }
    bool deliverError(const AddressedMessage &message) { return call(&TerminationImpl::receiveError, message); }

    /** Has been stopped; it cannot be started again. */
    bool stopped();
    /** Announces that stop() is coming. */
    void beginStop();
    /** On return no callback will run, and none runs except the caller's own. False: one has not returned within
     *  `limit`. */
    bool stop(const OSWrap::TimeSpec &limit);
    /** If another thread stops it: returns when that is done, or false when `limit` is over. */
    bool awaitStop(const OSWrap::TimeSpec &limit);

private:
    class Membership;
    struct Event {
        TerminationPtr termination;
        bool appeared;
    };
    using Callback = bool (TerminationImpl::*)(const AddressedMessage &);

    bool call(Callback callback, const AddressedMessage &message);
    void push(Event event);
    bool othersInside(unsigned long self) const RB_REQUIRES(gate_);
    void deliverEvents();
    bool nextEvent(Event &event);

    TerminationImpl &termination_; // valid until stop() has returned true
    OSWrap::ConditionVar gate_;
    std::deque<Event> events_ RB_GUARDED_BY(gate_);
    bool listening_ RB_GUARDED_BY(gate_) = false;
    bool stopping_ RB_GUARDED_BY(gate_) = false;
    bool stopped_ RB_GUARDED_BY(gate_) = false;
    // Thread ids of those inside a callback; 0: nobody.
    unsigned long receiving_ RB_GUARDED_BY(gate_) = 0;
    unsigned long membership_ RB_GUARDED_BY(gate_) = 0;
};

} // namespace Transport
