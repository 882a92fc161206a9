#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Bench {

/** What one benchmark measured. Times in microseconds; a negative figure was not measured. */
struct Result {
    std::string workload;
    unsigned long calls = 0;
    double callsPerSecond = -1;
    double p50 = -1;
    double p99 = -1;
    double cpu = -1;                                     // per call, summed over both processes
    std::vector<std::pair<std::string, double>> figures; // more of them, by name
};

struct Benchmark {
    const char *name;
    const char *what;
    Result (*run)();
};

} // namespace Bench
