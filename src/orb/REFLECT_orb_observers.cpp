#include "observation/REFLECT_OrbObserver.h"
#include "orb/Counted_p.h"
#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"
#include "platform/Environment_p.h"
#include "threads/HandlerState.h"

// Without the run permission: the thread that tells the observers may be waiting for it.

void TreflectORB::registerOrbCreation(TreflectOrbObserverIf *observer, bool notifyExisting) {
    const Counted inside(callers_);
    TreflectReleaseHandlerState released;
    orbObserver_->subscribe(observer, TreflectOrbObserverIf::appear, notifyExisting);
}

void TreflectORB::registerOrbDeletion(TreflectOrbObserverIf *observer) {
    const Counted inside(callers_);
    TreflectReleaseHandlerState released;
    orbObserver_->subscribe(observer, TreflectOrbObserverIf::disappear, false);
}

void TreflectORB::unregisterOrbNotifications(TreflectOrbObserverIf *observer) {
    const Counted inside(callers_);
    TreflectReleaseHandlerState released;
    orbObserver_->unsubscribe(observer);
}

void TreflectORB::forget(const TreflectOrbObserverIf &observer) {
    if (Platform::inForkedChild()) {
        return; // nobody tells it there, and the locks are as they happened to be
    }
    SingletonInstances::forEach([&observer](TreflectORB &orb) { orb.orbObserver_->forget(observer); });
}
