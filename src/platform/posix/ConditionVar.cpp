#include "platform/ConditionVar.h"

#include "platform/posix/ScaledTime_p.h"

#include <cerrno>

namespace OSWrap {

/**
 * Each waiter blocks on a condition variable of its own: with several waiters on one, the C library can lose a signal.
 * It blocks with the queue's lock, not with the user's, so that a signal sent without the user's lock is not lost.
 */
struct ConditionVar::Waiter {
    explicit Waiter(ConditionVar &variable) : owner(variable) {}
    ~Waiter() { pthread_cond_destroy(&woken); }

    ConditionVar &owner;
    pthread_cond_t woken = PTHREAD_COND_INITIALIZER;
    bool signalled = false;
    bool queued = true;
    Waiter *next = nullptr;
};

ConditionVar::ConditionVar(bool) noexcept {}
ConditionVar::ConditionVar(Mutex::RunPermissionAware aware) noexcept : mutex_(aware) {}
ConditionVar::~ConditionVar() = default;

bool ConditionVar::lock() {
    return mutex_.lock();
}
bool ConditionVar::unlock() {
    return mutex_.unlock();
}
bool ConditionVar::trylock() {
    return mutex_.trylock();
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
    queueLock_.lock();
    if (Waiter *waiter = first_; waiter != nullptr) {
        pop(nullptr);
        waiter->signalled = true;
        pthread_cond_signal(&waiter->woken); // under the lock: the waiter's frame is gone once it has that
    }
    queueLock_.unlock();
    return true;
}

bool ConditionVar::broadcast() RB_NO_ANALYSIS {
    queueLock_.lock();
    while (Waiter *waiter = first_) {
        pop(nullptr);
        waiter->signalled = true;
        pthread_cond_signal(&waiter->woken);
    }
    queueLock_.unlock();
    return true;
}

/** A cancelled wait. The system has given the queue's lock back to this thread; it unwinds with the user's lock. */
void ConditionVar::abandon(void *argument) RB_NO_ANALYSIS {
    auto *waiter = static_cast<Waiter *>(argument);
    ConditionVar &self = waiter->owner;
    self.queueLock_.noteTaken();
    if (waiter->queued) {
        self.pop(waiter);
    }
    const bool passOn = waiter->signalled;
    self.queueLock_.unlock();
    if (passOn) {
        self.ConditionVar::signal();
    }
    self.mutex_.lock();
}

bool ConditionVar::wait(const TimeSpec &limit) RB_NO_ANALYSIS {
    Waiter self(*this);
    const bool timed = limit != TimeSpec::INFINITETIME;
    if (timed && limit <= TimeSpec()) {
        pthread_testcancel();
        mutex_.unlock();
        mutex_.lock();
        return false;
    }
    timespec end{};
    if (timed) {
        end = ScaledTime::deadline(limit);
    }
    queueLock_.lock();
    (last_ != nullptr ? last_->next : first_) = &self;
    last_ = &self;
    mutex_.unlock();
    int error = 0;
    pthread_cleanup_push(&ConditionVar::abandon, &self);
    while (!self.signalled && error != ETIMEDOUT) {
        queueLock_.noteReleased();
        error = timed ? pthread_cond_clockwait(&self.woken, &queueLock_.mutex_, CLOCK_MONOTONIC, &end)
                      : pthread_cond_wait(&self.woken, &queueLock_.mutex_);
        queueLock_.noteTaken();
    }
    pthread_cleanup_pop(0);
    if (self.queued) {
        pop(&self);
    }
    const bool woken = self.signalled;
    queueLock_.unlock();
    mutex_.lock();
    return woken;
}

} // namespace OSWrap
