#include "Benchmarks.h"
#include "Events.h"
#include "Measure.h"

#include "orb/REFLECT_orb.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>

namespace Bench {

namespace {

constexpr unsigned kWarmUp = 50;

void check(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "%s\n", what);
        std::_Exit(1);
    }
}

template <class Body>
Result measured(const char *name, unsigned count, const Body &body) {
    for (unsigned i = 0; i < kWarmUp; ++i) {
        body(i);
    }
    Latencies latencies;
    latencies.reserve(count);
    const Clock::time_point begin = Clock::now();
    for (unsigned i = 0; i < count; ++i) {
        const Clock::time_point called = Clock::now();
        body(i);
        latencies.add(Clock::now() - called);
    }
    Result result;
    result.workload = name;
    result.calls = count;
    result.callsPerSecond = count / microseconds(Clock::now() - begin) * 1e6;
    result.p50 = latencies.quantile(0.5);
    result.p99 = latencies.quantile(0.99);
    return result;
}

/** Who sends an event goes on when the last one that watches has been told; so that is how long it takes. */
Result creations(const char *name, unsigned watchers) {
    constexpr unsigned kEvents = 1000;
    std::list<Helper> helpers;
    for (unsigned i = 0; i < watchers; ++i) {
        helpers.emplace_back("--serve-watch", "");
    }
    const TreflectHandlerState state(true);
    const Thing thing;
    const Result result = measured(name, kEvents, [&](unsigned) { thing.sendCreationEvent(&Thing::meta()); });
    for (const Helper &helper : helpers) {
        helper.tell("?");
        check(helper.read<unsigned>() == kEvents + kWarmUp, "an event was lost, or told twice");
    }
    const TreflectReleaseHandlerState released; // they unsubscribe
    helpers.clear();
    return result;
}

Result operations(const char *name, unsigned count, const TreflectObserverClient &observer) {
    Thing thing;
    thing.registerObserver(0, Thing::kClass, Thing::kNext, observer);
    Result result = measured(name, count, [&](unsigned i) { check(thing.next(i) == i + 1, "a call was forbidden"); });
    check(thing.preObserverAvailable(Thing::kClass, Thing::kNext), "the observer was not reached");
    Thing unobserved;
    Result without = measured("", 10000, [&](unsigned i) { unobserved.next(i); });
    result.figures = {{"unobserved_p50_us", without.p50}};
    return result;
}

/** From the signal to the last of the others that knows. */
Result bereavement(const char *name, unsigned others) {
    constexpr unsigned kRounds = 15;
    std::list<Helper> helpers;
    for (unsigned i = 0; i < others; ++i) {
        helpers.emplace_back("--serve-bereaved", "");
    }
    std::vector<double> last;
    std::vector<double> all;
    for (unsigned round = 0; round < kRounds; ++round) {
        const std::string object = "silent" + std::to_string(round);
        Helper dying("--serve-hold", object);
        for (const Helper &helper : helpers) {
            helper.tell(object + "\n");
        }
        for (unsigned i = 0; i < others; ++i) {
            dying.read<char>(); // one call of each has come
        }
        const double killed = now();
        dying.kill();
        double latest = 0;
        for (const Helper &helper : helpers) {
            const double known = helper.read<double>() - killed;
            all.push_back(known);
            latest = std::max(latest, known);
        }
        last.push_back(latest);
    }
    Result result;
    result.workload = name;
    result.calls = kRounds;
    result.figures = {{"last_median_ms", median(last) / 1e3},
                      {"last_worst_ms", *std::max_element(last.begin(), last.end()) / 1e3},
                      {"each_median_ms", median(all) / 1e3}};
    return result;
}

} // namespace

Result creations1() {
    return creations("events1", 1);
}
Result creations10() {
    return creations("events10", 10);
}
Result creations30() {
    return creations("events30", 30);
}

Result observedLocal() {
    const TreflectHandlerState state(true);
    const Counter counter;
    return operations("observedlocal", 100000, *counter.getClient());
}

Result observedRemote() {
    const Helper helper("--serve-observer", "counter");
    const TreflectHandlerState state(true);
    return operations("observedremote", 5000, TreflectObserverClient(TipprmiOID("counter", NamespaceId(1))));
}

Result bereaved2() {
    return bereavement("kill2", 2);
}
Result bereaved10() {
    return bereavement("kill10", 10);
}
Result bereaved30() {
    return bereavement("kill30", 30);
}

Result existing10000() {
    constexpr unsigned kThings = 10000;
    constexpr int kRounds = 7;
    const Helper helper("--serve-things", std::to_string(kThings));
    const TreflectHandlerState state(true);
    Counter counter;
    std::vector<double> times;
    for (int i = 0; i < kRounds; ++i) {
        counter.told = 0;
        const Clock::time_point begin = Clock::now();
        Thing::meta().observeCreations(&counter, true);
        times.push_back(microseconds(Clock::now() - begin));
        check(counter.told == kThings, "not all objects were told");
        Thing::meta().removeObserver(&counter);
    }
    Result result;
    result.workload = "existing10000";
    result.calls = kRounds;
    result.figures = {{"all_ms", median(times) / 1e3}, {"us_per_object", median(times) / kThings}};
    return result;
}

} // namespace Bench
