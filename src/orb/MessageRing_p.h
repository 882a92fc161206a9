#pragma once

#include "orb/ReflectMessage.h"

#include <cstddef>
#include <utility>
#include <vector>

/** A queue of messages that takes memory only when it grows, and gives much of it back once it is empty. */
class MessageRing {
public:
    bool empty() const noexcept { return count_ == 0; }
    std::size_t size() const noexcept { return count_; }
    TreflectMessage &front() noexcept { return slots_[head_]; }

    /** Throws std::bad_alloc, and is as before, if there is no memory. */
    void push_back(const TreflectMessage &message) {
        if (count_ == slots_.size()) {
            grow();
        }
        slots_[(head_ + count_) % slots_.size()] = message;
        ++count_;
    }
    void pop_front() noexcept {
        slots_[head_] = TreflectMessage();
        head_ = (head_ + 1) % slots_.size();
        --count_;
        if (count_ == 0 && slots_.size() > kKept) {
            std::vector<TreflectMessage>().swap(slots_);
            head_ = 0;
        }
    }
    void swap(MessageRing &other) noexcept {
        slots_.swap(other.slots_);
        std::swap(head_, other.head_);
        std::swap(count_, other.count_);
    }

private:
    static constexpr std::size_t kKept = 64;

    void grow() {
        std::vector<TreflectMessage> larger(slots_.empty() ? 8 : 2 * slots_.size());
        for (std::size_t i = 0; i < count_; ++i) {
            larger[i] = std::move(slots_[(head_ + i) % slots_.size()]);
        }
        slots_.swap(larger);
        head_ = 0;
    }

    std::vector<TreflectMessage> slots_;
    std::size_t head_ = 0;
    std::size_t count_ = 0;
};
