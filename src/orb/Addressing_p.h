#pragma once

#include "orb/OrbId.h"
#include "platform/TerminationId.h"

/**
 * How namespaces, groups, broker identifiers and transport addresses map to each other, as functions of where the
 * actor stands in its unit. Identifiers that no broker can serve are logged and map to group or namespace 0.
 */
namespace Addressing {

struct Place {
    unsigned slot;
    unsigned activeSlot;
    bool (*axuInSlot)(unsigned slot);

    bool isAxu() const { return axuInSlot(slot); }
    /** Of this process. */
    static Place own();
};

/** `orbId` only serves the reports. */
Transport::GroupId groupOf(NamespaceId ns, const Place &place, unsigned orbId);
NamespaceId namespaceOf(Transport::GroupId group, unsigned orbId);
Transport::TerminationId addressOf(TreflectOrbId id, const Place &place);
TreflectOrbId orbIdOf(Transport::TerminationId address, const Place &place, unsigned orbId);

} // namespace Addressing
