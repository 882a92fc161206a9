#pragma once

#include <atomic>

/** One more for the scope. */
class Counted {
public:
    explicit Counted(std::atomic<unsigned> &count) : count_(count) { ++count_; }
    ~Counted() { --count_; }
    Counted(const Counted &) = delete;
    Counted &operator=(const Counted &) = delete;

private:
    std::atomic<unsigned> &count_;
};
