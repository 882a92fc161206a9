#pragma once

#include "observation/REFLECT_Observer.h"

/** Waits for the chassis: there at the start, made later, or made again by another manager. The one of the process,
 * which lives as long as that: no notification can outlive it. */
class ChassisWatch : public TreflectObserver {
public:
    /** Made at the first call, with the run permission. */
    static ChassisWatch &instance();

    /** Readable when a chassis has appeared; -1 if there was no descriptor left. */
    int fd() const noexcept { return event_; }
    /** With the run permission: the one that appeared last. */
    TreflectObject take();

    bool detected() override;

private:
    ChassisWatch();

    const int event_;
    TreflectObject found_; // under the run permission
};
