#pragma once

#include "platform/Export.h"
#include "rmi/IPPRMI_objectBase.h"

class TipprmiObjectClient;
class TreflectORB;

/**
 * Server side of an object, registered with the broker of its namespace as long as it lives. Make and delete it inside
 * TreflectHandlerState(true): workers call it as soon as it is registered, but only with the run permission, so nobody
 * meets it half built as long as its constructor does not block. It must not be deleted while one of its methods runs.
 */
class REFLECTORB_API TipprmiObjectSkeleton : public TipprmiObjectBase {
public:
    /** Registers with the broker of the identifier's namespace, whatever broker is named. */
    TipprmiObjectSkeleton(TreflectORB *, const TipprmiOID &oid);
    explicit TipprmiObjectSkeleton(const TipprmiOID &oid);
    /** Without name, and not registered. */
    TipprmiObjectSkeleton();
    TipprmiObjectSkeleton(const TipprmiObjectSkeleton &) = delete;
    TipprmiObjectSkeleton &operator=(const TipprmiObjectSkeleton &) = delete;
    ~TipprmiObjectSkeleton() override;

    TreflectOrbId orbId() const override;
    using TipprmiObjectBase::dispatch;
    /** Method codes 2100 and 2101 set and read the exception container; others are not known here. */
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;
    void setExceptionContainer(const TipprmiExceptionContainer &container) const override;
    TipprmiExceptionContainer getExceptionContainer() const override;

    /** Registers with `orb`, or the broker of the identifier's namespace if that is null, which may take 100 ms to be
     *  made; the object keeps its own identifier. If there is no broker it is registered nowhere. Its client is deleted
     *  if the broker changes. Takes the run permission itself. */
    virtual void connect(TreflectORB *orb, const TipprmiOID &oid);
    /** A client on this object, made on first use; belongs to the skeleton. Null if memory is short. */
    virtual TipprmiObjectClient *getClient() const;

    TreflectORB *getORB() const noexcept { return orb_; }
    /** Stores the pointer, and registers nothing. */
    void setORB(TreflectORB *orb) noexcept { orb_ = orb; }
    /** Every response begins with the exception container. */
    void prepareResponseStream_(TipprmiStream &response) const { response << container_; }

protected:
    /** For overrides of getClient() that make a client of their own type; such a class drops in its constructor what
     *  the constructor of its base may have made. With the run permission. A client that there was no memory for is not
     *  kept. */
    TipprmiObjectClient *client_slot_() const noexcept { return client_; }
    void client_slot_(TipprmiObjectClient *client) const;
    void dropClient_() const;
    /** For destructors that must not be met by calls half torn down: ends the registration. With the run permission. */
    void unregister_();

private:
    friend class TipprmiObjectBase;
    void renamed_() const;

    mutable TipprmiObjectClient *client_ = nullptr; // owned
    mutable TipprmiExceptionContainer container_;
    TreflectORB *orb_ = nullptr; // not owned
};
