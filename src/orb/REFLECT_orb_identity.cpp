#include "orb/Addressing_p.h"
#include "orb/REFLECT_orb.h"
#include "platform/IdInfo.h"
#include "platform/Log.h"

using Transport::GroupId;
using Transport::TerminationId;

namespace Addressing {

namespace {

constexpr NamespaceId kUnitNamespace{1};

void cannotHandle(int level, unsigned orbId, const char *what) {
    LogDispatch(level, LogMakeString("ORB (orbId=0x%X) can not handle %s", orbId, what), "REFLECT_orb");
}

GroupId unitGroup(unsigned slot) {
    return slot == 1 ? Transport::GRPID_SLOT1 : Transport::GRPID_OTHER;
}

} // namespace

Place Place::own() {
    return {Transport::IdInfo::getSlot(), Transport::IdInfo::activeSlot(), &Transport::IdInfo::axuInSlot};
}

GroupId groupOf(NamespaceId ns, const Place &place, unsigned orbId) {
    switch (ns) {
    case kUnitNamespace:
        if (place.slot != 1 && (place.isAxu() || place.activeSlot != 1)) {
            return Transport::GRPID_OTHER;
        }
        return Transport::GRPID_SLOT1;
    case NSID_NODE:
        return Transport::GRPID_NODE;
    case NSID_UNDEF:
        cannotHandle(3, orbId, "namespace id NSID_UNDEF");
        return Transport::GRPID_UNDEF;
    default:
        return Transport::GRPID_UNDEF;
    }
}

NamespaceId namespaceOf(GroupId group, unsigned orbId) {
    switch (group) {
    case Transport::GRPID_SLOT1:
    case Transport::GRPID_OTHER:
        return kUnitNamespace;
    case Transport::GRPID_NODE:
        return NSID_NODE;
    case Transport::GRPID_UNDEF:
        cannotHandle(3, orbId, "group id GRPID_UNDEF");
        return NSID_UNDEF;
    case Transport::TRSPCTRL:
        cannotHandle(6, orbId, "group id TRSPCTRL");
        return NSID_UNDEF;
    default:
        return NSID_UNDEF;
    }
}

TerminationId addressOf(TreflectOrbId id, const Place &place) {
    unsigned slot = id.slotId();
    GroupId group = Transport::GRPID_UNDEF;
    switch (id.namespaceId()) {
    case kUnitNamespace:
        if (slot == 0) {
            slot = place.isAxu() ? place.slot : place.activeSlot;
            group = unitGroup(slot);
        } else {
            // By the active slot, not by the given one: a slot of its own says nothing about the group it is in.
            group = unitGroup(place.activeSlot);
        }
        break;
    case NSID_NODE:
        group = Transport::GRPID_NODE;
        if (slot == 0) {
            cannotHandle(3, id.value(), "slot 0 for NSID_NODE");
        }
        break;
    case NSID_UNDEF:
        cannotHandle(3, id.value(), "namespace NSID_UNDEF");
        break;
    default:
        break;
    }
    return TerminationId(id.nameId(), slot, group);
}

TreflectOrbId orbIdOf(TerminationId address, const Place &place, unsigned orbId) {
    const NamespaceId ns = namespaceOf(address.groupId(), orbId);
    const bool axu = ns == kUnitNamespace && place.axuInSlot(address.slot());
    return TreflectOrbId(static_cast<unsigned short>(address.nameId()),
                         static_cast<unsigned char>(axu ? 0 : address.slot()), ns);
}

} // namespace Addressing

GroupId TreflectORB::getMyGroup(const NamespaceId &ns) const {
    return Addressing::groupOf(ns, Addressing::Place::own(), orbId_.value());
}

NamespaceId TreflectORB::getNamespaceFromGroup(const GroupId &group) const {
    return Addressing::namespaceOf(group, orbId_.value());
}

TerminationId TreflectORB::convertId(const TreflectOrbId &id) const {
    return Addressing::addressOf(id, Addressing::Place::own());
}

TreflectOrbId TreflectORB::convertId(const TerminationId &id) const {
    return Addressing::orbIdOf(id, Addressing::Place::own(), orbId_.value());
}
