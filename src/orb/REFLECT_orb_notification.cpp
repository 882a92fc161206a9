#include "objects/ObjectHandler.h"
#include "objects/REFLECT_serverObject.h"
#include "orb/Counted_p.h"
#include "orb/Event_p.h"
#include "orb/MissedOrbs_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "orb/TellObserver_p.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <exception>

// Each walk over observers or objects begins anew after each callback, which may have changed them all, and goes on
// until it finds nobody who was not told yet.

namespace {

constexpr char kSource[] = "REFLECT_orb";
constexpr unsigned kRequestSize = 100;
constexpr unsigned kResponseSize = 104;

void noMemory(const char *what) {
    LogDispatch(3, LogMakeString("ORB has no memory to %s", what), kSource);
}

/** Objects that an observer has been told of. Kept as handles: so none of them can be mistaken for a later one. */
class Reported {
public:
    /** False if it was there. */
    bool add(const TreflectObject &object) {
        if (object.getStub() == nullptr || !stubs_.insert(object.getStub()).second) {
            return false;
        }
        handles_.push_back(object);
        return true;
    }

private:
    std::set<const TreflectObjectStub *> stubs_;
    std::list<TreflectObject> handles_;
};

/** Objects that others have, as one wanted to be told of them: what could not be read is nothing. */
bool exists(const TreflectObject &object) {
    return object.getStub() != nullptr && !TreflectObjectHandler::isInvalidStub(*object.getStub());
}

} // namespace

const TreflectORB::Event TreflectORB::kCreation{TreflectMessage::tOCN,
                                                TreflectMessage::tOCNSU,
                                                TreflectMessage::tOCNUN,
                                                &MetaData::creationObservers,
                                                &MetaData::remoteCreationObservers,
                                                &TreflectORB::missedCreations_};
const TreflectORB::Event TreflectORB::kDeletion{TreflectMessage::tODN,
                                                TreflectMessage::tODNSU,
                                                TreflectMessage::tODNUN,
                                                &MetaData::deletionObservers,
                                                &MetaData::remoteDeletionObservers,
                                                &TreflectORB::missedDeletions_};

// --- an object is created or deleted here ---------------------------------------------------------------------------

bool TreflectORB::notifyCreation(unsigned cc, const TreflectServerObject &object) {
    const Counted inside(callers_);
    checkHandlerState();
    TreflectHandlerState state(true);
    try {
        if (MetaData *data = getMetaData(cc)) {
            data->objects.insert(&object);
        }
        notify(kCreation, cc, object);
    } catch (const std::bad_alloc &) {
        noMemory("tell of a creation");
    }
    return true;
}

bool TreflectORB::notifyDeletion(unsigned cc, const TreflectServerObject &object) {
    const Counted inside(callers_);
    TreflectHandlerState state(true);
    try {
        notify(kDeletion, cc, object);
    } catch (const std::bad_alloc &) {
        noMemory("tell of a deletion");
    }
    if (MetaData *data = getMetaData(cc)) {
        data->objects.erase(&object);
    }
    return true;
}

void TreflectORB::notify(const Event &event, unsigned cc, const TreflectServerObject &object) {
    const TreflectObject *const client = object.getClient();
    if (client == nullptr) {
        throw std::bad_alloc();
    }
    const TreflectObject source = *client;
    got(event, cc, source);
    TipprmiStream request(allocateRequest(kRequestSize), true);
    TipprmiStream response(static_cast<int>(kResponseSize));
    request.msg().type(event.notification);
    request << cc << source;
    const MetaData *data = getMetaData(cc);
    const std::set<TreflectOrbId> remote = data != nullptr ? data->*event.remote : std::set<TreflectOrbId>();
    std::vector<TreflectOrbId> failed;
    for (const TreflectOrbId &orb : remote) {
        response.clear();
        if (!forwardMsg_(convertId(orb), true, request.msg(), response)) {
            failed.push_back(orb);
        }
    }
    MetaData *const after = getMetaData(cc);
    for (const TreflectOrbId &orb : failed) {
        (after->*event.remote).erase(orb);
    }
}

void TreflectORB::gotCreation(const unsigned &cc, const TreflectObject &object) {
    try {
        got(kCreation, cc, object);
    } catch (const std::bad_alloc &) {
        noMemory("tell all observers");
    }
}

void TreflectORB::gotDeletion(const unsigned &cc, const TreflectObject &object) {
    try {
        got(kDeletion, cc, object);
    } catch (const std::bad_alloc &) {
        noMemory("tell all observers");
    }
}

void TreflectORB::got(const Event &event, unsigned cc, const TreflectObject &object) {
    TreflectHandlerState state(true);
    const TreflectObject source = object; // which may be the client of an object that goes while it is told of
    std::set<const TreflectObserver *> told;
    const auto next = [&]() -> TreflectObserver * {
        const MetaData *data = getMetaData(cc);
        if (data == nullptr) {
            return nullptr;
        }
        const std::vector<TreflectObserver *> &observers = data->*event.observers;
        const auto found = std::find_if(observers.begin(), observers.end(),
                                        [&](TreflectObserver *observer) { return told.count(observer) == 0; });
        return found != observers.end() ? *found : nullptr;
    };
    while (TreflectObserver *observer = next()) {
        told.insert(observer);
        tellObserver(*observer, source);
    }
}

// --- an observer comes or goes --------------------------------------------------------------------------------------

bool TreflectORB::observeCreations(const unsigned &cc, TreflectObserver &observer, bool plusExisting) {
    return observe(kCreation, cc, observer, plusExisting);
}

bool TreflectORB::observeDeletions(const unsigned &cc, TreflectObserver &observer) {
    return observe(kDeletion, cc, observer, false);
}

bool TreflectORB::observe(const Event &event, unsigned cc, TreflectObserver &observer, bool plusExisting) try {
    const Counted inside(callers_);
    TreflectHandlerState state(true);
    Reported reported;
    if (plusExisting) {
        // The next one in the order of the set, and again from the start until there are no new ones.
        const TreflectServerObject *last = nullptr;
        for (bool news = true; news;) {
            news = false;
            for (const MetaData *data = getMetaData(cc); data != nullptr; data = getMetaData(cc)) {
                const auto entry = last != nullptr ? data->objects.upper_bound(last) : data->objects.begin();
                if (entry == data->objects.end()) {
                    last = nullptr;
                    break;
                }
                last = *entry;
                const TreflectObject *const client = last->getClient();
                if (client != nullptr && reported.add(*client)) {
                    news = true;
                    tellObserver(observer, TreflectObject(*client));
                }
            }
        }
    }
    const MetaData *data = getMetaData(cc);
    if (data == nullptr) {
        return false;
    }
    if ((data->*event.observers).empty() || plusExisting) {
        std::vector<TreflectObject> existing;
        subscribe(event, cc, plusExisting ? &existing : nullptr, nullptr);
        for (const TreflectObject &object : existing) {
            if (reported.add(object)) {
                tellObserver(observer, object);
            }
        }
    }
    (getMetaData(cc)->*event.observers).push_back(&observer);
    if (!(this->*event.missed)->empty()) {
        (this->*event.missed)->notify(cc, observer, plusExisting);
    }
    return true;
} catch (const std::bad_alloc &) {
    noMemory("register an observer");
    return false;
}

void TreflectORB::removeObserver(const unsigned &cc, TreflectObserver &observer) {
    const Counted inside(callers_);
    TreflectHandlerState state(true);
    removeObserver(kCreation, cc, observer);
    removeObserver(kDeletion, cc, observer);
}

/** The last one to go ends the subscription; so does one that was not there. */
void TreflectORB::removeObserver(const Event &event, unsigned cc, TreflectObserver &observer) {
    MetaData *const data = getMetaData(cc);
    if (data == nullptr) {
        return;
    }
    std::vector<TreflectObserver *> &observers = data->*event.observers;
    observers.erase(std::remove(observers.begin(), observers.end(), &observer), observers.end());
    if (observers.empty()) {
        unsubscribe(event, cc);
    }
}

void TreflectORB::forget(TreflectObserver &observer) {
    TreflectHandlerState state(true);
    SingletonInstances::forEach([&observer](TreflectORB &orb) {
        for (const auto &entry : orb.metaData_) {
            for (const Event *event : {&kCreation, &kDeletion}) {
                std::vector<TreflectObserver *> &observers = (*entry.second).*event->observers;
                observers.erase(std::remove(observers.begin(), observers.end(), &observer), observers.end());
            }
        }
    });
}

void TreflectORB::forget(const TreflectServerObject &object) {
    TreflectHandlerState state(true);
    SingletonInstances::forEach([&object](TreflectORB &orb) {
        for (const auto &entry : orb.metaData_) {
            entry.second->objects.erase(&object);
        }
    });
}

// --- subscriptions at other brokers ---------------------------------------------------------------------------------

void TreflectORB::registerForOCN(unsigned cc, std::vector<TreflectObject> *existing, const TreflectOrbId *orb) try {
    const Counted inside(callers_);
    subscribe(kCreation, cc, existing, orb);
} catch (const std::bad_alloc &) {
    noMemory("subscribe");
}

void TreflectORB::registerForODN(unsigned cc, const TreflectOrbId *orb) try {
    const Counted inside(callers_);
    subscribe(kDeletion, cc, nullptr, orb);
} catch (const std::bad_alloc &) {
    noMemory("subscribe");
}

void TreflectORB::unregisterFromOCN(unsigned cc) {
    const Counted inside(callers_);
    unsubscribe(kCreation, cc);
}

void TreflectORB::unregisterFromODN(unsigned cc) {
    const Counted inside(callers_);
    unsubscribe(kDeletion, cc);
}

/** A broker that has not told its classes yet may have any. */
bool TreflectORB::mayHave(Transport::TerminationId target, unsigned cc) const {
    const auto known = classCodes_.find(target);
    return known == classCodes_.end() ||
           std::find(known->second.begin(), known->second.end(), cc) != known->second.end();
}

void TreflectORB::subscribe(const Event &event, unsigned cc, std::vector<TreflectObject> *existing,
                            const TreflectOrbId *orb) {
    TreflectHandlerState state(true);
    TipprmiStream request(allocateRequest(kRequestSize), true);
    TipprmiStream response(static_cast<int>(kResponseSize));
    request.msg().type(event.subscription);
    request << cc;
    if (&event == &kCreation) {
        request << (existing != nullptr);
    }
    if (existing != nullptr) {
        existing->clear();
    }
    std::list<Transport::TerminationId> targets;
    if (orb != nullptr) {
        targets.push_back(convertId(*orb));
    } else {
        // Nothing between the two may block: who appears then would be neither a member nor missed.
        getInstance(NamespaceId(1));
        targets = members();
        (this->*event.missed)->start(targets);
    }
    targets.remove(termId());
    for (const Transport::TerminationId &target : targets) {
        const bool known = classCodes_.count(target) != 0;
        response.clear();
        if (!mayHave(target, cc) || !forwardMsg_(target, true, request.msg(), response)) {
            continue;
        }
        if (&event == &kCreation) {
            TipprmiSequence<TreflectObject> objects;
            response >> objects;
            for (unsigned i = 0; existing != nullptr && i < objects.getLength(); ++i) {
                if (exists(objects[i])) {
                    existing->push_back(objects[i]);
                }
            }
        }
        if (!known) {
            learnClassCodes(target, response);
        }
    }
}

/** For good, as long as that broker lives; so nothing is kept that was not said: an answer without classes is none, but
 *  "no classes" is one. */
void TreflectORB::learnClassCodes(Transport::TerminationId target, TipprmiStream &response) {
    if (response.hasUnmarshallingFailed() || response.getRemaining() < 4) {
        return;
    }
    TipprmiSequence<unsigned> codes;
    response >> codes;
    const bool believable = !response.hasUnmarshallingFailed() || codes.getLength() != 0;
    if (!believable || !Transport::TransportLayer::exists(target)) {
        return;
    }
    std::vector<unsigned> &entry = classCodes_[target];
    entry.clear();
    for (unsigned i = 0; i < codes.getLength(); ++i) {
        entry.push_back(codes[i]);
    }
}

void TreflectORB::unsubscribe(const Event &event, unsigned cc) {
    TipprmiStream request(allocateRequest(kRequestSize), true);
    TipprmiStream response(static_cast<int>(kResponseSize));
    request.msg().type(event.endOfSubscription);
    request << cc;
    for (const Transport::TerminationId &target : otherMembers()) {
        response.clear();
        if (!forwardMsg_(target, true, request.msg(), response)) {
            LogDispatch(3, LogMakeString("could not unregister from 0x%X", target.value()), kSource);
        }
    }
}

void TreflectORB::orbAppeared(const TreflectOrbId &orb) try {
    TreflectHandlerState state(true);
    missedCreations_->add(orb);
    missedDeletions_->add(orb);
    // On from the last class, and again from the start until there are no new ones: peers can make them many.
    std::set<unsigned> handled;
    for (bool news = true; news;) {
        news = false;
        auto entry = metaData_.begin();
        while (entry != metaData_.end()) {
            const unsigned cc = entry->first;
            if (handled.insert(cc).second) {
                news = true;
                renewSubscriptions(cc, orb);
            }
            entry = metaData_.upper_bound(cc);
        }
    }
} catch (const std::bad_alloc &) {
    noMemory("subscribe at a broker that has come up");
}

void TreflectORB::renewSubscriptions(unsigned cc, const TreflectOrbId &orb) {
    if (!getMetaData(cc)->creationObservers.empty()) {
        std::vector<TreflectObject> existing;
        subscribe(kCreation, cc, &existing, &orb);
        for (const TreflectObject &object : existing) {
            got(kCreation, cc, object);
        }
    }
    if (!getMetaData(cc)->deletionObservers.empty()) {
        subscribe(kDeletion, cc, nullptr, &orb);
    }
}
