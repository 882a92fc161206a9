#include "support/ReflectiveClasses.h"

#include "rmi/Method.h"
#include "threads/HandlerState.h"

#include <cstdlib>
#include <new>

namespace Testing {
namespace {

// The operations of each interface, in the order of their codes.

constexpr TipprmiMethod<EquipmentSkeleton, std::string> kGetserial{"getserial", Equipment::CLASS_ID,
                                                                   Equipment::mcGetserial, &EquipmentSkeleton::serial};
constexpr TipprmiMethod<EquipmentSkeleton, TreflectObject> kGetcarrier{
    "getcarrier", Equipment::CLASS_ID, Equipment::mcGetcarrier, &EquipmentSkeleton::carrier};
constexpr TipprmiMethod<EquipmentSkeleton, void> kReset{"reset", Equipment::CLASS_ID, Equipment::mcReset,
                                                        &EquipmentSkeleton::reset};

constexpr TipprmiMethod<PortSkeleton, std::string> kGetlabel{"getlabel", Port::CLASS_ID, Port::mcGetlabel,
                                                             &PortSkeleton::label};
constexpr TipprmiMethod<PortSkeleton, void, TipprmiIn<std::string>> kSetlabel{"setlabel", Port::CLASS_ID,
                                                                              Port::mcSetlabel, &PortSkeleton::label};
constexpr TipprmiMethod<PortSkeleton, unsigned> kGetspeed{"getspeed", Port::CLASS_ID, Port::mcGetspeed,
                                                          &PortSkeleton::speed};
constexpr TipprmiMethod<PortSkeleton, void, TipprmiIn<unsigned>> kSetspeed{"setspeed", Port::CLASS_ID, Port::mcSetspeed,
                                                                           &PortSkeleton::speed};
constexpr TipprmiMethod<PortSkeleton, unsigned> kGetfaults{"getfaults", Port::CLASS_ID, Port::mcGetfaults,
                                                           &PortSkeleton::faults};
constexpr TipprmiMethod<PortSkeleton, TipprmiSequence<TreflectObject>> kGetmembers{
    "getmembers", Port::CLASS_ID, Port::mcGetmembers, &PortSkeleton::members};
constexpr TipprmiMethod<PortSkeleton, Lanes> kGetlanes{"getlanes", Port::CLASS_ID, Port::mcGetlanes,
                                                       &PortSkeleton::lanes};
constexpr TipprmiMethod<PortSkeleton, unsigned, TipprmiIn<unsigned>, TipprmiInOut<std::string>, TipprmiOut<unsigned>,
                        TipprmiRaises<Busy>>
    kSetRate{"setRate", Port::CLASS_ID, Port::mcSetRate, &PortSkeleton::setRate};
constexpr TipprmiMethod<PortSkeleton, void> kBlink{"blink", Port::CLASS_ID, Port::mcBlink, &PortSkeleton::blink, false};

/** An attribute with elements; left out without memory for it. */
template <class MetaAttribute>
void addElements(TreflectMetaObject &of, const char *name, const TreflectMetaOperation *get, int length,
                 TreflectMetaObject *type) {
    auto *const attribute = new (std::nothrow) MetaAttribute(name, &of, get, nullptr, length);
    if (attribute != nullptr) {
        attribute->registerType(type);
        of.registerAttribute(attribute);
    }
}

/** Without memory there may be no such operation. */
void addParameter(TreflectMetaOperation *operation, const char *name, const char *type) {
    if (operation != nullptr) {
        operation->registerParameter(name, type);
    }
}

/** Unless the process of a scenario is to know no class yet. */
const bool atLoad __attribute__((used)) = std::getenv("REFLECTORB_TEST_NO_CLASSES") != nullptr ||
                                          (EquipmentMeta::instance() != nullptr && PortMeta::instance() != nullptr);

} // namespace

TipprmiStream &operator<<(TipprmiStream &stream, const Busy &exception) {
    return stream << exception.reason << exception.retryAfter;
}

TipprmiStream &operator>>(TipprmiStream &stream, Busy &exception) {
    return stream >> exception.reason >> exception.retryAfter;
}

// --- clients --------------------------------------------------------------------------------------------------------

std::string Equipment::serial() const {
    return kGetserial.call(*this);
}

TreflectObject Equipment::carrier() const {
    return kGetcarrier.call(*this);
}

void Equipment::reset() const {
    kReset.call(*this);
}

std::string Port::label() const {
    return kGetlabel.call(*this);
}

void Port::label(const std::string &value) const {
    kSetlabel.call(*this, value);
}

unsigned Port::speed() const {
    return kGetspeed.call(*this);
}

void Port::speed(unsigned value) const {
    kSetspeed.call(*this, value);
}

unsigned Port::faults() const {
    return kGetfaults.call(*this);
}

TipprmiSequence<TreflectObject> Port::members() const {
    return kGetmembers.call(*this);
}

Lanes Port::lanes() const {
    return kGetlanes.call(*this);
}

unsigned Port::setRate(unsigned bps, std::string &mode, unsigned &effective, TipprmiExceptionContainer *raised) const {
    TipprmiExceptionContainer nobodys;
    return kSetRate.call(*this, bps, mode, effective, raised != nullptr ? *raised : nobodys);
}

void Port::blink() const {
    kBlink.call(*this);
}

// --- skeletons ------------------------------------------------------------------------------------------------------

Equipment *EquipmentSkeleton::getClient() const {
    const TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) Equipment(this));
    }
    return static_cast<Equipment *>(client_slot_());
}

Port *PortSkeleton::getClient() const {
    const TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) Port(this));
    }
    return static_cast<Port *>(client_slot_());
}

TipprmiSequence<unsigned> EquipmentSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Equipment::CLASS_ID);
    return ids;
}

TipprmiSequence<unsigned> PortSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Port::CLASS_ID);
    ids.push_back(Equipment::CLASS_ID);
    return ids;
}

bool EquipmentSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                                 TipprmiStream &response) {
    switch (cc == Equipment::CLASS_ID ? mc : 0) {
    case Equipment::mcGetserial:
        return kGetserial.answer(*this, request, response);
    case Equipment::mcGetcarrier:
        return kGetcarrier.answer(*this, request, response);
    case Equipment::mcReset:
        return kReset.answer(*this, request, response);
    default:
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
}

bool PortSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                            TipprmiStream &response) {
    switch (cc == Port::CLASS_ID ? mc : 0) {
    case Port::mcGetlabel:
        return kGetlabel.answer(*this, request, response);
    case Port::mcSetlabel:
        return kSetlabel.answer(*this, request, response);
    case Port::mcGetspeed:
        return kGetspeed.answer(*this, request, response);
    case Port::mcSetspeed:
        return kSetspeed.answer(*this, request, response);
    case Port::mcGetfaults:
        return kGetfaults.answer(*this, request, response);
    case Port::mcGetmembers:
        return kGetmembers.answer(*this, request, response);
    case Port::mcGetlanes:
        return kGetlanes.answer(*this, request, response);
    case Port::mcSetRate:
        return kSetRate.answer(*this, request, response);
    case Port::mcBlink:
        return kBlink.answer(*this, request, response);
    default:
        return EquipmentSkeleton::dispatch(transaction, cc, mc, request, response);
    }
}

// --- meta objects ---------------------------------------------------------------------------------------------------

EquipmentMeta *EquipmentMeta::instance() {
    static auto *const meta = new EquipmentMeta;
    return meta;
}

PortMeta *PortMeta::instance() {
    static auto *const meta = new PortMeta;
    return meta;
}

// Under the run permission, which counts: classes that refer to each other are completed in one go.

void EquipmentMeta::completeMetaInformation() {
    const TreflectHandlerState state(true);
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    static const MetaOpData operations[] = {
        {"getserial", Equipment::mcGetserial}, {"getcarrier", Equipment::mcGetcarrier}, {"reset", Equipment::mcReset}};
    static const MetaAttrData attributes[] = {{"serial"}, {"carrier"}};
    completeMetaInformationHelper(operations, 3, attributes, 2);
    if (TreflectMetaAttribute *const carrier = metaAttribute("carrier")) {
        carrier->registerType(this);
    }
}

void PortMeta::completeMetaInformation() {
    const TreflectHandlerState state(true);
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    EquipmentMeta *const equipment = EquipmentMeta::instance();
    equipment->completeMetaInformation(); // its getters may be needed here
    registerParent(equipment);
    static const MetaOpData operations[] = {
        {"getlabel", Port::mcGetlabel}, {"setlabel", Port::mcSetlabel},   {"getspeed", Port::mcGetspeed},
        {"setspeed", Port::mcSetspeed}, {"getfaults", Port::mcGetfaults}, {"getmembers", Port::mcGetmembers},
        {"getlanes", Port::mcGetlanes}, {"setRate", Port::mcSetRate},     {"blink", Port::mcBlink}};
    static const MetaAttrData attributes[] = {{"label"}, {"speed"}, {"faults"}};
    completeMetaInformationHelper(operations, 9, attributes, 3);
    addElements<TreflectSequenceMetaAttribute>(*this, "members", metaOperation_("getmembers"), 0, equipment);
    addElements<TreflectArrayMetaAttribute>(*this, "lanes", metaOperation_("getlanes"), 4, equipment);
    TreflectMetaOperation *const rate = metaOperation_("setRate");
    addParameter(rate, "bps", "unsigned long");
    addParameter(rate, "mode", "string");
    addParameter(rate, "effective", "unsigned long");
}

} // namespace Testing
