#pragma once

#include "orb/OrbId.h"
#include "platform/Export.h"
#include "rmi/IPPRMI_oid.h"

class TipprmiObjectSkeleton;

/** Where an object lives. */
class REFLECTORB_API TreflectObjectLocationIf {
public:
    TreflectObjectLocationIf() = default;
    TreflectObjectLocationIf(const TreflectObjectLocationIf &) noexcept {}
    TreflectObjectLocationIf &operator=(const TreflectObjectLocationIf &) noexcept { return *this; }
    virtual ~TreflectObjectLocationIf();

    virtual bool hasOID() const = 0;
    virtual TipprmiOID getOID() const = 0;
    virtual TreflectOrbId orbId() const = 0;
    /** Number of the object in its broker; 0 if it was not found. */
    virtual unsigned getInternalOID() const = 0;
    virtual NamespaceId getNamespaceId() const = 0;
    /** The object itself if it lives in this process, else null. Only good as long as the object is registered. */
    virtual TipprmiObjectSkeleton *getServer() const = 0;

    /** By namespace (as a signed number), internal number, then names if both have one in the same broker, else broker.
     *  A location without name is equivalent to every named one of the same object: no order for containers. */
    bool operator<(const TreflectObjectLocationIf &other) const;
};

/** Identifier, internal number, broker id. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TreflectObjectLocationIf &location);
