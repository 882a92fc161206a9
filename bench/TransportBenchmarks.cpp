#include "Benchmarks.h"
#include "Exchange.h"
#include "Measure.h"

#include <algorithm>

namespace Bench {

namespace {

constexpr int kRounds = 11;

struct Series {
    Latencies latencies;
    double cpu = 0;
    double time = 0;
    unsigned long calls = 0;

    void round(Exchange &exchange, unsigned size, unsigned count) {
        const double cpuBefore = cpuOf(0) + cpuOf(exchange.peer());
        const Clock::time_point begin = Clock::now();
        for (unsigned i = 0; i < count; ++i) {
            const Clock::time_point sent = Clock::now();
            exchange.call(size);
            latencies.add(Clock::now() - sent);
        }
        time += microseconds(Clock::now() - begin);
        cpu += cpuOf(0) + cpuOf(exchange.peer()) - cpuBefore;
        calls += count;
    }
};

/** Rounds of both exchanges in turn, so that the machine's moods meet both. */
Result roundTrips(const char *name, unsigned size, unsigned count) {
    const std::unique_ptr<Exchange> transport = transportExchange();
    const std::unique_ptr<Exchange> byHand = handWrittenExchange();
    Series warmUp;
    warmUp.round(*transport, size, count);
    warmUp.round(*byHand, size, count);
    Series ours;
    Series floor;
    for (int i = 0; i < kRounds; ++i) {
        ours.round(*transport, size, count);
        floor.round(*byHand, size, count);
    }
    Result result;
    result.workload = name;
    result.calls = ours.calls;
    result.callsPerSecond = static_cast<double>(ours.calls) / ours.time * 1e6;
    result.p50 = ours.latencies.quantile(0.5);
    result.p99 = ours.latencies.quantile(0.99);
    result.cpu = ours.cpu / static_cast<double>(ours.calls);
    const double floorP50 = floor.latencies.quantile(0.5);
    result.figures = {{"by_hand_p50_us", floorP50},
                      {"by_hand_cpu_us", floor.cpu / static_cast<double>(floor.calls)},
                      {"ratio", result.p50 / floorP50}};
    return result;
}

double oneWayRate(Exchange &exchange, unsigned count) {
    const Clock::time_point begin = Clock::now();
    exchange.oneWay(100, count);
    return static_cast<double>(count) / microseconds(Clock::now() - begin) * 1e6;
}

} // namespace

Result transport100() {
    return roundTrips("transport100", 100, 2000);
}
Result transport1k() {
    return roundTrips("transport1k", 1024, 2000);
}
Result transport64k() {
    return roundTrips("transport64k", 64 * 1024, 500);
}
Result transport1m() {
    return roundTrips("transport1m", 1024 * 1024, 50);
}

Result transportOneWay() {
    constexpr unsigned kMessages = 100000;
    const std::unique_ptr<Exchange> transport = transportExchange();
    const std::unique_ptr<Exchange> byHand = handWrittenExchange();
    oneWayRate(*transport, kMessages);
    oneWayRate(*byHand, kMessages);
    double best = 0;
    double bestByHand = 0;
    for (int i = 0; i < 5; ++i) {
        best = std::max(best, oneWayRate(*transport, kMessages));
        bestByHand = std::max(bestByHand, oneWayRate(*byHand, kMessages));
    }
    Result result;
    result.workload = "transportoneway";
    result.calls = 5UL * kMessages;
    result.callsPerSecond = best;
    result.figures = {{"by_hand_per_s", bestByHand}, {"ratio", bestByHand / best}};
    return result;
}

} // namespace Bench
