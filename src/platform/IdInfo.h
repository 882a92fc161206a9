#pragma once

#include "platform/Export.h"

#include <string>

namespace Transport {

/**
 * Where this actor stands in its unit. Read from the environment at first use and constant afterwards; a value that
 * cannot be used is reported in one line and replaced by its default.
 */
class REFLECTORB_API IdInfo {
public:
    static IdInfo &instance() noexcept;

    /** Own slot, 1..255 (REFLECTORB_SLOT). */
    static unsigned getSlot() noexcept;
    /** The unit's active slot, 1..255 (REFLECTORB_ACTIVE_SLOT). */
    static unsigned activeSlot() noexcept;
    /** Whether the own slot holds an auxiliary unit (REFLECTORB_AXU_SLOTS). */
    static bool isAxu() noexcept;
    static bool axuInSlot(unsigned slot) noexcept;
    /** Name of this actor (REFLECTORB_ACTOR, else the program's name). */
    static std::string getActor();

private:
    IdInfo() = default;
};

} // namespace Transport
