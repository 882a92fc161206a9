#include "orb/SingletonInstances_p.h"

#include "observation/REFLECT_OrbObserver.h"
#include "orb/REFLECT_orb.h"
#include "platform/Cancellation.h"
#include "platform/Environment_p.h"
#include "platform/Immortal_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Thread.h"
#include "platform/transport/LayerCore_p.h"
#include "reflection/REFLECT_tieds.h"
#include "threads/HandlerThreadsType_p.h"
#include "threads/PartingState_p.h"

#include <cstdlib>
#include <exception>
#include <new>

namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;

constexpr OSWrap::TimeSpec kPause(0, 100000000);
constexpr OSWrap::TimeSpec kDrainLimit(2, 0);
constexpr OSWrap::TimeSpec kDrainStep(0, 1000000);

Immortal<OSWrap::Mutex> singletonLock;

} // namespace

OSWrap::Mutex &SingletonInstances::lock_ = singletonLock.object;
std::array<SingletonInstances::Slot, SingletonInstances::kNamespaces> SingletonInstances::slots_{};
std::atomic<unsigned long> SingletonInstances::creator_{0};
bool SingletonInstances::removerRegistered_ = false;
bool SingletonInstances::closing_ = false;
thread_local unsigned SingletonInstances::Inside::depth_ = 0;

TreflectORB *SingletonInstances::get(NamespaceId ns) {
    if (ns >= kNamespaces) {
        return nullptr;
    }
    if (inForkedChild()) {
        return nullptr;
    }
    if (TreflectORB *orb = slots_[ns].orb.load(std::memory_order_acquire)) {
        return orb;
    }
    return create(ns);
}

bool SingletonInstances::inForkedChild() {
    static std::atomic<bool> reported{false};
    if (!Platform::inForkedChild()) {
        return false;
    }
    if (!reported.exchange(true)) {
        LogDispatch(3, "ORB is not available in a child of fork() before it has called exec", "REFLECT_orb");
    }
    return true;
}

TreflectORB *SingletonInstances::create(NamespaceId ns) {
    const unsigned long self = OSWrap::Thread::getCurrentId();
    if (creator_.load() == self) {
        return nullptr; // something that the creation itself calls, such as a log sink, wants a broker
    }
    // Creation sleeps, logs and runs a shell: a cancellation in there would leave a started termination to nobody.
    OSWrap::DisableCancelStateGuard uncancelled;
    TreflectReleaseHandlerState released;
    Locked lock(lock_);
    Slot &slot = slots_[ns];
    TreflectORB *orb = slot.orb.load();
    if (orb != nullptr || closing_) {
        return orb;
    }
    creator_ = self;
    if (!removerRegistered_) {
        removerRegistered_ = true;
        TreflectTieds::instance(); // made before, so destroyed after the brokers, from which its users return first
        SingletonInstancesRemover::registerAtExit();
    }
    orb = build(ns);
    if (orb != nullptr) {
        begin(*orb);
        OSWrap::Thread::sleep(kPause);
        slot.orb.store(orb);
    }
    creator_ = 0;
    return orb;
}

TreflectORB *SingletonInstances::build(NamespaceId ns) noexcept {
    try {
        return new (std::nothrow) TreflectORB(ns);
    } catch (const std::exception &error) {
        LogDispatch(3,
                    LogMakeString("ORB of namespace %u could not be made: %s", static_cast<unsigned>(ns), error.what()),
                    "REFLECT_orb");
        return nullptr;
    }
}

void SingletonInstances::begin(TreflectORB &orb) noexcept {
    try {
        orb.start(); // if it fails, the transport has said why; the broker exists, but nothing can be sent
    } catch (const std::exception &error) {
        LogDispatch(3, LogMakeString("ORB 0x%08X could not be started: %s", orb.termId().value(), error.what()),
                    "REFLECT_orb");
    }
}

SingletonInstances::Pin::Pin(NamespaceId ns) {
    if (SingletonInstances::get(ns) != nullptr) {
        take(slots_[ns]);
    }
}

SingletonInstances::Pin::Pin(const TreflectORB *orb) noexcept {
    for (Slot &slot : slots_) {
        if (orb == nullptr || slot.orb.load(std::memory_order_acquire) != orb) {
            continue;
        }
        take(slot);
        return;
    }
}

SingletonInstances::Pin::~Pin() {
    if (slot_ != nullptr) {
        slot_->pins.fetch_sub(1);
    }
}

/** First count, then look; the remover first clears, then waits for the count: one of the two sees the other. */
void SingletonInstances::Pin::take(Slot &slot) noexcept {
    slot.pins.fetch_add(1);
    orb_ = slot.orb.load();
    if (orb_ != nullptr) {
        slot_ = &slot;
    } else {
        slot.pins.fetch_sub(1);
    }
}

void SingletonInstancesRemover::registerAtExit() {
    std::atexit(&SingletonInstancesRemover::remove);
}

void SingletonInstancesRemover::remove() {
    const unsigned long self = OSWrap::Thread::getCurrentId();
    if (Platform::inForkedChild()) {
        return; // it has none of the threads
    }
    ThreadEnd::begin();
    if (SingletonInstances::creator_.load() == self) {
        return; // a creation that calls exit() holds the lock
    }
    OSWrap::DisableCancelStateGuard uncancelled;
    // Threads that have to leave the brokers may be waiting for the permission, whatever the depth at which it is held.
    const bool hadPermission = TreflectORB::hasRunPermission();
    HandlerState::releaseRunPermissionWhileHeld();
    {
        Locked lock(SingletonInstances::lock_);
        SingletonInstances::closing_ = true; // from here on no broker is made
    }
    bool allRemoved = true;
    for (SingletonInstances::Slot &slot : SingletonInstances::slots_) {
        allRemoved = removeOne(slot) && allRemoved;
    }
    // For the destructors of static objects. Not if it would have to be waited for: its owner may never give it back.
    if (hadPermission && allRemoved && handlerThreads() != nullptr) {
        handlerThreads()->tryGet(false);
    }
}

bool SingletonInstancesRemover::removeOne(SingletonInstances::Slot &slot) {
    TreflectORB *const orb = slot.orb.load();
    if (orb == nullptr) {
        return true;
    }
    // Who waits for an answer, or for work, is told first: such a thread may be what stop() waits for.
    orb->endPendingRequests();
    orb->closeQueue();
    orb->orbObserver_->close();
    // Not its stop(), which waits as long as it takes: what an observer is told there may never return.
    const OSWrap::TimeSpec end = OSWrap::Clock::getObsTime() + kDrainLimit;
    const bool stopped = Transport::LayerCore::instance().stop(*orb, kDrainLimit);
    slot.orb.store(nullptr);
    if (SingletonInstances::Inside::thisThread() || !stopped || !drained(slot, *orb, end)) {
        slot.leaked = orb;
        return false;
    }
    delete orb;
    return true;
}

bool SingletonInstancesRemover::drained(const SingletonInstances::Slot &slot, const TreflectORB &orb,
                                        const OSWrap::TimeSpec &end) {
    while (slot.pins.load() != 0 || !orb.isLeft()) {
        if (OSWrap::Clock::getObsTime() > end) {
            return false;
        }
        OSWrap::Thread::sleep(kDrainStep);
    }
    return true;
}
