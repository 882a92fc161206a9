#include "orb/ObjectLocation.h"

#include "orb/REFLECT_orb.h"
#include "rmi/StreamOperators.h"

#include <cstdint>
#include <cstdio>

namespace {

int signedValue(NamespaceId ns) {
    return static_cast<int>(static_cast<unsigned>(ns));
}

} // namespace

TreflectObjectLocationIf::~TreflectObjectLocationIf() = default;

bool TreflectObjectLocationIf::operator<(const TreflectObjectLocationIf &other) const {
    if (getNamespaceId() != other.getNamespaceId()) {
        return signedValue(getNamespaceId()) < signedValue(other.getNamespaceId());
    }
    if (getInternalOID() != other.getInternalOID()) {
        return getInternalOID() < other.getInternalOID();
    }
    if (orbId() == other.orbId() && hasOID() && other.hasOID()) {
        return getOID() < other.getOID();
    }
    return orbId() < other.orbId();
}

TipprmiStream &operator<<(TipprmiStream &stream, const TreflectObjectLocationIf &location) {
    // Without a name getOID() may make one up, so that is asked first.
    if (location.hasOID()) {
        stream << location.getOID();
    } else {
        stream << 0 << location.getNamespaceId();
    }
    return stream << location.getInternalOID() << location.orbId().value();
}

TreflectORB::TreflectObjectLocation::TreflectObjectLocation(unsigned internalOid, const TreflectOrbId &orb,
                                                            TipprmiObjectSkeleton *server, const TipprmiOID &oid)
    : internalOid_(internalOid), orbId_(orb), oid_(oid), server_(server) {}

TreflectORB::TreflectObjectLocation::TreflectObjectLocation(const TipprmiOID &oid) : oid_(oid) {
    const char *name = oid.getIdString();
    unsigned orb = 0;
    unsigned internalOid = 0;
    if (name != nullptr && std::sscanf(name, "rmi_%X_%X", &orb, &internalOid) == 2) {
        orbId_ = TreflectOrbId(orb);
        internalOid_ = internalOid;
        oid_ = TipprmiOID(nullptr, orbId_.namespaceId());
    }
}

TipprmiStream &operator>>(TipprmiStream &stream, TreflectORB::TreflectObjectLocation &location) {
    unsigned orb = 0;
    stream >> location.oid_ >> location.internalOid_ >> orb;
    location.orbId_ = TreflectOrbId(orb);
    location.server_ = nullptr;
    if (stream.hasUnmarshallingFailed()) { // half a reference would be looked for everywhere
        location = TreflectORB::TreflectObjectLocation(TipprmiOID(nullptr, location.oid_.getNamespaceId()));
    }
    return stream;
}
