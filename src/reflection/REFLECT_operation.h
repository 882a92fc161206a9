#pragma once

#include "platform/Export.h"

class TreflectMetaOperation;
class TreflectObject;
class TreflectObserver;

/** Handle of an operation of one object. Belongs to the object's handle, and goes with it. All but meta() and object()
 *  are calls to the object: with the run permission, and as long as that takes. */
class REFLECTORB_API TreflectOperation {
public:
    static constexpr int error = 5;

    constexpr TreflectOperation(const TreflectMetaOperation *meta, const TreflectObject *object) noexcept
        : TreflectOperation(meta, object, false) {}
    TreflectOperation(const TreflectOperation &) = delete;
    TreflectOperation &operator=(const TreflectOperation &) = delete;
    virtual ~TreflectOperation();

    const TreflectMetaOperation *meta() const noexcept { return meta_; }
    const TreflectObject *object() const noexcept { return object_; }

    /** Calls it without arguments and drops what it answers. 0, also when the call failed; `error` if there is no such
     *  operation. */
    int call() const;
    /** Before or after each call of the operation, at the object, the observer is told. It is not taken over; remove it
     *  before it goes. False if there is no such operation; what becomes of the registration is not told. */
    bool preObserve(TreflectObserver *observer) const;
    bool postObserve(TreflectObserver *observer) const;
    /** From all operations of the object. */
    void removeObserver(TreflectObserver *observer) const;

protected:
    constexpr TreflectOperation(const TreflectMetaOperation *meta, const TreflectObject *object, bool isError) noexcept
        : meta_(meta), object_(object), error_(isError) {}

private:
    bool observe(unsigned when, TreflectObserver *observer) const;
    /** A setter that does not exist has a handle, too. */
    bool isError() const noexcept { return error_ || meta_ == nullptr; }

    const TreflectMetaOperation *const meta_;
    const TreflectObject *const object_;
    const bool error_;
};

/** Stands for an operation that does not exist. */
class REFLECTORB_API TreflectErrorOperation : public TreflectOperation {
public:
    constexpr TreflectErrorOperation(const TreflectMetaOperation *meta, const TreflectObject *object) noexcept
        : TreflectOperation(meta, object, true) {}
    ~TreflectErrorOperation() override;
};
