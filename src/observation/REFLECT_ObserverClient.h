#pragma once

#include "objects/REFLECT_object.h"
#include "platform/Export.h"

/** Handle of an observer, here or in another actor. Travels as every handle of an object does. */
class REFLECTORB_API TreflectObserverClient : public TreflectObject {
public:
    /** What a notification is sent with; its method code is 0. */
    static constexpr unsigned kClassId = 1679724493; // 0x641E8FCD

    /** Of no observer. */
    TreflectObserverClient();
    explicit TreflectObserverClient(const TipprmiObjectSkeleton *observer);
    /** Looks the observer up, which blocks for one request to each other broker; for two, if none of them has it. */
    explicit TreflectObserverClient(const TipprmiOID &oid);
    explicit TreflectObserverClient(const TreflectObject &object);
    TreflectObserverClient(const TreflectObserverClient &other);
    using TreflectObject::operator=;
    TreflectObserverClient &operator=(const TreflectObserverClient &other);
    ~TreflectObserverClient() override;

    /** Tells the observer, and answers what it said. With the run permission, which is given up for an observer in
     *  another actor; blocks as a call does. `delivered` becomes true if it was told; otherwise it is left as it is,
     *  and the answer means nothing. Without memory to tell it, it counts as told, and as having said false. */
    virtual bool notify(const TreflectObject &source, const unsigned &classCode, const unsigned &methodCode,
                        const TipprmiSequence<TipprmiAny> &parameters, bool &delivered) const;
};

static_assert(sizeof(TreflectObserverClient) == sizeof(TreflectObject), "comes from the same pool");
