#pragma once

#include "platform/Export.h"

#include <atomic>

namespace OSWrap {

/** Hands out numbers that are unique in the process until they wrap; never 0. Starts at a random value. */
class REFLECTORB_API UniqueIdGen {
public:
    static UniqueIdGen *instance() noexcept;
    unsigned getId() noexcept;

private:
    UniqueIdGen() noexcept;
    std::atomic<unsigned> next_;
};

} // namespace OSWrap
