#pragma once

#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"

#include <cstddef>
#include <map>

/** One pointer for each thread that has set one; not owned. */
class REFLECTORB_API ThreadSpecificValue {
public:
    /** The calling thread's pointer; null if it has none. */
    void *get() const;
    /** Threads that have an entry. */
    std::size_t size() const;

private:
    friend class ThreadSpecificGuard;

    struct Before {
        bool existed;
        void *value;
    };
    /** Null makes an entry, too. One that cannot be made is as if it had not been set. */
    Before set(void *value);
    void restore(const Before &before);

    mutable OSWrap::Mutex lock_;
    std::map<unsigned long, void *> values_ RB_GUARDED_BY(lock_);
};

/** Sets the calling thread's value for a scope; nests. */
class REFLECTORB_API ThreadSpecificGuard {
public:
    ThreadSpecificGuard(ThreadSpecificValue &values, void *value) : values_(values), before_(values.set(value)) {}
    ~ThreadSpecificGuard() { values_.restore(before_); }
    ThreadSpecificGuard(const ThreadSpecificGuard &) = delete;
    ThreadSpecificGuard &operator=(const ThreadSpecificGuard &) = delete;

private:
    ThreadSpecificValue &values_;
    const ThreadSpecificValue::Before before_;
};
