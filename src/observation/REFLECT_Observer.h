#pragma once

#include "observation/REFLECT_ObserverSkeleton.h"
#include "platform/Export.h"
#include "threads/ThreadSpecificGuard.h"

#include <string>

/**
 * Is told when methods of other objects are called, and when objects are made and deleted: derive from it and override
 * detected(). One observer may be told in several threads at once; what getSource() and getsvalue() answer belongs to
 * the notification of the calling thread, and is good until detected() returns. Unregister it everywhere before it is
 * deleted, and do not delete it while it is being told, so never in its own detected().
 */
class REFLECTORB_API TreflectObserver : public TreflectObserverSkeleton {
public:
    using ThreadSpecificValue = ::ThreadSpecificValue;

    /** The notification that a thread is in. */
    struct SValue {
        /** The result of the operation, or an empty place for it before it runs, then its parameters; null if it is not
         *  about an operation. A copy: changes have no effect. */
        TipprmiSequence<TipprmiAny> *parameters;
        const TreflectObject *source;
        bool detailed; // of an operation; else of the creation or deletion of an object
    };

    TreflectObserver(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name);
    ~TreflectObserver() override;

    bool notify(const TreflectObject &source, const unsigned &classCode, const unsigned &methodCode,
                const TipprmiSequence<TipprmiAny> &parameters, bool &delivered) override;
    /**
     * Reacts. Told of an operation, it runs with the run permission; false forbids the operation, if that has not run
     * yet; the object must not be deleted here. Told of an object that is made or deleted, it runs without, so it takes
     * the permission before it calls anything, or deletes that object; the result does not count then.
     *
     * It may register and unregister observers, this one too, and delete others that are not being told.
     */
    virtual bool detected();
    /** The object that the notification is about. Outside of a notification a report, and the actor ends; with the file
     *  that turns such aborts off, null. */
    virtual const TreflectObject *getSource();
    virtual bool notify(const TreflectObject &source);

    /** Outside of a notification as getSource(). */
    SValue *getsvalue();

private:
    bool tell(SValue &value);

    ThreadSpecificValue values_;
};
