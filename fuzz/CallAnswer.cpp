// The payload of an answer to a call: the exception container and what follows it.
#include "Broker.h"
#include "platform/Log.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker &broker = Broker::instance();
    broker.answerWith(Input(data, size));
    TreflectHandlerState state(true);
    static const auto &client = *new TipprmiObjectClient(
        TipprmiOID(LogMakeString("rmi_%X_7", broker.orb.convertId(Broker::kPeer).value()), NamespaceId(1)));
    TipprmiStream request(100);
    TipprmiStream response(100);
    client.prepareRequestStream_(true, 1, 2, request);
    client.dispatch(true, 1, 2, request, response);

    TipprmiStream raw = response;
    TipprmiExceptionContainer container;
    raw >> container;
    TipprmiGeneralException exception(7);
    container.getExceptionData(exception);

    client.prepareResponseStream_(true, response);
    std::string text;
    TipprmiOID oid(nullptr, NamespaceId(1));
    response >> text >> oid;
    if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType()) {
        require(text.empty() && oid.getIdString() == nullptr, "after an exception nothing is read");
    }
    return 0;
}
