// A whole message, from the transaction on, that a live broker takes in and works off. The word 0x0B1EC701 in the place
// of the object's number stands for that of an object which is there. A response failure is left out: it ends the
// actor, as it should.
#include "Broker.h"
#include "orb/ByteOrder_p.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <vector>

namespace {

constexpr unsigned kObject = 0x0B1EC701;
constexpr unsigned kObjectAt = 16;
constexpr unsigned kMarker = 0xFEDCBA98;

/** Reads some of what calls carry. */
class Target : public TipprmiObjectSkeleton {
public:
    Target() : TipprmiObjectSkeleton(TipprmiOID("target", NamespaceId(1))) {}

    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) override {
        if (mc != 1) {
            return TipprmiObjectSkeleton::dispatch(transaction, cc, mc, request, response);
        }
        std::string text;
        TipprmiSequence<TipprmiAny> values;
        request >> text >> values;
        prepareResponseStream_(response);
        response << text << values;
        return !request.hasUnmarshallingFailed();
    }
};

/** In use until the end of the process. */
const Target &target() {
    static const Target *const instance = [] {
        TreflectHandlerState state(true);
        return new Target;
    }();
    return *instance;
}

/** The broker has worked off what came before when it has answered this, but for what another worker still does. */
void awaitIdle(Broker &broker) {
    TipprmiStream question(broker.orb.allocateRequest(100), true);
    question << TipprmiOID("target", NamespaceId(1));
    TreflectMessage &message = question.msg();
    message.type(TreflectMessage::tRslve);
    message.transactionId(kMarker);
    message.originator() = Broker::kPeer;
    message.destination() = broker.orb.termId();
    broker.link.deliver(message.addressed());
    for (;;) {
        const std::vector<Transport::AddressedMessage> issued = broker.link.takeIssued(1);
        require(!issued.empty(), "a broker answers");
        for (const Transport::AddressedMessage &answer : issued) {
            if (TreflectMessage(answer).transactionId() == kMarker) {
                return;
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker &broker = Broker::instance();
    const unsigned number = target().getInternalOID();
    TreflectMessage message(broker.fromPeer(Input(data, size)));
    if (message.kind() == TreflectMessage::kReFai || message.transactionId() == kMarker) {
        return 0;
    }
    unsigned char *payload = message.buf();
    constexpr unsigned kAt = kObjectAt - TreflectMessage::kHeaderSize;
    if (message.size() >= kAt + 4 && Wire::loadBigEndian(payload + kAt) == kObject) {
        Wire::storeBigEndian(payload + kAt, number);
    }
    broker.link.deliver(message.addressed());
    awaitIdle(broker);
    return 0;
}
