#pragma once

#include <cstdint>

namespace Transport {

/** Group of a termination; the broker gives the numbers their meaning. Any 8-bit value can come from the wire. */
enum GroupId : std::uint32_t {
    GRPID_UNDEF = 0,
    GRPID_SLOT1 = 1,
    GRPID_OTHER = 2,
    GRPID_NODE = 3,
    TRSPCTRL = 4,
};

/** Address of a termination: value = name id << 16 | slot << 8 | group; 0 is nobody. */
class TerminationId {
public:
    constexpr explicit TerminationId(unsigned value = 0) noexcept : value_(value) {}
    /** Each field is cut to its width: 16, 8 and 8 bits. */
    constexpr TerminationId(unsigned name, unsigned slot, unsigned group) noexcept
        : value_((name & 0xFFFFU) << 16 | (slot & 0xFFU) << 8 | (group & 0xFFU)) {}

    constexpr unsigned value() const noexcept { return value_; }
    constexpr unsigned nameId() const noexcept { return value_ >> 16; }
    constexpr unsigned slot() const noexcept { return value_ >> 8 & 0xFFU; }
    constexpr GroupId groupId() const noexcept { return static_cast<GroupId>(value_ & 0xFFU); }

    friend constexpr bool operator==(TerminationId a, TerminationId b) noexcept { return a.value_ == b.value_; }
    friend constexpr bool operator!=(TerminationId a, TerminationId b) noexcept { return a.value_ != b.value_; }
    friend constexpr bool operator<(TerminationId a, TerminationId b) noexcept { return a.value_ < b.value_; }

private:
    std::uint32_t value_;
};

} // namespace Transport
