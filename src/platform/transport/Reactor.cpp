#include "platform/transport/Reactor_p.h"

#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Thread.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Transport {

class Reactor::Loop : public OSWrap::Thread {
public:
    explicit Loop(Reactor &reactor)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), ~0U, "TrspReceive", true), reactor_(reactor) {
        deleteOnThreadTermination();
    }

protected:
    int run() override {
        OSWrap::DisableCancelStateGuard guard;
        reactor_.loop();
        return 0;
    }

private:
    Reactor &reactor_;
};

Reactor::Reactor() : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Reactor::~Reactor() {
    bool running = false;
    {
        OSWrap::Lock<OSWrap::Mutex> lock(lock_);
        running = started_;
    }
    stopping_ = true;
    woken_ = false;
    wake();
    while (running && !stopped_) {
        ::usleep(1000); // reactors of tests only: the one of the process is never destroyed
    }
}

bool Reactor::start() {
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    if (started_) {
        return true;
    }
    if (!wakeUp_) {
        LogDispatch(3, "Transport: no descriptor for the receiving thread", "Transport");
        return false;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    auto *thread = new (std::nothrow) Loop(*this);
    started_ = thread != nullptr && thread->start();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started_;
}

bool Reactor::onThread() const noexcept {
    return thread_ == OSWrap::Thread::getCurrentId();
}

void Reactor::post(Task task) {
    {
        OSWrap::Lock<OSWrap::Mutex> lock(lock_);
        tasks_.push_back(std::move(task));
    }
    wake();
}

void Reactor::run(const Task &task) {
    if (onThread()) {
        task();
        return;
    }
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Mutex lock;
    std::condition_variable_any finished;
    bool done = false;
    post([&] {
        task();
        OSWrap::Lock<OSWrap::Mutex> hold(lock);
        done = true;
        finished.notify_all(); // under the lock: the waiter's frame goes once it has it
    });
    OSWrap::Lock<OSWrap::Mutex> hold(lock);
    while (!done) {
        finished.wait(lock);
    }
}

void Reactor::wake() noexcept {
    if (!woken_.exchange(true)) {
        OSWrap::DisableCancelStateGuard guard;
        const std::uint64_t one = 1;
        static_cast<void>(!::write(wakeUp_.get(), &one, sizeof one));
    }
}

void Reactor::watch(std::shared_ptr<Pollable> item) {
    items_.push_back(std::move(item));
}

void Reactor::unwatch(const Pollable *item) {
    for (std::shared_ptr<Pollable> &entry : items_) {
        if (entry.get() == item) {
            entry.reset(); // the vector keeps its shape while ready() calls walk it
        }
    }
}

void Reactor::after(Time::duration delay, Task task) {
    timers_.emplace(Time::now() + delay, std::move(task));
}

void Reactor::loop() {
    thread_ = OSWrap::Thread::getCurrentId();
    while (!stopping_) {
        const bool woken = waitForWork();
        runReady();
        runTimers();
        if (woken) { // a task never comes without that
            runTasks();
        }
    }
    items_.clear();
    timers_.clear();
    stopped_ = true;
}

bool Reactor::waitForWork() {
    items_.erase(std::remove(items_.begin(), items_.end(), nullptr), items_.end());
    polled_.clear();
    polled_.push_back({wakeUp_.get(), POLLIN, 0});
    for (const std::shared_ptr<Pollable> &item : items_) {
        polled_.push_back({item->descriptor(), item->events(), 0});
    }
    if (::poll(polled_.data(), polled_.size(), timeout()) < 0 && errno != EINTR) {
        LogDispatch(3, LogMakeString("Transport: poll failed, errno=%d", errno), "Transport");
        ::usleep(10000);
    }
    if (polled_[0].revents == 0) {
        return false;
    }
    drain(wakeUp_.get());
    // Cleared before tasks and events() are looked at: what comes after this line wakes again.
    woken_ = false;
    return true;
}

void Reactor::runReady() {
    for (std::size_t i = 1; i < polled_.size(); ++i) {
        if (polled_[i].revents == 0) {
            continue;
        }
        if (std::shared_ptr<Pollable> item = items_[i - 1]) {
            item->ready(polled_[i].revents);
        }
    }
}

void Reactor::runTasks() {
    std::deque<Task> tasks;
    {
        OSWrap::Lock<OSWrap::Mutex> lock(lock_);
        tasks.swap(tasks_);
    }
    for (Task &task : tasks) {
        task();
        task = nullptr;
    }
}

void Reactor::runTimers() {
    while (!timers_.empty() && timers_.begin()->first <= Time::now()) {
        Task task = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
        task();
    }
}

int Reactor::timeout() const {
    if (timers_.empty()) {
        return -1;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(timers_.begin()->first - Time::now()).count();
    return left < 0 ? 0 : static_cast<int>(std::min<long long>(left + 1, 60000));
}

void Reactor::drain(int fd) noexcept {
    std::uint64_t count = 0;
    static_cast<void>(!::read(fd, &count, sizeof count));
}

} // namespace Transport
