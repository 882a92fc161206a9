#pragma once

#include "platform/Thread.h"
#include "platform/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace Testing {

constexpr std::chrono::seconds kPatience{60};

/** Polls until the condition holds; false if it does not within a minute. */
bool eventually(const std::function<bool()> &condition);

/** A sync point: passed by all once it is open. Not a cancellation point. */
class Gate {
public:
    void open();
    /** False if it was not opened within a minute. */
    bool pass();

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool open_ = false;
};

/** Whether the thread with this number of the system is blocked right now. */
bool isAsleep(int tid);

/** Whether the lock could be taken right now. */
template <class L>
bool isFree(L &lock) RB_NO_ANALYSIS {
    return lock.trylock() && lock.unlock();
}

/** A thread of the library that runs a function, from now on; joined at the end of the scope. */
class TestThread final : public OSWrap::Thread {
public:
    explicit TestThread(std::function<void()> body, unsigned stackSize = ~0U);
    ~TestThread() override;

protected:
    int run() override;

private:
    const std::function<void()> body_;
};

} // namespace Testing
