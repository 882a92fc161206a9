#pragma once

/**
 * Clang's thread-safety annotations under names of our own; empty for other compilers.
 * Every field that a lock guards carries RB_GUARDED_BY, so that clang checks what a comment could only claim.
 */
#if defined(__clang__)
#define RB_ANNOTATION(x) __attribute__((x))
#else
#define RB_ANNOTATION(x)
#endif

#define RB_CAPABILITY(name) RB_ANNOTATION(capability(name))
#define RB_SCOPED_CAPABILITY RB_ANNOTATION(scoped_lockable)
#define RB_GUARDED_BY(lock) RB_ANNOTATION(guarded_by(lock))
#define RB_PT_GUARDED_BY(lock) RB_ANNOTATION(pt_guarded_by(lock))
#define RB_REQUIRES(...) RB_ANNOTATION(requires_capability(__VA_ARGS__))
#define RB_ACQUIRE(...) RB_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RB_RELEASE(...) RB_ANNOTATION(release_capability(__VA_ARGS__))
#define RB_TRY_ACQUIRE(...) RB_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RB_EXCLUDES(...) RB_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RB_NO_ANALYSIS RB_ANNOTATION(no_thread_safety_analysis)
