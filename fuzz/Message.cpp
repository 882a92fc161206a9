// The head of a message between brokers, and what describes it in the log.
#include "Broker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const Broker &broker = Broker::instance();
    TreflectMessage message(broker.fromPeer(Input(data, size)));
    const bool whole = size >= TreflectMessage::kHeaderSize;
    require(message.size() == (whole ? size - TreflectMessage::kHeaderSize : 0),
            "the payload is what is behind the head");
    require(TreflectMessage::typeToStr(message.type()).size() == 6, "texts of types have six characters");
    require(TreflectMessage::kindToStr(message.kind()).size() == 6, "texts of kinds have six characters");
    broker.orb.testInfoAboutMessage(broker.orb.termId(), message, true);
    broker.orb.testInfoAboutMessage(broker.orb.termId(), message, false);

    const TreflectMessage larger = broker.orb.reallocateMessage(message, message.size() + 10, 5);
    require(larger.size() == message.size() + 10, "a copy has the size that was asked for");
    require(!whole || larger.transactionId() == message.transactionId(), "a copy has the head");
    const TreflectMessage before = message;
    message.kind(TreflectMessage::kNoDes);
    require(!whole || message.kind() == TreflectMessage::kNoDes, "the kind can be set");
    require(before.size() == message.size(), "that changes nothing else");
    return 0;
}
