#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/TimeSpec.h"
#include "platform/posix/NativeLock_p.h"
#include "threads/HandlerThreadPolicies.h"

#include <atomic>

/** The run permission: a lock with a first-come-first-served queue that reports long waits and misuse. */
template <>
class DebugPermission<Debugging_t<1>> {
public:
    DebugPermission() noexcept = default;
    DebugPermission(const DebugPermission &) = delete;
    DebugPermission &operator=(const DebugPermission &) = delete;

    static void announce();

    /**
     * Waits for its turn; a cancellation point while it does. Taking it twice in one thread is reported as a fault, but
     * works by count. A waiter that reaches the head of the queue reports every 10 seconds, and aborts the actor after
     * 90 unless that is switched off.
     */
    void get();
    /** Likewise, until `end` at most, not a cancellation point; false: not taken. */
    bool getUntil(const OSWrap::TimeSpec &end);
    /** Takes it if it is free and nobody waits for it. */
    bool tryGet();
    /** Gives one level back; only its owner can. */
    void release();
    /** Puts back the level that the owner of a nested permission gave up before it blocked; no report. */
    void restoreLevel();

    /** Exact for the calling thread's own id, a snapshot for others; 0 when free. */
    unsigned long owner() const noexcept { return word_.load(std::memory_order_relaxed) & ~kQueued; }
    unsigned count() const noexcept { return mutex_.count(); }
    /** Threads in the queue. */
    unsigned waiting() const;
    /** Whether a thread without ReleaseHook has it or waits for it, a snapshot. */
    bool hasOtherClaims() const noexcept {
        return otherWaiters_.load(std::memory_order_relaxed) != 0 ||
               (owner() != 0 && !ownerHasHook_.load(std::memory_order_relaxed));
    }
    /** How many times a waiting thread was woken so far. */
    unsigned long wakeUps() const noexcept { return wakeUps_.load(std::memory_order_relaxed); }

private:
    struct Waiter;

    // Ids of threads are addresses of objects that are larger, so their lowest bit is free.
    static constexpr unsigned long kQueued = 1;

    bool waitForTurn(const OSWrap::TimeSpec &end);
    void becomeOwner();
    void takeTurn(Waiter &waiter) RB_REQUIRES(queueLock_);
    void passOn();
    bool myTurn(const Waiter &waiter) const RB_REQUIRES(queueLock_);
    void becomeHead(Waiter &waiter) RB_REQUIRES(queueLock_);
    void unlink(Waiter &waiter) RB_REQUIRES(queueLock_);
    void learnOwner(Waiter &waiter) const RB_REQUIRES(queueLock_);
    void reportWait(Waiter &waiter);
    void lockCounted(bool nested);
    static void removeId(void *waiter);

    OSWrap::CountedMutex mutex_; // never contended: who locks it has become the owner first
    // The owner, with kQueued while anybody is in the queue. Without that bit the permission is taken and given back by
    // exchanging the word; with it only under the queue's lock, as are changes of the bit itself.
    std::atomic<unsigned long> word_{0};
    std::atomic<int> ownerTid_{0}; // for reports; 0 until the owner has said it
    std::atomic<bool> ownerHasHook_{false};
    std::atomic<unsigned> otherWaiters_{0};
    mutable Platform::NativeLock queueLock_;
    Waiter *head_ RB_GUARDED_BY(queueLock_) = nullptr;
    Waiter *tail_ RB_GUARDED_BY(queueLock_) = nullptr;
    std::atomic<unsigned long> wakeUps_{0};
};
