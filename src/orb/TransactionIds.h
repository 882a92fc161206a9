#pragma once

#include "orb/OrbId.h"

#include <cstdint>

/**
 * Makes transaction ids: bits 0-15 the broker's name id, bits 16-19 the low bits of its slot, bits 20-31 a counter. Not
 * synchronised by itself.
 */
class TransactionIds {
public:
    explicit constexpr TransactionIds(TreflectOrbId orb = TreflectOrbId()) noexcept
        : value_(orb.nameId() | (orb.slotId() & 0xFU) << kSlotShift) {}

    /** The id that was given out last (counter 0 before the first). */
    constexpr std::uint32_t last() const noexcept { return value_; }

    /** The next id for which `taken(id)` is false. False, and nothing changed, if all 4096 are taken. */
    template <class Taken>
    bool next(Taken &&taken, unsigned &id) {
        std::uint32_t candidate = value_;
        for (unsigned tries = 0; tries < kCounters; ++tries) {
            candidate += 1U << kCounterShift; // what leaves the top is the wrap of the counter
            if (!taken(candidate)) {
                value_ = candidate;
                id = candidate;
                return true;
            }
        }
        return false;
    }

private:
    static constexpr unsigned kSlotShift = 16;
    static constexpr unsigned kCounterShift = 20;
    static constexpr unsigned kCounters = 4096;

    std::uint32_t value_;
};
