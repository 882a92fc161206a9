#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace Bench {

/** Hands things from one thread to another. */
template <class T>
class Queue {
public:
    void push(T item) {
        const std::lock_guard<std::mutex> lock(lock_);
        items_.push_back(std::move(item));
        changed_.notify_one();
    }
    T pop() {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait(lock, [this] { return !items_.empty(); });
        T item = std::move(items_.front());
        items_.pop_front();
        return item;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<T> items_;
};

} // namespace Bench
