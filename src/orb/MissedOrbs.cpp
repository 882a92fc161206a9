#include "orb/MissedOrbs_p.h"

#include "objects/REFLECT_object.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "orb/TellObserver_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/TransportLayer.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <new>

namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;

} // namespace

void TreflectMissedOrbs::start(const std::list<Transport::TerminationId> &members) {
    std::set<TreflectOrbId> expected;
    const SingletonInstances::Pin orb(NamespaceId(1));
    if (orb.get() != nullptr) {
        for (const Transport::TerminationId &member : members) {
            expected.insert(orb.get()->convertId(member));
        }
    }
    Locked lock(lock_);
    missed_.clear();
    expected_.swap(expected);
}

void TreflectMissedOrbs::add(const TreflectOrbId &orb) {
    Locked lock(lock_);
    if (expected_.count(orb) == 0 && std::find(missed_.begin(), missed_.end(), orb) == missed_.end()) {
        missed_.push_back(orb);
    }
}

bool TreflectMissedOrbs::empty() const {
    Locked lock(lock_);
    return missed_.empty();
}

void TreflectMissedOrbs::notify(unsigned cc, TreflectObserver &observer, bool plusExisting) const {
    std::vector<TreflectOrbId> missed;
    bool copied = true;
    {
        Locked lock(lock_);
        try {
            missed = missed_;
        } catch (const std::bad_alloc &) {
            copied = false;
        }
    }
    if (!copied) {
        LogDispatch(3, "ORB has no memory to ask brokers that were missed", "REFLECT_orb");
    }
    TreflectHandlerState state(true);
    const SingletonInstances::Pin pinned(NamespaceId(1));
    TreflectORB *const own = pinned.get();
    for (const TreflectOrbId &orb : missed) {
        if (own == nullptr) {
            return;
        }
        if (!Transport::TransportLayer::exists(own->convertId(orb))) {
            continue; // gone again
        }
        if (!creations_) {
            own->registerForODN(cc, &orb);
            continue;
        }
        std::vector<TreflectObject> existing;
        own->registerForOCN(cc, plusExisting ? &existing : nullptr, &orb);
        for (const TreflectObject &object : existing) {
            tellObserver(observer, object);
        }
    }
}
