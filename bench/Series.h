#pragma once

#include "Measure.h"
#include "Result.h"
#include "Service.h"

#include <functional>

namespace Bench {

/** Times, processor time and allocations of many calls in several rounds. */
struct Series {
    Latencies latencies;
    double cpu = 0;
    double time = 0;
    unsigned long calls = 0;
    double ownAllocations = 0;
    double peerAllocations = 0;

    template <class Body>
    void round(const std::function<double()> &processorTime, unsigned count, const Body &body) {
        latencies.reserve(count);
        const double cpuBefore = processorTime();
        const unsigned long before = allocations();
        const Clock::time_point begin = Clock::now();
        for (unsigned i = 0; i < count; ++i) {
            const Clock::time_point sent = Clock::now();
            body(i);
            latencies.add(Clock::now() - sent);
        }
        time += microseconds(Clock::now() - begin);
        ownAllocations += static_cast<double>(allocations() - before);
        cpu += processorTime() - cpuBefore;
        calls += count;
    }
    template <class Body>
    void round(const Called &called, unsigned count, const Body &body) {
        const unsigned before = called.allocated();
        round([&called] { return called.cpu(); }, count, body);
        peerAllocations += static_cast<double>(called.allocated() - before);
    }

    void add(const Series &other) {
        latencies.add(other.latencies);
        cpu += other.cpu;
        time += other.time;
        calls += other.calls;
        ownAllocations += other.ownAllocations;
        peerAllocations += other.peerAllocations;
    }

    Result result(const char *name) {
        Result result;
        const auto number = static_cast<double>(calls);
        result.workload = name;
        result.calls = calls;
        result.callsPerSecond = number / time * 1e6;
        result.p50 = latencies.quantile(0.5);
        result.p99 = latencies.quantile(0.99);
        result.cpu = cpu / number;
        result.figures = {{"client_allocations", ownAllocations / number},
                          {"server_allocations", peerAllocations / number}};
        return result;
    }
};

} // namespace Bench
