#pragma once

#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/TimeSpec.h"

namespace OSWrap {

/**
 * A lock and a condition in one. Waiters are woken in the order of their waits; a signal sent after the waiter's last
 * test under the lock is never lost, and a cancelled waiter passes its signal on.
 */
class RB_CAPABILITY("mutex") REFLECTORB_API ConditionVar {
public:
    /** The flag is accepted for source compatibility; both values behave alike. */
    explicit ConditionVar(bool = false) noexcept;
    virtual ~ConditionVar();
    ConditionVar(const ConditionVar &) = delete;
    ConditionVar &operator=(const ConditionVar &) = delete;

    virtual bool lock() RB_ACQUIRE();
    virtual bool unlock() RB_RELEASE();
    virtual bool trylock() RB_TRY_ACQUIRE(true);

    /**
     * Gives the lock up, waits for at most `limit` (relative, monotonic; INFINITETIME: without limit), takes it back.
     * The caller holds the lock once. True: woken, possibly without reason, so test your condition in a loop; false:
     * the time is over (at once for limits <= 0). A cancellation point; a cancelled wait unwinds with the lock held.
     */
    virtual bool wait(const TimeSpec &limit) RB_REQUIRES(this);

    /** Wake the longest waiter, or all. With or without the lock; never blocks. Not remembered without waiters. */
    virtual bool signal();
    virtual bool broadcast();

protected:
    /** For a lock that gives the run permission up while it blocks. */
    explicit ConditionVar(Mutex::RunPermissionAware) noexcept;

private:
    struct Waiter;
    static void abandon(void *waiter);
    bool pop(Waiter *waiter) RB_REQUIRES(queueLock_);

    Mutex mutex_;
    Mutex queueLock_; // leaf: guards the list and the flag in each waiter
    Waiter *first_ RB_GUARDED_BY(queueLock_) = nullptr;
    Waiter *last_ RB_GUARDED_BY(queueLock_) = nullptr;
};

} // namespace OSWrap
