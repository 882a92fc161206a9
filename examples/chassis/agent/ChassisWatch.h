#pragma once

#include "observation/REFLECT_Observer.h"

/** Waits for the chassis: there at the start, made later, or made again by another manager. Lives as long as the
 *  process, so no notification can outlive it. */
class ChassisWatch : public TreflectObserver {
public:
    /** With the run permission. Null if there is no descriptor left. */
    static ChassisWatch *make();

    /** Readable when a chassis has appeared. */
    int fd() const noexcept { return event_; }
    /** With the run permission: the one that appeared last. */
    TreflectObject take();

    bool detected() override;

private:
    explicit ChassisWatch(int event);

    const int event_;
    TreflectObject found_; // under the run permission
};
