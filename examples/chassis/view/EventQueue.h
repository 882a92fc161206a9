#pragma once

#include <condition_variable>
#include <list>
#include <mutex>

namespace View {

/**
 * From the threads in which the library tells what happens to the one that makes something of it. Elements may hold
 * handles, whose copying and destruction takes the run permission: so they are moved as list nodes, and nothing of them
 * happens under the lock.
 */
template <class T>
class EventQueue {
public:
    void push(std::list<T> &&node) {
        const std::lock_guard<std::mutex> guard(lock_);
        waiting_.splice(waiting_.end(), node);
        changed_.notify_one();
    }
    /** Blocks until there is one, which is all that the list holds; empty once the queue is closed. */
    std::list<T> pop() {
        std::list<T> first;
        std::unique_lock<std::mutex> guard(lock_);
        changed_.wait(guard, [this] { return closed_ || !waiting_.empty(); });
        if (!closed_) {
            first.splice(first.begin(), waiting_, waiting_.begin());
        }
        return first;
    }
    void close() {
        const std::lock_guard<std::mutex> guard(lock_);
        closed_ = true;
        changed_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::list<T> waiting_;
    bool closed_ = false;
};

} // namespace View
