#include "orb/TellObserver_p.h"

#include "observation/REFLECT_Observer.h"
#include "orb/REFLECT_orb.h"
#include "threads/HandlerState.h"

void tellObserver(TreflectObserver &observer, const TreflectObject &object) {
    TreflectRestoreHandlerState restored;
    if (TreflectORB::hasRunPermission()) {
        TreflectORB::releaseRunPermission();
    }
    observer.notify(object);
}
