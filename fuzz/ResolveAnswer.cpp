// The payload of an answer to the question where an object is.
#include "Broker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker &broker = Broker::instance();
    broker.answerWith(Input(data, size));
    const unsigned number = broker.orb.resolve(Broker::kPeer, TipprmiOID("anything", NamespaceId(1)));
    require(number == 0 || size >= 8, "a number is only there if the answer has one");
    return 0;
}
