#include "Options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned long kLastSlot = 255;

bool parseSlot(const char *text, unsigned &slot) {
    char *end = nullptr;
    const unsigned long number = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || number < 1 || number > kLastSlot) {
        std::fprintf(stderr, "port_agent: '%s' is not a slot; a slot is a number from 1 to %lu\n", text, kLastSlot);
        return false;
    }
    slot = static_cast<unsigned>(number);
    return true;
}

} // namespace

bool parse(int argc, char **argv, Options &options) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            options.help = true;
            return true;
        }
        if (std::strcmp(argv[i], "--slot") != 0) {
            std::fprintf(stderr, "port_agent: unknown argument '%s'; try --help\n", argv[i]);
            return false;
        }
        if (++i == argc) {
            std::fprintf(stderr, "port_agent: --slot needs a number; try --help\n");
            return false;
        }
        if (!parseSlot(argv[i], options.slot)) {
            return false;
        }
    }
    if (options.slot == 0) {
        std::fprintf(stderr, "port_agent: which slot? Try --slot 1, or --help\n");
        return false;
    }
    return true;
}

void printHelp() {
    std::printf(
        "usage: port_agent --slot N\n"
        "\n"
        "Publishes each network interface of the network namespace that it is started in as an object\n"
        "/chassis/slotN/INTERFACE of the unit, until it gets SIGTERM or SIGINT. It may be started before\n"
        "chassis_manager, and goes on when that ends or is started again. A slot has one agent: a second one\n"
        "ends at once, but two that are started at the same moment do not notice each other.\n"
        "\n"
        "Whoever is told of a port's changes has to answer before the next event is taken: an observer that stands\n"
        "still holds it up, and ends it after ten minutes. For the same reason Ctrl-Z has no effect on it.\n"
        "\n"
        "Interfaces can be changed through it if it has CAP_NET_ADMIN; else who tries is told so.\n"
        "The directory of the unit is $REFLECTORB_UNIT_DIR.\n"
        "\n"
        "exit status: 0 ended by a signal; 1 cannot do its work; 2 bad arguments; 3 the slot has an agent\n");
}
