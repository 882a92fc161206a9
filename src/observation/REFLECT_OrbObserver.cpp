#include "observation/REFLECT_OrbObserver.h"

#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <exception>

namespace {

constexpr char kSource[] = "REFLECT_OrbObserver";
constexpr TreflectOrbObserverIf::Appear_t kBoth = TreflectOrbObserverIf::appear | TreflectOrbObserverIf::disappear;

using Locked = OSWrap::Lock<OSWrap::Mutex>;
using SignalLocked = OSWrap::Lock<OSWrap::ConditionVar>;

} // namespace

TreflectOrbObserverIf::~TreflectOrbObserverIf() = default;

TreflectOrbObserver::TreflectOrbObserver()
    : worker_(*this, &TreflectOrbObserver::handler, ~0U, OSWrap::Priority(3), OSWrap::SchedulingPolicy(0),
              "OrbObsWorker", false) {
    if (!worker_.start()) {
        LogDispatch(3, "OrbObsWorker cannot be started: nobody will be told of brokers that come and go", kSource);
    }
}

TreflectOrbObserver::~TreflectOrbObserver() {
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
    Locked lock(observerLock_);
    const auto found = obsFind(observer);
    if (found != observers_.end()) {
        observers_.erase(found);
    }
    return true;
}

TreflectOrbObserver::Observers::iterator TreflectOrbObserver::obsFind(const TreflectOrbObserverIf *observer) {
    return std::find_if(observers_.begin(), observers_.end(),
                        [observer](const OrbObserver_t &entry) { return entry.observer == observer; });
}

void TreflectOrbObserver::notifyExistingOrbs(TreflectOrbObserverIf *observer) {
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
    OrbAppear_t event;
    for (;;) { // until the thread is cancelled
        if (appeared() && getAppearance(event)) {
            deliver(event);
        }
    }
}

/** To a copy of the subscriptions, since observers may come and go in a callback. */
void TreflectOrbObserver::deliver(const OrbAppear_t &event) {
    SingletonInstances::Inside inside; // a callback may end the process, which must not wait for this thread then
    Observers observers;
    bool copied = true;
    {
        Locked lock(observerLock_);
        try {
            observers = observers_;
        } catch (const std::bad_alloc &) {
            copied = false;
        }
    }
    if (!copied) {
        LogDispatch(3, LogMakeString("no memory to tell that 0x%X has come or gone", event.id.value()), kSource);
    }
    struct Telling {
        std::atomic<bool> &flag;
        explicit Telling(std::atomic<bool> &set) : flag(set) { flag = true; }
        ~Telling() { flag = false; }
    } telling(telling_);
    for (const OrbObserver_t &entry : observers) {
        if (closed_) { // looked at after the flag is set: who closes, and then sees the flag, waits
            return;
        }
        if (entry.mask == event.type || entry.mask == kBoth) {
            TreflectHandlerState state(true);
            entry.observer->orbAppearance(event.id, event.type);
        }
    }
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
