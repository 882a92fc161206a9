#include "objects/ObjectHandler.h"
#include "observation/REFLECT_OrbObserver.h"
#include "orb/MessageQueue_p.h"
#include "orb/OngoingRequest_p.h"
#include "orb/PendingRequests_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/ReflectWorker_p.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Thread.h"
#include "threads/HandlerState.h"
#include "threads/PartingState_p.h"

#include <cstdlib>
#include <new>

namespace {

constexpr char kSource[] = "REFLECT_orb";

using Locked = OSWrap::Lock<OSWrap::Mutex>;
using QueueLocked = OSWrap::Lock<OSWrap::ConditionVar>;

} // namespace

bool TreflectORB::receive(const Transport::AddressedMessage &addressed) {
    SingletonInstances::Inside inside;
    receivingThreadId_.store(OSWrap::Thread::getCurrentId(), std::memory_order_relaxed);
    if (addressed.size() < TreflectMessage::kHeaderSize) {
        LogDispatch(3,
                    LogMakeString("ORB 0x%08X drops a message of %u bytes from 0x%08X", termId().value(),
                                  addressed.size(), addressed.originator().value()),
                    kSource);
        return true;
    }
    const TreflectMessage message(addressed);
    switch (message.kind()) {
    case TreflectMessage::kReFai:
        LogDispatch(0,
                    LogMakeString("ORB 0x%08X received response failure message from 0x%08X", termId().value(),
                                  message.originator().value()),
                    kSource);
        resetUnit();
    case TreflectMessage::kResp:
    case TreflectMessage::kNoDes:
        receiveResponse(message, true);
        break;
    default:
        queueMessage(message);
        break;
    }
    return true;
}

bool TreflectORB::receiveError(const Transport::AddressedMessage &addressed) {
    TreflectMessage message(addressed);
    message.kind(TreflectMessage::kNoDes);
    if (message.kind() == TreflectMessage::kNoDes || addressed.size() < TreflectMessage::kHeaderSize) {
        return receive(message.addressed());
    }
    // No memory to mark a copy of it. The call that waits for it ends all the same.
    SingletonInstances::Inside inside;
    receivingThreadId_.store(OSWrap::Thread::getCurrentId(), std::memory_order_relaxed);
    receiveResponse(message, false);
    return true;
}

/** Who takes an entry out of the table hands it over; the thread that waits does not leave before it has. */
void TreflectORB::receiveResponse(const TreflectMessage &message, bool intact) {
    const unsigned id = message.transactionId();
    OngoingRequest *request = nullptr;
    {
        Locked lock(mutex_);
        request = ongoingRequests_->take(id);
    }
    if (request == nullptr) {
        LogDispatch(3,
                    LogMakeString("ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)",
                                  termId().value(), message.originator().value(), id),
                    kSource);
        testInfoAboutMessage(termId(), message, true);
        return;
    }
    if (intact) {
        request->deliver(message, id);
    } else { // without anything handed over the thread would wait for ever
        LogDispatch(3, LogMakeString("ORB 0x%08X has no memory for the response to %X", termId().value(), id), kSource);
        request->reset(OngoingRequest::disconnected(), id);
    }
}

void TreflectORB::queueMessage(const TreflectMessage &message) {
    bool start = false;
    bool queued = false;
    {
        QueueLocked lock(*queue_);
        if (queue_->closed) {
            return;
        }
        start = queue_->idle == 0;
        const bool wake = !start && (queue_->returning != 0 ? MessageQueue::isContended() : queue_->messages.empty());
        if (start) {
            queue_->idle = 1;
        }
        try {
            queue_->messages.push_back(message);
            queued = true;
        } catch (const std::bad_alloc &) {
            queue_->idle -= start ? 1 : 0;
        }
        if (queued && wake) {
            queue_->signal();
        }
    }
    if (!queued) {
        LogDispatch(3, LogMakeString("ORB 0x%08X drops a message, no memory", termId().value()), kSource);
        return;
    }
    if (start) {
        startColleague();
    }
    ProcessedMessage entry;
    entry.destination = message.destination().value();
    entry.sender = message.originator().value();
    entry.transactionId = message.transactionId();
    received_.add(entry);
}

/** The count of idle workers has been raised for the new one. Taken back if there is none, or nobody would ever be
 *  started again. */
void TreflectORB::startColleague() {
    if (startReflectWorker()) {
        return;
    }
    bool closed = false;
    {
        QueueLocked lock(*queue_);
        --queue_->idle;
        closed = queue_->closed;
    }
    if (!closed) {
        LogDispatch(3, LogMakeString("ORB 0x%08X cannot start a worker", termId().value()), kSource);
    }
}

bool TreflectORB::startReflectWorker() {
    {
        QueueLocked lock(*queue_);
        if (queue_->closed) {
            return false;
        }
        ++queue_->workers;
    }
    auto *worker = new (std::nothrow) ReflectWorker(*this);
    if (worker != nullptr) {
        worker->deleteOnThreadTermination();
        if (worker->start()) {
            return true;
        }
    }
    QueueLocked lock(*queue_);
    --queue_->workers;
    return false;
}

void TreflectORB::closeQueue() {
    MessageRing dropped; // destroyed without the lock
    QueueLocked lock(*queue_);
    queue_->closed = true;
    dropped.swap(queue_->messages);
    queue_->broadcast();
}

/** Whether all threads have left: workers, those that made requests, and the one that tells of brokers. */
bool TreflectORB::isLeft() const {
    QueueLocked lock(*queue_);
    return queue_->workers == 0 && callers_ == 0 && orbObserver_->isIdle();
}

void TreflectORB::resetUnit() const {
    LogDispatch(5, LogMakeString("ORB 0x%08X requests UNIT RESET", termId().value()), kSource);
    LogDispatch(0, LogMakeString("ORB 0x%08X failed to reset unit, EXIT ACTOR", termId().value()), kSource);
    Log::flushBeforeAbort();
    std::abort();
}

/** On the membership thread, which may block: who comes up may have to be asked for its objects. */
void TreflectORB::appeared(Transport::Termination &termination) {
    ThreadEnd::watch(); // observers of creations may end the process
    SingletonInstances::Inside inside;
    const Transport::TerminationId who = termination.termId();
    LogDispatch(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", termId().value(), who.value()), kSource);
    const TreflectOrbId id = convertId(who);
    if (id.namespaceId() == orbId().namespaceId() && id != orbId()) {
        orbAppeared(id);
    }
    TreflectReleaseHandlerState released;
    orbObserver_->notify(who, TreflectOrbObserverIf::appear);
}

/** Ends the calls that wait for what is gone. */
void TreflectORB::disappeare(Transport::Termination &termination) {
    SingletonInstances::Inside inside;
    const Transport::TerminationId gone = termination.termId();
    LogDispatch(5, LogMakeString("ORB 0x%08X sees 0x%08X disappear", termId().value(), gone.value()), kSource);
    {
        TreflectHandlerState state(true);
        if (TreflectObjectHandler *handler = TreflectObjectHandler::getExisting()) {
            handler->invalidateStubs(convertId(gone));
        }
        classCodes_.erase(gone);
    }
    TreflectReleaseHandlerState released;
    orbObserver_->notify(gone, TreflectOrbObserverIf::disappear);
    while (OngoingRequest *request = takePending(gone)) {
        request->reset(OngoingRequest::disconnected(), gone);
    }
}

/** One that waits for the target, out of the table; null if there is none left. */
OngoingRequest *TreflectORB::takePending(Transport::TerminationId target) {
    Locked lock(mutex_);
    return ongoingRequests_->takeFirst(
        [target](OngoingRequest &request) { return request.toTerminationId() == target; });
}
