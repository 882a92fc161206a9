#include "threads/DebugPermission_p.h"

#include "platform/Cancellation.h"
#include "platform/Environment_p.h"
#include "platform/LockAudit_p.h"
#include "platform/Log.h"
#include "platform/Thread.h"
#include "threads/HTUtil.h"
#include "threads/ReleaseHook_p.h"
#include "threads/Reporting_p.h"

#include <algorithm>
#include <cassert>
#include <cstdint>

namespace {

constexpr char kSource[] = "HandlerThreadPolicies";
constexpr OSWrap::TimeSpec kReportStep(10);
constexpr std::int64_t kPatience = 89; // whole seconds

unsigned long seconds(const OSWrap::TimeSpec &span) {
    return static_cast<unsigned long>(std::max<std::int64_t>(span.sec(), 0));
}

} // namespace

/** On the stack of a waiting thread; linked and touched by others only under the queue's lock. */
struct DebugPermission<Debugging_t<1>>::Waiter {
    explicit Waiter(DebugPermission &of) : permission(of) {}
    ~Waiter() { pthread_cond_destroy(&woken); }

    DebugPermission &permission;
    const bool hasHook = ReleaseHook::isSet();
    pthread_cond_t woken = PTHREAD_COND_INITIALIZER;
    Waiter *next = nullptr;
    // Known once it is the head of the queue.
    OSWrap::TimeSpec headSince;
    OSWrap::TimeSpec lastReport;
    unsigned long ownerThen = 0;
    int ownerTidThen = 0;
};

void DebugPermission<Debugging_t<1>>::announce() {
    LogDispatch(5, "ORB HandlerThreads using DebugPermission", kSource);
}

void DebugPermission<Debugging_t<1>>::get() {
    const unsigned long self = OSWrap::Thread::getCurrentId();
    if (owner() == self) {
        lockCounted(true);
        return;
    }
    if (tryGet() || Platform::inForkedChild()) {
        return; // in a child the owner, and who held the queue's lock, live in the other process
    }
    LockAudit::assertNoPlainLock("the run permission is taken while a plain lock is held");
    waitForTurn(OSWrap::TimeSpec::INFINITETIME);
    lockCounted(false);
}

bool DebugPermission<Debugging_t<1>>::getUntil(const OSWrap::TimeSpec &end) {
    OSWrap::DisableCancelStateGuard uncancelled;
    if (owner() == OSWrap::Thread::getCurrentId() || Platform::inForkedChild()) {
        return false;
    }
    if (tryGet()) {
        return true;
    }
    if (!waitForTurn(end)) {
        return false;
    }
    lockCounted(false);
    return true;
}

bool DebugPermission<Debugging_t<1>>::tryGet() {
    unsigned long free = 0;
    if (Platform::inForkedChild() ||
        !word_.compare_exchange_strong(free, OSWrap::Thread::getCurrentId(), std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return false;
    }
    becomeOwner();
    LockAudit::assertNoPlainLock("the run permission is taken while a plain lock is held");
    lockCounted(false);
    return true;
}

bool DebugPermission<Debugging_t<1>>::myTurn(const Waiter &waiter) const {
    return head_ == &waiter && owner() == 0;
}

void DebugPermission<Debugging_t<1>>::becomeHead(Waiter &waiter) {
    waiter.headSince = waiter.lastReport = OSWrap::Clock::getObsTime();
    waiter.ownerThen = owner();
    learnOwner(waiter);
}

/** The owner does not change before the head has its turn, but it may be a moment late to say its number. */
void DebugPermission<Debugging_t<1>>::learnOwner(Waiter &waiter) const {
    if (waiter.ownerTidThen == 0) {
        waiter.ownerTidThen = ownerTid_.load(std::memory_order_relaxed);
    }
}

/**
 * Each waiter has a condition of its own, so that a hand-off wakes one thread. One that is not the head looks every ten
 * seconds whether it has become that; so it reports in time without being woken for it.
 */
bool DebugPermission<Debugging_t<1>>::waitForTurn(const OSWrap::TimeSpec &end) RB_NO_ANALYSIS {
    OSWrap::DeferredCancelTypeGuard deferred;
    Waiter self(*this);
    queueLock_.lock();
    (tail_ != nullptr ? tail_->next : head_) = &self;
    tail_ = &self;
    otherWaiters_.fetch_add(self.hasHook ? 0 : 1, std::memory_order_relaxed);
    word_.fetch_or(kQueued, std::memory_order_acquire); // from here on the permission goes through the queue
    if (head_ == &self) {
        becomeHead(self);
    }
    pthread_cleanup_push(&DebugPermission::removeId, &self);
    bool inTime = true;
    while (!myTurn(self) && inTime) {
        const bool head = head_ == &self;
        const OSWrap::TimeSpec waited = head ? OSWrap::Clock::getObsTime() - self.lastReport : OSWrap::TimeSpec();
        if (waited < kReportStep) {
            queueLock_.wait(self.woken, std::min(kReportStep - waited, end - OSWrap::Clock::getObsTime()));
            wakeUps_.fetch_add(1, std::memory_order_relaxed);
        }
        inTime = OSWrap::Clock::getObsTime() < end;
        if (head_ == &self && owner() != 0) {
            reportWait(self);
        }
    }
    pthread_cleanup_pop(0);
    if (!myTurn(self)) {
        unlink(self);
        queueLock_.unlock();
        return false;
    }
    takeTurn(self);
    queueLock_.unlock();
    const OSWrap::TimeSpec waited = OSWrap::Clock::getObsTime() - self.headSince;
    if (waited >= kReportStep) {
        LogDispatch(5,
                    LogMakeString("%s::getRunPermission(thread=%ld) got mutex from thread %ld %s after %lus",
                                  reportedActor().c_str(), static_cast<long>(OSWrap::Thread::getCurrentTid()),
                                  static_cast<long>(self.ownerTidThen), HTUtil::getName(self.ownerThen).c_str(),
                                  seconds(waited)),
                    kSource);
    }
    return true;
}

void DebugPermission<Debugging_t<1>>::takeTurn(Waiter &waiter) {
    const unsigned long self = OSWrap::Thread::getCurrentId();
    word_.store(self | kQueued, std::memory_order_relaxed);
    becomeOwner();
    unlink(waiter);
}

void DebugPermission<Debugging_t<1>>::becomeOwner() {
    ownerTid_.store(OSWrap::Thread::getCurrentTid(), std::memory_order_relaxed);
    ownerHasHook_.store(ReleaseHook::isSet(), std::memory_order_relaxed);
}

/** Called with the queue's lock, which is given up meanwhile: a log that is slow must not delay the owner's release. */
void DebugPermission<Debugging_t<1>>::reportWait(Waiter &waiter) RB_NO_ANALYSIS {
    OSWrap::DisableCancelStateGuard guard;
    learnOwner(waiter);
    const OSWrap::TimeSpec now = OSWrap::Clock::getObsTime();
    const unsigned long waited = seconds(now - waiter.headSince);
    const bool due = now - waiter.lastReport >= kReportStep;
    const bool tooLong = waited > static_cast<unsigned long>(kPatience);
    if (!due && !tooLong) {
        return;
    }
    queueLock_.unlock();
    const bool givesUp = HTUtil::willabort() && tooLong;
    if (givesUp || due) {
        LogDispatch(5,
                    LogMakeString(givesUp ? "%s::getRunPermission(thread=%ld) waiting for thread %ld %s since %lus. "
                                            "Giving up"
                                          : "%s::getRunPermission(thread=%ld) waiting for thread %ld %s since %lus",
                                  reportedActor().c_str(), static_cast<long>(OSWrap::Thread::getCurrentTid()),
                                  static_cast<long>(waiter.ownerTidThen), HTUtil::getName(waiter.ownerThen).c_str(),
                                  waited),
                    kSource);
    }
    if (givesUp) {
        HTUtil::testabort();
    }
    queueLock_.lock();
    if (due) {
        waiter.lastReport = now;
    }
}

void DebugPermission<Debugging_t<1>>::unlink(Waiter &waiter) {
    Waiter *before = nullptr;
    Waiter *found = head_;
    while (found != nullptr && found != &waiter) {
        before = found;
        found = found->next;
    }
    if (found == nullptr) {
        return;
    }
    (before != nullptr ? before->next : head_) = waiter.next;
    otherWaiters_.fetch_sub(waiter.hasHook ? 0 : 1, std::memory_order_relaxed);
    if (tail_ == &waiter) {
        tail_ = before;
    }
    if (head_ == nullptr) {
        word_.fetch_and(~kQueued, std::memory_order_relaxed);
    } else if (before == nullptr) {
        becomeHead(*head_);
        if (owner() == 0) { // the head was cancelled together with its turn: that passes on
            pthread_cond_signal(&head_->woken);
        }
    }
}

/** A waiter that is cancelled; the system has given it the queue's lock. */
void DebugPermission<Debugging_t<1>>::removeId(void *argument) RB_NO_ANALYSIS {
    auto *waiter = static_cast<Waiter *>(argument);
    DebugPermission &permission = waiter->permission;
    permission.unlink(*waiter);
    permission.queueLock_.unlock();
}

unsigned DebugPermission<Debugging_t<1>>::waiting() const {
    unsigned count = 0;
    queueLock_.lock();
    for (const Waiter *waiter = head_; waiter != nullptr; waiter = waiter->next) {
        ++count;
    }
    queueLock_.unlock();
    return count;
}

void DebugPermission<Debugging_t<1>>::lockCounted(bool nested) RB_NO_ANALYSIS {
    assert(nested || mutex_.count() == 0); // who was the owner has unlocked it before it ceased to be that
    mutex_.lock();
    if (!nested) {
        return;
    }
    LogDispatch(4,
                LogMakeString("RunPermission %lu by thread %ld %s", static_cast<unsigned long>(mutex_.count()),
                              static_cast<long>(OSWrap::Thread::getCurrentTid()), HTUtil::getName(owner()).c_str()),
                kSource);
    HTUtil::printBacktrace("Multiple RunPermission");
    HTUtil::testabort();
}

void DebugPermission<Debugging_t<1>>::restoreLevel() RB_NO_ANALYSIS {
    if (owner() == OSWrap::Thread::getCurrentId()) {
        mutex_.lock();
    }
}

void DebugPermission<Debugging_t<1>>::release() RB_NO_ANALYSIS {
    if (owner() != OSWrap::Thread::getCurrentId()) {
        LogDispatch(3,
                    LogMakeString("%s::releaseRunPermission(thread=%ld) called without being owner",
                                  reportedActor().c_str(), static_cast<long>(OSWrap::Thread::getCurrentTid())),
                    kSource);
        return;
    }
    const bool last = mutex_.count() <= 1;
    mutex_.unlock();
    if (last) {
        passOn();
        ReleaseHook::run();
    }
}

/** Gives the permission to the head of the queue, if there is one. */
void DebugPermission<Debugging_t<1>>::passOn() RB_NO_ANALYSIS {
    ownerTid_.store(0, std::memory_order_relaxed);
    unsigned long self = OSWrap::Thread::getCurrentId();
    if (word_.compare_exchange_strong(self, 0, std::memory_order_release, std::memory_order_relaxed)) {
        return;
    }
    if (Platform::inForkedChild()) {
        word_.store(0, std::memory_order_relaxed); // who held the queue's lock lives in the other process
        return;
    }
    queueLock_.lock();
    word_.store(head_ != nullptr ? kQueued : 0, std::memory_order_release);
    if (head_ != nullptr) {
        pthread_cond_signal(&head_->woken);
    }
    queueLock_.unlock();
}
