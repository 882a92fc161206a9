#pragma once

/**
 * Namespace of an object identifier, and of the broker that serves it: 1 for the objects of the unit, 2 (NSID_NODE) for
 * those of the whole node, 0 (NSID_UNDEF) for none. Any 32-bit number may come from the wire, hence not an enumeration.
 * Compares, and converts, as an unsigned number.
 */
class NamespaceId {
public:
    constexpr NamespaceId(unsigned value = 0) noexcept : value_(value) {}
    constexpr operator unsigned() const noexcept { return value_; }

private:
    unsigned value_;
};

inline constexpr NamespaceId NSID_UNDEF{0};
inline constexpr NamespaceId NSID_NODE{2};
