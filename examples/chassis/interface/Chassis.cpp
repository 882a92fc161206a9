#include "Chassis.h"

#include "rmi/Method.h"
#include "threads/HandlerState.h"

#include <new>

namespace {

constexpr TipprmiMethod<ChassisSkeleton, TipprmiSequence<Slot>, TipprmiRaises<>> kGetslots{
    "getslots", Chassis::CLASS_ID, Chassis::mcGetslots, &ChassisSkeleton::slots};

const TreflectMetaObject *const atLoad __attribute__((used)) = ChassisMeta::instance();

} // namespace

TipprmiSequence<Slot> Chassis::slots(Raised *raised) const {
    Raised nobodys;
    return kGetslots.call(*this, raised != nullptr ? *raised : nobodys);
}

Chassis *ChassisSkeleton::getClient() const {
    const TreflectHandlerState state(true);
    if (client_slot_() == nullptr) {
        client_slot_(new (std::nothrow) Chassis(this));
    }
    return static_cast<Chassis *>(client_slot_());
}

TipprmiSequence<unsigned> ChassisSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned> ids;
    ids.push_back(Chassis::CLASS_ID);
    return ids;
}

bool ChassisSkeleton::dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                               TipprmiStream &response) {
    switch (cc == Chassis::CLASS_ID ? mc : 0) {
    case Chassis::mcGetslots:
        return kGetslots.answer(*this, request, response);
    default:
        return TreflectServerObject::dispatch(transaction, cc, mc, request, response);
    }
}

ChassisMeta *ChassisMeta::instance() {
    static auto *const meta = new ChassisMeta;
    return meta;
}

void ChassisMeta::completeMetaInformation() {
    const TreflectHandlerState state(true);
    if (completed_ != 0) {
        return;
    }
    completed_ = 1;
    SlotMeta *const slot = SlotMeta::instance();
    slot->completeMetaInformation();
    static constexpr MetaOpData operations[] = {{"getslots", Chassis::mcGetslots}};
    static constexpr MetaAttrData none[] = {{""}};
    completeMetaInformationHelper(operations, 1, none, 0);
    auto *const slots =
        new (std::nothrow) TreflectSequenceMetaAttribute("slots", this, metaOperation_("getslots"), nullptr, 0);
    if (slots != nullptr) {
        slots->registerType(slot);
        registerAttribute(slots);
    }
}
