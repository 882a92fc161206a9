#include "orb/CallFailure_p.h"
#include "orb/MessageQueue_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/IdInfo.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/OSWrap.h"
#include "platform/TransportLayer.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "threads/HandlerState.h"
#include "threads/PartingState_p.h"
#include "threads/ReleaseHook_p.h"

namespace {

constexpr char kSource[] = "REFLECT_orb";
constexpr unsigned kResponseSize = 104;
constexpr unsigned kTooManyIdle = 4;
constexpr OSWrap::TimeSpec kQueueStep(10);

using QueueLocked = OSWrap::Lock<OSWrap::ConditionVar>;

} // namespace

/** What a worker keeps from one message to the next. */
struct TreflectORB::Worker {
    bool outcome = false; // of the last method
};

const TreflectORB::Dispatch TreflectORB::kDispatch[] = {
    &TreflectORB::dispatchUnknown,           // tUndef
    &TreflectORB::dispatchResolve,           // tRslve
    &TreflectORB::dispatchCall,              // tPayld
    &TreflectORB::dispatchNotification,      // tOCN
    &TreflectORB::dispatchNotification,      // tODN
    &TreflectORB::dispatchSubscription,      // tOCNSU
    &TreflectORB::dispatchSubscription,      // tODNSU
    &TreflectORB::dispatchEndOfSubscription, // tOCNUN
    &TreflectORB::dispatchEndOfSubscription, // tODNUN
    &TreflectORB::dispatchUnknown,           // tOrbAp: nobody sends it
    &TreflectORB::dispatchCounters,          // tPfCnt
};

void TreflectORB::dispatchEntry() {
    struct Leaving {
        MessageQueue &queue;
        ~Leaving() {
            OSWrap::DisableCancelStateGuard uncancelled;
            const bool returns = ReleaseHook::clear(); // ended in a method, with the permission more than once
            QueueLocked lock(queue);
            queue.returning -= returns ? 1 : 0;
            --queue.workers; // the last: once the lock is released the broker may be gone
        }
    } leaving{*queue_};
    ThreadEnd::watch(); // methods may end the process
    SingletonInstances::Inside inside;
    TreflectHandlerState state(true);
    Worker worker;
    TreflectMessage message;
    for (bool firstPass = true; nextMessage(message, firstPass); firstPass = false) {
        // The stream ends with the pass: an idle worker must not keep a large message.
        TipprmiStream request(std::move(message), false);
        dispatch(request, worker);
    }
}

/** A worker gives the run permission up in the middle of a method: from here on its colleagues are needed. */
void TreflectORB::wakeColleague(void *messageQueue) {
    auto &queue = *static_cast<MessageQueue *>(messageQueue);
    QueueLocked lock(queue);
    --queue.returning;
    if (!queue.messages.empty() && queue.idle != 0) {
        queue.signal();
    }
}

/** Waits without the run permission. False: the worker retires. */
bool TreflectORB::nextMessage(TreflectMessage &message, bool firstPass) {
    const bool returns = ReleaseHook::clear();
    TreflectReleaseHandlerState released;
    bool start = false;
    {
        QueueLocked lock(*queue_);
        queue_->returning -= returns ? 1 : 0;
        if (!firstPass) {
            ++queue_->idle; // for the first pass whoever started the worker has counted it
        }
        if (queue_->idle >= kTooManyIdle) {
            --queue_->idle;
            if (!queue_->messages.empty()) { // nobody may have been woken for them, since this worker was to return
                queue_->signal();
            }
            return false;
        }
        while (queue_->messages.empty() && !queue_->closed) {
            queue_->wait(kQueueStep);
        }
        --queue_->idle;
        if (queue_->closed) {
            return false;
        }
        message = std::move(queue_->messages.front());
        queue_->messages.pop_front();
        start = !queue_->messages.empty() && queue_->idle == 0;
        if (start) {
            ++queue_->idle;
        } else if (!queue_->messages.empty() && MessageQueue::isContended()) {
            queue_->signal();
        }
        ++queue_->returning;
        ReleaseHook::set(&TreflectORB::wakeColleague, queue_.get());
    }
    if (start) {
        startColleague();
    }
    return true;
}

void TreflectORB::dispatch(TipprmiStream &request, Worker &worker) {
    const unsigned type = request.msg().type();
    const bool known = type < sizeof kDispatch / sizeof kDispatch[0];
    (this->*(known ? kDispatch[type] : &TreflectORB::dispatchUnknown))(request, worker);
}

bool TreflectORB::respond(Transport::TerminationId to, TipprmiStream &response) const {
    response.msg().originator() = termId();
    const Transport::TerminationPtr caller = Transport::TransportLayer::getTermination(to);
    return caller && caller->issue(response.msg().addressed());
}

void TreflectORB::dispatchResolve(TipprmiStream &request, Worker &) {
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    TipprmiOID oid(nullptr, NamespaceId(1));
    request >> oid;
    response << locateLocalObject_(oid).getInternalOID();
    if (!respond(request.msg().originator(), response)) {
        LogDispatch(3, "Sending resolve response message failed rc=0", kSource);
    }
}

void TreflectORB::dispatchCall(TipprmiStream &request, Worker &worker) {
    unsigned ioid = 0;
    bool transaction = false;
    unsigned cc = 0;
    unsigned mc = 0;
    request >> ioid >> transaction >> cc >> mc;
    // A method may call on with these streams, and then they are of other messages.
    const Transport::TerminationId caller = request.msg().originator();
    const unsigned id = request.msg().transactionId();
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    TipprmiObjectSkeleton *const object = findObject(ioid);
    if (object != nullptr) {
        worker.outcome = object->dispatch(transaction, cc, mc, request, response); // which may have deleted the object
    } else {
        LogDispatch(3,
                    LogMakeString("ioid=0x%X,transaction=%s,classCode=0x%X,methodCode=%d", ioid,
                                  transaction ? "true" : "false", cc, static_cast<int>(mc)),
                    kSource);
    }
    if (transaction && (object == nullptr || !worker.outcome)) {
        response.clear(); // of what the method may have written before it gave up
        writeCallFailure(response);
    }
    if (!worker.outcome) {
        LogDispatch(3, "Handling request message failed rc=0", kSource);
    }
    if (!transaction) {
        return;
    }
    response.msg().type(TreflectMessage::tPayld);
    response.msg().kind(TreflectMessage::kResp);
    response.msg().transactionId(id);
    if (response.msg().transactionId() != id || !respond(caller, response)) {
        LogDispatch(3, "Sending response message failed rc=0", kSource);
    }
    ProcessedMessage entry;
    entry.methodCode = mc;
    entry.classCode = cc;
    entry.destination = termId().value();
    entry.sender = caller.value();
    processed_.add(entry);
}

void TreflectORB::dispatchCounters(TipprmiStream &request, Worker &) {
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    TipprmiSequence<PerfCnts> counters;
    for (const auto &[target, counted] : counters_) {
        counters.push_back({target, counted.requests, counted.failures});
    }
    response << Transport::IdInfo::getActor() << counters;
    if (!respond(request.msg().originator(), response)) {
        LogDispatch(3, "Sending response message failed rc=0", kSource);
    }
}

void TreflectORB::dispatchUnknown(TipprmiStream &request, Worker &) {
    LogDispatch(3,
                LogMakeString("ORB 0x%08X received request of unknown type (rorg=%X, rdes=%X)", termId().value(),
                              request.msg().originator().value(), request.msg().destination().value()),
                kSource);
}
