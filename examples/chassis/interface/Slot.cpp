#include "Slot.h"

#include "rmi/Method.h"
#include "threads/HandlerState.h"

#include <new>

namespace {

constexpr TipprmiMethod<SlotSkeleton, unsigned, TipprmiRaises<>> kGetnumber{"getnumber", Slot::CLASS_ID,
                                                                            Slot::mcGetnumber, &SlotSkeleton::number};
constexpr TipprmiMethod<SlotSkeleton, unsigned, TipprmiRaises<>> kGetpid{"getpid", Slot::CLASS_ID, Slot::mcGetpid,
                                                                         &SlotSkeleton::pid};
constexpr TipprmiMethod<SlotSkeleton, TipprmiSequence<Port>, TipprmiRaises<>> kGetports{
    "getports", Slot::CLASS_ID, Slot::mcGetports, &SlotSkeleton::ports};

const TreflectMetaObject *const atLoad __attribute__((used)) = SlotMeta::instance();

} // namespace

unsigned Slot::number(Raised *raised) const {
    Raised nobodys;
    return kGetnumber.call(*this, raised != nullptr ? *raised : nobodys);
}

unsigned Slot::pid(Raised *raised) const {
    Raised nobodys;
    return kGetpid.call(*this, raised != nullptr ? *raised : nobodys);
}

TipprmiSequence<Port> Slot::ports(Raised *raised) const {
    Raised nobodys;
    return kGetports.call(*this, raised != nullptr ? *raised : nobodys);
}

Slot *SlotSkeleton::getClient() const {
    const TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) Slot(this));
    }
    return static_cast<Slot *>(client_slot_());
}

TipprmiSequence<unsigned> SlotSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Slot::CLASS_ID);
    return ids;
}

bool SlotSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                            TipprmiStream &response) {
    switch (cc == Slot::CLASS_ID ? mc : 0) {
    case Slot::mcGetnumber:
        return kGetnumber.answer(*this, request, response);
    case Slot::mcGetpid:
        return kGetpid.answer(*this, request, response);
    case Slot::mcGetports:
        return kGetports.answer(*this, request, response);
    default:
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
}

SlotMeta *SlotMeta::instance() {
    static auto *const meta = new SlotMeta;
    return meta;
}

void SlotMeta::completeMetaInformation() {
    const TreflectHandlerState state(true);
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    PortMeta *const port = PortMeta::instance();
    port->completeMetaInformation();
    static constexpr MetaOpData operations[] = {
        {"getnumber", Slot::mcGetnumber}, {"getpid", Slot::mcGetpid}, {"getports", Slot::mcGetports}};
    static constexpr MetaAttrData attributes[] = {{"number"}, {"pid"}};
    completeMetaInformationHelper(operations, 3, attributes, 2);
    for (const char *name : {"getnumber", "getpid"}) {
        if (TreflectMetaOperation *const operation = metaOperation_(name)) {
            operation->registerParameter("value", "unsigned long");
        }
    }
    auto *const ports =
        new (std::nothrow) TreflectSequenceMetaAttribute("ports", this, metaOperation_("getports"), nullptr, 0);
    if (ports != nullptr) {
        ports->registerType(port);
        registerAttribute(ports);
    }
}
