#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <limits>

namespace OSWrap {

/**
 * A span of time, or a point on the monotonic clock, in seconds and nanoseconds.
 * Always normalised to 0 <= nsec() < 10^9, also when negative (-0.5 s is -1 s + 5*10^8 ns). Arithmetic saturates;
 * INFINITETIME is greater than everything else and absorbs every addition.
 */
class TimeSpec {
public:
    constexpr TimeSpec(std::int64_t seconds = 0, std::int64_t nanoseconds = 0) noexcept
        : sec_(seconds), nsec_(nanoseconds) {
        normalise();
    }

    constexpr std::int64_t sec() const noexcept { return sec_; }
    constexpr std::int64_t nsec() const noexcept { return nsec_; }

    constexpr TimeSpec &operator+=(const TimeSpec &other) noexcept;
    constexpr TimeSpec &operator-=(const TimeSpec &other) noexcept;

    friend constexpr TimeSpec operator+(TimeSpec a, const TimeSpec &b) noexcept { return a += b; }
    friend constexpr TimeSpec operator-(TimeSpec a, const TimeSpec &b) noexcept { return a -= b; }
    friend constexpr bool operator==(const TimeSpec &a, const TimeSpec &b) noexcept {
        return a.sec_ == b.sec_ && a.nsec_ == b.nsec_;
    }
    friend constexpr bool operator!=(const TimeSpec &a, const TimeSpec &b) noexcept { return !(a == b); }
    friend constexpr bool operator<(const TimeSpec &a, const TimeSpec &b) noexcept {
        return a.sec_ != b.sec_ ? a.sec_ < b.sec_ : a.nsec_ < b.nsec_;
    }
    friend constexpr bool operator>(const TimeSpec &a, const TimeSpec &b) noexcept { return b < a; }
    friend constexpr bool operator<=(const TimeSpec &a, const TimeSpec &b) noexcept { return !(b < a); }
    friend constexpr bool operator>=(const TimeSpec &a, const TimeSpec &b) noexcept { return !(a < b); }

    REFLECTORB_API static const TimeSpec INFINITETIME;

private:
    static constexpr std::int64_t kNanos = 1000000000;
    static constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    static constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

    constexpr bool infinite() const noexcept { return sec_ == kMax && nsec_ == kNanos - 1; }
    constexpr void normalise() noexcept;
    constexpr void saturate(bool up) noexcept {
        sec_ = up ? kMax : kMin;
        nsec_ = up ? kNanos - 1 : 0;
    }

    std::int64_t sec_;
    std::int64_t nsec_;
};

constexpr void TimeSpec::normalise() noexcept {
    std::int64_t carry = nsec_ / kNanos;
    nsec_ %= kNanos;
    if (nsec_ < 0) {
        nsec_ += kNanos;
        --carry;
    }
    if (carry > 0 && sec_ > kMax - carry) {
        saturate(true);
    } else if (carry < 0 && sec_ < kMin - carry) {
        saturate(false);
    } else {
        sec_ += carry;
    }
}

constexpr TimeSpec &TimeSpec::operator+=(const TimeSpec &other) noexcept {
    if (infinite() || other.infinite()) {
        saturate(true);
    } else if (other.sec_ > 0 && sec_ > kMax - other.sec_) {
        saturate(true);
    } else if (other.sec_ < 0 && sec_ < kMin - other.sec_) {
        saturate(false);
    } else {
        sec_ += other.sec_;
        nsec_ += other.nsec_;
        normalise();
    }
    return *this;
}

constexpr TimeSpec &TimeSpec::operator-=(const TimeSpec &other) noexcept {
    if (infinite()) {
        return *this;
    }
    if (other.infinite() || (other.sec_ > 0 && sec_ < kMin + other.sec_)) {
        saturate(false);
    } else if (other.sec_ < 0 && sec_ > kMax + other.sec_) {
        saturate(true);
    } else {
        sec_ -= other.sec_;
        nsec_ -= other.nsec_;
        normalise();
    }
    return *this;
}

/** The clock of every wait and sleep: monotonic, unaffected by the wall clock, run at REFLECTORB_TIME_SCALE. */
class REFLECTORB_API Clock {
public:
    static TimeSpec getObsTime() noexcept;
};

} // namespace OSWrap
