#include "orb/TellObserver_p.h"

#include "observation/REFLECT_Observer.h"
#include "orb/SingletonInstances_p.h"
#include "threads/HandlerState.h"

void tellObserver(TreflectObserver &observer, const TreflectObject &object) {
    SingletonInstances::Inside inside; // it may end the process, which must not wait for this thread then
    TreflectReleaseHandlerState released;
    TreflectRestoreHandlerState restored;
    observer.notify(object);
}
