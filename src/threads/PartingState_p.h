#pragma once

#include "threads/HandlerState.h"

#include <optional>

/** Whether the calling thread is at its end: it ends, or it ends the process. */
class ThreadEnd {
public:
    /** Has the end of the calling thread noticed, from where its objects are destroyed. Not without memory. */
    static void watch() noexcept;
    /** The thread has called exit(). */
    static void begin() noexcept;
    static bool begun() noexcept;
    /** Takes the run permission, for a handler without it. A thread at its end waits 2 s, once in all. */
    static bool takePermission();
};

/**
 * TreflectHandlerState(true) for destructors, which run in static objects too: another thread may never give the run
 * permission back, and yet the process has to end. So a thread at its end waits 2 s, once; then it goes without, and
 * has to leave alone what only the permission protects.
 */
class PartingState {
public:
    PartingState();
    ~PartingState();
    PartingState(const PartingState &) = delete;
    PartingState &operator=(const PartingState &) = delete;

    bool hasPermission() const noexcept { return has_; }

private:
    void takeInTime();

    std::optional<TreflectHandlerState> usual_;
    bool has_ = true;
    bool taken_ = false;
    bool entered_ = false;
};
