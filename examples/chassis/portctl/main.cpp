/*
 * A command-line client of the unit: shows, watches and changes the ports of all slots, wherever their actors run.
 */
#include "Commands.h"
#include "view/Signals.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr char kHelp[] =
    "usage: portctl COMMAND\n"
    "\n"
    "  tree                  all ports of all slots\n"
    "  show PATH             everything that a port, a slot or the chassis tells of itself\n"
    "  watch [PATH]          ports that come, change and go, and actors, as it happens; until Ctrl-C\n"
    "  set PATH mtu N        changes the MTU of a port, in bytes\n"
    "  set PATH up|down      switches a port on or off\n"
    "  counters PATH         what a port, or all below, received and sent\n"
    "  --help                this text\n"
    "\n"
    "PATH is /chassis/slot2/eth0, or just slot2/eth0. Ctrl-Z has no effect: agents wait while they tell a client what\n"
    "happens.\n"
    "\n"
    "Exit status: 0 done; 1 refused or failed; 2 wrong arguments; 3 no such object; 4 no unit, or no manager in it.\n"
    "The unit is the one of REFLECTORB_UNIT_DIR.\n";

struct Entry {
    const char *name;
    Command command;
};
constexpr Entry kCommands[] = {{"tree", tree}, {"show", show}, {"watch", watch}, {"set", set}, {"counters", counters}};

} // namespace

int fail(ExitStatus status, const std::string &problem) {
    std::fprintf(stderr, "portctl: %s\n", problem.c_str());
    return status;
}

int failUsage(const std::string &problem) {
    return fail(wrongUse, problem + ". See portctl --help");
}

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fputs(kHelp, stderr);
        return wrongUse;
    }
    const std::string name = argv[1];
    const Arguments arguments(argv + 2, argv + argc);
    if (name == "--help" || name == "-h" || name == "help") {
        std::fputs(kHelp, stdout);
        return done;
    }
    View::stayRunning();
    ::setenv("REFLECTORB_LOG_LEVEL", "3", 0); // warnings would only repeat what the commands say
    for (const Entry &entry : kCommands) {
        if (name == entry.name) {
            return entry.command(arguments);
        }
    }
    return failUsage("no command '" + name + "'");
}
