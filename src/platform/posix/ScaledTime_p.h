#pragma once

#include "platform/TimeSpec.h"

#include <ctime>

/** Between the time that the library sees and the system's monotonic clock, which the time scale tells apart. */
namespace ScaledTime {

/** The point on the system's monotonic clock that is `span` of library time from now, rounded up, within what the
 *  system can represent. `span` must be finite. */
timespec deadline(const OSWrap::TimeSpec &span) noexcept;

} // namespace ScaledTime
