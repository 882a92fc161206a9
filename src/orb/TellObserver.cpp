#include "orb/TellObserver_p.h"

#include "observation/REFLECT_Observer.h"
#include "threads/HandlerState.h"

void tellObserver(TreflectObserver &observer, const TreflectObject &object) {
    TreflectReleaseHandlerState released;
    TreflectRestoreHandlerState restored;
    observer.notify(object);
}
