#pragma once

#include "platform/Export.h"
#include "reflection/REFLECT_attribute.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_sequence.h"

#include <cstddef>
#include <new>
#include <string>

class TreflectMetaObject;
class TreflectMetaOperation;
class TreflectObserver;

/**
 * Handle of a reflective object, here or in another actor, or of none; a small value. What it tells of the object it
 * asks the object at each call, which needs the run permission and takes as long as a call; an object that cannot be
 * reached has no meta object, empty names and no relatives. Handles come from a pool of their own, which is locked.
 */
class REFLECTORB_API TreflectObject : public TipprmiObjectClient {
public:
    /** Stand for members that an object does not have. They are never destroyed. */
    static TreflectErrorAttribute &errorAttribute;
    static TreflectErrorOperation &errorOperation;

    /** Of no object. */
    TreflectObject();
    explicit TreflectObject(const TipprmiObjectSkeleton *object);
    /** Looks the object up. */
    explicit TreflectObject(const TipprmiOID &oid);
    /** A copy, or an assignment, of a handle that found nothing looks the object up again, which may block. Member
     *  handles that the target of an assignment has made stay: they address the new object, with the codes of the old
     *  one's class. So for connect(). */
    TreflectObject(const TreflectObject &other);
    TreflectObject &operator=(const TreflectObject &other);
    /** Attribute and operation handles that were made by this one are gone with it. */
    ~TreflectObject() override;

    void connect(const TreflectORB *orb, const TipprmiOID &oid) override;
    void connect(TipprmiObjectSkeleton *object) override;

    /** A new handle of the member at each call, which is kept until this handle is destroyed: for repeated use keep
     * what you got. The error handle, and a line in the log, if the object has none such. Never null. */
    virtual TreflectAttribute *attribute(const std::string &name) const;
    virtual TreflectOperation *operation(const std::string &name) const;
    /** The class of the object as far as this process knows it; null if it knows none of the object's classes. */
    virtual const TreflectMetaObject *meta() const;
    virtual std::string getAbsName() const;
    virtual std::string getRelName() const;
    virtual TreflectObject getParent() const;
    virtual TreflectObject getChild(const std::string &name) const;
    virtual TipprmiSequence<TreflectObject> getChilds() const;
    /** As the object does it; neither tells of a failure. */
    virtual void registerChild(const std::string &name, const TreflectObject &child) const;
    virtual void unregisterChild(const std::string &name) const;
    virtual void connect(const TipprmiOID &oid);
    /** `when` 0: told before the operation runs, else after it. The observer is not taken over; remove it before it
     *  goes. Without effect if the object cannot be reached. */
    virtual void registerObserver(unsigned when, const TreflectMetaOperation *operation,
                                  TreflectObserver *observer) const;
    /** Of all operations of the object. */
    virtual void removeObserver(const TreflectMetaOperation *operation, TreflectObserver *observer) const;

    /** Shared with all handles of the object. Null only if memory was short. */
    TreflectObjectStub *getStub() const noexcept { return getStub_(); }

    static void *operator new(std::size_t size);
    static void *operator new(std::size_t size, const std::nothrow_t &) noexcept;
    static void *operator new(std::size_t, void *place) noexcept { return place; }
    static void operator delete(void *pointer, std::size_t size) noexcept;
    /** For constructors that do not return. */
    static void operator delete(void *pointer, const std::nothrow_t &) noexcept;
    static void operator delete(void *, void *) noexcept {}

private:
    void exchangeStub(TreflectObjectStub *stub);
};

/** As a location: what is read finds its stub, which may block to look up an object that has but a name. Writing is
 * that of TipprmiObjectClient. */
REFLECTORB_API TipprmiStream &operator>>(TipprmiStream &stream, TreflectObject &object);

/** A reference is at least an empty name and three numbers. */
template <>
struct TipprmiLeastSize<TreflectObject> {
    static constexpr unsigned value = 16;
};
