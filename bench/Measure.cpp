#include "Measure.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <ctime>

namespace {

std::atomic<unsigned long> allocationCount{0};

} // namespace

// The C library's own entry points, so that every allocation of the process, also of its libraries, is counted.
extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);

void *malloc(std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
void *calloc(std::size_t count, std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
void *aligned_alloc(std::size_t alignment, std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(alignment, size);
}
}

namespace Bench {

double Latencies::quantile(double q) {
    if (samples_.empty()) {
        return -1;
    }
    std::sort(samples_.begin(), samples_.end());
    return samples_[static_cast<std::size_t>(q * static_cast<double>(samples_.size() - 1))];
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double cpuOf(pid_t process) {
    clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
    timespec used{};
    if (process != 0 && ::clock_getcpuclockid(process, &clock) != 0) {
        return 0;
    }
    ::clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / 1e3;
}

unsigned long allocations() {
    return allocationCount.load(std::memory_order_relaxed);
}

} // namespace Bench
