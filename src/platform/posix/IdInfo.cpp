#include "platform/IdInfo.h"

#include "platform/Environment_p.h"

namespace Transport {

IdInfo &IdInfo::instance() noexcept {
    static IdInfo *const info = new IdInfo;
    return *info;
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
    return Platform::environment().actor;
}

} // namespace Transport
