#pragma once

#include "platform/Export.h"
#include "platform/TimeSpec.h"

#include <memory>

namespace OSWrap {

class Priority {
public:
    explicit Priority(int value) noexcept : value_(value) {}
    int value() const noexcept { return value_; }

private:
    int value_;
};

/** 0: time sharing (the priority is only recorded), 1: first in first out, 2: round robin. */
class SchedulingPolicy {
public:
    explicit SchedulingPolicy(int value) noexcept : value_(value) {}
    int value() const noexcept { return value_; }

private:
    int value_;
};

/**
 * One thread of the actor; derive and implement run(). Cancellation is deferred and acts only in ConditionVar::wait()
 * and Thread::sleep().
 */
class REFLECTORB_API Thread {
public:
    /** stackSize in bytes; all ones asks for the system's default, smaller values are raised to what the platform
     *  needs. The name is cut to 15 characters. A detached thread cannot be joined. Nothing runs before start(). */
    Thread(const Priority &priority, const SchedulingPolicy &policy, unsigned stackSize, const char *name,
           bool detached);
    /** Stops and joins as a last resort, with a report: derived members are gone by then, so join earlier. */
    virtual ~Thread();
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;

    /** False if already started, stopped before, or the system refuses. A refused real-time policy falls back to time
     *  sharing. After start() of a detached thread the object belongs to that thread. */
    bool start();
    /** Before start() only: the object deletes itself in its thread when run() returns or is cancelled; at once when
     *  start() fails. */
    void deleteOnThreadTermination();
    /** Requests cancellation; never blocks. True if the thread was running. */
    bool stop();
    /** Waits for the end of the thread. False: oneself, detached, not started, second time. Not a cancellation
     *  point; never call it with the run permission. */
    bool join();
    /** What run() returned; 0 before and after a cancellation. */
    int result() const;

    /** A cancellation point; continues after signals. INFINITETIME sleeps for ever, times <= 0 return at once. */
    static void sleep(const TimeSpec &time);
    /** pthread_self() as a number, never 0; used again by the system after the thread's end. */
    static unsigned long getCurrentId() noexcept;
    /** The kernel's thread id, as tools show it. */
    static int getCurrentTid() noexcept;

protected:
    virtual int run() = 0;

private:
    struct State;
    static std::shared_ptr<State> makeState() noexcept;
    static void *entry(void *self);
    std::shared_ptr<State> state_; // null if memory was short
    bool deletesItself_ = false;   // only what has no state keeps it here
};

/** A thread that runs a member function of an object, which must outlive the thread. */
template <class T>
class MethodThread : public Thread {
public:
    using Method = int (T::*)();
    MethodThread(T &object, Method method, unsigned stackSize, const Priority &priority, const SchedulingPolicy &policy,
                 const char *name, bool detached)
        : Thread(priority, policy, stackSize, name, detached), object_(object), method_(method) {}

protected:
    int run() override { return (object_.*method_)(); }

private:
    T &object_;
    Method method_;
};

} // namespace OSWrap
