#include "objects/REFLECT_serverObject.h"
#include "orb/REFLECT_orb.h"
#include "platform/Log.h"
#include "reflection/REFLECT_InterfaceRepository.h"
#include "threads/HandlerState.h"

#include <exception>

// What other brokers ask of this one: to be told of creations and deletions, and what they tell of their own.

namespace {

constexpr char kSource[] = "REFLECT_orb";
constexpr unsigned kResponseSize = 104;

/** Writes the class codes of this actor. None when memory is short: from an answer without them the reader learns
 *  nothing, while one that lacks a few would keep it from asking for these ever again. */
void writeClassCodes(TipprmiStream &response) {
    TipprmiSequence<unsigned> codes;
    for (unsigned code : InterfaceRepository::instance()->getIfIds()) {
        codes.push_back(code);
    }
    if (codes.getLength() == InterfaceRepository::instance()->size()) {
        response << codes;
    }
}

} // namespace

void TreflectORB::addRemoteCreationObserver(const unsigned &cc, const TreflectOrbId &orb,
                                            TipprmiSequence<TreflectObject, 0U> *existing) try {
    TreflectHandlerState state(true);
    MetaData *const data = getMetaData(cc);
    if (data == nullptr) {
        return;
    }
    data->remoteCreationObservers.insert(orb);
    if (existing == nullptr) {
        return;
    }
    // Copying the handle of an object may block, and the objects change; so each is looked for after the one before.
    existing->setLength(static_cast<unsigned>(data->objects.size()));
    unsigned count = 0;
    const TreflectServerObject *last = nullptr;
    for (; count < existing->getLength(); ++count) {
        const std::set<const TreflectServerObject *> &objects = getMetaData(cc)->objects;
        const auto entry = last != nullptr ? objects.upper_bound(last) : objects.begin();
        if (entry == objects.end()) {
            break;
        }
        last = *entry;
        if (const TreflectObject *client = last->getClient()) {
            (*existing)[count] = *client;
        }
    }
    existing->setLength(count);
} catch (const std::bad_alloc &) {
    LogDispatch(3, "ORB has no memory for a subscription", kSource);
}

void TreflectORB::addRemoteDeletionObserver(const unsigned &cc, const TreflectOrbId &orb) try {
    TreflectHandlerState state(true);
    if (MetaData *data = getMetaData(cc)) {
        data->remoteDeletionObservers.insert(orb);
    }
} catch (const std::bad_alloc &) {
    LogDispatch(3, "ORB has no memory for a subscription", kSource);
}

void TreflectORB::removeRemoteObserver(const unsigned &cc, const TreflectOrbId &orb) {
    TreflectHandlerState state(true);
    if (MetaData *data = getMetaData(cc)) {
        data->remoteCreationObservers.erase(orb);
        data->remoteDeletionObservers.erase(orb);
    }
}

/** What is cut short has no effect, but it has an answer. */
bool TreflectORB::isComplete(const TipprmiStream &request) const {
    if (!request.hasUnmarshallingFailed()) {
        return true;
    }
    LogDispatch(3,
                LogMakeString("ORB 0x%08X received an incomplete message of type %u from 0x%08X", termId().value(),
                              request.msg().type(), request.msg().originator().value()),
                kSource);
    return false;
}

void TreflectORB::answer(const TreflectMessage &request, TipprmiStream &response) const {
    if (!respond(request.originator(), response)) {
        LogDispatch(3, "Sending response message failed rc=0", kSource);
    }
}

void TreflectORB::dispatchNotification(TipprmiStream &request, Worker &) {
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    unsigned cc = 0;
    TreflectObject object;
    request >> cc >> object;
    if (isComplete(request)) {
        request.msg().type() == TreflectMessage::tOCN ? gotCreation(cc, object) : gotDeletion(cc, object);
    }
    answer(request.msg(), response);
}

void TreflectORB::dispatchSubscription(TipprmiStream &request, Worker &) {
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    const TreflectOrbId sender = convertId(request.msg().originator());
    const bool creations = request.msg().type() == TreflectMessage::tOCNSU;
    unsigned cc = 0;
    bool plusExisting = false;
    TipprmiSequence<TreflectObject> objects;
    request >> cc;
    if (creations) {
        request >> plusExisting;
    }
    if (isComplete(request)) {
        creations ? addRemoteCreationObserver(cc, sender, plusExisting ? &objects : nullptr)
                  : addRemoteDeletionObserver(cc, sender);
    }
    if (creations) {
        response << objects;
    }
    writeClassCodes(response);
    answer(request.msg(), response);
}

void TreflectORB::dispatchEndOfSubscription(TipprmiStream &request, Worker &) {
    TipprmiStream response(allocateResponse(request.msg(), kResponseSize), true);
    unsigned cc = 0;
    request >> cc;
    if (isComplete(request)) {
        removeRemoteObserver(cc, convertId(request.msg().originator()));
    }
    answer(request.msg(), response);
}
