#pragma once

#include <atomic>
#include <new>
#include <pthread.h>

namespace Afw {

/** Locks a mutex, if there is one, for a scope. */
class SingletonSupport {
public:
    explicit SingletonSupport(pthread_mutex_t *mutex) : mutex_(mutex) {
        if (mutex_ != nullptr && pthread_mutex_trylock(mutex_) != 0) {
            pthread_mutex_lock(mutex_);
        }
    }
    ~SingletonSupport() {
        if (mutex_ != nullptr) {
            pthread_mutex_unlock(mutex_);
        }
    }
    SingletonSupport(const SingletonSupport &) = delete;
    SingletonSupport &operator=(const SingletonSupport &) = delete;

private:
    pthread_mutex_t *const mutex_;
};

/** The one object of a type, from its first use until the process exits. */
template <class T>
class Singleton {
public:
    /** Null once the object was destroyed, and without memory for it. */
    static T *get() {
        T *object = object_.load(std::memory_order_acquire);
        return object != nullptr || destroyed_.load(std::memory_order_acquire) ? object : create();
    }
    /** From then on there is none. */
    static void destroyObject() {
        T *object = nullptr;
        if (!destroyed_.load(std::memory_order_acquire)) {
            const SingletonSupport lock(&objectMutex_);
            destroyed_.store(true, std::memory_order_release);
            object = object_.exchange(nullptr);
        }
        delete object; // without the lock: its destructor may ask for it
    }

private:
    struct Guard {
        ~Guard() { destroyObject(); }
    };

    static T *create() {
        const SingletonSupport lock(&objectMutex_);
        if (!destroyed_.load(std::memory_order_relaxed) && object_.load(std::memory_order_relaxed) == nullptr) {
            object_.store(new (std::nothrow) T, std::memory_order_release);
            static Guard guard;
        }
        return object_.load(std::memory_order_relaxed);
    }

    static inline std::atomic<T *> object_{nullptr};
    static inline std::atomic<bool> destroyed_{false};
    static inline pthread_mutex_t objectMutex_ = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace Afw
