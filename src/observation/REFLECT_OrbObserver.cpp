#include "observation/REFLECT_OrbObserver.h"

#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "threads/HandlerState.h"
#include "threads/PartingState_p.h"

#include <algorithm>
#include <cassert>
#include <exception>
#include <memory>

namespace {

constexpr char kSource[] = "REFLECT_OrbObserver";
constexpr TreflectOrbObserverIf::Appear_t kBoth = TreflectOrbObserverIf::appear | TreflectOrbObserverIf::disappear;

using Locked = OSWrap::Lock<OSWrap::Mutex>;
using SignalLocked = OSWrap::Lock<OSWrap::ConditionVar>;

thread_local unsigned callbacks = 0; // that the thread is in, of whatever broker

struct InCallback {
    InCallback() { ++callbacks; }
    ~InCallback() { --callbacks; }
};

} // namespace

TreflectOrbObserverIf::~TreflectOrbObserverIf() {
    TreflectORB::forget(*this);
}

TreflectOrbObserver::TreflectOrbObserver()
    : worker_(*this, &TreflectOrbObserver::handler, ~0U, OSWrap::Priority(3), OSWrap::SchedulingPolicy(0),
              "OrbObsWorker", false) {
    if (!worker_.start()) {
        LogDispatch(3, "OrbObsWorker cannot be started: nobody will be told of brokers that come and go", kSource);
    }
}

TreflectOrbObserver::~TreflectOrbObserver() {
    assert(!TreflectORB::hasRunPermission());
    worker_.stop();
    worker_.join();
}

bool TreflectOrbObserver::subscribe(TreflectOrbObserverIf *observer, const Appear_t &mask, bool notifyExisting) {
    if (observer == nullptr) {
        return false;
    }
    bool stored = true;
    {
        Locked lock(observerLock_);
        const auto found = obsFind(observer);
        if (found != observers_.end()) {
            found->mask |= mask;
        } else {
            try {
                observers_.push_back({observer, mask});
            } catch (const std::bad_alloc &) {
                stored = false;
            }
        }
    }
    if (!stored) {
        LogDispatch(3, "no memory for an observer of brokers", kSource);
        return false;
    }
    if (notifyExisting && mask == TreflectOrbObserverIf::appear) {
        notifyExistingOrbs(observer);
    }
    return true;
}

bool TreflectOrbObserver::unsubscribe(const TreflectOrbObserverIf *observer) {
    erase(observer);
    OSWrap::DisableCancelStateGuard uncancelled; // observers unsubscribe in their destructors
    SignalLocked lock(told_);
    if (callbacks != 0) {
        return true; // which would have to be waited for by itself, or by one of another broker that waits likewise
    }
    pending_.remove_if([observer](const TreflectOrbObserverIf *other) { return other == observer; });
    while (current_ == observer && !closed_ && !TreflectORB::hasRunPermission()) {
        told_.wait(OSWrap::TimeSpec::INFINITETIME);
    }
    return true;
}

void TreflectOrbObserver::forget(const TreflectOrbObserverIf &observer) {
    erase(&observer);
    SignalLocked lock(told_);
    pending_.remove_if([&observer](const TreflectOrbObserverIf *other) { return other == &observer; });
}

void TreflectOrbObserver::close() noexcept {
    SignalLocked lock(told_);
    closed_ = true;
    told_.broadcast();
}

void TreflectOrbObserver::erase(const TreflectOrbObserverIf *observer) {
    Locked lock(observerLock_);
    const auto found = obsFind(observer);
    if (found != observers_.end()) {
        observers_.erase(found);
    }
}

TreflectOrbObserver::Observers::iterator TreflectOrbObserver::obsFind(const TreflectOrbObserverIf *observer) {
    return std::find_if(observers_.begin(), observers_.end(),
                        [observer](const OrbObserver_t &entry) { return entry.observer == observer; });
}

void TreflectOrbObserver::notifyExistingOrbs(TreflectOrbObserverIf *observer) {
    SingletonInstances::Inside inside; // as in deliver()
    const InCallback callback;
    for (const Transport::TerminationPtr &termination : Transport::TransportLayer::getTerminations()) {
        observer->orbAppearance(termination->termId(), TreflectOrbObserverIf::appear);
    }
}

bool TreflectOrbObserver::notify(const Transport::TerminationId &id, const Appear_t &type) {
    bool queued = true;
    {
        SignalLocked lock(signal_);
        try {
            events_.push_back({id, type});
            signal_.signal();
        } catch (const std::bad_alloc &) {
            queued = false;
        }
    }
    if (!queued) {
        LogDispatch(3, LogMakeString("no memory to tell that 0x%X has come or gone", id.value()), kSource);
    }
    return queued;
}

bool TreflectOrbObserver::appeared() {
    SignalLocked lock(signal_);
    while (events_.empty()) {
        signal_.wait(OSWrap::TimeSpec::INFINITETIME);
    }
    return true;
}

bool TreflectOrbObserver::getAppearance(OrbAppear_t &out) {
    SignalLocked lock(signal_);
    if (events_.empty()) {
        return false;
    }
    out = events_.front();
    events_.pop_front();
    return true;
}

int TreflectOrbObserver::handler() {
    ThreadEnd::watch(); // observers may end the process
    OrbAppear_t event;
    for (;;) { // until the thread is cancelled
        if (appeared() && getAppearance(event)) {
            deliver(event);
        }
    }
}

void TreflectOrbObserver::deliver(const OrbAppear_t &event) {
    SingletonInstances::Inside inside; // a callback may end the process, which must not wait for this thread then
    OSWrap::DisableCancelStateGuard uncancelled; // callbacks are application code: only the wait for events ends
    struct Telling {
        std::atomic<bool> &flag;
        explicit Telling(std::atomic<bool> &set) : flag(set) { flag = true; }
        ~Telling() { flag = false; }
    } telling(telling_);
    if (!selectObservers(event.type)) {
        LogDispatch(3, LogMakeString("no memory to tell that 0x%X has come or gone", event.id.value()), kSource);
    }
    while (!closed_ && isAnyPending()) { // after the flag is set: who closes, and then sees the flag, waits
        TreflectHandlerState state(true);
        tellNext(event);
    }
}

/** A copy of the subscriptions, since observers may come and go in a callback. */
bool TreflectOrbObserver::selectObservers(Appear_t type) {
    SignalLocked lock(told_);
    pending_.clear();
    Locked observersLock(observerLock_);
    try {
        for (const OrbObserver_t &entry : observers_) {
            if (entry.mask == type || entry.mask == kBoth) {
                pending_.push_back(entry.observer);
            }
        }
    } catch (const std::bad_alloc &) {
        pending_.clear();
        return false;
    }
    return true;
}

bool TreflectOrbObserver::isAnyPending() {
    SignalLocked lock(told_);
    return !pending_.empty();
}

/** The next one may have gone while the permission was waited for. */
void TreflectOrbObserver::tellNext(const OrbAppear_t &event) {
    TreflectOrbObserverIf *observer = nullptr;
    {
        SignalLocked lock(told_);
        if (pending_.empty()) {
            return;
        }
        observer = pending_.front();
        pending_.pop_front();
        current_ = observer;
    }
    const std::unique_ptr<TreflectOrbObserver, void (*)(TreflectOrbObserver *)> end(this, &endOfCallback);
    const InCallback callback;
    observer->orbAppearance(event.id, event.type);
}

void TreflectOrbObserver::endOfCallback(TreflectOrbObserver *self) {
    SignalLocked lock(self->told_);
    self->current_ = nullptr;
    self->told_.broadcast();
}

const char *TreflectOrbObserver::typeStr(const Appear_t &type) noexcept {
    static constexpr const char *texts[] = {"ERROR", "Appear", "Disappear", "All"};
    return type < sizeof texts / sizeof texts[0] ? texts[type] : texts[0];
}

void TreflectOrbObserver::display() {
    const TreflectORB *const orb = TreflectORB::getInstance(NamespaceId(1));
    std::list<std::string> lines; // the log comes after the lock: a sink may be slow
    try {
        Locked lock(observerLock_);
        lines.push_back(
            LogMakeString("ORB (termId=0x%X) has %lu observer registered:", orb != nullptr ? orb->termId().value() : 0U,
                          static_cast<unsigned long>(observers_.size())));
        for (const OrbObserver_t &entry : observers_) {
            lines.push_back(LogMakeString("   Observer 0x%p registered for %s", static_cast<void *>(entry.observer),
                                          typeStr(entry.mask)));
        }
    } catch (const std::bad_alloc &) {
        lines.clear();
    }
    for (const std::string &line : lines) {
        LogDispatch(5, line, kSource);
    }
}
