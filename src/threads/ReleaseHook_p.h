#pragma once

/**
 * What a thread has done when it next gives the run permission up, once. It runs when the permission is free, under no
 * lock; it must be short and contain no cancellation point.
 */
class ReleaseHook {
public:
    using Function = void (*)(void *argument);

    /** For the calling thread, in the place of what was set before. */
    static void set(Function function, void *argument) noexcept;
    /** Whether one is set that has not run. */
    static bool isSet() noexcept;
    /** Returns what isSet() did before. */
    static bool clear() noexcept;
    /** For the run permission alone. */
    static void run();
};
