#include "Benchmarks.h"
#include "Exchange.h"
#include "Measure.h"
#include "Service.h"

#include "orb/REFLECT_orb.h"
#include "platform/UnitFigures.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <cstdlib>
#include <fcntl.h>
#include <list>
#include <malloc.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr unsigned kSearches = 100;

std::string nameOf(unsigned actor) {
    return "actor" + std::to_string(actor);
}

/** Searches of what the `actors` - 1 others have in turn, or of what none has. */
Result searches(const char *name, unsigned actors, bool known) {
    std::list<Peer> peers;
    for (unsigned i = 1; i < actors; ++i) {
        peers.emplace_back(nameOf(i));
    }
    for (Peer &peer : peers) {
        peer.awaitReady();
    }
    const TreflectORB &orb = *TreflectORB::getInstance(1);
    const TreflectHandlerState state(true);
    Latencies latencies;
    const auto search = [&](unsigned i) {
        const TipprmiOID oid(known ? nameOf(1 + i % (actors - 1)) : "nobody", NamespaceId(1));
        const Clock::time_point begin = Clock::now();
        const bool found = orb.locateObject(oid).getInternalOID() != 0;
        latencies.add(Clock::now() - begin);
        if (found != known) {
            std::abort();
        }
    };
    for (unsigned i = 1; i < actors; ++i) {
        search(i); // each once, to warm up
    }
    latencies = Latencies();
    const Clock::time_point begin = Clock::now();
    for (unsigned i = 0; i < kSearches; ++i) {
        search(i);
    }
    Result result;
    result.workload = name;
    result.calls = kSearches;
    result.callsPerSecond = kSearches / microseconds(Clock::now() - begin) * 1e6;
    result.p50 = latencies.quantile(0.5);
    result.p99 = latencies.quantile(0.99);
    return result;
}

struct Memory {
    double heap = static_cast<double>(::mallinfo2().uordblks);
    double resident = oscwGetActorSize() * 1024.0;
};

/** Bytes for each of `count` handles as they come in messages, with a stub of its own each; the handles' own place is
 * not counted. */
Memory handleMemory(unsigned count, bool named) {
    std::vector<TipprmiObjectClient> handles;
    handles.resize(count);
    const TreflectOrbId elsewhere(0x7FFF, 7, NamespaceId(1));
    TipprmiStream stream(200);
    const Memory before;
    for (unsigned i = 0; i < count; ++i) {
        const std::string name = "chassis/slot7/port" + std::to_string(i);
        const TipprmiOID oid(named ? name.c_str() : nullptr, NamespaceId(1));
        stream.clear();
        stream << TreflectORB::TreflectObjectLocation(i + 1, elsewhere, nullptr, oid);
        stream >> handles[i];
        if (!handles[i].isConnected()) {
            std::abort();
        }
    }
    Memory used;
    used.heap = (used.heap - before.heap) / count;
    used.resident = (used.resident - before.resident) / count;
    return used;
}

} // namespace

Result locateKnown2() {
    return searches("locateknown2", 2, true);
}
Result locateKnown10() {
    return searches("locateknown10", 10, true);
}
Result locateKnown30() {
    return searches("locateknown30", 30, true);
}
Result locateUnknown2() {
    return searches("locateunknown2", 2, false);
}
Result locateUnknown10() {
    return searches("locateunknown10", 10, false);
}
Result locateUnknown30() {
    return searches("locateunknown30", 30, false);
}

Result stubMemory() {
    constexpr unsigned kStubs = 10000;
    const TreflectHandlerState state(true);
    const Memory named = handleMemory(kStubs, true); // first: later ones reuse what the first gave back
    const Memory nameless = handleMemory(kStubs, false);
    Result result;
    result.workload = "memstub";
    result.calls = kStubs;
    result.figures = {
        {"bytes_named", named.heap}, {"resident_bytes_named", named.resident}, {"bytes_nameless", nameless.heap}};
    return result;
}

Result firstCall() {
    Peer peer("first");
    peer.awaitReady();
    std::vector<double> times;
    for (int i = 0; i < 7; ++i) {
        int ends[2];
        unsigned answer = 0;
        const Clock::time_point begin = Clock::now();
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            std::abort();
        }
        const pid_t actor = startSelf("--call-once", "first", -1, ends[1]);
        if (::read(ends[0], &answer, sizeof answer) != sizeof answer || answer != 2) {
            std::abort();
        }
        times.push_back(microseconds(Clock::now() - begin));
        ::close(ends[0]);
        ::waitpid(actor, nullptr, 0);
    }
    Result result;
    result.workload = "firstcall";
    result.calls = times.size();
    result.figures = {{"start_to_answer_ms", median(times) / 1e3}};
    return result;
}

} // namespace Bench
