#include "observation/REFLECT_OrbObserver.h"
#include "orb/REFLECT_orb.h"
#include "threads/HandlerState.h"

// Without the run permission: the thread that tells the observers may be waiting for it.

void TreflectORB::registerOrbCreation(TreflectOrbObserverIf *observer, bool notifyExisting) {
    TreflectReleaseHandlerState released;
    orbObserver_->subscribe(observer, TreflectOrbObserverIf::appear, notifyExisting);
}

void TreflectORB::registerOrbDeletion(TreflectOrbObserverIf *observer) {
    TreflectReleaseHandlerState released;
    orbObserver_->subscribe(observer, TreflectOrbObserverIf::disappear, false);
}

void TreflectORB::unregisterOrbNotifications(TreflectOrbObserverIf *observer) {
    TreflectReleaseHandlerState released;
    orbObserver_->unsubscribe(observer);
}
