#include "threads/PosixMutexLocker.h"

#include "support/Concurrency.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>

namespace {

/** Whether another thread could take the mutex now. */
bool freeForOthers(pthread_mutex_t &mutex) {
    std::atomic<int> result{-1};
    {
        Testing::TestThread other([&] {
            result = pthread_mutex_trylock(&mutex);
            if (result == 0) {
                pthread_mutex_unlock(&mutex);
            }
        });
    }
    EXPECT_TRUE(result == 0 || result == EBUSY) << result;
    return result == 0;
}

TEST(PosixMutexLocker, HoldsTheMutexForTheScope) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        PosixMutexLocker locker(&mutex);
        EXPECT_FALSE(freeForOthers(mutex));
    }
    EXPECT_TRUE(freeForOthers(mutex));
    pthread_mutex_destroy(&mutex);
}

TEST(PosixMutexLocker, AnExceptionUnlocks) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    try {
        PosixMutexLocker locker(&mutex);
        throw std::runtime_error("through the scope");
    } catch (const std::runtime_error &) {
        EXPECT_TRUE(freeForOthers(mutex));
    }
    pthread_mutex_destroy(&mutex);
}

TEST(PosixMutexLocker, WaitsForTheHolder) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    int steps = 0; // guarded by the mutex
    Testing::Gate held;
    Testing::Gate mayLeave;
    Testing::TestThread holder([&] {
        PosixMutexLocker locker(&mutex);
        held.open();
        mayLeave.pass();
        steps = 1;
    });
    ASSERT_TRUE(held.pass());
    Testing::TestThread waiter([&] {
        mayLeave.open();
        PosixMutexLocker locker(&mutex);
        steps = steps * 10 + 2;
    });
    holder.join();
    waiter.join();
    EXPECT_EQ(12, steps);
    pthread_mutex_destroy(&mutex);
}

} // namespace
