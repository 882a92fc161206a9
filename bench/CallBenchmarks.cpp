#include "Benchmarks.h"
#include "Exchange.h"
#include "Measure.h"
#include "Series.h"
#include "Service.h"

#include "threads/HandlerState.h"

#include <cstdlib>

namespace Bench {

namespace {

constexpr int kRounds = 11;

Result echoes(const char *name, unsigned size, unsigned count) {
    const Called called(name);
    const std::string text(size, 'x');
    std::string back;
    const TreflectHandlerState state(true);
    const auto body = [&](unsigned) { called.service->echo(text, back); };
    Series warmUp;
    warmUp.round(called, count, body);
    Series series;
    for (int i = 0; i < kRounds; ++i) {
        series.round(called, count, body);
    }
    if (back != text) {
        std::abort();
    }
    return series.result(name);
}

} // namespace

Result callNull() {
    constexpr unsigned kCalls = 2000;
    const Called called("null");
    const auto byHand = handWrittenExchange();
    const auto call = [&](unsigned i) {
        if (called.service->next(i) != i + 1) {
            std::abort();
        }
    };
    const auto exchange = [&](unsigned) { byHand->call(Exchange::kCallSize); };
    const auto cpuByHand = [&] { return cpuOf(0) + cpuOf(byHand->peer()); };
    const TreflectHandlerState state(true);
    Series warmUp;
    warmUp.round(called, kCalls, call);
    warmUp.round(cpuByHand, kCalls, exchange);
    Series calls;
    Series floor;
    std::vector<double> ratios;
    for (int i = 0; i < kRounds; ++i) {
        Series one;
        Series other;
        one.round(called, kCalls, call);
        other.round(cpuByHand, kCalls, exchange);
        ratios.push_back(one.latencies.quantile(0.5) / other.latencies.quantile(0.5));
        calls.add(one);
        floor.add(other);
    }
    Result result = calls.result("null");
    result.figures.insert(result.figures.end(), {{"by_hand_p50_us", floor.latencies.quantile(0.5)},
                                                 {"by_hand_cpu_us", floor.cpu / static_cast<double>(floor.calls)},
                                                 {"ratio", median(ratios)}});
    return result;
}

Result callEcho1k() {
    return echoes("echo1k", 1024, 1000);
}
Result callEcho64k() {
    return echoes("echo64k", 64 * 1024, 300);
}

Result callOneWay() {
    constexpr unsigned kCalls = 20000;
    const Called called("oneway");
    const TreflectHandlerState state(true);
    unsigned sent = 0;
    const auto burst = [&] {
        for (unsigned i = 0; i < kCalls; ++i) {
            called.service->count();
        }
        sent += kCalls;
        while (called.service->counted() != sent) {
        }
    };
    burst();
    std::vector<double> rates;
    Series series;
    for (int i = 0; i < 5; ++i) {
        const Clock::time_point begin = Clock::now();
        series.round(called, 1, [&](unsigned) { burst(); });
        rates.push_back(kCalls / microseconds(Clock::now() - begin) * 1e6);
    }
    series.calls *= kCalls;
    Result result = series.result("oneway");
    result.p50 = result.p99 = -1;
    result.callsPerSecond = median(rates);
    return result;
}

Result callNested() {
    constexpr unsigned kCalls = 1000;
    const Called called("nested");
    const TreflectHandlerState state(true);
    Service own("bench");
    called.service->remember(*own.getClient());
    const auto call = [&](unsigned i) {
        if (called.service->nested(i) != i + 1) {
            std::abort();
        }
    };
    Series warmUp;
    warmUp.round(called, kCalls, call);
    Series series;
    for (int i = 0; i < kRounds; ++i) {
        series.round(called, kCalls, call);
    }
    return series.result("nested");
}

} // namespace Bench
