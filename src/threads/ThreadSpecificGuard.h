#pragma once

#include "platform/Export.h"
#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"

#include <map>

/** One pointer for each thread that has set one; not owned. */
class REFLECTORB_API ThreadSpecificValue {
public:
    /** The calling thread's pointer; null if it has none. */
    void *get() const;
    /** Null takes the entry out. An entry that cannot be made is as if it had not been set. Returns the one before. */
    void *exchange(void *value);
    /** Threads that have an entry. */
    std::size_t size() const;

private:
    mutable OSWrap::Mutex lock_;
    std::map<unsigned long, void *> values_ RB_GUARDED_BY(lock_);
};

/** Sets the calling thread's value for a scope; nests. */
class REFLECTORB_API ThreadSpecificGuard {
public:
    ThreadSpecificGuard(ThreadSpecificValue &values, void *value) : values_(values), before_(values.exchange(value)) {}
    ~ThreadSpecificGuard() { values_.exchange(before_); }
    ThreadSpecificGuard(const ThreadSpecificGuard &) = delete;
    ThreadSpecificGuard &operator=(const ThreadSpecificGuard &) = delete;

private:
    ThreadSpecificValue &values_;
    void *const before_;
};
