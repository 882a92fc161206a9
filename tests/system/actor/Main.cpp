/*
 * An actor that does what it is told, one command a line:
 *   probe GROUP            makes and starts a probe                     -> "probe ID", "probe failed"
 *   orb NAMESPACE          makes the broker                             -> "orb ORBID ID", "orb none"
 *   send ID SIZE COUNT     as the probe                                 -> "sent N"
 *   await N                until the probe has received N messages      -> "got" or "missing"
 *   tell                   what the probe received                      -> "from ..." lines, "end"
 *   echo | hold | go       the probe answers | stops reading | goes on  -> "ok"
 *   stop                   stops the probe                              -> "ok"
 *   list GROUP             who is there                                 -> "list ID ID ..."
 *   exists ID                                                          -> "exists 0" or "exists 1"
 *   figures                                                             -> "figures THREADS KIB"
 *   serve NAME                           an object for others to call     -> "serves NUMBER"
 *                                        NAME@2 is a name of namespace 2, here and in the next
 *   call METHOD NAME COUNT [THREADS]     addone, echo (of COUNT bytes), hold, refuse, note, leave (with
 *                                        status COUNT) -> "called GOOD of ALL"
 *   through DEPTH NAME1 NAME2            nested calls                    -> "through REACHED"
 *   begin | join | cancel | cancelbare | storm | keep | kept   see Callers.h
 *   detour NAME1 NAME2                   calls NAME1, which tells NAME2 to leave -> "detoured 0" or "detoured 1"
 *   locate NAME                                                         -> "located NUMBER BROKER"
 *   release                              lets held calls end             -> "ok"
 *   noted                                one-way calls that came         -> "noted N"
 *   counters [ID] | dump                 of all others, or of one -> "counters ..." lines, "end" | "ok", and lines in
 *                                        the log
 *   counts                               what the library holds          -> "counts ...", see Counts.h
 *   object ... | events ... | port ... | react ...   see Objects.h, Events.h, Ports.h, Reaction.h
 *   class ... | handle ... | kind ... | name ...    see Classes.h, Handles.h, Kinds.h, Names.h
 *   puppet ... | stub ...               see Puppets.h, Stubs.h
 *   torment | progress | rest            see Torture.h
 *   tree ...                             see Trees.h
 *   enter | forked | segv | exit [STATUS] | exitworker
 */
#include "Callers.h"
#include "Classes.h"
#include "Counts.h"
#include "Events.h"
#include "Handles.h"
#include "Kinds.h"
#include "Names.h"
#include "Objects.h"
#include "Output.h"
#include "Ports.h"
#include "Probe.h"
#include "Puppets.h"
#include "Reaction.h"
#include "Service.h"
#include "Stubs.h"
#include "Torture.h"
#include "Trees.h"
#include "orb/REFLECT_orb.h"
#include "platform/Thread.h"
#include "platform/TransportLayer.h"
#include "platform/UnitFigures.h"
#include "threads/HandlerState.h"

#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <list>
#include <memory>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Arguments = std::istringstream;
using Transport::TerminationId;
using Transport::TransportLayer;

std::unique_ptr<Probe> &probe() {
    static auto &instance = *new std::unique_ptr<Probe>; // alive at exit, whoever ends the process
    return instance;
}

unsigned number(Arguments &arguments, int base = 10) {
    std::string text;
    arguments >> text;
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, base));
}

void onProbe(Arguments &arguments) {
    probe() = std::make_unique<Probe>(number(arguments));
    const bool started = probe()->start();
    if (started) {
        say("probe %08X", probe()->termId().value());
    } else {
        say("probe failed");
    }
}

void onOrb(Arguments &arguments) {
    const TreflectORB *orb = TreflectORB::getInstance(NamespaceId(number(arguments)));
    if (orb != nullptr) {
        say("orb %08X %08X", orb->orbId().value(), orb->termId().value());
    } else {
        say("orb none");
    }
}

void onSend(Arguments &arguments) {
    const unsigned target = number(arguments, 16);
    const unsigned size = number(arguments);
    say("sent %u", probe()->send(target, size, number(arguments)));
}

void onAwait(Arguments &arguments) {
    say(probe()->await(number(arguments)) ? "got" : "missing");
}

void onTell(Arguments &) {
    probe()->tell();
}

void onEcho(Arguments &) {
    probe()->echo();
    say("ok");
}

void onHold(Arguments &) {
    probe()->hold(true);
    say("ok");
}

void onGo(Arguments &) {
    probe()->hold(false);
    say("ok");
}

void onStop(Arguments &) {
    probe()->stop();
    say("ok");
}

void onList(Arguments &arguments) {
    std::string line = "list";
    for (TerminationId id : TransportLayer::getGroup(static_cast<Transport::GroupId>(number(arguments))).contains()) {
        char text[16];
        std::snprintf(text, sizeof text, " %08X", id.value());
        line += text;
    }
    say("%s", line.c_str());
}

void onExists(Arguments &arguments) {
    say("exists %d", TransportLayer::exists(TerminationId(number(arguments, 16))) ? 1 : 0);
}

void onFigures(Arguments &) {
    int threads = -2; // not "." and ".."
    if (DIR *list = ::opendir("/proc/self/task")) {
        while (::readdir(list) != nullptr) {
            ++threads;
        }
        ::closedir(list);
    }
    say("figures %d %ld", threads, oscwGetActorSize());
}

void onServe(Arguments &arguments) {
    std::string name;
    arguments >> name;
    TreflectHandlerState state(true);
    static auto &services = *new std::vector<std::unique_ptr<Service>>; // until the end of the process
    services.push_back(std::make_unique<Service>(name));
    say("serves %X", services.back()->getInternalOID());
}

void onThrough(Arguments &arguments) {
    const unsigned depth = number(arguments);
    std::string one;
    std::string two;
    arguments >> one >> two;
    TreflectHandlerState state(true);
    say("through %u", callThrough(TipprmiObjectClient(TipprmiOID(one, NamespaceId(1))), depth, one, two));
}

void onDetour(Arguments &arguments) {
    std::string one;
    std::string two;
    arguments >> one >> two;
    TreflectHandlerState state(true);
    say("detoured %d", callDetour(TipprmiObjectClient(TipprmiOID(one, NamespaceId(1))), two) ? 1 : 0);
}

void onLocate(Arguments &arguments) {
    std::string name;
    arguments >> name;
    const TreflectORB::TreflectObjectLocation location = TreflectORB::getInstance(1)->locateObject(oidOf(name));
    say("located %X %08X", location.getInternalOID(), location.orbId().value());
}

void onRelease(Arguments &) {
    Service::release();
    say("ok");
}

void onNoted(Arguments &) {
    say("noted %u", Service::noted());
}

void onCounters(Arguments &arguments) {
    TreflectORB &own = *TreflectORB::getInstance(1);
    const TerminationId target(number(arguments, 16));
    const std::list<TreflectORB::PerfCntMultInfo> all =
        target.value() == 0 ? own.getPerfCnts()
                            : std::list<TreflectORB::PerfCntMultInfo>{{target, own.getPerfCnts(target)}};
    for (const TreflectORB::PerfCntMultInfo &orb : all) {
        std::string line = orb.info.actor;
        for (unsigned i = 0; i < orb.info.counters.getLength(); ++i) {
            const TreflectORB::PerfCnts &counters = orb.info.counters[i];
            line += " to " + std::to_string(counters.target.value()) + ":" + std::to_string(counters.requests) + "/" +
                    std::to_string(counters.failures);
        }
        say("counters %08X %s", orb.orb.value(), line.c_str());
    }
    say("end");
}

void onDump(Arguments &) {
    TreflectORB::getInstance(1)->dumpMessages();
    TreflectORB::getInstance(1)->display(0);
    say("ok");
}

void onCounts(Arguments &) {
    say("counts %s", describeCounts().c_str());
}

void onEnter(Arguments &) {
    TreflectORB::enterHandlerState(true);
    say("ok");
}

/** A child that goes on using the library. Its parent must not suffer. */
void onForked(Arguments &) {
    const pid_t child = ::fork();
    if (child == 0) {
        const bool noBroker = TreflectORB::getInstance(NamespaceId(1)) == nullptr;
        const bool noMessage = probe()->send(probe()->termId().value(), 4, 1) == 0;
        ::_exit(noBroker && noMessage ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    say("forked %d", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

void onSegv(Arguments &) {
    std::signal(SIGSEGV, SIG_DFL);
    std::raise(SIGSEGV);
}

void onExit(Arguments &arguments) {
    std::exit(static_cast<int>(number(arguments)));
}

/** Ends the process in a thread that has the run permission, while the main thread waits for it. */
class ExitingWorker : public OSWrap::Thread {
public:
    ExitingWorker() : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), ~0U, "worker", false) {}

protected:
    int run() override {
        TreflectORB::enterHandlerState(true);
        std::exit(7);
    }
};

void onExitWorker(Arguments &) {
    auto &worker = *new ExitingWorker;
    worker.start();
    worker.join();
}

struct Command {
    const char *name;
    void (*run)(Arguments &);
};

constexpr Command kCommands[] = {
    {"probe", &onProbe},
    {"orb", &onOrb},
    {"send", &onSend},
    {"await", &onAwait},
    {"tell", &onTell},
    {"echo", &onEcho},
    {"hold", &onHold},
    {"go", &onGo},
    {"stop", &onStop},
    {"list", &onList},
    {"exists", &onExists},
    {"figures", &onFigures},
    {"enter", &onEnter},
    {"forked", &onForked},
    {"segv", &onSegv},
    {"exit", &onExit},
    {"exitworker", &onExitWorker},
    {"serve", &onServe},
    {"call", &onCall},
    {"begin", &onBegin},
    {"join", &onJoin},
    {"cancel", &onCancel},
    {"cancelbare", &onCancelBare},
    {"storm", &onStorm},
    {"keep", &onKeep},
    {"kept", &onKept},
    {"detour", &onDetour},
    {"through", &onThrough},
    {"locate", &onLocate},
    {"release", &onRelease},
    {"noted", &onNoted},
    {"counters", &onCounters},
    {"dump", &onDump},
    {"counts", &onCounts},
    {"object", &onObject},
    {"events", &onEvents},
    {"kind", &onKind},
    {"react", &onReact},
    {"port", &onPort},
    {"class", &onClass},
    {"handle", &onHandle},
    {"name", &onName},
    {"torment", &onTorment},
    {"progress", &onProgress},
    {"rest", &onRest},
    {"tree", &onTree},
    {"puppet", &onPuppet},
    {"stub", &onStub},
};

void obey(const std::string &line) {
    Arguments arguments(line);
    std::string name;
    arguments >> name;
    for (const Command &command : kCommands) {
        if (name == command.name) {
            command.run(arguments);
            return;
        }
    }
    say("unknown command '%s'", name.c_str());
}

} // namespace

int main() {
    std::string line;
    while (nextLine(line)) {
        obey(line);
    }
    return 0;
}
