#include "platform/IdInfo.h"

#include "platform/Environment_p.h"

#include <exception>

namespace Transport {

IdInfo &IdInfo::instance() noexcept {
    static IdInfo info;
    return info;
}

unsigned IdInfo::getSlot() noexcept {
    return Platform::environment().slot;
}
unsigned IdInfo::activeSlot() noexcept {
    return Platform::environment().activeSlot;
}
bool IdInfo::isAxu() noexcept {
    return axuInSlot(getSlot());
}
bool IdInfo::axuInSlot(unsigned slot) noexcept {
    return slot < 256 && Platform::environment().axuSlots[slot];
}
std::string IdInfo::getActor() {
    try {
        return Platform::environment().actor;
    } catch (const std::exception &) { // short of memory
        return {};
    }
}

} // namespace Transport
