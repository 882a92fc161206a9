#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>

namespace Transport {

/**
 * Bounds what waits for one receiver. Who sends faster than a live receiver reads is slowed down; a receiver that makes
 * no progress for 100 ms (real time) is taken as stalled, and sends to it fail at once until it reads again.
 * Every call is made under the lock of the queue that it bounds.
 */
class Backpressure {
public:
    static constexpr std::size_t kLimit = std::size_t{16} * 1024 * 1024;
    static constexpr std::size_t kPerMessage = 128; // what an empty message counts

    /** Takes `size` bytes in, possibly after a wait that gives the lock up. One message always fits an empty queue. */
    bool admit(OSWrap::Mutex &lock, std::size_t size, bool mayWait) RB_REQUIRES(lock) RB_NO_ANALYSIS {
        const auto end = Clock::now() + std::chrono::seconds(2);
        while (bytes_ != 0 && bytes_ + size + kPerMessage > kLimit) {
            if (!mayWait || stalled_ || closed_ || Clock::now() >= end) {
                return false;
            }
            const unsigned before = progress_;
            ++waiting_;
            const auto limit = Clock::now() + std::chrono::milliseconds(100);
            while (progress_ == before && !closed_ && room_.wait_until(lock, limit) == std::cv_status::no_timeout) {
            }
            --waiting_;
            stalled_ = progress_ == before;
        }
        bytes_ += size + kPerMessage;
        return !closed_;
    }

    /** A message of `size` bytes has left the queue. */
    void left(std::size_t size) {
        bytes_ -= size + kPerMessage;
        moved();
    }

    /** The receiver took something, though no whole message has left yet. */
    void moved() {
        ++progress_;
        stalled_ = false;
        if (waiting_ != 0) {
            room_.notify_all();
        }
    }

    void close() {
        closed_ = true;
        room_.notify_all();
    }

    /** Waits until the queue is empty or its receiver stalls; true if it is empty. */
    bool drain(OSWrap::Mutex &lock) RB_REQUIRES(lock) RB_NO_ANALYSIS {
        const auto end = Clock::now() + std::chrono::seconds(2);
        ++waiting_;
        while (bytes_ != 0 && !closed_ && Clock::now() < end) {
            const unsigned before = progress_;
            const auto limit = Clock::now() + std::chrono::milliseconds(100);
            while (progress_ == before && !closed_ && room_.wait_until(lock, limit) == std::cv_status::no_timeout) {
            }
            if (progress_ == before) {
                break;
            }
        }
        --waiting_;
        return bytes_ == 0;
    }

private:
    using Clock = std::chrono::steady_clock;

    std::condition_variable_any room_;
    std::size_t bytes_ = 0;
    unsigned progress_ = 0;
    unsigned waiting_ = 0;
    bool stalled_ = false;
    bool closed_ = false;
};

} // namespace Transport
