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
 *   enter | forked | segv | exit [STATUS] | exitworker
 */
#include "Output.h"
#include "Probe.h"
#include "orb/REFLECT_orb.h"
#include "platform/Thread.h"
#include "platform/TransportLayer.h"
#include "platform/UnitFigures.h"

#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

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
