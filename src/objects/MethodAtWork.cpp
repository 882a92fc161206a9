#include "objects/MethodAtWork_p.h"

#include "platform/Cancellation.h"
#include "platform/Environment_p.h"
#include "platform/Immortal_p.h"
#include "platform/Lock.h"
#include "platform/Thread.h"
#include "platform/posix/NativeLock_p.h"
#include "threads/HandlerThreadsType_p.h"
#include "threads/PartingState_p.h"

#include <algorithm>
#include <atomic>
#include <pthread.h>

namespace {

constexpr OSWrap::TimeSpec kStep(10);
constexpr OSWrap::TimeSpec kLimit(2, 0);

thread_local bool hasWaited = false; // in vain, at the end of the thread

using Locked = OSWrap::Lock<Platform::NativeLock>;

/** Gives the run permission up for the scope, with all levels: those who are waited for need it. */
class WithoutPermission {
public:
    WithoutPermission() : levels_(HandlerState::hasRunPermission() ? HandlerState::getRunPermissionCount() : 0) {
        HandlerState::releaseRunPermissionWhileHeld();
    }
    ~WithoutPermission() {
        if (levels_ == 0 || !take()) {
            return;
        }
        for (unsigned level = 1; level < levels_; ++level) {
            HandlerState::restoreRunPermissionLevel();
        }
    }
    WithoutPermission(const WithoutPermission &) = delete;
    WithoutPermission &operator=(const WithoutPermission &) = delete;

private:
    static bool take() {
        if (ThreadEnd::begun()) {
            return ThreadEnd::takePermission();
        }
        HandlerState::getRunPermission();
        return true;
    }

    const unsigned levels_;
};

} // namespace

/** Those of all threads. */
class MethodAtWork::List {
public:
    static List &instance() noexcept { return immortal_.object; }

    void add(MethodAtWork &one) {
        const Locked lock(lock_);
        one.next_ = first_;
        if (first_ != nullptr) {
            first_->previous_ = &one;
        }
        first_ = &one;
        count_.fetch_add(1, std::memory_order_relaxed);
    }
    void remove(const MethodAtWork &one) {
        const Locked lock(lock_);
        (one.previous_ != nullptr ? one.previous_->next_ : first_) = one.next_;
        if (one.next_ != nullptr) {
            one.next_->previous_ = one.previous_;
        }
        count_.fetch_sub(1, std::memory_order_relaxed);
        if (waiting_ != 0) {
            pthread_cond_broadcast(&changed_);
        }
    }
    /** Without lock: who has the run permission need not fear that one comes. */
    bool isEmpty() const noexcept { return count_.load(std::memory_order_relaxed) == 0; }
    bool hasOther(const TreflectServerObject &object) {
        const Locked lock(lock_);
        return find(object);
    }
    /** False: not by `end`. */
    bool awaitOthers(const TreflectServerObject &object, const OSWrap::TimeSpec &end) {
        const OSWrap::DisableCancelStateGuard uncancelled;
        const Locked lock(lock_);
        ++waiting_;
        bool found = find(object);
        for (OSWrap::TimeSpec now = OSWrap::Clock::getObsTime(); found && now < end;
             now = OSWrap::Clock::getObsTime()) {
            lock_.wait(changed_, std::min(kStep, end - now));
            found = find(object);
        }
        --waiting_;
        return !found;
    }
    void abandon(const TreflectServerObject &object) {
        const unsigned long self = OSWrap::Thread::getCurrentId();
        const Locked lock(lock_);
        for (MethodAtWork *one = first_; one != nullptr; one = one->next_) {
            one->isAbandoned_ = one->isAbandoned_ || (one->object_ == &object && one->thread_ != self);
        }
        hasAbandoned_.store(true, std::memory_order_relaxed);
    }
    bool isThisThreadAbandoned() {
        if (!hasAbandoned_.load(std::memory_order_relaxed)) { // written with the permission, if it could be had
            return false;
        }
        const unsigned long self = OSWrap::Thread::getCurrentId();
        const Locked lock(lock_);
        const MethodAtWork *one = first_;
        while (one != nullptr && (!one->isAbandoned_ || one->thread_ != self)) {
            one = one->next_;
        }
        return one != nullptr;
    }

private:
    bool find(const TreflectServerObject &object) const RB_REQUIRES(lock_) {
        const unsigned long self = OSWrap::Thread::getCurrentId();
        const MethodAtWork *one = first_;
        while (one != nullptr && (one->object_ != &object || one->thread_ == self)) {
            one = one->next_;
        }
        return one != nullptr;
    }

    static Immortal<List> immortal_;

    Platform::NativeLock lock_;
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
    MethodAtWork *first_ RB_GUARDED_BY(lock_) = nullptr;
    unsigned waiting_ RB_GUARDED_BY(lock_) = 0;
    std::atomic<unsigned> count_{0};
    std::atomic<bool> hasAbandoned_{false};
};

Immortal<MethodAtWork::List> MethodAtWork::List::immortal_;

/** Not in a child of fork(), where the list and its lock are as they happened to be. */
MethodAtWork::MethodAtWork(const TreflectServerObject *object) noexcept
    : object_(Platform::inForkedChild() ? nullptr : object) {
    if (object_ != nullptr) {
        thread_ = OSWrap::Thread::getCurrentId();
        List::instance().add(*this);
    }
}

MethodAtWork::~MethodAtWork() {
    if (object_ != nullptr && !Platform::inForkedChild()) {
        List::instance().remove(*this);
    }
}

bool MethodAtWork::isOtherIn(const TreflectServerObject &object) noexcept {
    return !List::instance().isEmpty() && !Platform::inForkedChild() && List::instance().hasOther(object);
}

bool MethodAtWork::awaitOthers(const TreflectServerObject &object) {
    if (Platform::inForkedChild()) {
        return true;
    }
    const WithoutPermission released;
    OSWrap::TimeSpec end = OSWrap::TimeSpec::INFINITETIME;
    if (ThreadEnd::begun()) {
        end = OSWrap::Clock::getObsTime() + (hasWaited ? OSWrap::TimeSpec() : kLimit);
    }
    const bool left = List::instance().awaitOthers(object, end);
    hasWaited = hasWaited || !left;
    return left;
}

void MethodAtWork::abandon(const TreflectServerObject &object) noexcept {
    if (!Platform::inForkedChild()) {
        List::instance().abandon(object);
    }
}

void MethodAtWork::goOn() {
    if (!List::instance().isThisThreadAbandoned()) {
        return;
    }
    const OSWrap::DisableCancelStateGuard uncancelled; // unwinding would meet the object
    const WithoutPermission released;
    for (;;) {
        OSWrap::Thread::sleep(kStep);
    }
}
