#include "platform/ConditionVar.h"

#include "platform/Cancellation.h"
#include "platform/Thread.h"
#include "platform/posix/ScaledTime_p.h"

#include <atomic>
#include <cerrno>
#include <semaphore.h>

namespace OSWrap {

/**
 * Each waiter blocks on a semaphore of its own, so that no signal is lost to another, and one that wakes up needs no
 * lock but the user's. Who takes a waiter out of the queue for a signal owes it one post; it does not leave before.
 */
struct ConditionVar::Waiter {
    explicit Waiter(ConditionVar &variable) : owner(variable) { sem_init(&woken, 0, 0); }
    ~Waiter() { sem_destroy(&woken); }

    /** The waiter may be gone right after. */
    void wake() noexcept {
        signalled.store(true, std::memory_order_release);
        sem_post(&woken);
    }
    void awaitWake() noexcept {
        DisableCancelStateGuard guard;
        while (sem_wait(&woken) != 0) { // a signal of the system
        }
        static_cast<void>(signalled.load(std::memory_order_acquire));
    }
    /** Without limit if `end` is null. False: the time is over. A cancellation point. */
    bool block(const timespec *end) {
        static constexpr timespec kNever{0x7FFFFFFF, 0}; // the clock began when the system did
        int result = 0;
        do {
            result = sem_clockwait(&woken, CLOCK_MONOTONIC, end != nullptr ? end : &kNever);
        } while (result != 0 && (errno == EINTR || end == nullptr));
        return result == 0 && signalled.load(std::memory_order_acquire);
    }

    ConditionVar &owner;
    sem_t woken;
    std::atomic<bool> signalled{false};
    bool queued = true;
    Waiter *next = nullptr;

    // Signals sent with the user's lock are kept back until that is released: a thread that was woken before could
    // only wait for it. One list for all variables that the thread has locked.
    static thread_local Waiter *keptBack;
    static void keepBack(Waiter *waiter) noexcept {
        Waiter **place = &keptBack;
        while (*place != nullptr) { // in the order of the signals
            place = &(*place)->next;
        }
        waiter->next = nullptr;
        *place = waiter;
    }
    /** `variable` may be gone already. */
    static void wakeKeptBack(const ConditionVar *variable) noexcept {
        for (Waiter **place = &keptBack; *place != nullptr;) {
            Waiter *const waiter = *place;
            if (&waiter->owner == variable) {
                *place = waiter->next;
                waiter->wake();
            } else {
                place = &waiter->next;
            }
        }
    }
};

__attribute__((tls_model("initial-exec"))) thread_local ConditionVar::Waiter *ConditionVar::Waiter::keptBack = nullptr;

ConditionVar::ConditionVar(bool) noexcept {}
ConditionVar::ConditionVar(Mutex::RunPermissionAware aware) noexcept : mutex_(aware) {}
ConditionVar::~ConditionVar() = default;

// The holder is noted for signal(), in all builds.

bool ConditionVar::lock() {
    const bool locked = mutex_.lock();
    mutex_.holder_.store(Thread::getCurrentId(), std::memory_order_relaxed);
    return locked;
}

bool ConditionVar::trylock() {
    const bool locked = mutex_.trylock();
    if (locked) {
        mutex_.holder_.store(Thread::getCurrentId(), std::memory_order_relaxed);
    }
    return locked;
}

bool ConditionVar::unlock() {
#ifdef NDEBUG
    mutex_.holder_.store(0, std::memory_order_relaxed); // debug builds want to see it there
#endif
    const bool unlocked = mutex_.unlock();
    if (Waiter::keptBack != nullptr) {
        Waiter::wakeKeptBack(this);
    }
    return unlocked;
}

/** Takes a waiter out of the list, or the first one if it is null. */
bool ConditionVar::pop(Waiter *waiter) {
    Waiter *before = nullptr;
    Waiter *found = first_;
    while (found != nullptr && waiter != nullptr && found != waiter) {
        before = found;
        found = found->next;
    }
    if (found == nullptr) {
        return false;
    }
    (before != nullptr ? before->next : first_) = found->next;
    if (last_ == found) {
        last_ = before;
    }
    found->queued = false;
    return true;
}

bool ConditionVar::signal() RB_NO_ANALYSIS {
    const bool locked = mutex_.holder_.load(std::memory_order_relaxed) == Thread::getCurrentId();
    queueLock_.lock();
    Waiter *const waiter = first_;
    if (waiter != nullptr) {
        pop(nullptr);
    }
    queueLock_.unlock();
    // This object may be gone from here on, once the waiter is woken.
    if (waiter != nullptr && locked) {
        Waiter::keepBack(waiter);
    } else if (waiter != nullptr) {
        waiter->wake();
    }
    return true;
}

bool ConditionVar::broadcast() RB_NO_ANALYSIS {
    const bool locked = mutex_.holder_.load(std::memory_order_relaxed) == Thread::getCurrentId();
    queueLock_.lock();
    Waiter *all = first_;
    for (Waiter *waiter = all; waiter != nullptr; waiter = waiter->next) {
        waiter->queued = false;
    }
    first_ = last_ = nullptr;
    queueLock_.unlock();
    while (all != nullptr) {
        Waiter *const waiter = all;
        all = all->next;
        if (locked) {
            Waiter::keepBack(waiter);
        } else {
            waiter->wake();
        }
    }
    return true;
}

/** A cancelled wait; it unwinds with the user's lock. */
void ConditionVar::abandon(void *argument) RB_NO_ANALYSIS {
    auto *waiter = static_cast<Waiter *>(argument);
    ConditionVar &self = waiter->owner;
    self.queueLock_.lock();
    const bool queued = waiter->queued;
    if (queued) {
        self.pop(waiter);
    }
    self.queueLock_.unlock();
    if (!queued) {
        waiter->awaitWake();
        self.ConditionVar::signal(); // which another one should have
    }
    self.ConditionVar::lock();
}

bool ConditionVar::wait(const TimeSpec &limit) RB_NO_ANALYSIS {
    Waiter self(*this);
    const bool timed = limit != TimeSpec::INFINITETIME;
    if (timed && limit <= TimeSpec()) {
        pthread_testcancel();
        ConditionVar::unlock();
        ConditionVar::lock();
        return false;
    }
    timespec end{};
    if (timed) {
        end = ScaledTime::deadline(limit);
    }
    queueLock_.lock();
    (last_ != nullptr ? last_->next : first_) = &self;
    last_ = &self;
    queueLock_.unlock();
    ConditionVar::unlock();
    bool woken = false;
    pthread_cleanup_push(&ConditionVar::abandon, &self);
    woken = self.block(timed ? &end : nullptr);
    pthread_cleanup_pop(0);
    if (!woken) {
        queueLock_.lock();
        woken = !self.queued;
        if (!woken) {
            pop(&self);
        }
        queueLock_.unlock();
        if (woken) {
            self.awaitWake(); // a signal on its way
        }
    }
    ConditionVar::lock();
    return woken;
}

} // namespace OSWrap
