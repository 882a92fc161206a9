#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/transport/Descriptor_p.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <poll.h>
#include <vector>

namespace Transport {

/** Something with a descriptor that the receiving thread watches. All calls come on that thread. */
class Pollable {
public:
    virtual ~Pollable() = default;
    virtual int descriptor() const noexcept = 0;
    virtual short events() const noexcept { return POLLIN; }
    virtual void ready(short events) = 0;
};

/**
 * The receiving thread of the process: waits for descriptors, posted tasks and timers, and runs what they ask for, one
 * thing at a time. Runs with cancellation disabled and all signals blocked, until the process ends. Idle, it sleeps
 * without time limit.
 */
class Reactor {
public:
    using Task = std::function<void()>;
    using Time = std::chrono::steady_clock; // real time: the limits of the transport are not scaled

    Reactor();
    ~Reactor();
    Reactor(const Reactor &) = delete;
    Reactor &operator=(const Reactor &) = delete;

    /** Starts the thread if it does not run yet. */
    bool start();
    bool onThread() const noexcept;

    /** From any thread: the task runs soon, in the order of posting. */
    void post(Task task);
    /** Runs the task on the thread and returns after it; at once when called on the thread. */
    void run(const Task &task);
    /** Makes the thread look at events() of everything it watches again. */
    void wake() noexcept;

    /** On the thread only. */
    void watch(std::shared_ptr<Pollable> item);
    void unwatch(const Pollable *item);
    void after(Time::duration delay, Task task);

private:
    class Loop;
    void loop();
    /** True: somebody called wake(). */
    bool waitForWork();
    void runReady();
    void runTasks();
    void runTimers();
    int timeout() const;
    static void drain(int fd) noexcept;

    OSWrap::Mutex lock_;
    std::deque<Task> tasks_ RB_GUARDED_BY(lock_);
    bool started_ RB_GUARDED_BY(lock_) = false;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> stopped_{false};
    std::atomic<unsigned long> thread_{0};
    std::atomic<bool> woken_{false};
    Descriptor wakeUp_;

    // Used by the thread only.
    std::vector<std::shared_ptr<Pollable>> items_;
    std::vector<pollfd> polled_;
    std::multimap<Time::time_point, Task> timers_;
};

} // namespace Transport
