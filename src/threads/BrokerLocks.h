#pragma once

#include "platform/ConditionVar.h"
#include "platform/Export.h"
#include "platform/Mutex.h"

/**
 * Locks for code that runs under the run permission: they give it up while they block, and take it back before they
 * return, so that other handler threads run meanwhile. After lock() or wait() therefore nothing that was learnt under
 * the permission before holds any more: iterators, pointers and tests have to be made anew.
 * The order is: the lock first, then the permission.
 */

/** Gives the run permission up only when the lock is not free. */
class REFLECTORB_API TreflectMutex {
public:
    TreflectMutex() noexcept;
    virtual ~TreflectMutex();
    TreflectMutex(const TreflectMutex &) = delete;
    TreflectMutex &operator=(const TreflectMutex &) = delete;

    virtual bool lock();
    virtual bool unlock();
    virtual bool trylock();

private:
    OSWrap::Mutex mutex_;
};

/** The same; its holder may take it again. */
class REFLECTORB_API TreflectCountedMutex {
public:
    TreflectCountedMutex() noexcept;
    virtual ~TreflectCountedMutex();
    TreflectCountedMutex(const TreflectCountedMutex &) = delete;
    TreflectCountedMutex &operator=(const TreflectCountedMutex &) = delete;

    virtual bool lock();
    virtual bool unlock();
    virtual bool trylock();
    virtual unsigned count() const;

private:
    OSWrap::CountedMutex mutex_;
};

/** The same with a condition; wait() always gives the run permission up, and is a cancellation point. */
class REFLECTORB_API TreflectConditionVar : public OSWrap::ConditionVar {
public:
    explicit TreflectConditionVar(bool recursive);
    ~TreflectConditionVar() override;

    bool lock() override;
    bool wait(const OSWrap::TimeSpec &limit) override;
};

namespace OSWrap {

/** Gives the run permission up for every lock(), also of a free lock: who waits for the permission runs first. */
class REFLECTORB_API RunPermMutex {
public:
    RunPermMutex() noexcept;
    virtual ~RunPermMutex();
    RunPermMutex(const RunPermMutex &) = delete;
    RunPermMutex &operator=(const RunPermMutex &) = delete;

    virtual bool lock();
    virtual bool unlock();
    virtual bool trylock();

private:
    Mutex mutex_;
};

/** The same with a condition. */
class REFLECTORB_API RunPermConditionVar : public ConditionVar {
public:
    explicit RunPermConditionVar(bool recursive);
    ~RunPermConditionVar() override;

    bool lock() override;
    bool wait(const TimeSpec &limit) override;
};

} // namespace OSWrap
