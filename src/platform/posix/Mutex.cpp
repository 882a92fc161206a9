#include "platform/Mutex.h"

#include "platform/LockAudit_p.h"
#include "platform/Thread.h"

namespace OSWrap {

Mutex::~Mutex() {
    pthread_mutex_destroy(&mutex_);
}

#ifdef NDEBUG

bool Mutex::lock() {
    return pthread_mutex_lock(&mutex_) == 0;
}
bool Mutex::unlock() {
    return pthread_mutex_unlock(&mutex_) == 0;
}
bool Mutex::trylock() {
    return pthread_mutex_trylock(&mutex_) == 0;
}

#else

bool Mutex::lock() {
    const unsigned long self = Thread::getCurrentId();
    if (holder_.load(std::memory_order_relaxed) == self) {
        LockAudit::fail("a mutex is locked again by its holder", this);
    }
    const bool result = pthread_mutex_lock(&mutex_) == 0;
    holder_.store(self, std::memory_order_relaxed);
    if (audited_) {
        LockAudit::locked(this);
    }
    return result;
}

bool Mutex::unlock() {
    if (holder_.load(std::memory_order_relaxed) != Thread::getCurrentId()) {
        LockAudit::fail("a mutex is unlocked by a thread that does not hold it", this);
    }
    if (audited_) {
        LockAudit::unlocked(this);
    }
    holder_.store(0, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex_) == 0;
}

bool Mutex::trylock() {
    if (pthread_mutex_trylock(&mutex_) != 0) {
        return false;
    }
    holder_.store(Thread::getCurrentId(), std::memory_order_relaxed);
    if (audited_) {
        LockAudit::locked(this);
    }
    return true;
}

#endif

CountedMutex::~CountedMutex() {
    pthread_mutex_destroy(&mutex_);
}

// Only its holder ever finds its own id in holder_, so the tests need no order between threads.
bool CountedMutex::lock() {
    const unsigned long self = Thread::getCurrentId();
    if (holder_.load(std::memory_order_relaxed) != self) {
        if (pthread_mutex_lock(&mutex_) != 0) {
            return false;
        }
        holder_.store(self, std::memory_order_relaxed);
    }
    count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

bool CountedMutex::unlock() {
    if (holder_.load(std::memory_order_relaxed) != Thread::getCurrentId()) {
        return false;
    }
    const unsigned left = count_.load(std::memory_order_relaxed) - 1;
    count_.store(left, std::memory_order_relaxed);
    if (left != 0) {
        return true;
    }
    holder_.store(0, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex_) == 0;
}

bool CountedMutex::trylock() {
    const unsigned long self = Thread::getCurrentId();
    if (holder_.load(std::memory_order_relaxed) != self) {
        if (pthread_mutex_trylock(&mutex_) != 0) {
            return false;
        }
        holder_.store(self, std::memory_order_relaxed);
    }
    count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

} // namespace OSWrap
