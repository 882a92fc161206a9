#include "objects/Locate_p.h"

#include "orb/SingletonInstances_p.h"

using Location = TreflectORB::TreflectObjectLocation;

Location locate(NamespaceId broker, const TipprmiOID &name) {
    const SingletonInstances::Pin orb(broker);
    return orb.get() != nullptr ? orb.get()->locateObject(name) : Location(0, TreflectOrbId(), nullptr, name);
}

Location confirmed(const Location &location) {
    if (location.getServer() == nullptr) {
        return location;
    }
    const SingletonInstances::Pin orb(location.orbId().namespaceId());
    if (orb.get() != nullptr && orb.get()->isHere(location)) {
        return location;
    }
    return location.hasOID() ? Location(0, TreflectOrbId(), nullptr, location.getOID())
                             : Location(location.getInternalOID(), location.orbId(), nullptr, location.getOID());
}
