#pragma once

#include "CallsAtWork.h"
#include "Chassis.h"
#include "platform/TerminationId.h"

/** The root of the unit's tree. Slots register with it from other actors; those whose actor is gone are dropped. */
class ChassisObject : public OutlivesCalls<ChassisSkeleton> {
public:
    ChassisObject();
    ~ChassisObject() override;

    TipprmiSequence<Slot> slots(Raised &raised) override;
    void registerChild(const std::string &name, const TreflectObject &child) override;
    /** To be called once a broker has gone. With the run permission. */
    void drop(Transport::TerminationId broker);

private:
    /** The broker of a child, by its name. */
    std::map<std::string, Transport::TerminationId> brokers_;
};
