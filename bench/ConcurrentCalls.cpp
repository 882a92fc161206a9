#include "Benchmarks.h"
#include "Exchange.h"
#include "Measure.h"
#include "Service.h"

#include "threads/HandlerState.h"

#include <atomic>
#include <functional>
#include <sched.h>
#include <thread>

namespace Bench {

namespace {

constexpr int kRounds = 11;

/** Calls per second of so many threads that all begin together; `one` makes the calls of a thread. */
double rateOf(unsigned threads, unsigned calls, const std::function<void(unsigned thread)> &one) {
    std::atomic<unsigned> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> running;
    for (unsigned thread = 0; thread < threads; ++thread) {
        running.emplace_back([&, thread] {
            ++ready;
            while (!go) {
                ::sched_yield();
            }
            one(thread);
        });
    }
    while (ready < threads) {
        ::sched_yield();
    }
    const Clock::time_point begin = Clock::now();
    go = true;
    for (std::thread &thread : running) {
        thread.join();
    }
    return static_cast<double>(threads) * calls / microseconds(Clock::now() - begin) * 1e6;
}

} // namespace

Result callConcurrent() {
    constexpr unsigned kThreads = ConcurrentExchange::kThreads;
    constexpr unsigned kCalls = 1500;
    const Called called("conc8");
    const auto byHand = handWrittenExchange();
    Latencies latencies[kThreads];
    const auto calls = [&](unsigned thread) {
        const TreflectHandlerState state(true);
        for (unsigned i = 0; i < kCalls; ++i) {
            const Clock::time_point begin = Clock::now();
            called.service->next(i);
            latencies[thread].add(Clock::now() - begin);
        }
    };
    const auto exchanges = [&](unsigned thread) {
        for (unsigned i = 0; i < kCalls; ++i) {
            byHand->call(Exchange::kCallSize, thread);
        }
    };
    rateOf(kThreads, kCalls, calls);
    rateOf(kThreads, kCalls, exchanges);
    for (Latencies &thread : latencies) {
        thread = Latencies();
    }
    std::vector<double> rates;
    std::vector<double> floor;
    std::vector<double> ratios;
    double cpu = 0;
    for (int i = 0; i < kRounds; ++i) {
        const double before = called.cpu();
        rates.push_back(rateOf(kThreads, kCalls, calls));
        cpu += called.cpu() - before;
        floor.push_back(rateOf(kThreads, kCalls, exchanges));
        ratios.push_back(rates.back() / floor.back());
    }
    Result result;
    result.workload = "conc8";
    result.calls = static_cast<unsigned long>(kRounds) * kThreads * kCalls;
    result.callsPerSecond = median(rates);
    Latencies all;
    for (const Latencies &thread : latencies) {
        all.add(thread);
    }
    result.p50 = all.quantile(0.5);
    result.p99 = all.quantile(0.99);
    result.cpu = cpu / static_cast<double>(result.calls);
    result.figures = {{"by_hand_per_s", median(floor)}, {"ratio", median(ratios)}};
    return result;
}

} // namespace Bench
