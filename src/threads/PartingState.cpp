#include "threads/PartingState_p.h"

#include "platform/Cancellation.h"
#include "platform/Thread.h"
#include "threads/HandlerThreadsType_p.h"

#include <new>

namespace {

constexpr OSWrap::TimeSpec kLimit(2, 0);

// Usable to the last moment of the thread, as they need no destructor.
thread_local bool begunHere = false;
thread_local bool hasWaited = false;
thread_local bool watched = false;

/** Such objects go before all static ones when their thread calls exit(). */
struct Mark {
    void touch() noexcept {}
    ~Mark() { begunHere = true; }
};
thread_local Mark mark;

} // namespace

void ThreadEnd::watch() noexcept {
    if (watched) {
        return;
    }
    // The first use of the mark in a thread registers its destructor. The C library aborts if it cannot, so look first.
    void *volatile memory = ::operator new(4096, std::nothrow); // volatile: not to be optimised away
    if (memory != nullptr) {
        ::operator delete(memory);
        mark.touch();
        watched = true;
    }
}

void ThreadEnd::begin() noexcept {
    begunHere = true;
}

bool ThreadEnd::begun() noexcept {
    return begunHere;
}

bool ThreadEnd::takePermission() {
    HandlerThreadsType *const threads = handlerThreads();
    const bool taken = threads != nullptr &&
                       (hasWaited ? threads->tryGet(false) : threads->getUntil(OSWrap::Clock::getObsTime() + kLimit));
    hasWaited = hasWaited || !taken;
    return taken;
}

PartingState::PartingState() {
    if (!ThreadEnd::begun()) {
        usual_.emplace(true);
    } else if (handlerThreads() != nullptr && !HandlerState::hasRunPermission()) {
        takeInTime();
    }
}

PartingState::~PartingState() {
    if (taken_) {
        HandlerState::releaseRunPermission();
    }
    if (entered_) {
        HandlerState::leaveHandlerState(false);
    }
}

void PartingState::takeInTime() {
    OSWrap::DisableCancelStateGuard uncancelled;
    HandlerThreadsType &threads = *handlerThreads();
    entered_ = !threads.isHandler();
    if (entered_) {
        threads.enter(false);
    }
    taken_ = ThreadEnd::takePermission();
    has_ = taken_;
}
