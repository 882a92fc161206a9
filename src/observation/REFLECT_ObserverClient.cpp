#include "observation/REFLECT_ObserverClient.h"

#include "objects/AbstractLevel_p.h"
#include "observation/REFLECT_ObserverSkeleton.h"
#include "orb/OngoingRequest_p.h"
#include "platform/Log.h"

TreflectObserverClient::TreflectObserverClient() = default;
TreflectObserverClient::TreflectObserverClient(const TipprmiObjectSkeleton *observer) : TreflectObject(observer) {}
TreflectObserverClient::TreflectObserverClient(const TipprmiOID &oid) : TreflectObject(oid) {}
TreflectObserverClient::TreflectObserverClient(const TreflectObject &object) : TreflectObject(object) {}
TreflectObserverClient::TreflectObserverClient(const TreflectObserverClient &other) = default;
TreflectObserverClient &TreflectObserverClient::operator=(const TreflectObserverClient &other) = default;
TreflectObserverClient::~TreflectObserverClient() = default;

bool TreflectObserverClient::notify(const TreflectObject &source, const unsigned &classCode, const unsigned &methodCode,
                                    const TipprmiSequence<TipprmiAny> &parameters, bool &delivered) const {
    if (TipprmiObjectSkeleton *server = getServer()) {
        // A peer may have registered any object as an observer.
        auto *const observer = dynamic_cast<TreflectObserverSkeleton *>(server);
        return observer != nullptr && !isAbstractLevel(*observer) &&
               observer->notify(source, classCode, methodCode, parameters, delivered);
    }
    TipprmiStream request(TipprmiStream::kCallSize);
    TipprmiAny response; // which costs no memory: it becomes the stream of the answer
    prepareRequestStream_(true, kClassId, 0, request);
    request << source << classCode << methodCode << parameters;
    if (request.hasMarshallingFailed() || OngoingRequest::getThreadInstance() == nullptr) {
        LogDispatch(3, "no memory to tell an observer", "REFLECT_Observer");
        delivered = true; // it is there and stays registered
        return false;     // as a veto that it may have had
    }
    dispatch(true, kClassId, 0, request, response);
    prepareResponseStream_(true, response);
    bool result = false;
    bool received = false;
    response >> result >> received;
    if (response.hasUnmarshallingFailed()) {
        response.printUnmarshallError(kClassId, 0);
    } else {
        delivered = received;
    }
    return result;
}
