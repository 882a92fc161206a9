#pragma once

#include <pthread.h>

/** Holds a plain POSIX mutex for a scope; the run permission must not be taken meanwhile. */
class PosixMutexLocker {
public:
    explicit PosixMutexLocker(pthread_mutex_t *mutex) noexcept : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~PosixMutexLocker() { pthread_mutex_unlock(mutex_); }
    PosixMutexLocker(const PosixMutexLocker &) = delete;
    PosixMutexLocker &operator=(const PosixMutexLocker &) = delete;

private:
    pthread_mutex_t *const mutex_;
};
