#include "orb/OngoingRequest_p.h"

#include "orb/HangReport_p.h"
#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/TransportLayer.h"

#include <new>
#include <pthread.h>

namespace {

using Locked = OSWrap::Lock<OSWrap::ConditionVar>;

constexpr OSWrap::TimeSpec kStep(30);

void destroyInstance(void *instance) {
    delete static_cast<OngoingRequest *>(instance);
}

/** A key of the system and no C++ thread value: those are gone before other code of an ending thread may still send. */
struct Key {
    Key() : made(pthread_key_create(&key, &destroyInstance) == 0) {}
    pthread_key_t key{};
    const bool made;
};

const Key &key() {
    static const Key instance;
    return instance;
}

} // namespace

OngoingRequest *OngoingRequest::getThreadInstance() {
    const Key &own = key();
    if (!own.made) {
        return nullptr;
    }
    auto *instance = static_cast<OngoingRequest *>(pthread_getspecific(own.key));
    if (instance == nullptr) {
        instance = new (std::nothrow) OngoingRequest;
        if (instance != nullptr && pthread_setspecific(own.key, instance) != 0) {
            delete instance;
            instance = nullptr;
        }
    }
    return instance;
}

OngoingRequest::~OngoingRequest() {
    Locked lock(*this);
    drop(response_);
}

void OngoingRequest::drop(TreflectMessage *message) {
    if (message == &delivered_) {
        delivered_ = TreflectMessage();
    } else if (message != disconnected()) {
        delete message;
    }
}

void OngoingRequest::setTransactionAndTerminationId(unsigned id, const Transport::TerminationId &target) {
    Locked lock(*this);
    transactionId_ = id;
    target_ = target;
    active_ = true;
    drop(response_);
    response_ = nullptr;
}

/** True when a response is there. A step is thirty seconds, however often the thread wakes up in between. */
bool OngoingRequest::waitStep() {
    const OSWrap::TimeSpec end = OSWrap::Clock::getObsTime() + kStep;
    while (response_ == nullptr) {
        const OSWrap::TimeSpec left = end - OSWrap::Clock::getObsTime();
        if (left <= OSWrap::TimeSpec()) {
            break;
        }
        wait(left);
    }
    return response_ != nullptr;
}

TreflectMessage *OngoingRequest::wait(bool unlimited, bool twoWay, bool &targetPresent, TreflectMessage &request,
                                      const TreflectORB *orb) {
    targetPresent = true;
    for (unsigned step = 1;; ++step) {
        Transport::TerminationId target;
        {
            Locked lock(*this);
            if (!active_ || (unlimited && !twoWay)) {
                return nullptr;
            }
            while (unlimited && response_ == nullptr) {
                wait(OSWrap::TimeSpec::INFINITETIME);
            }
            if (waitStep()) {
                return response_;
            }
            target = target_;
        }
        // Without the lock: who brings the response must not have to wait for the log.
        OSWrap::DisableCancelStateGuard uncancelled;
        targetPresent = Transport::TransportLayer::exists(target);
        if (!targetPresent) {
            Locked lock(*this);
            return response_; // it may have come at the last moment
        }
        HangReport::afterStep(step, target, request, twoWay, *orb);
    }
}

void OngoingRequest::reset(TreflectMessage *message, unsigned transactionId) {
    Locked lock(*this);
    reset(message, transactionId == transactionId_);
}

void OngoingRequest::reset(TreflectMessage *message, const Transport::TerminationId &target) {
    Locked lock(*this);
    reset(message, target == target_);
}

void OngoingRequest::deliver(const TreflectMessage &message, unsigned transactionId) {
    Locked lock(*this);
    if (transactionId == transactionId_) {
        drop(response_);
        delivered_ = message;
        response_ = &delivered_;
        signal(); // under the lock, as below
    }
}

void OngoingRequest::reset(TreflectMessage *message, bool accept) {
    if (!accept) {
        drop(message);
        return;
    }
    drop(response_);
    response_ = message;
    if (message != nullptr) {
        signal(); // under the lock: once its thread has that, the object may go
    }
}

void OngoingRequest::free() {
    Locked lock(*this);
    drop(response_);
    response_ = nullptr;
    active_ = false;
}

Transport::TerminationId OngoingRequest::toTerminationId() {
    Locked lock(*this);
    return target_;
}
