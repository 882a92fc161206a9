#pragma once

#include "objects/REFLECT_serverObject.h"
#include "observation/REFLECT_ObserverClient.h"
#include "platform/Export.h"

#include <string>

/** Server side of an observer: takes notifications that come as calls. TreflectObserver is what applications use. */
class REFLECTORB_API TreflectObserverSkeleton : public TreflectServerObject {
public:
    TreflectObserverSkeleton(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name);
    ~TreflectObserverSkeleton() override;

    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;
    TreflectObserverClient *getClient() const override;
    unsigned getServerClassId() const override;
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;

    /** See TreflectObserverClient::notify(). */
    virtual bool notify(const TreflectObject &source, const unsigned &classCode, const unsigned &methodCode,
                        const TipprmiSequence<TipprmiAny> &parameters, bool &delivered) = 0;

private:
    void answerNotify(unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response);
};
