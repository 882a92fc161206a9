#pragma once

#include "platform/Export.h"

/**
 * Scope guards of the run permission. For automatic storage only, destroyed in the thread that made them. A thread that
 * waits for the permission inside a guard cannot be cancelled until it has it; one that is cancelled inside a guarded
 * scope gets its state restored by unwinding, so a `catch (...)` on the way must rethrow. None may be made while a
 * plain lock is held.
 */

/** A handler thread for the scope, with the run permission if asked for; afterwards what it was before. */
class REFLECTORB_API TreflectHandlerState {
public:
    explicit TreflectHandlerState(bool withPermission);
    ~TreflectHandlerState();
    TreflectHandlerState(const TreflectHandlerState &) = delete;
    TreflectHandlerState &operator=(const TreflectHandlerState &) = delete;

    /** Restores the state that a guard recorded; null does nothing. */
    static void cleanupHandlerState(void *state);

private:
    bool wasHandler_;
    bool hadPermission_;
};

/** Gives one level of the run permission up for the scope, if the thread has it; takes it back at the end, waiting for
 *  its turn. Everything learnt under the permission before may have changed. */
class REFLECTORB_API TreflectReleaseHandlerState {
public:
    TreflectReleaseHandlerState();
    ~TreflectReleaseHandlerState();
    TreflectReleaseHandlerState(const TreflectReleaseHandlerState &) = delete;
    TreflectReleaseHandlerState &operator=(const TreflectReleaseHandlerState &) = delete;

private:
    // A nested permission stays held with one level less; that level is put back without a second report.
    enum class Released : unsigned char { nothing, permission, level } released_;
};

/** Whatever the scope does with the handler state: afterwards the thread is a handler, and has the permission, exactly
 *  if it was and had at the beginning. Entries and levels above one stay as they are. */
class REFLECTORB_API TreflectRestoreHandlerState {
public:
    TreflectRestoreHandlerState();
    ~TreflectRestoreHandlerState();
    TreflectRestoreHandlerState(const TreflectRestoreHandlerState &) = delete;
    TreflectRestoreHandlerState &operator=(const TreflectRestoreHandlerState &) = delete;

private:
    bool wasHandler_;
    bool hadPermission_;
};
