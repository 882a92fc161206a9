// A message about objects that come and go, or about who is to be told of them: a byte that chooses the type, then the
// payload. A live broker with an observer takes it in and works it off. Whatever it holds, it gets one answer, which
// can be read, and what is cut short tells nobody of anything.
#include "Broker.h"
#include "objects/REFLECT_objectStub.h"
#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_Observer.h"
#include "reflection/REFLECT_metaObject.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <vector>

namespace {

constexpr unsigned kClass = 0x51;
constexpr unsigned kTransaction = 0x00400007;
constexpr unsigned kSmallestReference = 16;

class Meta : public TreflectMetaObject {
public:
    Meta() : TreflectMetaObject("Fuzzed", kClass) {}
    void completeMetaInformation() override {}
};

class Thing : public TreflectServerObject {
public:
    Thing() : TreflectServerObject(TipprmiOID("thing", NamespaceId(1)), nullptr, "thing") {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override { return {}; }
};

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID("watcher", NamespaceId(1)), nullptr, "watcher") {}
    bool detected() override {
        ++told;
        const TreflectHandlerState state(true);
        const TipprmiOID oid = getSource()->getOID();
        require(oid.getIdString() != nullptr, "every object has a name, be it a generated one");
        return true;
    }
    std::atomic<unsigned> told{0};
};

/** In use until the end of the process. */
struct World {
    World() {
        broker.link.setFate([this](const Transport::AddressedMessage &issued) {
            const TreflectMessage message(issued);
            if (message.kind() == TreflectMessage::kRequ) { // where a named object is
                TipprmiStream body(broker.orb.allocateResponse(message, 20), true);
                body << 0U;
                Transport::AddressedMessage response = body.msg().addressed();
                response.originator() = issued.destination();
                response.destination() = issued.originator();
                broker.link.deliver(response);
                return Transport::FakeLink::Fate::lose;
            }
            return Transport::FakeLink::Fate::deliver;
        });
    }
    Broker &broker = Broker::instance();
    Meta meta;
    Thing thing;
    Watcher watcher;
};

World &world() {
    static World *const instance = [] {
        const TreflectHandlerState state(true);
        return new World;
    }();
    return *instance;
}

/** As it was before the first message. */
void start(TreflectORB &orb) {
    const TreflectHandlerState state(true);
    orb.destroyMetaData();
    TreflectORB::MetaData &data = *orb.getMetaData(kClass);
    data.creationObservers.push_back(&world().watcher);
    data.deletionObservers.push_back(&world().watcher);
    data.objects.insert(&world().thing);
    world().watcher.told = 0;
}

TipprmiStream answerOf(Broker &broker) {
    for (;;) {
        const std::vector<Transport::AddressedMessage> issued = broker.link.takeIssued(1);
        require(!issued.empty(), "a broker answers");
        for (const Transport::AddressedMessage &message : issued) {
            const TreflectMessage answer(message);
            if (answer.transactionId() == kTransaction) {
                require(answer.kind() == TreflectMessage::kResp, "with a response");
                return TipprmiStream(answer, false);
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Broker &broker = world().broker;
    Input input(data, size);
    const auto type = static_cast<TreflectMessage::type_t>(TreflectMessage::tOCN + input.byte() % 6);
    std::vector<std::uint8_t> bytes(TreflectMessage::kHeaderSize);
    bytes.insert(bytes.end(), input.data(), input.data() + input.size());
    TreflectMessage message(broker.fromPeer(Input(bytes.data(), bytes.size())));
    message.transactionId(kTransaction);
    message.type(type);
    message.kind(TreflectMessage::kRequ);
    start(broker.orb);
    broker.link.deliver(message.addressed());
    TipprmiStream answer = answerOf(broker);

    const TreflectHandlerState state(true);
    const bool notification = type == TreflectMessage::tOCN || type == TreflectMessage::tODN;
    const unsigned told = world().watcher.told;
    require(told <= (notification && input.size() >= 8 + kSmallestReference ? 1U : 0U), "only whole events are told");
    if (type == TreflectMessage::tOCNSU) {
        TipprmiSequence<TreflectObject> objects;
        answer >> objects;
        require(objects.getLength() <= 1, "there is one object");
    }
    if (type == TreflectMessage::tOCNSU || type == TreflectMessage::tODNSU) {
        TipprmiSequence<unsigned> classes;
        answer >> classes;
        require(classes.getLength() == 1 && classes[0] == kClass, "there is one class");
    }
    require(!answer.hasUnmarshallingFailed() && answer.getRemaining() == 0, "an answer can be read to its end");
    const TreflectORB::MetaData &after = *broker.orb.getMetaData(kClass);
    require(after.remoteCreationObservers.size() <= (type == TreflectMessage::tOCNSU ? 1U : 0U) &&
                after.remoteDeletionObservers.size() <= (type == TreflectMessage::tODNSU ? 1U : 0U),
            "who subscribes is the sender");
    return 0;
}
