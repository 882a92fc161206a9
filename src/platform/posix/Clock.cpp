#include "platform/Environment_p.h"
#include "platform/TimeSpec.h"
#include "platform/posix/ScaledTime_p.h"

#include <cmath>
#include <limits>

namespace OSWrap {

const TimeSpec TimeSpec::INFINITETIME(std::numeric_limits<std::int64_t>::max(), 999999999);

namespace {

constexpr std::int64_t kNanos = 1000000000;

TimeSpec systemTime() noexcept {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, now.tv_nsec};
}

double scale() noexcept {
    static const double value = Platform::environment().timeScale;
    return value;
}

/** Scaled time runs from a base near the start of the process, so that no precision is lost after a long uptime. */
TimeSpec base() noexcept {
    static const TimeSpec value = systemTime();
    return value;
}

/** The product, rounded up to whole nanoseconds. */
TimeSpec times(const TimeSpec &span, double factor) noexcept {
    const double seconds = static_cast<double>(span.sec()) * factor;
    if (seconds >= 9e15) {
        return TimeSpec::INFINITETIME;
    }
    const double whole = std::floor(seconds);
    const double nanos = std::ceil((seconds - whole) * kNanos + static_cast<double>(span.nsec()) * factor);
    return TimeSpec(static_cast<std::int64_t>(whole)) +
           TimeSpec(static_cast<std::int64_t>(nanos / kNanos), static_cast<std::int64_t>(std::fmod(nanos, kNanos)));
}

} // namespace

TimeSpec Clock::getObsTime() noexcept {
    if (scale() == 1) {
        return systemTime();
    }
    const TimeSpec start = base(); // before the clock is read
    return start + times(systemTime() - start, scale());
}

} // namespace OSWrap

timespec ScaledTime::deadline(const OSWrap::TimeSpec &span) noexcept {
    using namespace OSWrap;
    // A little more than the quotient, for what its rounding loses: the scaled clock is never short of `span`
    // afterwards.
    const TimeSpec real = scale() == 1 ? span : times(span, 1 / scale()) + TimeSpec(0, 1000);
    const TimeSpec end = systemTime() + real;
    constexpr std::int64_t kLast = std::numeric_limits<std::int32_t>::max();
    timespec result{};
    result.tv_sec = static_cast<time_t>(end.sec() > kLast ? kLast : end.sec());
    result.tv_nsec = static_cast<long>(end.nsec());
    return result;
}
