#pragma once

#include "observation/REFLECT_ObserverSkeleton.h"
#include "platform/Export.h"
#include "threads/ThreadSpecificGuard.h"

#include <string>

/**
 * Is told when methods of other objects are called: derive from it and override detected(). One observer may be told in
 * several threads at once; what getSource() and getsvalue() answer belongs to the notification of the calling thread.
 * Unregister it everywhere before it is deleted, and do not delete it while it is being told.
 */
class REFLECTORB_API TreflectObserver : public TreflectObserverSkeleton {
public:
    using ThreadSpecificValue = ::ThreadSpecificValue;

    /** The notification that a thread is in. */
    struct SValue {
        TipprmiSequence<TipprmiAny> *parameters; // null if there are none
        const TreflectObject *source;
        bool detailed; // of an operation; else of the creation or deletion of an object
    };

    TreflectObserver(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name);
    ~TreflectObserver() override;

    bool notify(const TreflectObject &source, const unsigned &classCode, const unsigned &methodCode,
                const TipprmiSequence<TipprmiAny> &parameters, bool &delivered) override;
    /** Reacts. False forbids the operation, if it has not run yet. */
    virtual bool detected();
    /** The object that the notification is about; null, and a report, outside of one. */
    virtual const TreflectObject *getSource();
    virtual bool notify(const TreflectObject &source);

    /** Null, and a report, outside of a notification. */
    SValue *getsvalue();

private:
    bool tell(SValue &value);

    ThreadSpecificValue values_;
};
