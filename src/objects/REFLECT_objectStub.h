#pragma once

#include "orb/ObjectLocation.h"
#include "platform/Export.h"
#include "rmi/IPPRMI_objectBase.h"

#include <string>

class TreflectMetaObject;
class TreflectMetaOperation;
class TreflectORB;
class TreflectObject;
class TreflectObserver;
template <class T, unsigned Bound>
class TipprmiSequence;

/**
 * What all handles of one object share: where it lives. Here, it calls the object directly; elsewhere, it sends
 * requests by way of the broker of namespace 1, which block as a call does. A stub whose object went away is invalid;
 * only connect() with an object, or null, revives it. Made, counted and deleted by the TreflectObjectHandler. With the
 * run permission.
 */
class REFLECTORB_API TreflectObjectStub : public TreflectObjectLocationIf, public TipprmiObjectBase {
public:
    TreflectObjectStub();
    explicit TreflectObjectStub(const TreflectObjectLocationIf &location);
    explicit TreflectObjectStub(TipprmiObjectSkeleton *object);
    TreflectObjectStub(const TreflectObjectStub &other);
    /** The count of references stays. */
    TreflectObjectStub &operator=(const TreflectObjectStub &other);
    ~TreflectObjectStub() override;

    bool hasOID() const override;
    TipprmiOID getOID() const override;
    TreflectOrbId orbId() const override;
    unsigned getInternalOID() const override;
    NamespaceId getNamespaceId() const override;
    TipprmiObjectSkeleton *getServer() const override;
    virtual bool forwardMsg(const TreflectOrbId &orb, bool transaction, TipprmiStream &request,
                            TipprmiStream &response) const;
    /** False if the object cannot be reached, then with an exception of type 1 in `response`; or if an object of this
     *  process refuses, then with what it wrote. True for a one-way call means sent. */
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) const override;

    // What the object tells of itself: asked at each call. If it cannot be reached, nothing: null, empty names, handles
    // of no object.
    virtual const TreflectMetaObject *meta() const;
    virtual std::string getAbsName() const;
    virtual std::string getRelName() const;
    virtual TreflectObject getParent() const;
    virtual TreflectObject getChild(const std::string &name) const;
    virtual TipprmiSequence<TreflectObject, 0U> getChilds() const;
    virtual void registerChild(const std::string &name, const TreflectObject &child) const;
    virtual void unregisterChild(const std::string &name) const;

    /** Looks the object up anew, which blocks as a request to each other broker does; it is nowhere afterwards if that
     *  finds nothing, but keeps the name. An invalid stub stays as it is. The broker is not used. */
    virtual void connect(const TreflectORB *orb, const TipprmiOID &oid);
    virtual void connect(const TipprmiOID &oid);
    /** Makes the stub, invalid or not, stand for an object of this process, or for none. */
    virtual void connect(TipprmiObjectSkeleton *object);
    virtual bool isConnected() const;
    virtual std::string className() const;
    void setExceptionContainer(const TipprmiExceptionContainer &container) const override;
    TipprmiExceptionContainer getExceptionContainer() const override;
    /** `selector` 0: told before the operation runs, else after it. */
    virtual void registerObserver(unsigned selector, const TreflectMetaOperation *operation,
                                  TreflectObserver *observer) const;
    /** Of all operations, whichever is given. */
    virtual void removeObserver(const TreflectMetaOperation *operation, TreflectObserver *observer) const;
    // Last: in front of the others it would move their places in the table of virtual functions.
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) override {
        return static_cast<const TreflectObjectStub *>(this)->dispatch(transaction, cc, mc, request, response);
    }

    void incRefCount() noexcept { ++refCount_; }
    /** True when the last reference went. */
    bool decRefCount() noexcept { return --refCount_ < 1; }
    int refCount() const noexcept { return refCount_; }
    void setInvalid() noexcept;
    bool isValid() const noexcept;
    /** For the handler: the object of this process that it stands for. */
    void setServer(TipprmiObjectSkeleton *object) noexcept { object_ = object; }

    /** Empties `request` and writes the head of a call, for a call to another actor; connects first if need be, which
     *  may block. An invalid stub leaves `request` as it is. */
    void prepareRequestStream(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request) const;
    /** Reads the exception container of a two-way call; after one of type 1 all results read as zero. */
    void prepareResponseStream(bool transaction, TipprmiStream &response) const;

private:
    void prepareRequestStream_(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request) const;
    void prepareResponseStream_(bool transaction, TipprmiStream &response) const;
    unsigned localOrbId() const;

    TreflectOrbId orbId_;
    TipprmiObjectSkeleton *object_ = nullptr; // not owned; a mark of its own when invalid
    int refCount_ = 0;
    mutable const TreflectMetaObject *meta_ = nullptr; // what meta() found last
};

/** By name if both have one, else by all the rest. */
REFLECTORB_API bool operator==(const TreflectObjectStub &a, const TreflectObjectStub &b);
inline bool operator!=(const TreflectObjectStub &a, const TreflectObjectStub &b) {
    return !(a == b);
}
