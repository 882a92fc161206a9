#include "support/Concurrency.h"

#include "platform/Cancellation.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

namespace Testing {

bool eventually(const std::function<bool()> &condition) {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool isAsleep(int tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(file, line);
    return line.find(") S ") != std::string::npos;
}

void Gate::open() {
    const OSWrap::DisableCancelStateGuard guard;
    const std::lock_guard<std::mutex> lock(lock_);
    open_ = true;
    changed_.notify_all();
}

bool Gate::pass() {
    const OSWrap::DisableCancelStateGuard guard;
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, kPatience, [this] { return open_; });
}

TestThread::TestThread(std::function<void()> body, unsigned stackSize)
    : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), stackSize, "test", false), body_(std::move(body)) {
    if (!start()) {
        std::fprintf(stderr, "no thread for the test\n");
        std::abort();
    }
}

TestThread::~TestThread() {
    join();
}

int TestThread::run() {
    body_();
    return 1; // a cancelled thread leaves 0
}

} // namespace Testing
