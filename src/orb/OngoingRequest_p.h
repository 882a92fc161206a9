#pragma once

#include "orb/ReflectMessage.h"
#include "platform/ConditionVar.h"
#include "platform/TerminationId.h"

#include <cstdint>

class TreflectORB;

/**
 * The request that a thread has pending, one for each thread. The thread waits in it; the transport's threads hand the
 * response over with reset(), after they have taken the request out of the broker's table.
 */
class OngoingRequest : public OSWrap::ConditionVar {
public:
    /** Of the calling thread, made on first use, deleted when the thread ends; null if memory is short. */
    static OngoingRequest *getThreadInstance();

    /** Handed over instead of a response: the target's broker is gone, or nothing can come any more. Never deleted. */
    static TreflectMessage *disconnected() noexcept { return reinterpret_cast<TreflectMessage *>(~std::uintptr_t{0}); }

    OngoingRequest() : ConditionVar(true) {}
    ~OngoingRequest() override;

    /** Begins a request. */
    void setTransactionAndTerminationId(unsigned id, const Transport::TerminationId &target);

    /**
     * Waits for the response, in steps of 30 s with a report after each, or without limit. Null when the request is
     * not active, at once for an unlimited wait of a one-way request, and when the target does not exist any more
     * (`targetPresent` is false then). What is returned stays with this object until free(). A cancellation point.
     */
    TreflectMessage *wait(bool unlimited, bool twoWay, bool &targetPresent, TreflectMessage &request,
                          const TreflectORB *orb);
    using ConditionVar::wait;

    /** Hands a message over, which belongs to this object then; deletes it if the request is another one by now. */
    void reset(TreflectMessage *message, unsigned transactionId);
    void reset(TreflectMessage *message, const Transport::TerminationId &target);

    /** Hands a response over; of another request it is not kept. */
    void deliver(const TreflectMessage &message, unsigned transactionId);

    /** Ends the request. */
    void free();
    Transport::TerminationId toTerminationId();

private:
    friend class PendingRequests;
    void drop(TreflectMessage *message) RB_REQUIRES(this);
    void reset(TreflectMessage *message, bool accept) RB_REQUIRES(this);
    bool waitStep() RB_REQUIRES(this);

    unsigned transactionId_ RB_GUARDED_BY(this) = 0;
    Transport::TerminationId target_ RB_GUARDED_BY(this);
    TreflectMessage *response_ RB_GUARDED_BY(this) = nullptr; // owned, unless it is the next
    TreflectMessage delivered_ RB_GUARDED_BY(this);
    bool active_ RB_GUARDED_BY(this) = false;
    // Of the table that it is in; under the lock of that.
    OngoingRequest *nextPending_ = nullptr;
    unsigned pendingId_ = 0;
};
