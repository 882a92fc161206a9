#include "rmi/CallHelper.h"

#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "orb/REFLECT_orb.h"

namespace {

constexpr unsigned kBefore = 0;
constexpr unsigned kAfter = 1;

void callHere(const ClientCallHookBaseV &hook, TreflectServerObject &object, unsigned cc, unsigned mc) {
    if (!object.preObserverAvailable(cc, mc) && !object.postObserverAvailable(cc, mc)) {
        hook.invoke();
        return;
    }
    TipprmiSequence<TipprmiAny> parameters;
    parameters.push_back(TipprmiAny()); // the place of the result
    hook.insertParameters(parameters);
    if (object.notifyObservers(kBefore, cc, mc, parameters)) {
        parameters.setLength(0);
        hook.invoke();
        hook.insertResult(parameters);
        object.notifyObservers(kAfter, cc, mc, parameters);
    }
}

} // namespace

ClientCallHookBaseV::~ClientCallHookBaseV() = default;

void ClientCallHookBaseV::insertResult(TipprmiSequence<TipprmiAny> &sequence) const {
    sequence.push_back(TipprmiAny());
    insertParameters(sequence);
}

void ClientCallHookBaseV::evaluateResponse(TipprmiStream &) const {}

void ClientCallHelper(const ClientCallHookBaseV &hook, const InParamHook &in, const OutParamHook &out,
                      TreflectObjectStub &stub, TreflectServerObject *local, unsigned cc, unsigned mc,
                      bool transaction) {
    TreflectORB::checkHandlerState();
    if (local != nullptr) {
        callHere(hook, *local, cc, mc);
        return;
    }
    TipprmiStream request(TipprmiStream::kCallSize);
    TipprmiAny response; // which costs no memory: it becomes the stream of the answer
    stub.prepareRequestStream(transaction, cc, mc, request);
    in.marshallIn(request);
    stub.dispatch(transaction, cc, mc, request, response);
    stub.prepareResponseStream(transaction, response);
    hook.evaluateResponse(response);
    out.unmarshallOut(response);
    if (response.hasUnmarshallingFailed()) {
        response.printUnmarshallError(cc, mc);
    }
}
