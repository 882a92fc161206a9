#include "Slot.h"

#include "CallHooks.h"
#include "threads/HandlerState.h"

#include <new>

namespace {

using Interface::Operation;
using Interface::Request;

template <auto Getter>
constexpr auto read = &Interface::answerRead<SlotSkeleton, Getter>;

constexpr Operation<SlotSkeleton> kOperations[] = {
    {"getnumber", Slot::mcGetnumber, read<&SlotSkeleton::number>},
    {"getpid", Slot::mcGetpid, read<&SlotSkeleton::pid>},
    {"getports", Slot::mcGetports, read<&SlotSkeleton::ports>},
};

template <auto Getter>
auto get(const Slot &slot, unsigned mc, Slot::Raised *raised) {
    return Interface::Read<Getter>::from(slot, Interface::find(kOperations, mc)->name, Slot::CLASS_ID, mc, raised);
}

const TreflectMetaObject *const atLoad __attribute__((used)) = SlotMeta::instance();

} // namespace

unsigned Slot::number(Raised *raised) const {
    return get<&SlotSkeleton::number>(*this, mcGetnumber, raised);
}
unsigned Slot::pid(Raised *raised) const {
    return get<&SlotSkeleton::pid>(*this, mcGetpid, raised);
}
TipprmiSequence<Port> Slot::ports(Raised *raised) const {
    return get<&SlotSkeleton::ports>(*this, mcGetports, raised);
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
    const Operation<SlotSkeleton> *const operation = cc == Slot::CLASS_ID ? Interface::find(kOperations, mc) : nullptr;
    if (operation == nullptr) {
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
    return operation->answer(*this, *operation, Request{transaction, cc, mc, request, response});
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
    metaOperation_("getnumber")->registerParameter("value", "unsigned long");
    metaOperation_("getpid")->registerParameter("value", "unsigned long");
    auto *const ports = new TreflectSequenceMetaAttribute("ports", this, metaOperation_("getports"), nullptr, 0);
    ports->registerType(port);
    registerAttribute(ports);
}
