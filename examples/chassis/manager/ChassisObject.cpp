#include "ChassisObject.h"

#include "Paths.h"
#include "objects/REFLECT_objectStub.h"
#include "orb/REFLECT_orb.h"
#include "platform/TransportLayer.h"

using Transport::TerminationId;

ChassisObject::ChassisObject() : OutlivesCalls(Paths::id(Paths::chassis()), nullptr, Paths::chassis().substr(1)) {}

ChassisObject::~ChassisObject() {
    endCalls();
}

TipprmiSequence<Slot> ChassisObject::slots(Raised &) {
    TipprmiSequence<Slot> slots;
    const TipprmiSequence<TreflectObject> children = getChilds();
    for (unsigned i = 0; i < children.getLength(); ++i) {
        slots.push_back(Slot(children[i]));
    }
    return slots;
}

void ChassisObject::registerChild(const std::string &name, const TreflectObject &child) {
    OutlivesCalls::registerChild(name, child);
    const TreflectObjectStub *const stub = child.getStub();
    const TerminationId broker = stub != nullptr ? getORB()->convertId(stub->orbId()) : TerminationId();
    brokers_[name] = broker;
    // It may have ended since it sent this. If not, its end is still to be told.
    if (broker != getORB()->termId() && !Transport::TransportLayer::exists(broker)) {
        drop(broker);
    }
}

void ChassisObject::drop(TerminationId broker) {
    for (auto child = brokers_.begin(); child != brokers_.end();) {
        if (child->second == broker) {
            unregisterChild(child->first);
            child = brokers_.erase(child);
        } else {
            ++child;
        }
    }
}
