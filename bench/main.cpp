/*
 * Benchmarks of the library:
 *   transport100, transport1k, transport64k, transport1m
 *                        round trip between two processes through the transport, beside the same by hand
 *   transportoneway      messages of 100 bytes in one direction, until the last is taken
 *   stream               body of an ordinary call: allocate, write, read
 *   permission           enter and leave with the run permission, nobody else wants it
 *   permissionrelease    give the run permission up and take it back, nobody else wants it
 *   permission8          enter and leave with the run permission in 8 threads
 *   idle                 memory and threads of an actor that only made its broker
 *   null                 call of another actor's object, one number in, one out, beside an exchange by hand
 *   echo1k, echo64k      the same with a text that goes there and back
 *   conc8                the same as null, from 8 threads at once
 *   oneway               calls without answer, until the object has had them all
 *   nested               a call during which the called object calls the caller
 *   locateknown2, ...10, ...30
 *                        search of an object in so many actors, which one of the others has
 *   locateunknown2, ...10, ...30
 *                        the same, of one that nobody has
 *   memstub              memory of a stub of a remote object
 *   firstcall            from the start of an actor to the end of its first call
 *   getchild5local, getchild5remote
 *                        from the root of a tree down five levels, by name, here or in another actor
 *   meta                 the class of an object of another actor, and of one here
 *   attrget              a handle, its attribute by name, and the value, of an object of another actor; the parts of it
 *   handlecopy           copies and assignments of handles
 *   objectlocal, objectremote
 *                        an object comes and goes as the child of one here, or in another actor
 *   locatehere10000      search of an object by name among 10,000 of this actor, and of what none of them is; a named
 *                        object comes and goes among them
 *   objectspermib        memory of objects with a name, a parent and a handle
 *   events1, ...10, ...30
 *                        creation of an object until the last of so many actors that watch has been told
 *   observedlocal, observedremote
 *                        operation with one observer before it, here or in another actor
 *   kill2, ...10, ...30  SIGKILL of an actor until the last of so many others has ended its call of it
 *   existing10000        objects of another actor, told to an observer that asks for those that exist
 */
#include "Benchmarks.h"
#include "Events.h"
#include "Exchange.h"
#include "Service.h"
#include "Tree.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace Bench {

namespace {

constexpr Benchmark kBenchmarks[] = {
    {"transport100", "round trip of 100 bytes", &transport100},
    {"transport1k", "round trip of 1 KiB", &transport1k},
    {"transport64k", "round trip of 64 KiB", &transport64k},
    {"transport1m", "round trip of 1 MiB", &transport1m},
    {"transportoneway", "messages of 100 bytes in one direction", &transportOneWay},
    {"stream", "body of an ordinary call: allocate, write, read", &stream},
    {"permission", "enter and leave with the run permission, uncontended", &permission},
    {"permissionrelease", "give the run permission up and take it back, uncontended", &permissionLocked},
    {"permission8", "enter and leave with the run permission in 8 threads", &permission8},
    {"idle", "memory and threads of an actor that only made its broker", &idle},
    {"null", "call with one number in and one out", &callNull},
    {"echo1k", "call with 1 KiB in and out", &callEcho1k},
    {"echo64k", "call with 64 KiB in and out", &callEcho64k},
    {"conc8", "calls from 8 threads at once", &callConcurrent},
    {"oneway", "calls without answer", &callOneWay},
    {"nested", "call during which the other side calls back", &callNested},
    {"locateknown2", "search of an object among 2 actors", &locateKnown2},
    {"locateknown10", "search of an object among 10 actors", &locateKnown10},
    {"locateknown30", "search of an object among 30 actors", &locateKnown30},
    {"locateunknown2", "search of what none of 2 actors has", &locateUnknown2},
    {"locateunknown10", "search of what none of 10 actors has", &locateUnknown10},
    {"locateunknown30", "search of what none of 30 actors has", &locateUnknown30},
    {"memstub", "memory of a stub of a remote object", &stubMemory},
    {"firstcall", "from the start of an actor to the end of its first call", &firstCall},
    {"getchild5local", "five levels down a tree here", &getChild5Local},
    {"getchild5remote", "five levels down a tree of another actor", &getChild5Remote},
    {"meta", "class of an object", &meta},
    {"attrget", "attribute by name and its value", &attributeGet},
    {"handlecopy", "copies and assignments of handles", &handleCopy},
    {"objectlocal", "an object comes and goes, its parent is here", &objectLocal},
    {"objectremote", "an object comes and goes, its parent is in another actor", &objectRemote},
    {"locatehere10000", "search of one of 10,000 objects of this actor", &locateHere},
    {"objectspermib", "memory of objects", &objectsPerMib},
    {"events1", "creation of an object, told to 1 other actor", &creations1},
    {"events10", "creation of an object, told to 10 other actors", &creations10},
    {"events30", "creation of an object, told to 30 other actors", &creations30},
    {"observedlocal", "operation with an observer here", &observedLocal},
    {"observedremote", "operation with an observer in another actor", &observedRemote},
    {"kill2", "from the death of an actor until 2 others know", &bereaved2},
    {"kill10", "from the death of an actor until 10 others know", &bereaved10},
    {"kill30", "from the death of an actor until 30 others know", &bereaved30},
    {"existing10000", "10,000 objects of another actor told to a new observer", &existing10000},
};

/** The programs that the benchmarks start. */
struct Mode {
    const char *name;
    int (*run)(const char *argument);
};
constexpr Mode kModes[] = {
    {"--serve-transport", [](const char *) { return serveTransport(); }},
    {"--serve-by-hand", [](const char *socket) { return serveByHand(std::atoi(socket)); }},
    {"--serve-idle", [](const char *) { return serveIdle(); }},
    {"--serve-calls", [](const char *name) { return serveCalls(name); }},
    {"--serve-tree", [](const char *name) { return serveTree(name); }},
    {"--serve-watch", [](const char *) { return serveWatch(); }},
    {"--serve-observer", [](const char *name) { return serveObserver(name); }},
    {"--serve-hold", [](const char *name) { return serveHold(name); }},
    {"--serve-bereaved", [](const char *) { return serveBereaved(); }},
    {"--serve-things", [](const char *count) { return serveThings(count); }},
    {"--call-once", [](const char *name) { return callOnce(name); }},
};

void print(const Result &result) {
    std::printf("%-18s", result.workload.c_str());
    if (result.callsPerSecond >= 0) {
        std::printf(" %12.0f/s", result.callsPerSecond);
    }
    if (result.p50 >= 0) {
        std::printf("  p50 %.2f us  p99 %.2f us", result.p50, result.p99);
    }
    if (result.cpu >= 0) {
        std::printf("  cpu %.2f us", result.cpu);
    }
    for (const auto &[name, value] : result.figures) {
        std::printf("  %s %.2f", name.c_str(), value);
    }
    std::printf("\n");
    std::fflush(stdout);
}

void printJson(const Result &result) {
    std::printf("{\"workload\": \"%s\", \"calls\": %lu", result.workload.c_str(), result.calls);
    const auto figure = [](const char *name, double value) {
        if (value >= 0) {
            std::printf(", \"%s\": %.3f", name, value);
        }
    };
    figure("calls_per_s", result.callsPerSecond);
    figure("p50_us", result.p50);
    figure("p99_us", result.p99);
    figure("cpu_us", result.cpu);
    for (const auto &[name, value] : result.figures) {
        figure(name.c_str(), value);
    }
    std::printf("}\n");
    std::fflush(stdout);
}

int list() {
    for (const Benchmark &benchmark : kBenchmarks) {
        std::printf("%-18s %s\n", benchmark.name, benchmark.what);
    }
    return 0;
}

int usage() {
    std::fprintf(stderr, "usage: bench/run [--json] [--list] [NAME...]\n");
    return 2;
}

/** A unit of its own, whose broker finds the one file it looks for. */
class Surroundings {
public:
    Surroundings() : directory_((std::filesystem::temp_directory_path() / "bench-XXXXXX").string()) {
        if (::mkdtemp(directory_.data()) == nullptr) {
            std::abort();
        }
        const std::filesystem::path logs = directory_ + "/root/ffs/run/logs";
        std::filesystem::create_directories(logs);
        if (std::FILE *file = std::fopen((logs / "orbWaitDuration").c_str(), "w")) {
            std::fputs("10\n", file);
            std::fclose(file);
        }
        ::setenv("REFLECTORB_ROOT", (directory_ + "/root").c_str(), 1);
        ::setenv("REFLECTORB_UNIT_DIR", (directory_ + "/unit").c_str(), 1);
    }
    ~Surroundings() {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    Surroundings(const Surroundings &) = delete;
    Surroundings &operator=(const Surroundings &) = delete;

private:
    std::string directory_;
};

int run(bool json, const std::vector<std::string> &names) {
    for (const std::string &name : names) {
        if (std::none_of(std::begin(kBenchmarks), std::end(kBenchmarks),
                         [&name](const Benchmark &benchmark) { return name == benchmark.name; })) {
            std::fprintf(stderr, "no benchmark '%s'; --list lists them\n", name.c_str());
            return 2;
        }
    }
    const Surroundings surroundings;
    for (const Benchmark &benchmark : kBenchmarks) {
        if (names.empty() || std::find(names.begin(), names.end(), benchmark.name) != names.end()) {
            const Result result = benchmark.run();
            json ? printJson(result) : print(result);
        }
    }
    return 0;
}

} // namespace

pid_t startSelf(const std::string &mode, const std::string &argument, int input, int output) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (input >= 0) {
            ::dup2(input, STDIN_FILENO);
            ::close(input);
        }
        if (output >= 0) {
            ::dup2(output, STDOUT_FILENO);
            ::close(output);
        }
        for (int fd = 3; fd < 64; ++fd) {
            if (std::to_string(fd) != argument) {
                ::close(fd);
            }
        }
        ::execl("/proc/self/exe", "bench", mode.c_str(), argument.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    for (int fd : {input, output}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return child;
}

int main(int argc, char **argv) {
    bool json = false;
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        for (const Mode &mode : kModes) {
            if (argument == mode.name) {
                return mode.run(i + 1 < argc ? argv[i + 1] : "");
            }
        }
        if (argument == "--list") {
            return list();
        }
        if (argument == "--json") {
            json = true;
        } else if (argument[0] == '-') {
            return usage();
        } else {
            names.push_back(argument);
        }
    }
    return run(json, names);
}

} // namespace Bench

int main(int argc, char **argv) {
    return Bench::main(argc, argv);
}
