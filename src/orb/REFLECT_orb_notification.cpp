#include "objects/ObjectHandler.h"
#include "objects/REFLECT_serverObject.h"
#include "orb/Counted_p.h"
#include "orb/Event_p.h"
#include "orb/MissedOrbs_p.h"
#include "orb/OngoingRequest_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "orb/TellObserver_p.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "threads/PartingState_p.h"

#include <algorithm>
#include <exception>
#include <optional>

// Each walk over observers or objects begins anew after each callback, which may have changed them all, and goes on
// until it finds nobody who was not told yet.

namespace {

constexpr char kSource[] = "REFLECT_orb";
constexpr unsigned kRequestSize = 100;

void noMemory(const char *what) {
    LogDispatch(3, LogMakeString("ORB has no memory to %s", what), kSource);
}

/** Objects that an observer has been told of. Kept as handles: so none of them can be mistaken for a later one. */
class Reported {
public:
    /** False if it was there, or cannot be kept. */
    bool add(const TreflectObject &object) try {
        if (object.getStub() == nullptr || objects_.count(object.getStub()) != 0) {
            return false;
        }
        objects_.emplace(object.getStub(), object);
        return true;
    } catch (const std::bad_alloc &) {
        complete_ = false;
        return false;
    }
    bool isComplete() const noexcept { return complete_; }

private:
    std::map<const TreflectObjectStub *, TreflectObject> objects_;
    bool complete_ = true;
};

/** What memory is too short for; false then, with a line in the log. Never around a call of the application: what that
 *  throws is not for here. */
template <class Act>
bool tried(const char *what, const Act &act) {
    try {
        act();
        return true;
    } catch (const std::bad_alloc &) {
        noMemory(what);
        return false;
    }
}

/** Tells the observer of all objects of the class here: the next one in the order of the set, and again from the start
 *  until there are no new ones. */
void tellOfOwnObjects(TreflectORB &orb, unsigned cc, TreflectObserver &observer, Reported &reported) {
    const TreflectServerObject *last = nullptr;
    for (bool news = true; news;) {
        news = false;
        for (const TreflectORB::MetaData *data = orb.getMetaData(cc); data != nullptr; data = orb.getMetaData(cc)) {
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

void remove(std::vector<TreflectObserver *> &observers, TreflectObserver &observer) {
    observers.erase(std::remove(observers.begin(), observers.end(), &observer), observers.end());
}

/** Objects that others have, as one wanted to be told of them: what could not be read is nothing. */
bool exists(const TreflectObject &object) {
    return object.getStub() != nullptr && !TreflectObjectHandler::isInvalidStub(*object.getStub());
}

} // namespace

const TreflectORB::Event TreflectORB::kCreation{TreflectMessage::tOCN,
                                                TreflectMessage::tOCNSU,
                                                TreflectMessage::tOCNUN,
                                                &MetaData::creationObservers,
                                                &MetaData::creationObserversToCome,
                                                &MetaData::remoteCreationObservers,
                                                &TreflectORB::missedCreations_};
const TreflectORB::Event TreflectORB::kDeletion{TreflectMessage::tODN,
                                                TreflectMessage::tODNSU,
                                                TreflectMessage::tODNUN,
                                                &MetaData::deletionObservers,
                                                &MetaData::deletionObserversToCome,
                                                &MetaData::remoteDeletionObservers,
                                                &TreflectORB::missedDeletions_};

/** Whoever removes the last observer meanwhile must not end the subscription that this one counts on. */
class TreflectORB::ObserverToCome {
public:
    ObserverToCome(TreflectORB &orb, const Event &event, unsigned cc) : orb_(orb), event_(event), cc_(cc) {
        if (MetaData *const data = orb_.getMetaData(cc_)) {
            ++(data->*event_.observersToCome);
            counted_ = true;
        }
    }
    ~ObserverToCome() {
        const auto entry = orb_.metaData_.find(cc_);
        if (counted_ && entry != orb_.metaData_.end() && (*entry->second).*event_.observersToCome != 0) {
            --((*entry->second).*event_.observersToCome);
        }
    }
    ObserverToCome(const ObserverToCome &) = delete;
    ObserverToCome &operator=(const ObserverToCome &) = delete;

    /** False if memory is short. */
    bool isCounted() const noexcept { return counted_; }

private:
    TreflectORB &orb_;
    const Event &event_;
    const unsigned cc_;
    bool counted_ = false;
};

/** What nobody in this actor wants to be told of a class. Brokers end both subscriptions when they are asked to end
 * one: who ends them for this reason does not go on once somebody new has come. */
class TreflectORB::Unwanted {
public:
    Unwanted(const TreflectORB &orb, unsigned cc)
        : orb_(orb), cc_(cc), creations_(!orb.isWanted(kCreation, cc)), deletions_(!orb.isWanted(kDeletion, cc)) {}

    bool creations() const noexcept { return creations_; }
    bool deletions() const noexcept { return deletions_; }
    bool isStillSo() const {
        return !(creations_ && orb_.isWanted(kCreation, cc_)) && !(deletions_ && orb_.isWanted(kDeletion, cc_));
    }

private:
    const TreflectORB &orb_;
    const unsigned cc_;
    const bool creations_;
    const bool deletions_;
};

// --- an object is created or deleted here ---------------------------------------------------------------------------

bool TreflectORB::notifyCreation(unsigned cc, const TreflectServerObject &object) {
    const Counted inside(callers_);
    checkHandlerState();
    TreflectHandlerState state(true);
    const bool listed = tried("tell of a creation", [&] {
        if (MetaData *data = getMetaData(cc)) {
            data->objects.insert(&object);
        }
    });
    if (listed) {
        notify(kCreation, cc, object);
    }
    return true;
}

bool TreflectORB::notifyDeletion(unsigned cc, const TreflectServerObject &object) {
    const Counted inside(callers_);
    TreflectHandlerState state(true);
    notify(kDeletion, cc, object);
    if (MetaData *data = getMetaData(cc)) {
        data->objects.erase(&object);
    }
    return true;
}

void TreflectORB::notify(const Event &event, unsigned cc, const TreflectServerObject &object) {
    const TreflectObject *const client = object.getClient();
    if (client == nullptr) {
        noMemory("tell of an object");
        return;
    }
    const TreflectObject source = *client;
    got(event, cc, source);
    tried("tell other brokers of an object", [&] { tellOthers(event, cc, source); });
}

void TreflectORB::tellOthers(const Event &event, unsigned cc, const TreflectObject &source) {
    const MetaData *data = getMetaData(cc);
    if (data == nullptr || (data->*event.remote).empty()) {
        return;
    }
    TipprmiStream request(allocateRequest(kRequestSize), true);
    TipprmiAny response; // which costs no memory: it becomes the stream of the answer
    request.msg().type(event.notification);
    request << cc << source;
    if (request.hasMarshallingFailed() || OngoingRequest::getThreadInstance() == nullptr) {
        throw std::bad_alloc(); // not sent at all: that must not look as if nobody had answered
    }
    const std::vector<TreflectOrbId> remote((data->*event.remote).begin(), (data->*event.remote).end());
    for (const TreflectOrbId &orb : remote) {
        response.clear();
        if (forwardMsg_(convertId(orb), true, request.msg(), response)) {
            continue;
        }
        if (MetaData *const after = getMetaData(cc)) {
            (after->*event.remote).erase(orb);
        }
    }
}

void TreflectORB::gotCreation(const unsigned &cc, const TreflectObject &object) {
    got(kCreation, cc, object);
}

void TreflectORB::gotDeletion(const unsigned &cc, const TreflectObject &object) {
    got(kDeletion, cc, object);
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
        if (!tried("tell all observers", [&] { told.insert(observer); })) {
            return;
        }
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

bool TreflectORB::observe(const Event &event, unsigned cc, TreflectObserver &observer, bool plusExisting) {
    constexpr char what[] = "register an observer";
    const Counted inside(callers_);
    TreflectHandlerState state(true);
    std::optional<ObserverToCome> toCome(std::in_place, *this, event, cc);
    if (!toCome->isCounted()) {
        noMemory(what);
        return false;
    }
    Reported reported;
    if (plusExisting) {
        tellOfOwnObjects(*this, cc, observer, reported);
    }
    if (!isObserved(event, cc) || plusExisting) {
        std::vector<TreflectObject> existing;
        if (!trySubscribe(event, cc, plusExisting ? &existing : nullptr, nullptr)) {
            return false;
        }
        for (const TreflectObject &object : existing) {
            if (reported.add(object)) {
                tellObserver(observer, object);
            }
        }
    }
    MetaData *const data = getMetaData(cc);
    if (data == nullptr || !reported.isComplete()) {
        noMemory(what);
        return false;
    }
    if (!tried(what, [&] { (data->*event.observers).push_back(&observer); })) {
        return false;
    }
    toCome.reset(); // it has come, and may go again while it is told of what the missed ones have
    if (!(this->*event.missed)->empty()) {
        (this->*event.missed)->notify(cc, observer, plusExisting);
    }
    return true;
}

/** The last one to go ends the subscription; so does one that was not there. */
void TreflectORB::removeObserver(const unsigned &cc, TreflectObserver &observer) {
    const Counted inside(callers_);
    TreflectHandlerState state(true);
    MetaData *const data = getMetaData(cc);
    if (data == nullptr) {
        return;
    }
    remove(data->creationObservers, observer);
    remove(data->deletionObservers, observer);
    if (isWanted(kCreation, cc) && isWanted(kDeletion, cc)) {
        return;
    }
    const Unwanted unwanted(*this, cc);
    if (unwanted.creations()) {
        unsubscribe(kCreation, cc, &unwanted);
    }
    if (unwanted.deletions()) {
        unsubscribe(kDeletion, cc, &unwanted);
    }
}

void TreflectORB::forget(TreflectObserver &observer) {
    const PartingState state;
    if (!state.hasPermission()) {
        return;
    }
    SingletonInstances::forEach([&observer](TreflectORB &orb) {
        for (const auto &entry : orb.metaData_) {
            for (const Event *event : {&kCreation, &kDeletion}) {
                remove((*entry.second).*event->observers, observer);
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

void TreflectORB::registerForOCN(unsigned cc, std::vector<TreflectObject> *existing, const TreflectOrbId *orb) {
    const Counted inside(callers_);
    trySubscribe(kCreation, cc, existing, orb);
}

void TreflectORB::registerForODN(unsigned cc, const TreflectOrbId *orb) {
    const Counted inside(callers_);
    trySubscribe(kDeletion, cc, nullptr, orb);
}

bool TreflectORB::trySubscribe(const Event &event, unsigned cc, std::vector<TreflectObject> *existing,
                               const TreflectOrbId *orb) {
    TreflectHandlerState state(true);
    return tried("subscribe", [&] { subscribe(event, cc, existing, orb); });
}

void TreflectORB::unregisterFromOCN(unsigned cc) {
    const Counted inside(callers_);
    unsubscribe(kCreation, cc, nullptr);
}

void TreflectORB::unregisterFromODN(unsigned cc) {
    const Counted inside(callers_);
    unsubscribe(kDeletion, cc, nullptr);
}

/** A broker that has not told its classes yet may have any. */
bool TreflectORB::mayHave(Transport::TerminationId target, unsigned cc) const {
    const auto known = classCodes_.find(target);
    return known == classCodes_.end() ||
           std::find(known->second.begin(), known->second.end(), cc) != known->second.end();
}

void TreflectORB::subscribe(const Event &event, unsigned cc, std::vector<TreflectObject> *existing,
                            const TreflectOrbId *orb) {
    TipprmiStream request(allocateRequest(kRequestSize), true);
    TipprmiAny response; // which costs no memory: it becomes the stream of the answer
    request.msg().type(event.subscription);
    request << cc;
    if (&event == &kCreation) {
        request << (existing != nullptr);
    }
    if (request.hasMarshallingFailed()) {
        throw std::bad_alloc();
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
            if (existing != nullptr && existing->size() + objects.getLength() > existing->capacity()) {
                existing->reserve(std::max(existing->size() + objects.getLength(), 2 * existing->capacity()));
            }
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
    std::vector<unsigned> entry; // whole or not at all: half of it would keep this broker from asking for the rest
    for (unsigned i = 0; i < codes.getLength(); ++i) {
        entry.push_back(codes[i]);
    }
    classCodes_[target].swap(entry);
}

void TreflectORB::unsubscribe(const Event &event, unsigned cc, const Unwanted *reason) {
    TipprmiStream request(allocateRequest(kRequestSize), true);
    TipprmiAny response; // which costs no memory: it becomes the stream of the answer
    request.msg().type(event.endOfSubscription);
    request << cc;
    for (const Transport::TerminationId &target : otherMembers()) {
        if (reason != nullptr && !reason->isStillSo()) {
            return;
        }
        response.clear();
        if (!forwardMsg_(target, true, request.msg(), response)) {
            LogDispatch(3, LogMakeString("could not unregister from 0x%X", target.value()), kSource);
        }
    }
}

void TreflectORB::orbAppeared(const TreflectOrbId &orb) {
    constexpr char what[] = "subscribe at a broker that has come up";
    TreflectHandlerState state(true);
    tried(what, [&] {
        missedCreations_->add(orb);
        missedDeletions_->add(orb);
    });
    // On from the last class, and again from the start until there are no new ones: peers can make them many.
    std::set<unsigned> handled;
    for (bool news = true; news;) {
        news = false;
        auto entry = metaData_.begin();
        while (entry != metaData_.end()) {
            const unsigned cc = entry->first;
            bool isNew = false;
            if (!tried(what, [&] { isNew = handled.insert(cc).second; })) {
                return;
            }
            if (isNew) {
                news = true;
                renewSubscriptions(cc, orb);
            }
            entry = metaData_.upper_bound(cc);
        }
    }
}

void TreflectORB::renewSubscriptions(unsigned cc, const TreflectOrbId &orb) {
    if (isObserved(kCreation, cc)) {
        std::vector<TreflectObject> existing;
        trySubscribe(kCreation, cc, &existing, &orb);
        for (const TreflectObject &object : existing) {
            got(kCreation, cc, object);
        }
    }
    if (isObserved(kDeletion, cc)) {
        trySubscribe(kDeletion, cc, nullptr, &orb);
    }
}

bool TreflectORB::isObserved(const Event &event, unsigned cc) const {
    const auto entry = metaData_.find(cc);
    return entry != metaData_.end() && !((*entry->second).*event.observers).empty();
}

/** Observed, or about to be. */
bool TreflectORB::isWanted(const Event &event, unsigned cc) const {
    const auto entry = metaData_.find(cc);
    return isObserved(event, cc) || (entry != metaData_.end() && (*entry->second).*event.observersToCome != 0);
}
