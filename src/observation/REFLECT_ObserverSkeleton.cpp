#include "observation/REFLECT_ObserverSkeleton.h"

#include "objects/AbstractLevel_p.h"
#include "platform/Log.h"
#include "threads/HandlerState.h"

#include <new>

namespace {

constexpr char kSource[] = "REFLECT_ObserverSkeleton";
constexpr unsigned kNotify = 0;

} // namespace

TreflectObserverSkeleton::TreflectObserverSkeleton(const TipprmiOID &oid, const TreflectObject *parent,
                                                   const std::string &name)
    : TreflectServerObject(oid, parent, name) {
    TreflectHandlerState state(true);
    dropClient_();
}

TreflectObserverSkeleton::~TreflectObserverSkeleton() = default;

TreflectObserverClient *TreflectObserverSkeleton::getClient() const {
    TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) TreflectObserverClient(this));
    }
    return static_cast<TreflectObserverClient *>(client_slot_());
}

unsigned TreflectObserverSkeleton::getServerClassId() const {
    return TreflectObserverClient::kClassId;
}

TipprmiSequence<unsigned> TreflectObserverSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(TreflectObserverClient::kClassId);
    return ids;
}

bool TreflectObserverSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                                        TipprmiStream &response) {
    if (cc == TreflectObserverClient::kClassId && mc == kNotify) {
        answerNotify(cc, mc, request, response);
        return true;
    }
    if (TreflectServerObject::dispatch(transaction, cc, mc, request, response)) {
        return true;
    }
    const TipprmiOID oid = getOID();
    LogDispatch(3,
                LogMakeString("TreflectObserverSkeleton[oid=%s]::dispatch(cc=0x%08X, mc=%u) - METHOD NOT FOUND",
                              oid.getIdString() != nullptr ? oid.getIdString() : "", cc, mc),
                kSource);
    return false;
}

void TreflectObserverSkeleton::answerNotify(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) {
    TreflectObject source;
    unsigned classCode = 0;
    unsigned methodCode = 0;
    TipprmiSequence<TipprmiAny> parameters;
    request >> source >> classCode >> methodCode >> parameters;
    bool result = false;
    bool delivered = false;
    if (request.hasUnmarshallingFailed()) {
        request.printUnmarshallError(cc, mc);
    } else if (!isAbstractLevel(*this)) {
        const TreflectObserverClient *const client = getClient();
        // A client that has come to stand for another actor's object would send the notification round and round.
        const bool own = client != nullptr && client->getServer() == this;
        result = own ? client->notify(source, classCode, methodCode, parameters, delivered)
                     : notify(source, classCode, methodCode, parameters, delivered);
    }
    prepareResponseStream_(response);
    response << result << delivered;
}
