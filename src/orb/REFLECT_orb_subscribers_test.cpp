#include "objects/REFLECT_objectStub.h"
#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "support/BrokerTest.h"
#include "support/ManualPeer.h"
#include "support/ReflectiveClasses.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

using Message = TreflectMessage;
using Transport::TerminationId;

constexpr unsigned kClass = 0x77;

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID("watcher", NamespaceId(1)), nullptr, "watcher") {}
    bool detected() override {
        told.push_back(getSource()->getStub()->getInternalOID());
        return true;
    }
    std::vector<unsigned> told;
};

std::vector<unsigned> elements(const TipprmiSequence<unsigned> &sequence) {
    std::vector<unsigned> all;
    for (unsigned i = 0; i < sequence.getLength(); ++i) {
        all.push_back(sequence[i]);
    }
    return all;
}

/** What another broker asks for, and tells. */
class SubscribersTest : public Testing::BrokerTest {
protected:
    /** The broker has dealt with the peer's appearance: it asks a broker that it sees late for what it observes by
     * then. */
    SubscribersTest() {
        const TerminationId marker(0x0099, 2, Transport::GRPID_NODE); // of another namespace
        link.peerAppears(marker);
        EXPECT_TRUE(log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), marker.value()),
                                "REFLECT_orb"));
        const TreflectHandlerState state(true);
        orb.destroyMetaData();
    }
    ~SubscribersTest() override {
        const TreflectHandlerState state(true);
        orb.destroyMetaData();
    }
    /** Sends a request and returns what the answer holds. */
    template <class... Values>
    TipprmiStream ask(Message::type_t type, const Values &...values) {
        TipprmiStream body = peer.message(type, Message::kRequ, 0x2A);
        (static_cast<void>(body << values), ...);
        peer.send(body);
        const TreflectMessage answer(peer.next());
        EXPECT_EQ(type, answer.type());
        EXPECT_EQ(Message::kResp, answer.kind());
        return TipprmiStream(answer, false);
    }
    /** How many want to be told of creations, of deletions. */
    std::pair<std::size_t, std::size_t> subscribers() {
        const TreflectHandlerState state(true);
        const TreflectORB::MetaData &data = *orb.getMetaData(kClass);
        return {data.remoteCreationObservers.size(), data.remoteDeletionObservers.size()};
    }
    using Counts = std::pair<std::size_t, std::size_t>;

    Testing::ManualPeer peer{link, orb, TerminationId(0x0042, 2, 1)};
};

TEST_F(SubscribersTest, SubscriptionsAreAnsweredWithTheClassesOfThisActor) {
    const unsigned port = Testing::PortMeta::instance()->id();
    const unsigned equipment = Testing::EquipmentMeta::instance()->id();
    const std::vector<unsigned> expected{std::min(port, equipment), std::max(port, equipment)};
    TipprmiSequence<unsigned> classes;
    TipprmiStream first = ask(Message::tODNSU, kClass);
    first >> classes;
    EXPECT_EQ(expected, elements(classes));
    EXPECT_EQ(Counts(0, 1), subscribers());
    unsigned objects = 99;
    TipprmiStream answer = ask(Message::tOCNSU, kClass, false);
    answer >> objects >> classes;
    EXPECT_EQ(0U, objects);
    EXPECT_EQ(expected, elements(classes));
    EXPECT_EQ(Counts(1, 1), subscribers());
}

TEST_F(SubscribersTest, EitherEndOfASubscriptionEndsBoth) {
    for (Message::type_t end : {Message::tOCNUN, Message::tODNUN}) {
        ask(Message::tODNSU, kClass);
        ask(Message::tOCNSU, kClass, false);
        EXPECT_EQ(Counts(1, 1), subscribers());
        EXPECT_TRUE(ask(end, kClass).empty());
        EXPECT_EQ(Counts(0, 0), subscribers());
    }
}

TEST_F(SubscribersTest, ExistingObjectsAreGivenIfTheyAreWanted) {
    std::unique_ptr<Testing::PortImpl> port;
    {
        const TreflectHandlerState state(true);
        port = std::make_unique<Testing::PortImpl>("port");
        orb.notifyCreation(kClass, *port);
    }
    TipprmiStream answer = ask(Message::tOCNSU, kClass, true);
    const TreflectHandlerState state(true);
    TipprmiSequence<TreflectObject> objects;
    answer >> objects;
    ASSERT_EQ(1U, objects.getLength());
    EXPECT_EQ(port->getInternalOID(), objects[0].getStub()->getInternalOID());
    port.reset();
}

TEST_F(SubscribersTest, WhatOthersMakeAndDeleteIsTold) {
    std::unique_ptr<Watcher> watcher;
    std::unique_ptr<Watcher> other;
    {
        const TreflectHandlerState state(true);
        watcher = std::make_unique<Watcher>();
        other = std::make_unique<Watcher>();
        orb.getMetaData(kClass)->creationObservers.push_back(watcher.get());
        orb.getMetaData(kClass)->deletionObservers.push_back(other.get());
    }
    const TreflectORB::TreflectObjectLocation object(0x500, orb.convertId(peer.id()), nullptr,
                                                     TipprmiOID(nullptr, NamespaceId(1)));
    EXPECT_TRUE(ask(Message::tOCN, kClass, object).empty());
    EXPECT_EQ((std::vector<unsigned>{0x500}), watcher->told);
    EXPECT_TRUE(other->told.empty()) << "it does not observe creations";
    EXPECT_TRUE(ask(Message::tODN, kClass, object).empty());
    EXPECT_EQ((std::vector<unsigned>{0x500}), other->told);
    EXPECT_EQ(1U, watcher->told.size()) << "it does not observe deletions";
    const TreflectHandlerState state(true);
    watcher.reset();
    other.reset();
}

TEST_F(SubscribersTest, WhatIsCutBehindTheClassHasNoEffectEither) {
    std::unique_ptr<Watcher> watcher;
    {
        const TreflectHandlerState state(true);
        watcher = std::make_unique<Watcher>();
        orb.getMetaData(kClass)->creationObservers.push_back(watcher.get());
        orb.getMetaData(kClass)->deletionObservers.push_back(watcher.get());
    }
    for (Message::type_t type : {Message::tOCN, Message::tODN}) {
        EXPECT_TRUE(ask(type, kClass).empty());
        EXPECT_TRUE(ask(type, kClass, std::string("an identifier"), 1U).empty());
        EXPECT_TRUE(ask(type, kClass, std::string(), 1U, 0x500U).empty()) << "the broker is missing";
    }
    EXPECT_TRUE(watcher->told.empty());
    TipprmiStream answer = ask(Message::tOCNSU, kClass); // whether objects are wanted is missing
    TipprmiSequence<unsigned> none;
    TipprmiSequence<unsigned> classes;
    answer >> none >> classes;
    EXPECT_EQ(0U, none.getLength());
    EXPECT_EQ(2U, classes.getLength());
    EXPECT_EQ(Counts(0, 0), subscribers());
    const TreflectHandlerState state(true);
    watcher.reset();
}

TEST_F(SubscribersTest, WhatIsCutShortHasNoEffectButAnAnswer) {
    log.clear();
    for (Message::type_t type :
         {Message::tOCN, Message::tODN, Message::tOCNSU, Message::tODNSU, Message::tOCNUN, Message::tODNUN}) {
        ask(type);
        EXPECT_EQ(1U, log.count(3,
                                LogMakeString("ORB 0x%08X received an incomplete message of type %u from 0x%08X",
                                              orb.termId().value(), static_cast<unsigned>(type), peer.id().value()),
                                "REFLECT_orb"))
            << type;
    }
    const TreflectHandlerState state(true);
    EXPECT_TRUE(orb.getMetaData(0)->remoteCreationObservers.empty());
    EXPECT_TRUE(orb.getMetaData(0)->remoteDeletionObservers.empty());
}

} // namespace
