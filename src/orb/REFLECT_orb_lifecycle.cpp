#include "observation/REFLECT_OrbObserver.h"
#include "orb/Addressing_p.h"
#include "orb/MessageQueue_p.h"
#include "orb/MissedOrbs_p.h"
#include "orb/ObjectTable_p.h"
#include "orb/PendingRequests_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "orb/WaitDuration_p.h"
#include "platform/IdInfo.h"
#include "platform/Log.h"
#include "threads/HandlerThreadsType_p.h"

#include <cassert>
#include <exception>

// The base is built before there is an identifier that a report about the namespace could name.
TreflectORB::TreflectORB(const NamespaceId &ns)
    : TerminationImpl(Addressing::groupOf(ns, Addressing::Place::own(), 0), ""),
      objects_(std::make_unique<ObjectTable>()), ongoingRequests_(std::make_unique<PendingRequests>()),
      queue_(std::make_unique<MessageQueue>()), missedCreations_(std::make_unique<TreflectMissedOrbs>(true)),
      missedDeletions_(std::make_unique<TreflectMissedOrbs>(false)),
      orbObserver_(std::make_unique<TreflectOrbObserver>()) {
    waitDuration_ = readWaitDuration(waitDurationPath());
    orbId_ = convertId(termId());
    transactionIds_ = TransactionIds(orbId_);
    LogDispatch(5,
                LogMakeString("ORB created for actor %s with OrbId 0x%X, TerminationId 0x%08X",
                              Transport::IdInfo::getActor().c_str(), orbId_.value(), termId().value()),
                "REFLECT_orb");
}

TreflectORB::~TreflectORB() {
    destroyMetaData();
}

bool TreflectORB::stop() {
    assert(!hasRunPermission());
    return TerminationImpl::stop();
}

TreflectORB *TreflectORB::getInstance(NamespaceId ns) {
    return SingletonInstances::get(ns);
}

void preCreateReflectOrb() {
    TreflectHandlerState state(true);
    TreflectORB::getInstance(1);
}

TreflectMessage TreflectORB::allocateRequest(unsigned size) const {
    TreflectMessage message(this, 0, size);
    message.kind(TreflectMessage::kRequ);
    return message;
}

TreflectMessage TreflectORB::allocateResponse(const TreflectMessage &request, unsigned size) const {
    TreflectMessage message(this, request.transactionId(), size);
    message.type(request.type());
    message.kind(TreflectMessage::kResp);
    return message;
}

TreflectMessage TreflectORB::reallocateMessage(const TreflectMessage &message, unsigned size, unsigned spare) const {
    return TreflectMessage(this, message, size, spare);
}

TreflectORB::MetaData *TreflectORB::getMetaData(unsigned classId) {
    try {
        std::unique_ptr<MetaData> &entry = metaData_[classId];
        if (entry == nullptr) {
            entry = std::make_unique<MetaData>();
        }
        return entry.get();
    } catch (const std::exception &) {
        return nullptr;
    }
}

void TreflectORB::destroyMetaData() {
    metaData_.clear();
}
