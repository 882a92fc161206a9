#pragma once

#include "platform/ThreadAnnotations.h"
#include "platform/TimeSpec.h"
#include "platform/posix/ScaledTime_p.h"

#include <pthread.h>

namespace Platform {

/** A lock to wait with on conditions of one's own choosing; a leaf that no other lock is taken under. */
class RB_CAPABILITY("mutex") NativeLock {
public:
    constexpr NativeLock() noexcept = default;
    ~NativeLock() { pthread_mutex_destroy(&mutex_); }
    NativeLock(const NativeLock &) = delete;
    NativeLock &operator=(const NativeLock &) = delete;

    void lock() RB_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() RB_RELEASE() { pthread_mutex_unlock(&mutex_); }

    /** Waits for the condition for at most `span` of library time. A cancellation point; a cancelled wait unwinds with
     *  the lock held. */
    void wait(pthread_cond_t &condition, const OSWrap::TimeSpec &span) RB_REQUIRES(this) {
        const timespec end = ScaledTime::deadline(span);
        pthread_cond_clockwait(&condition, &mutex_, CLOCK_MONOTONIC, &end);
    }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace Platform
