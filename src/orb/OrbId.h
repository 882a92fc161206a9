#pragma once

#include "orb/NamespaceId.h"

/** Identifier of a broker in the object model: value = name id << 16 | slot << 8 | namespace id; 0 is none. */
class TreflectOrbId {
public:
    constexpr explicit TreflectOrbId(unsigned value = 0) noexcept
        : TreflectOrbId(static_cast<unsigned short>(value >> 16 & 0xFFFFU),
                        static_cast<unsigned char>(value >> 8 & 0xFFU), NamespaceId(value & 0xFFU)) {}
    /** The namespace is cut to 8 bits. */
    constexpr TreflectOrbId(unsigned short nameId, unsigned char slotId, NamespaceId namespaceId) noexcept
        : nameId_(nameId), slotId_(slotId), namespaceId_(static_cast<unsigned char>(namespaceId & 0xFFU)) {}

    constexpr unsigned value() const noexcept {
        return static_cast<unsigned>(nameId_) << 16 | static_cast<unsigned>(slotId_) << 8 | namespaceId_;
    }
    constexpr unsigned short nameId() const noexcept { return nameId_; }
    constexpr unsigned char slotId() const noexcept { return slotId_; }
    constexpr NamespaceId namespaceId() const noexcept { return NamespaceId(namespaceId_); }

    friend constexpr bool operator==(TreflectOrbId a, TreflectOrbId b) noexcept { return a.value() == b.value(); }
    friend constexpr bool operator!=(TreflectOrbId a, TreflectOrbId b) noexcept { return a.value() != b.value(); }
    friend constexpr bool operator<(TreflectOrbId a, TreflectOrbId b) noexcept { return a.value() < b.value(); }

private:
    unsigned short nameId_;
    unsigned char slotId_;
    unsigned char namespaceId_;
};
