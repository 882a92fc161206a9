#include "Events.h"

#include "Objects.h"
#include "Output.h"
#include "Reaction.h"
#include "observation/REFLECT_Observer.h"
#include "observation/REFLECT_OrbObserver.h"
#include "orb/REFLECT_orb.h"
#include "platform/TransportLayer.h"
#include "reflection/REFLECT_metaObject.h"
#include "threads/HandlerState.h"

#include <string>

namespace {

class Events : public TreflectObserver {
public:
    explicit Events(const char *what) : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, what) {}
    bool detected() override {
        const bool without = !TreflectORB::hasRunPermission();
        const TreflectHandlerState state(true);
        const TipprmiOID name = getSource()->getOID(); // the actor of the object need not be asked
        say("%s %s%s", objectName(), name.getIdString(), without ? "" : " with permission");
        react();
        if (leaves()) {
            doublers().removeObserver(this);
        }
        return true;
    }
};

class Brokers : public TreflectOrbObserverIf {
public:
    void orbAppearance(const Transport::TerminationId &id, const Appear_t &type) override {
        say("broker %08X %s%s", id.value(), type == appear ? "appears" : "disappears",
            TreflectORB::hasRunPermission() ? "" : " already");
        react();
    }
};

Events &creations() {
    static Events &instance = *new Events("created");
    return instance;
}

Events &deletions() {
    static Events &instance = *new Events("deleted");
    return instance;
}

std::string onWatch(bool existing) {
    doublers().observeDeletions(&deletions());
    doublers().observeCreations(&creations(), existing);
    return "ok";
}

std::string onUnwatch() {
    doublers().removeObserver(&creations());
    doublers().removeObserver(&deletions());
    return "ok";
}

Brokers &brokers() {
    static Brokers &instance = *new Brokers;
    return instance;
}

std::string onBrokers() {
    TreflectORB::getInstance(1)->registerOrbCreation(&brokers(), false);
    TreflectORB::getInstance(1)->registerOrbDeletion(&brokers());
    return "ok";
}

std::string onBrokersAll() {
    TreflectORB::getInstance(1)->registerOrbCreation(&brokers(), true);
    return "ok";
}

std::string onMembers() {
    const Transport::TerminationId own = TreflectORB::getInstance(1)->termId();
    return std::to_string(Transport::TransportLayer::getGroup(own.groupId()).contains().size());
}

std::string onSubscribers() {
    const TreflectORB::MetaData &data = *TreflectORB::getInstance(1)->getMetaData(doublers().id());
    return std::to_string(data.remoteCreationObservers.size()) + " " +
           std::to_string(data.remoteDeletionObservers.size());
}

struct Command {
    const char *name;
    std::string (*run)();
};

constexpr Command kCommands[] = {
    {"watch", [] { return onWatch(false); }},
    {"watchall", [] { return onWatch(true); }},
    {"unwatch", &onUnwatch},
    {"brokers", &onBrokers},
    {"brokersall", &onBrokersAll},
    {"members", &onMembers},
    {"subscribers", &onSubscribers},
};

} // namespace

void onEvents(std::istringstream &arguments) {
    std::string name;
    arguments >> name;
    for (const Command &command : kCommands) {
        if (name == command.name) {
            const TreflectHandlerState state(true);
            say("events %s", command.run().c_str());
            return;
        }
    }
    say("unknown command 'events %s'", name.c_str());
}
