#include "Port.h"
#include "threads/HandlerState.h"

namespace {

const TreflectMetaObject *const atLoad __attribute__((used)) = PortMeta::instance();

constexpr TreflectMetaObject::MetaOpData kOperations[] = {
    {"getname", Port::mcGetname},
    {"getindex", Port::mcGetindex},
    {"getmacAddress", Port::mcGetmacAddress},
    {"getmtu", Port::mcGetmtu},
    {"getadminState", Port::mcGetadminState},
    {"getoperState", Port::mcGetoperState},
    {"getspeed", Port::mcGetspeed},
    {"getrxBytes", Port::mcGetrxBytes},
    {"gettxBytes", Port::mcGettxBytes},
    {"getrxPackets", Port::mcGetrxPackets},
    {"gettxPackets", Port::mcGettxPackets},
    {"getrxErrors", Port::mcGetrxErrors},
    {"gettxErrors", Port::mcGettxErrors},
    {"getrxDrops", Port::mcGetrxDrops},
    {"gettxDrops", Port::mcGettxDrops},
    {"setMtu", Port::mcSetMtu},
    {"setAdminState", Port::mcSetAdminState},
    {"counters", Port::mcCounters},
    {"stateChanged", Port::mcStateChanged},
};

constexpr TreflectMetaObject::MetaAttrData kAttributes[] = {
    {"name"},    {"index"},     {"macAddress"}, {"mtu"},      {"adminState"}, {"operState"}, {"speed"},   {"rxBytes"},
    {"txBytes"}, {"rxPackets"}, {"txPackets"},  {"rxErrors"}, {"txErrors"},   {"rxDrops"},   {"txDrops"},
};

struct Parameter {
    const char *operation;
    const char *name;
    const char *type;
};

constexpr Parameter kParameters[] = {
    {"getname", "value", "string"},           {"getindex", "value", "unsigned long"},
    {"getmacAddress", "value", "string"},     {"getmtu", "value", "unsigned long"},
    {"getadminState", "value", "string"},     {"getoperState", "value", "string"},
    {"getspeed", "value", "unsigned long"},   {"getrxBytes", "value", "Counter64"},
    {"gettxBytes", "value", "Counter64"},     {"getrxPackets", "value", "Counter64"},
    {"gettxPackets", "value", "Counter64"},   {"getrxErrors", "value", "Counter64"},
    {"gettxErrors", "value", "Counter64"},    {"getrxDrops", "value", "Counter64"},
    {"gettxDrops", "value", "Counter64"},     {"setMtu", "mtu", "unsigned long"},
    {"setAdminState", "up", "boolean"},       {"counters", "counters", "PortCounters"},
    {"stateChanged", "adminState", "string"}, {"stateChanged", "operState", "string"},
    {"stateChanged", "mtu", "unsigned long"},
};

template <class T, unsigned Count>
constexpr unsigned lengthOf(const T (&)[Count]) {
    return Count;
}

} // namespace

PortMeta *PortMeta::instance() {
    static auto *const meta = new PortMeta;
    return meta;
}

void PortMeta::completeMetaInformation() {
    const TreflectHandlerState state(true);
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    completeMetaInformationHelper(kOperations, lengthOf(kOperations), kAttributes, lengthOf(kAttributes));
    for (const Parameter &parameter : kParameters) {
        if (TreflectMetaOperation *const operation = metaOperation_(parameter.operation)) {
            operation->registerParameter(parameter.name, parameter.type);
        }
    }
}
