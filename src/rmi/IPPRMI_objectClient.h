#pragma once

#include "orb/OrbId.h"
#include "platform/Export.h"
#include "rmi/IPPRMI_oid.h"
#include "rmi/IPPRMI_stream.h"

class TipprmiObjectSkeleton;
class TreflectORB;
class TreflectObjectStub;

/**
 * Handle of an object that lives here or in another actor; a value. All handles of an object share one stub. Calls need
 * the run permission; handles may be made, copied and destroyed without it.
 *
 * Making a handle by name looks the object up, which may block: one request to each other broker, two for a name that
 * nobody knows. A handle that found nothing looks again, for one request each, whenever it is copied, assigned or
 * called. Who has the run permission gives it up meanwhile.
 */
class REFLECTORB_API TipprmiObjectClient {
public:
    /** Of no object. */
    TipprmiObjectClient();
    explicit TipprmiObjectClient(const TipprmiOID &oid);
    TipprmiObjectClient(const TreflectORB *orb, const TipprmiOID &oid);
    explicit TipprmiObjectClient(const TipprmiObjectSkeleton *object);
    explicit TipprmiObjectClient(TreflectObjectStub *stub);
    TipprmiObjectClient(const TipprmiObjectClient &other);
    TipprmiObjectClient &operator=(const TipprmiObjectClient &other);
    virtual ~TipprmiObjectClient();

    /** As TreflectORB::forwardMsg() of namespace 1. */
    virtual bool forwardMsg(const TreflectOrbId &orb, bool transaction, TipprmiStream &request,
                            TipprmiStream &response) const;
    /** Calls the object with a request that prepareRequestStream_() began; as a transaction, blocks until it has
     *  answered. False if it cannot be reached, or refuses a call in this process: `response` then holds the exception
     *  of type 1, or what the object wrote. With the run permission, which a remote call gives up meanwhile. */
    virtual bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                          TipprmiStream &response) const;
    /** Becomes a handle of another object, or of none; the name is looked up, which may block. The broker is not
     *  used. */
    virtual void connect(const TreflectORB *orb, const TipprmiOID &oid);
    virtual void connect(TipprmiObjectSkeleton *object);
    /** The object itself if it lives here, else null. */
    virtual TipprmiObjectSkeleton *getServer() const;

    TipprmiOID getOID() const;
    bool isConnected() const;
    /** Empties `request` and writes the head of a call. */
    void prepareRequestStream_(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request) const;
    /** Reads the exception container; after an exception of type 1 the rest reads as zeros. */
    void prepareResponseStream_(bool transaction, TipprmiStream &response) const;

    /** Null only if memory was short. */
    TreflectObjectStub *getStub_() const noexcept { return stub_; }
    /** Takes over a reference that the caller has. The stub from before is the caller's to release. */
    void setStub_(TreflectObjectStub *stub) noexcept { stub_ = stub; }

private:
    void exchange(TreflectObjectStub *stub);

    TreflectObjectStub *stub_ = nullptr; // one reference
};

/** Handles with names are equal if their names are; others if their objects are in the same place. */
REFLECTORB_API bool operator==(const TipprmiObjectClient &a, const TipprmiObjectClient &b);
inline bool operator!=(const TipprmiObjectClient &a, const TipprmiObjectClient &b) {
    return !(a == b);
}

/** As a location. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiObjectClient &client);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiObjectClient &client);
