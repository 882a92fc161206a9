#pragma once

#include "Slot.h"
#include "objects/REFLECT_object.h"
#include "objects/REFLECT_serverObject.h"
#include "reflection/REFLECT_metaObject.h"

/*
 * What a compiler of interfaces would write for
 *
 *     interface Chassis {
 *         readonly attribute sequence<Slot> slots;
 *     };
 *
 * See Port for `raised`. Slots register as children of the chassis. They learn that there is one by the event of its
 * creation, so its owner has to send that.
 */
class Chassis : public TreflectObject {
public:
    using Raised = TipprmiExceptionContainer;

    enum : unsigned { CLASS_ID = 0x2FA8063DU };
    enum : unsigned { mcGetslots = 1 };

    Chassis() = default;
    explicit Chassis(const TipprmiOID &oid) : TreflectObject(oid) {}
    explicit Chassis(const TipprmiObjectSkeleton *object) : TreflectObject(object) {}
    Chassis(const TreflectObject &other) : TreflectObject(other) {}

    TipprmiSequence<Slot> slots(Raised *raised = nullptr) const;
};

class ChassisSkeleton : public TreflectServerObject {
public:
    using Raised = TipprmiExceptionContainer;

    ChassisSkeleton(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name)
        : TreflectServerObject(oid, parent, name) {
        dropClient_();
    }
    Chassis *getClient() const override;
    unsigned getServerClassId() const override { return Chassis::CLASS_ID; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    virtual TipprmiSequence<Slot> slots(Raised &raised) = 0;
};

class ChassisMeta : public TreflectMetaObject {
public:
    static ChassisMeta *instance();
    void completeMetaInformation() override;

private:
    ChassisMeta() : TreflectMetaObject("Chassis", Chassis::CLASS_ID) {}
};
