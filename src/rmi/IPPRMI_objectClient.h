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
 * the run permission; making a handle by name looks the object up, which may block for one request to each other
 * broker.
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

    virtual bool forwardMsg(const TreflectOrbId &orb, bool transaction, TipprmiStream &request,
                            TipprmiStream &response) const;
    virtual bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                          TipprmiStream &response) const;
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
    /** Takes over a reference that the caller has. */
    void setStub_(TreflectObjectStub *stub) noexcept { stub_ = stub; }

private:
    void exchange(TreflectObjectStub *stub);

    TreflectObjectStub *stub_ = nullptr; // one reference
};

REFLECTORB_API bool operator==(const TipprmiObjectClient &a, const TipprmiObjectClient &b);
inline bool operator!=(const TipprmiObjectClient &a, const TipprmiObjectClient &b) {
    return !(a == b);
}

/** As a location. */
REFLECTORB_API TipprmiStream &operator<<(TipprmiStream &stream, const TipprmiObjectClient &client);
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TipprmiObjectClient &client);
