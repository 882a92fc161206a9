#include "threads/HandlerThreadsType_p.h"

#include "platform/Environment_p.h"
#include "threads/PartingState_p.h"

#include <atomic>
#include <execinfo.h>
#include <new>
#include <unistd.h>

namespace {

/** Never destroyed: destructors of static objects may be the first to ask. */
union CreationLock {
    constexpr CreationLock() : mutex() {}
    ~CreationLock() {}
    OSWrap::Mutex mutex;
};

std::atomic<HandlerThreadsType *> object{nullptr};
CreationLock creation;

HandlerThreadsType *create() {
    OSWrap::DisableCancelStateGuard guard;
    bool made = false;
    {
        OSWrap::Lock<OSWrap::Mutex> lock(creation.mutex);
        if (object.load() == nullptr) {
            object = new (std::nothrow) HandlerThreadsType;
            made = object.load() != nullptr;
        }
    }
    if (made) { // the log comes after the lock: a sink may be slow
        HandlerThreadsTypeOutput(1, 1, 1);
        object.load()->announce();
        void *frame = nullptr;
        ::backtrace(&frame, 1); // loads what later backtraces need, now and not on a small stack
        if (OSWrap::Thread::getCurrentTid() == ::getpid()) {
            ThreadEnd::watch(); // the main thread, and when that ends the process does; others may end before it
        }
    }
    return object;
}

} // namespace

int HandlerThreadsTypeOutput(int cnt, int prm, int dbg) {
    static std::atomic<bool> said{false};
    if (!said.exchange(true)) {
        LogDispatch(5, LogMakeString("HandlerThreadsType compiled with flags: cnt=%d, prm=%d, dbg=%d", cnt, prm, dbg),
                    "HandlerThreadsType");
    }
    return 1;
}

HandlerThreadsType *handlerThreads() {
    if (Platform::inForkedChild()) {
        return nullptr; // the other threads, and the locks that they hold, are in the other process
    }
    HandlerThreadsType *threads = object.load(std::memory_order_acquire);
    return threads != nullptr ? threads : create();
}

namespace HandlerState {

void enterHandlerState(bool withPermission) {
    if (HandlerThreadsType *threads = handlerThreads()) {
        threads->enter(withPermission);
    }
}

void leaveHandlerState(bool withPermission) {
    if (HandlerThreadsType *threads = handlerThreads()) {
        threads->leave(withPermission);
    }
}

void checkHandlerState() {
    if (HandlerThreadsType *threads = handlerThreads()) {
        threads->check();
    }
}

bool isHandlerThread() {
    HandlerThreadsType *threads = handlerThreads();
    return threads != nullptr && threads->isHandler();
}

void getRunPermission() {
    if (HandlerThreadsType *threads = handlerThreads()) {
        threads->getPermission();
    }
}

void releaseRunPermission() {
    if (HandlerThreadsType *threads = handlerThreads()) {
        threads->releasePermission();
    }
}

bool hasRunPermission() {
    HandlerThreadsType *threads = handlerThreads();
    return threads != nullptr && threads->hasPermission();
}

unsigned getRunPermissionCount() {
    HandlerThreadsType *threads = handlerThreads();
    return threads != nullptr ? threads->getPermissionCount() : 0;
}

unsigned long getRunPermissionOwner() {
    HandlerThreadsType *threads = handlerThreads();
    return threads != nullptr ? threads->getPermissionOwner() : 0;
}

bool hasOtherRunPermissionClaims() {
    HandlerThreadsType *threads = handlerThreads();
    return threads != nullptr && threads->hasOtherClaims();
}

void releaseRunPermissionWhileHeld() {
    if (HandlerThreadsType *threads = handlerThreads()) {
        threads->releaseWhileHeld();
    }
}

void restoreRunPermissionLevel() {
    if (HandlerThreadsType *threads = handlerThreads()) {
        threads->restorePermissionLevel();
    }
}

} // namespace HandlerState
