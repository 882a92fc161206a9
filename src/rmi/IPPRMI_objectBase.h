#pragma once

#include "orb/OrbId.h"
#include "platform/Export.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/IPPRMI_oid.h"

/** What the server side of an object and the stubs of its clients have in common: a name and a number. */
class REFLECTORB_API TipprmiObjectBase {
public:
    TipprmiObjectBase(const TipprmiOID &oid, unsigned internalOID) : internalOID_(internalOID), oid_(oid) {}
    TipprmiObjectBase(const TipprmiObjectBase &) = default;
    TipprmiObjectBase &operator=(const TipprmiObjectBase &other);
    virtual ~TipprmiObjectBase();

    /** The name; one made up of broker and number, "rmi_%X_%X" in namespace 1, if the object has none. */
    virtual TipprmiOID getOID() const;
    /** Number of the object in its broker, 0 if it is in none. */
    virtual unsigned getInternalOID() const;
    virtual NamespaceId getNamespaceId() const;
    /** The broker that the object is registered with; 0 if none. */
    virtual TreflectOrbId orbId() const = 0;
    /** Runs a method: arguments from `request`, exception container and results to `response`. False: not handled. */
    virtual bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
    virtual bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                          TipprmiStream &response) const;
    /** The container belongs to the object, not to a call: every answer begins with it until another one is set. With
     *  one of type 1 callers read all answers as failures. With the run permission. Handles have none. */
    virtual void setExceptionContainer(const TipprmiExceptionContainer &container) const;
    virtual TipprmiExceptionContainer getExceptionContainer() const;
    virtual bool hasOID() const;

    /** Under this name the object is found from now on; under none, and a line in the log, if it had no name before and
     *  memory is short. Handles that were made before keep what they know. Of an object: with the run permission. */
    void setOID(const TipprmiOID &oid);
    /** For the broker. */
    void setInternalOID(const unsigned &internalOID) { internalOID_ = internalOID; }
    /** The name as it is, which may be none. */
    const TipprmiOID &storedOID() const noexcept { return oid_; }

private:
    unsigned internalOID_;
    TipprmiOID oid_;
};
