#pragma once

#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/Thread.h"
#include "threads/HTUtil.h"
#include "threads/HandlerThreadPolicies.h"
#include "threads/Reporting_p.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <new>
#include <pthread.h>

/**
 * The handler threads of an actor and the permission that lets one of them run at a time. Misuse is reported, and
 * aborts the actor unless that is switched off. A thread that ends is taken out, and its permission freed.
 */
template <class Container, class Permission, class Debugging>
class HandlerThreads {
public:
    HandlerThreads() : hasKey_(pthread_key_create(&key_, &HandlerThreads::releaseOnThreadTermination) == 0) {}
    HandlerThreads(const HandlerThreads &) = delete;
    HandlerThreads &operator=(const HandlerThreads &) = delete;

    /** Says in the log what this is made of. */
    void announce() const {
        Container::announce();
        Permission::announce();
        init(Debugging());
        if (!hasKey_) {
            LogDispatch(3, "no thread key: a thread that ends keeps what it has of the run permission", kSource);
        }
    }

    void enter(bool withPermission);
    void leave(bool withPermission);
    bool isHandler() const noexcept { return threads_.exist(); }
    unsigned size() const noexcept { return threads_.size(); }
    /** Threads other than the calling one that have ever been handlers, and have not ended. */
    unsigned others() const noexcept;

    bool hasPermission() const noexcept { return permission_.owner() == OSWrap::Thread::getCurrentId(); }
    void getPermission();
    /** Takes the permission if it is free right now, entering first if asked to. Never waits, never logs. */
    bool tryGet(bool enterFirst);
    /** For a handler without permission: waits for its turn, until `end` at most. */
    bool getUntil(const OSWrap::TimeSpec &end) { return permission_.getUntil(end); }
    /** False, and nothing taken, if the calling thread is no handler. */
    bool retrievePermission();
    void releasePermission();
    void restorePermissionLevel() { permission_.restoreLevel(); }
    /** Gives up all levels, whether the calling thread is still a handler or not. */
    void releaseWhileHeld();
    unsigned getPermissionCount() const noexcept { return permission_.count(); }
    unsigned long getPermissionOwner() const noexcept { return permission_.owner(); }
    bool hasOtherClaims() const noexcept { return permission_.hasOtherClaims(); }
    unsigned waitingForPermission() const { return permission_.waiting(); }
    unsigned long wakeUps() const noexcept { return permission_.wakeUps(); }

    /** For the start of a remote call: reports a caller without permission. */
    void check();

private:
    static constexpr char kSource[] = "HandlerThreadPolicies";
    // Each thread's report counters: two fields of two bits that stay at 3.
    static constexpr unsigned kNoPermissionField = 0;
    static constexpr unsigned kNoHandlerField = 2;

    static void init(Debugging_t<1>) { LogDispatch(6, "ORB uses HandlerThreads with DEBUG flag set", kSource); }
    static void releaseOnThreadTermination(void *object);
    void watchThread();
    bool reportAgain(unsigned field);

    Container threads_;
    Permission permission_;
    OSWrap::Mutex reportLock_;
    std::map<unsigned long, std::uint32_t> reports_ RB_GUARDED_BY(reportLock_);
    std::atomic<unsigned> watched_{0};
    pthread_key_t key_{};
    const bool hasKey_;
};

template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::enter(bool withPermission) {
    watchThread();
    threads_.add();
    if (withPermission) {
        getPermission();
    }
}

template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::leave(bool withPermission) {
    if (withPermission && hasPermission()) {
        permission_.release();
    }
    threads_.remove();
    if (!hasPermission()) {
        return;
    }
    const unsigned long self = OSWrap::Thread::getCurrentId();
    LogDispatch(3,
                LogMakeString("Thread %lu %s has %lu RunPermission after leaveHandlerState", self,
                              HTUtil::getName(self).c_str(), static_cast<unsigned long>(permission_.count())),
                kSource);
    HTUtil::printBacktrace("leaveHandlerState() keeps RunPermission");
    HTUtil::testabort();
    releaseWhileHeld();
}

template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::getPermission() {
    if (retrievePermission() || !reportAgain(kNoHandlerField)) {
        return;
    }
    const unsigned long self = OSWrap::Thread::getCurrentId();
    LogDispatch(4,
                LogMakeString("getRunPermission() called by thread %lu %s, which is no handler thread", self,
                              HTUtil::getName(self).c_str()),
                kSource);
}

template <class Container, class Permission, class Debugging>
unsigned HandlerThreads<Container, Permission, Debugging>::others() const noexcept {
    if (!hasKey_) {
        return ~0U; // nobody has counted them
    }
    return watched_ - (pthread_getspecific(key_) != nullptr ? 1 : 0);
}

template <class Container, class Permission, class Debugging>
bool HandlerThreads<Container, Permission, Debugging>::tryGet(bool enterFirst) {
    if (!permission_.tryGet()) {
        return false;
    }
    if (enterFirst) {
        enter(false);
    }
    return true;
}

template <class Container, class Permission, class Debugging>
bool HandlerThreads<Container, Permission, Debugging>::retrievePermission() {
    if (!isHandler()) {
        return false;
    }
    permission_.get();
    return true;
}

template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::releasePermission() {
    if (isHandler()) {
        permission_.release();
    }
}

template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::releaseWhileHeld() {
    while (hasPermission()) {
        permission_.release();
    }
}

template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::check() {
    if (hasPermission() || !reportAgain(kNoPermissionField)) {
        return;
    }
    const unsigned long self = OSWrap::Thread::getCurrentId();
    LogDispatch(3,
                LogMakeString("%s thread %lu %s doing RMI, but has no RunPermission (owner=%lu)",
                              reportedActor().c_str(), self, HTUtil::getName(self).c_str(), permission_.owner()),
                kSource);
    HTUtil::printBacktrace("RMI with no RunPermission");
    HTUtil::testabort();
}

/** Counts one more report of the calling thread; whether it is one of its first two. */
template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::watchThread() {
    if (!hasKey_ || pthread_getspecific(key_) != nullptr) {
        return;
    }
    ++watched_;
    if (pthread_setspecific(key_, this) != 0) {
        LogDispatch(3, "no memory for a thread: when it ends it keeps what it has of the run permission", kSource);
    }
}

template <class Container, class Permission, class Debugging>
bool HandlerThreads<Container, Permission, Debugging>::reportAgain(unsigned field) {
    watchThread(); // its counters go with it: the system gives its id to another thread
    OSWrap::Lock<OSWrap::Mutex> lock(reportLock_);
    try {
        std::uint32_t &flags = reports_[OSWrap::Thread::getCurrentId()];
        const std::uint32_t count = flags >> field & 3U;
        if (count == 3) {
            return false;
        }
        flags += std::uint32_t{1} << field;
        return count + 1 <= 2;
    } catch (const std::bad_alloc &) {
        return true; // rather once too often than a fault that nobody hears of
    }
}

template <class Container, class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::releaseOnThreadTermination(void *object) {
    OSWrap::DisableCancelStateGuard guard;
    auto *self = static_cast<HandlerThreads *>(object);
    while (self->isHandler()) {
        self->releaseWhileHeld();
        self->leave(false);
    }
    // The system gives the id to another thread soon; that one shall be reported anew.
    OSWrap::Lock<OSWrap::Mutex> lock(self->reportLock_);
    self->reports_.erase(OSWrap::Thread::getCurrentId());
    --self->watched_;
}
