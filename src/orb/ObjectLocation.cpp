#include "orb/ObjectLocation.h"

#include "orb/REFLECT_orb.h"
#include "rmi/StreamOperators.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

int signedValue(NamespaceId ns) {
    return static_cast<int>(static_cast<unsigned>(ns));
}

/** A number as scanf() reads it where numbers have 32 bits: a larger one becomes the largest. */
unsigned hexNumber(const char *text, char **end) {
    const bool negative = text[std::strspn(text, " \t\n\v\f\r")] == '-';
    errno = 0;
    const unsigned long long value = std::strtoull(text, end, 16);
    const unsigned long long magnitude = negative ? 0 - value : value;
    constexpr unsigned kLargest = 0xFFFFFFFF;
    return errno == ERANGE || magnitude > kLargest ? kLargest : static_cast<unsigned>(value & kLargest);
}

/** "rmi_", broker, "_", number; false for any other name. What follows does not count. */
bool readGenerated(const char *name, unsigned &orb, unsigned &internalOid) {
    constexpr char kPrefix[] = "rmi_";
    constexpr std::size_t kLength = sizeof kPrefix - 1;
    if (name == nullptr || std::strncmp(name, kPrefix, kLength) != 0) {
        return false;
    }
    const char *const first = name + kLength;
    char *end = nullptr;
    orb = hexNumber(first, &end);
    if (end == first || *end != '_') {
        return false;
    }
    const char *const second = end + 1;
    internalOid = hexNumber(second, &end);
    return end != second;
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
    unsigned orb = 0;
    unsigned internalOid = 0;
    if (readGenerated(oid.getIdString(), orb, internalOid)) {
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
