#include "orb/CallFailure_p.h"
#include "orb/Counted_p.h"
#include "orb/OngoingRequest_p.h"
#include "orb/PendingRequests_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/OSWrap.h"
#include "platform/TransportLayer.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <exception>

namespace {

constexpr char kSource[] = "REFLECT_orb";
constexpr int kCallHead = 16; // what every call begins with

using Locked = OSWrap::Lock<OSWrap::Mutex>;
using Transport::TerminationId;
using Transport::TransportLayer;

bool issueTo(TerminationId target, const TreflectMessage &message) {
    const Transport::TerminationPtr termination = TransportLayer::getTermination(target);
    return termination && termination->issue(message.addressed());
}

const char *text(bool value) {
    return value ? "true" : "false";
}

} // namespace

/**
 * Ends a request, however its thread leaves. If somebody else has taken it out of the table, its response is on the
 * way: that has to be there before the thread may use the object again.
 */
class TreflectORB::forwardMsgCleanup {
public:
    forwardMsgCleanup(const OngoingRequestId &id, const Entry &entry, bool twoWay, TreflectMessage &message,
                      OngoingRequest &own, const TreflectORB &orb)
        : id_(id), entry_(entry), twoWay_(twoWay), message_(message), own_(own), orb_(orb) {}
    ~forwardMsgCleanup() {
        OSWrap::DisableCancelStateGuard uncancelled;
        if (entry_ == Entry::entered && !takeBack()) {
            bool ignored = false;
            own_.wait(true, twoWay_, ignored, message_, &orb_);
        }
        own_.free();
    }
    forwardMsgCleanup(const forwardMsgCleanup &) = delete;
    forwardMsgCleanup &operator=(const forwardMsgCleanup &) = delete;

private:
    bool takeBack() {
        Locked lock(orb_.mutex_);
        return orb_.ongoingRequests_->takeBack(id_, own_);
    }

    const OngoingRequestId &id_;
    const Entry &entry_;
    const bool twoWay_;
    TreflectMessage &message_;
    OngoingRequest &own_;
    const TreflectORB &orb_;
};

bool TreflectORB::forwardMsg(const TreflectOrbId &target, bool twoWay, TipprmiStream &request,
                             TipprmiStream &response) {
    // A stream made of foreign bytes may claim more than it has.
    if (std::min(request.getDataSize(), request.getDataLimit()) < kCallHead) {
        LogDispatch(3,
                    LogMakeString("ORB 0x%08X forwardMsg message too short (iptr_=%d,size=%d)", termId().value(),
                                  request.getDataSize(), request.getDataLimit()),
                    kSource);
    }
    request.msg().type(TreflectMessage::tPayld);
    return forwardMsg_(convertId(target), twoWay, request.msg(), response);
}

/** Not if the head cannot be written: without memory a message whose bytes are shared keeps its old one, and the target
 *  would take it for that request. */
bool TreflectORB::issueAs(TreflectMessage &message, OngoingRequestId id, TreflectMessage::kind_t kind,
                          TerminationId target) const {
    message.transactionId(id);
    message.kind(kind);
    message.originator() = termId();
    message.destination() = target;
    return message.transactionId() == id && message.kind() == kind && issueTo(target, message);
}

bool TreflectORB::forwardMsg_(TerminationId target, bool twoWay, TreflectMessage &request,
                              TipprmiStream &response) const {
    if (SingletonInstances::inForkedChild()) { // where nobody would ever answer, or give a lock back
        writeCallFailure(response);
        return false;
    }
    OSWrap::DeferredCancelTypeGuard deferred;
    const Counted inside(callers_);
    countRequest(target, false);
    const bool result = send(target, twoWay, request, response);
    if (!result) {
        countRequest(target, true);
    }
    return result;
}

void TreflectORB::countRequest(TerminationId target, bool failed) const {
    TreflectHandlerState state(true);
    try {
        InternalPerfCnts &counters = counters_[target];
        ++(failed ? counters.failures : counters.requests);
    } catch (const std::exception &) { // no memory for another target
    }
}

bool TreflectORB::send(TerminationId target, bool twoWay, TreflectMessage &request, TipprmiStream &response) const {
    TreflectReleaseHandlerState released;
    OngoingRequest *const own = OngoingRequest::getThreadInstance();
    if (own == nullptr) {
        writeCallFailure(response);
        return false;
    }
    OngoingRequestId id = 0;
    Entry entry = Entry::refused;
    forwardMsgCleanup cleanup(id, entry, twoWay, request, *own, *this);
    bool issued = false;
    {
        OSWrap::DisableCancelStateGuard uncancelled;
        entry = enter(*own, target, twoWay, id);
        if (entry == Entry::exhausted) {
            return false;
        }
        issued = entry != Entry::refused &&
                 issueAs(request, id, twoWay ? TreflectMessage::kRequ : TreflectMessage::kMsg, target);
    }
    if (!issued) {
        LogDispatch(3,
                    LogMakeString("ORB 0x%08X could not find destination termId=0x%08X for transactionId %X",
                                  termId().value(), target.value(), id),
                    kSource);
        writeCallFailure(response);
        return false;
    }
    if (twoWay && entry == Entry::notEntered) {
        LogDispatch(3, "receivingThread called forwardMessage", kSource);
        return true;
    }
    return !twoWay || awaitResponse(*own, target, request, response);
}

/** Finds a free id, and enters the request under it, unless it is one that gets no response. */
TreflectORB::Entry TreflectORB::enter(OngoingRequest &own, TerminationId target, bool twoWay,
                                      OngoingRequestId &id) const {
    const unsigned long receiver = receivingThreadId();
    const bool receiving = receiver == OSWrap::Thread::getCurrentId();
    bool found = false;
    bool closing = false;
    OngoingRequestId last = 0;
    {
        Locked lock(mutex_);
        closing = closing_;
        found = transactionIds_.next(
            [this](OngoingRequestId taken) RB_NO_ANALYSIS { return ongoingRequests_->contains(taken); }, id);
        last = transactionIds_.last();
        if (found && !closing) {
            // Before it is in the table: there it must not be taken for the thread's request before this one.
            own.setTransactionAndTerminationId(id, target);
            if (twoWay && !receiving) {
                ongoingRequests_->add(id, own);
            }
        }
    }
    if (!found) {
        LogDispatch(3, LogMakeString("ORB could NOT generate unique request id 0x%08X", last), kSource);
        return Entry::exhausted;
    }
    if (closing) {
        return Entry::refused;
    }
    if (receiving && !twoWay) {
        LogDispatch(3, LogMakeString("ORB receiving thread = %lu found in forwardMsg()", receiver), kSource);
    } else if (receiving) {
        LogDispatch(3, LogMakeString("ORB did NOT add tID %X transaction to ongoingRequests_", id), kSource);
    }
    return twoWay && !receiving ? Entry::entered : Entry::notEntered;
}

bool TreflectORB::awaitResponse(OngoingRequest &own, TerminationId target, TreflectMessage &request,
                                TipprmiStream &response) const {
    bool targetPresent = true;
    const TreflectMessage *message = own.wait(false, true, targetPresent, request, this);
    OSWrap::DisableCancelStateGuard uncancelled;
    const bool disconnected = message == OngoingRequest::disconnected();
    if (message == nullptr || disconnected) {
        LogDispatch(3,
                    LogMakeString("ORB 0x%08X request to target 0x%08X aborted (Detection Rem.Disc.=%s, TargetGone=%s)",
                                  termId().value(), target.value(), text(disconnected), text(!targetPresent)),
                    kSource);
    } else if (message->kind() == TreflectMessage::kNoDes) {
        LogDispatch(3,
                    LogMakeString("ORB 0x%08X receives TRANSPORT_ERROR message of termId 0x%08X", termId().value(),
                                  target.value()),
                    kSource);
    } else {
        response = TipprmiStream(*message, false);
        return true;
    }
    testInfoAboutMessage(target, request, true);
    writeCallFailure(response);
    return false;
}

bool TreflectORB::waitingTooLongFor(const TerminationId &target, TreflectMessage request, int minutes) const {
    bool issued = false;
    const auto limit = static_cast<int>(waitDuration_);
    if (minutes < limit && target.slot() != termId().slot()) {
        issued = issueAs(request, OSWrap::UniqueIdGen::instance()->getId(), TreflectMessage::kReFai, target);
        LogDispatch(3,
                    LogMakeString("ORB Ox%08X waits now %d minutes for 0x%08X, sending response failure message %s",
                                  termId().value(), minutes, target.value(), issued ? "succeeded" : "failed"),
                    kSource);
    }
    if (minutes >= limit) {
        LogDispatch(
            0, LogMakeString("ORB Ox%08X waits now %d minutes for 0x%08X", termId().value(), minutes, target.value()),
            kSource);
        resetUnit();
    }
    return issued;
}

/** At the end of the broker: nobody waits any more, and nobody begins to. */
void TreflectORB::endPendingRequests() {
    {
        Locked lock(mutex_);
        closing_ = true;
    }
    for (;;) {
        OngoingRequest *own = nullptr;
        OngoingRequestId id = 0;
        {
            Locked lock(mutex_);
            own = ongoingRequests_->takeAny(id);
        }
        if (own == nullptr) {
            return;
        }
        own->reset(OngoingRequest::disconnected(), id);
    }
}
