#include "platform/UniqueIdGen.h"

#include "platform/Cancellation.h"

#include <random>

namespace OSWrap {

namespace {

unsigned randomStart() noexcept {
    DisableCancelStateGuard guard;
    try {
        return std::random_device()();
    } catch (const std::exception &) {
        return 1;
    }
}

} // namespace

UniqueIdGen::UniqueIdGen() noexcept : next_(randomStart()) {}

UniqueIdGen *UniqueIdGen::instance() noexcept {
    static UniqueIdGen generator; // trivially destroyed: usable during process exit, too
    return &generator;
}

unsigned UniqueIdGen::getId() noexcept {
    unsigned id = 0;
    while (id == 0) {
        id = next_.fetch_add(1, std::memory_order_relaxed);
    }
    return id;
}

} // namespace OSWrap
