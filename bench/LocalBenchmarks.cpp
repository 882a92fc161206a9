#include "Benchmarks.h"
#include "Exchange.h"
#include "Measure.h"

#include "orb/REFLECT_orb.h"
#include "platform/UnitFigures.h"
#include "rmi/IPPRMI_oid.h"
#include "rmi/IPPRMI_stream.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <atomic>
#include <dirent.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Bench {

namespace {

/** The body of an ordinary call: its head, a number, a text, a flag, an identifier. Written, and read on the other
 * side. */
unsigned exchangeBody(const TipprmiOID &id, const std::string &text) {
    TipprmiStream out(TreflectORB::getInstance(1)->allocateRequest(100), true);
    out << 0x1234U << true << 0x2AU << 7U << -5 << text << false << id;
    TipprmiStream in(out.msg(), false);
    unsigned ioid = 0;
    unsigned cc = 0;
    unsigned mc = 0;
    int number = 0;
    bool transaction = false;
    bool flag = true;
    std::string read;
    TipprmiOID idRead(nullptr, NamespaceId(1));
    in >> ioid >> transaction >> cc >> mc >> number >> read >> flag >> idRead;
    return ioid + static_cast<unsigned>(read.size()) + (idRead == id ? 1U : 0U);
}

Result timed(const char *name, unsigned long calls, Clock::duration time) {
    Result result;
    result.workload = name;
    result.calls = calls;
    result.callsPerSecond = static_cast<double>(calls) / microseconds(time) * 1e6;
    return result;
}

/** Nanoseconds of the best of several rounds. */
template <class Body>
double bestNanoseconds(unsigned long calls, const Body &body) {
    double best = 1e9;
    for (int round = 0; round < 9; ++round) {
        const Clock::time_point begin = Clock::now();
        for (unsigned long i = 0; i < calls; ++i) {
            body();
        }
        best = std::min(best, microseconds(Clock::now() - begin) * 1e3 / static_cast<double>(calls));
    }
    return best;
}

} // namespace

Result stream() {
    const TipprmiOID id("chassis/slot1/eth0", NamespaceId(1));
    const std::string text = "a text of some length";
    std::atomic<unsigned> sum{0};
    exchangeBody(id, text);
    constexpr unsigned long kCalls = 200000;
    const unsigned long before = allocations();
    const Clock::time_point begin = Clock::now();
    for (unsigned long i = 0; i < kCalls; ++i) {
        sum += exchangeBody(id, text);
    }
    Result result = timed("stream", kCalls, Clock::now() - begin);
    result.figures = {{"ns_per_call", 1e9 / result.callsPerSecond},
                      {"allocations_per_call", static_cast<double>(allocations() - before) / kCalls}};
    return result;
}

Result permission() {
    constexpr unsigned long kPairs = 1000000;
    { TreflectHandlerState warmUp(true); }
    const double best = bestNanoseconds(kPairs, [] { TreflectHandlerState state(true); });
    Result result;
    result.workload = "permission";
    result.calls = kPairs;
    result.callsPerSecond = 1e9 / best;
    result.figures = {{"ns_per_pair", best}};
    return result;
}

Result permissionLocked() {
    constexpr unsigned long kPairs = 1000000;
    TreflectHandlerState outer(true);
    const double best = bestNanoseconds(kPairs, [] { TreflectReleaseHandlerState state; });
    Result result;
    result.workload = "permissionrelease";
    result.calls = kPairs;
    result.callsPerSecond = 1e9 / best;
    result.figures = {{"ns_per_pair", best}};
    return result;
}

Result permission8() {
    constexpr unsigned kThreads = 8;
    constexpr unsigned long kPairs = 50000;
    std::atomic<unsigned> ready{0};
    std::atomic<bool> go{false};
    const double cpuBefore = cpuOf(0);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            ++ready;
            while (!go) {
                std::this_thread::yield();
            }
            for (unsigned long n = 0; n < kPairs; ++n) {
                TreflectHandlerState state(true);
            }
        });
    }
    while (ready < kThreads) {
        std::this_thread::yield();
    }
    const Clock::time_point begin = Clock::now();
    go = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    Result result = timed("permission8", kThreads * kPairs, Clock::now() - begin);
    result.cpu = (cpuOf(0) - cpuBefore) / (kThreads * kPairs);
    return result;
}

int serveIdle() {
    if (TreflectORB::getInstance(1) == nullptr) {
        return 1;
    }
    long figures[2] = {oscwGetActorSize(), -2}; // without "." and ".."
    if (DIR *list = ::opendir("/proc/self/task")) {
        while (::readdir(list) != nullptr) {
            ++figures[1];
        }
        ::closedir(list);
    }
    return ::write(STDOUT_FILENO, figures, sizeof figures) == sizeof figures ? 0 : 1;
}

Result idle() {
    int ends[2];
    long figures[2] = {-1, -1};
    const Clock::time_point begin = Clock::now();
    if (::pipe(ends) == 0) {
        const pid_t actor = startSelf("--serve-idle", "", -1, ends[1]);
        if (::read(ends[0], figures, sizeof figures) != sizeof figures) {
            figures[0] = -1;
        }
        ::close(ends[0]);
        ::waitpid(actor, nullptr, 0);
    }
    Result result;
    result.workload = "idle";
    result.calls = 1;
    result.figures = {{"resident_kib", static_cast<double>(figures[0])},
                      {"threads", static_cast<double>(figures[1])},
                      {"start_ms", microseconds(Clock::now() - begin) / 1e3}};
    return result;
}

} // namespace Bench
