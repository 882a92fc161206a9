#include "Broker.h"

#include "platform/Log.h"

#include <cstring>
#include <vector>

constexpr Transport::TerminationId Broker::kPeer;

namespace {

TreflectORB &makeOrb() {
    Log::setSink([](int, const std::string &, const char *) {}); // lines are made, but not shown
    TreflectORB *orb = TreflectORB::getInstance(NamespaceId(1));
    require(orb != nullptr, "there is a broker");
    return *orb;
}

} // namespace

Broker::Broker() : orb(makeOrb()) {
    link.peerAppears(kPeer);
}

Broker &Broker::instance() {
    static Broker &instance = *new Broker;
    return instance;
}

Transport::AddressedMessage Broker::fromPeer(const Input &bytes) const {
    auto message = Transport::AddressedMessage::allocate(static_cast<unsigned>(bytes.size()), 4);
    if (!bytes.empty()) {
        std::memcpy(message.buf(), bytes.data(), bytes.size());
    }
    message.originator() = kPeer;
    message.destination() = orb.termId();
    return message;
}

void Broker::answerWith(const Input &payload) {
    const std::vector<std::uint8_t> bytes(payload.data(), payload.data() + payload.size());
    link.setFate([this, bytes](const Transport::AddressedMessage &issued) {
        const TreflectMessage request(issued);
        auto addressed = Transport::AddressedMessage::allocate(
            static_cast<unsigned>(TreflectMessage::kHeaderSize + bytes.size()), 4);
        if (!bytes.empty()) {
            std::memcpy(addressed.buf() + TreflectMessage::kHeaderSize, bytes.data(), bytes.size());
        }
        addressed.originator() = kPeer;
        addressed.destination() = orb.termId();
        TreflectMessage response(std::move(addressed));
        response.transactionId(request.transactionId());
        response.type(request.type());
        response.kind(TreflectMessage::kResp);
        link.deliver(response.addressed());
        return Transport::FakeLink::Fate::lose;
    });
}
