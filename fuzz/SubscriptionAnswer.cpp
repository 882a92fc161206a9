// The payload of an answer to a subscription, behind a byte: odd for creations, else deletions. Objects that are no
// objects are not reported, and of its classes a broker is believed what a reader of the protocol believes.
#include "Broker.h"
#include "objects/ObjectHandler.h"
#include "objects/REFLECT_object.h"
#include "orb/ByteOrder_p.h"
#include "platform/TransportLayer.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <vector>

namespace {

constexpr unsigned kClass = 0x51;
constexpr unsigned kOtherClass = 0x52;
constexpr unsigned kBelieved = 65536;
constexpr unsigned kSmallestReference = 16;

/** Whether a broker that has answered with these class codes is asked for objects of the other class, too. */
bool mayHaveOther(const Input &payload) {
    if (payload.size() < 4) {
        return true;
    }
    const unsigned claimed = Wire::loadBigEndian(payload.data());
    const std::size_t there = claimed < 0x80000000U ? std::min<std::size_t>(claimed, payload.size() - 4) : 0;
    const std::uint8_t *const data = payload.data() + 4;
    if (there < 4) {
        return true;
    }
    const unsigned count = Wire::loadBigEndian(data);
    if (count > std::max<std::size_t>(kBelieved, (there - 4) / 4)) {
        return true; // it has told nothing
    }
    for (std::size_t i = 0; i < count && 8 + 4 * i <= there; ++i) {
        if (Wire::loadBigEndian(data + 4 + 4 * i) == kOtherClass) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker &broker = Broker::instance();
    Input input(data, size);
    const bool creations = (input.byte() & 1) != 0;
    const TreflectHandlerState state(true);
    const Transport::TerminationPtr peer = Transport::TransportLayer::getTermination(Broker::kPeer);
    require(static_cast<bool>(peer), "the peer is there");
    broker.orb.disappeare(*peer); // what it told before is forgotten
    const TreflectOrbId id = broker.orb.convertId(Broker::kPeer);
    broker.answerWith(input);
    if (creations) {
        std::vector<TreflectObject> objects;
        broker.orb.registerForOCN(kClass, &objects, &id);
        require(objects.size() <= input.size() / kSmallestReference, "an object takes its bytes");
        for (const TreflectObject &object : objects) {
            require(!TreflectObjectHandler::isInvalidStub(*object.getStub()), "nothing is no object");
        }
        return 0;
    }
    broker.orb.registerForODN(kClass, &id);
    bool asked = false;
    broker.link.setFate([&asked](const Transport::AddressedMessage &) {
        asked = true;
        return Transport::FakeLink::Fate::refuse;
    });
    broker.orb.registerForODN(kOtherClass, &id);
    require(asked == mayHaveOther(input), "a broker is asked for classes that it may have");
    return 0;
}
