#pragma once

#include "platform/Export.h"
#include "platform/ThreadAnnotations.h"

#include <atomic>
#include <pthread.h>

namespace OSWrap {

/**
 * A plain lock: not recursive, usable before main(), never a cancellation point. Debug builds abort when its holder
 * locks it again or another thread unlocks it. While it is held, nothing may be done that takes the run permission.
 */
class RB_CAPABILITY("mutex") REFLECTORB_API Mutex {
public:
    constexpr Mutex() noexcept = default;
    /** For a lock whose holder may take the run permission, because blocking for it gives that up. */
    struct RunPermissionAware {};
    constexpr explicit Mutex(RunPermissionAware) noexcept : audited_(false) {}
    ~Mutex();
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    bool lock() RB_ACQUIRE();
    bool unlock() RB_RELEASE();
    /** True when the lock was free and is now held. */
    bool trylock() RB_TRY_ACQUIRE(true);

private:
    friend class ConditionVar;

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    // For debug builds of the library; present in all, so that every user sees the same size.
    std::atomic<unsigned long> holder_{0};
    bool audited_ = true;
};

/**
 * A lock that its holder may take again. trylock() by the holder succeeds; unlock() by anybody else is refused with
 * false. count() is the holder's depth, whoever asks; 0 when free.
 */
class RB_CAPABILITY("mutex") REFLECTORB_API CountedMutex {
public:
    CountedMutex() noexcept = default;
    ~CountedMutex();
    CountedMutex(const CountedMutex &) = delete;
    CountedMutex &operator=(const CountedMutex &) = delete;

    bool lock() RB_ACQUIRE();
    bool unlock() RB_RELEASE();
    bool trylock() RB_TRY_ACQUIRE(true);
    unsigned count() const noexcept { return count_.load(std::memory_order_relaxed); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<unsigned long> holder_{0};
    std::atomic<unsigned> count_{0};
};

} // namespace OSWrap
