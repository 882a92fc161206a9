#pragma once

#include "Port.h"
#include "objects/REFLECT_object.h"
#include "objects/REFLECT_serverObject.h"
#include "reflection/REFLECT_metaObject.h"

/*
 * What a compiler of interfaces would write for
 *
 *     interface Slot {
 *         readonly attribute unsigned long number;
 *         readonly attribute unsigned long pid;
 *         readonly attribute sequence<Port> ports;
 *     };
 *
 * See Port for `raised`.
 */
class Slot : public TreflectObject {
public:
    using Raised = TipprmiExceptionContainer;

    enum : unsigned { CLASS_ID = 0x51C4E79BU };
    enum : unsigned { mcGetnumber = 1, mcGetpid, mcGetports };

    Slot() = default;
    explicit Slot(const TipprmiOID &oid) : TreflectObject(oid) {}
    explicit Slot(const TipprmiObjectSkeleton *object) : TreflectObject(object) {}
    Slot(const TreflectObject &other) : TreflectObject(other) {}

    unsigned number(Raised *raised = nullptr) const;
    /** Of the actor. */
    unsigned pid(Raised *raised = nullptr) const;
    /** By name. */
    TipprmiSequence<Port> ports(Raised *raised = nullptr) const;
};

class SlotSkeleton : public TreflectServerObject {
public:
    using Raised = TipprmiExceptionContainer;

    SlotSkeleton(const TipprmiOID &oid, const TreflectObject *parent, const std::string &name)
        : TreflectServerObject(oid, parent, name) {
        dropClient_();
    }
    Slot *getClient() const override;
    unsigned getServerClassId() const override { return Slot::CLASS_ID; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    virtual unsigned number(Raised &raised) = 0;
    virtual unsigned pid(Raised &raised) = 0;
    virtual TipprmiSequence<Port> ports(Raised &raised) = 0;
};

class SlotMeta : public TreflectMetaObject {
public:
    static SlotMeta *instance();
    void completeMetaInformation() override;

private:
    SlotMeta() : TreflectMetaObject("Slot", Slot::CLASS_ID) {}
};
