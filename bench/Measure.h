#pragma once

#include <chrono>
#include <cstddef>
#include <sys/types.h>
#include <vector>

namespace Bench {

using Clock = std::chrono::steady_clock;

inline double microseconds(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

/** Latencies of single calls in microseconds. */
class Latencies {
public:
    void add(Clock::duration time) { samples_.push_back(microseconds(time)); }
    void add(const Latencies &others) {
        samples_.insert(samples_.end(), others.samples_.begin(), others.samples_.end());
    }
    void reserve(std::size_t more) { samples_.reserve(samples_.size() + more); }
    /** 0.5 is the median. Sorts. */
    double quantile(double q);

private:
    std::vector<double> samples_;
};

/** Of at least one value. */
double median(std::vector<double> values);

/** Processor time that a process has used so far, in microseconds; 0: this one. */
double cpuOf(pid_t process);

/** Calls of malloc and its relatives in this process so far. */
unsigned long allocations();

} // namespace Bench
