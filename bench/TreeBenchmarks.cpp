#include "Benchmarks.h"
#include "Measure.h"
#include "Series.h"
#include "Service.h"
#include "Tree.h"

#include "orb/REFLECT_orb.h"
#include "platform/UnitFigures.h"
#include "reflection/REFLECT_metaObject.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <cstdlib>
#include <list>
#include <malloc.h>
#include <memory>
#include <string>
#include <vector>

namespace Bench {

namespace {

constexpr int kRounds = 9;
constexpr unsigned kObjects = 10000;

void check(bool good) {
    if (!good) {
        std::abort();
    }
}

/** Nanoseconds of the best of several rounds. */
template <class Body>
double bestNanoseconds(unsigned count, const Body &body) {
    double best = 1e18;
    for (int round = 0; round < kRounds; ++round) {
        const Clock::time_point begin = Clock::now();
        for (unsigned i = 0; i < count; ++i) {
            body();
        }
        best = std::min(best, microseconds(Clock::now() - begin) * 1e3 / count);
    }
    return best;
}

/** The tree of another actor, as soon as its root is found. */
class RemoteTree {
public:
    explicit RemoteTree(const char *name) : peer_(name, "--serve-tree") {
        peer_.awaitReady();
        const TreflectHandlerState state(true);
        root_ = TreflectObject(TipprmiOID(name, NamespaceId(1)));
        check(root_.isConnected());
    }
    const TreflectObject &root() const { return root_; }
    double cpu() const { return cpuOf(0) + cpuOf(peer_.pid()); }

private:
    Peer peer_;
    TreflectObject root_;
};

template <class Body>
Series measured(const RemoteTree &tree, unsigned count, const Body &body) {
    Series warmUp;
    const auto cpu = [&tree] { return tree.cpu(); };
    warmUp.round(cpu, count, body);
    Series series;
    for (int i = 0; i < kRounds; ++i) {
        series.round(cpu, count, body);
    }
    return series;
}

/** What the other side allocates is not known here. */
Result resultOf(Series &series, const char *name) {
    Result result = series.result(name);
    result.figures.pop_back();
    return result;
}

TreflectObject descend(const TreflectObject &root) {
    TreflectObject object = root;
    for (const char *name : Chain::kNames) {
        object = object.getChild(name);
    }
    check(object.isConnected());
    return object;
}

/** Of calls in this process: their time is too short to be taken one by one. */
Result local(const char *name, unsigned long calls, double nanoseconds) {
    Result result;
    result.workload = name;
    result.calls = calls;
    result.callsPerSecond = 1e9 / nanoseconds;
    result.figures = {{"ns", nanoseconds}};
    return result;
}

} // namespace

Result getChild5Local() {
    constexpr unsigned kCalls = 20000;
    const Chain chain("here");
    const TreflectHandlerState state(true);
    const TreflectObject root(TipprmiOID("here", NamespaceId(1)));
    return local("getchild5local", kCalls * kRounds, bestNanoseconds(kCalls, [&root] { descend(root); }));
}

Result getChild5Remote() {
    const RemoteTree tree("there");
    const TreflectHandlerState state(true);
    Series series = measured(tree, 500, [&tree](unsigned) { descend(tree.root()); });
    return resultOf(series, "getchild5remote");
}

Result meta() {
    const RemoteTree tree("there");
    const Chain chain("here");
    const TreflectHandlerState state(true);
    const TreflectObject here(TipprmiOID("here", NamespaceId(1)));
    Series series = measured(tree, 2000, [&tree](unsigned) { check(tree.root().meta() != nullptr); });
    Result result = resultOf(series, "meta");
    result.figures.emplace_back("local_ns", bestNanoseconds(20000, [&here] { check(here.meta() != nullptr); }));
    return result;
}

Result attributeGet() {
    const RemoteTree tree("there");
    const Chain chain("here");
    const TreflectHandlerState state(true);
    const TreflectObject here(TipprmiOID("here", NamespaceId(1)));
    unsigned number = 0;
    const auto readOf = [&number](const TreflectObject &object) {
        const TreflectObject own(object); // with which the attribute's handle goes
        check(own.attribute("number")->get(number) == 0 && number == 42);
    };
    Series series = measured(tree, 1000, [&](unsigned) { readOf(tree.root()); });
    Result result = resultOf(series, "attrget");
    TreflectAttribute &kept = *tree.root().attribute("number");
    Series reads = measured(tree, 1000, [&](unsigned) { check(kept.get(number) == 0 && number == 42); });
    TreflectAttribute &keptHere = *here.attribute("number");
    result.figures.emplace_back("get_p50_us", reads.latencies.quantile(0.5));
    result.figures.emplace_back("local_ns", bestNanoseconds(10000, [&] { readOf(here); }));
    result.figures.emplace_back("local_create_ns", bestNanoseconds(10000, [&] {
                                    const TreflectObject own(here);
                                    check(own.attribute("number") != &TreflectObject::errorAttribute);
                                }));
    result.figures.emplace_back("local_get_ns", bestNanoseconds(10000, [&] { check(keptHere.get(number) == 0); }));
    return result;
}

Result handleCopy() {
    constexpr unsigned kCopies = 100000;
    const Chain chain("here");
    const TreflectHandlerState state(true);
    const TreflectObject one(TipprmiOID("here", NamespaceId(1)));
    const TreflectObject two = one.getChild(Chain::kNames[0]);
    const auto copy = [&one] { const TreflectObject copied(one); };
    Result result = local("handlecopy", kCopies * kRounds, bestNanoseconds(kCopies, copy));
    TreflectObject target(one);
    bool first = false;
    result.figures.emplace_back("assign_ns", bestNanoseconds(kCopies, [&] {
                                    target = first ? one : two;
                                    first = !first;
                                }));
    const TreflectObject sharer(target);
    result.figures.emplace_back("assign_sharer_ns", bestNanoseconds(kCopies, [&] { target = sharer; }));
    result.figures.emplace_back("heap_ns", bestNanoseconds(kCopies, [&one] { delete new TreflectObject(one); }));
    const TreflectReleaseHandlerState released;
    result.figures.emplace_back("without_permission_ns", bestNanoseconds(kCopies, copy));
    return result;
}

Result objectLocal() {
    constexpr unsigned kCalls = 5000;
    const TreflectHandlerState state(true);
    const Node root("root");
    const auto comeAndGo = [&root] { const Node node("child", root.getClient()); };
    Result result = local("objectlocal", kCalls * kRounds, bestNanoseconds(kCalls, comeAndGo));
    const unsigned long before = allocations();
    comeAndGo();
    result.figures.emplace_back("allocations", static_cast<double>(allocations() - before));
    std::list<Node> crowd;
    for (unsigned i = 0; i < kObjects; ++i) {
        crowd.emplace_back("node", nullptr);
        crowd.back().getClient();
    }
    result.figures.emplace_back("ns_among_10000", bestNanoseconds(kCalls / 10, comeAndGo));
    return result;
}

Result objectRemote() {
    const RemoteTree tree("there");
    const TreflectHandlerState state(true);
    Series series = measured(tree, 500, [&tree](unsigned) { const Node node("child", &tree.root()); });
    return resultOf(series, "objectremote");
}

Result locateHere() {
    constexpr unsigned kSearches = 1000;
    const TreflectHandlerState state(true);
    const TreflectORB &orb = *TreflectORB::getInstance(1);
    std::list<Node> nodes;
    std::vector<TipprmiOID> names;
    for (unsigned i = 0; i < kObjects; ++i) {
        names.emplace_back("chassis/slot7/port" + std::to_string(i), NamespaceId(1));
        nodes.emplace_back("port", nullptr, names.back().getIdString());
    }
    unsigned next = 0;
    const double known = bestNanoseconds(kSearches, [&] {
        next = (next + 4999) % kObjects; // all over the table
        check(orb.locateObject(names[next]).getServer() != nullptr);
    });
    Result result = local("locatehere10000", kSearches * kRounds, known);
    const TipprmiOID nobody("chassis/slot7/nobody", NamespaceId(1));
    result.figures.emplace_back(
        "unknown_ns", bestNanoseconds(kSearches, [&] { check(orb.locateObject(nobody).getServer() == nullptr); }));
    result.figures.emplace_back("named_object_ns",
                                bestNanoseconds(kSearches, [] { const Node node("port", nullptr, "one more"); }));
    return result;
}

Result objectsPerMib() {
    const TreflectHandlerState state(true);
    const Node root("root");
    std::list<Node> nodes;
    nodes.emplace_back("warmup", root.getClient());
    const auto heapBefore = static_cast<double>(::mallinfo2().uordblks);
    const double residentBefore = oscwGetActorSize() * 1024.0;
    for (unsigned i = 0; i < kObjects; ++i) {
        nodes.emplace_back("port" + std::to_string(i), root.getClient(),
                           ("chassis/slot7/port" + std::to_string(i)).c_str());
    }
    const double heap = (static_cast<double>(::mallinfo2().uordblks) - heapBefore) / kObjects;
    const double resident = (oscwGetActorSize() * 1024.0 - residentBefore) / kObjects;
    Result result;
    result.workload = "objectspermib";
    result.calls = kObjects;
    result.figures = {{"objects_per_mib", 1024 * 1024 / heap}, {"bytes", heap}, {"resident_bytes", resident}};
    return result;
}

} // namespace Bench
