#include "platform/LockAudit_p.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace LockAudit {

void fail(const char *what, const void *lock) noexcept {
    char line[160];
    std::snprintf(line, sizeof line, "ReflectORB: %s (lock %p)\n", what, lock);
    static_cast<void>(!::write(STDERR_FILENO, line, std::strlen(line)));
    std::abort();
}

#ifndef NDEBUG

namespace {

constexpr int kRecorded = 16;

// Trivial, so that it is good in every thread at any time, also while the thread ends.
struct Held {
    int count;
    const void *locks[kRecorded];
};
thread_local Held held;

} // namespace

void locked(const void *lock) noexcept {
    if (held.count < kRecorded) {
        held.locks[held.count] = lock;
    }
    ++held.count;
}

void unlocked(const void *lock) noexcept {
    int known = held.count < kRecorded ? held.count : kRecorded;
    for (int i = known - 1; i >= 0; --i) {
        if (held.locks[i] == lock) {
            for (; i + 1 < known; ++i) {
                held.locks[i] = held.locks[i + 1];
            }
            break;
        }
    }
    --held.count;
}

void assertNoPlainLock(const char *what) noexcept {
    if (held.count > 0) {
        fail(what, held.locks[0]);
    }
}

#endif

} // namespace LockAudit
