#include "ChassisWatch.h"

#include "Chassis.h"
#include "threads/HandlerState.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

ChassisWatch &ChassisWatch::instance() {
    static auto *const watch = new ChassisWatch;
    return *watch;
}

ChassisWatch::ChassisWatch()
    : TreflectObserver(TipprmiOID(nullptr, NamespaceId(1)), nullptr, "chassisWatch"),
      event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

/** Told without the run permission, by a thread of the broker: what there is to do is done by the main one. */
bool ChassisWatch::detected() {
    const TreflectHandlerState state(true);
    found_ = *getSource();
    const std::uint64_t one = 1;
    static_cast<void>(!::write(event_, &one, sizeof one));
    return true;
}

TreflectObject ChassisWatch::take() {
    std::uint64_t count = 0;
    static_cast<void>(!::read(event_, &count, sizeof count));
    return found_;
}
