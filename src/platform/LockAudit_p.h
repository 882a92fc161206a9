#pragma once

/**
 * Debug builds keep a per-thread record of the plain locks that are held: taking the run permission while one is held
 * can deadlock, and is reported at the place where it happens instead of when it bites. Empty in release builds.
 */
namespace LockAudit {

#ifdef NDEBUG
inline void locked(const void *) noexcept {}
inline void unlocked(const void *) noexcept {}
inline void assertNoPlainLock(const char *) noexcept {}
#else
void locked(const void *lock) noexcept;
void unlocked(const void *lock) noexcept;
/** Aborts with a line that names `what` and the held lock. */
void assertNoPlainLock(const char *what) noexcept;
#endif

/** Ends the process with a line on stderr; for faults that may not use the log. */
[[noreturn]] void fail(const char *what, const void *lock) noexcept;

} // namespace LockAudit
