/*
 * The actor that owns /chassis, the root of the unit's tree, and prints what happens in all slots. It asks nobody
 * again and again: it is told, of ports by the class Port, of each port's changes by the operation stateChanged, of
 * actors by the broker.
 */
#include "ChassisObject.h"
#include "Paths.h"
#include "orb/REFLECT_orb.h"
#include "threads/HandlerState.h"
#include "view/Options.h"
#include "view/Reporter.h"
#include "view/Signals.h"

#include <csignal>
#include <cstdio>
#include <memory>

namespace {

constexpr char kHelp[] = "usage: chassis_manager [--slot N]\n"
                         "\n"
                         "Owns /chassis, where the port agents of all slots enter their ports, and prints each event "
                         "of the unit in a line:\n"
                         "ports that are created, deleted, or change their state, and actors that come and go.\n"
                         "\n"
                         "  --slot N   the slot that this actor is in, 1 to 255 (default: REFLECTORB_SLOT, else 1)\n"
                         "  --help     this text\n"
                         "\n"
                         "SIGUSR1 prints the ports as a table. SIGTERM and SIGINT end it; a second one at once.\n"
                         "Ctrl-Z has no effect: agents wait while they tell it something.\n"
                         "Exit status: 0 ended by a signal; 1 there is a manager in the unit already; 2 wrong "
                         "arguments; 4 no unit to join.\n"
                         "The unit is the one of REFLECTORB_UNIT_DIR.\n";

int fail(int status, const std::string &text) {
    std::fprintf(stderr, "chassis_manager: %s\n", text.c_str());
    return status;
}

bool isManaged() {
    const TreflectHandlerState state(true);
    return TreflectObject(Paths::id(Paths::chassis())).isConnected();
}

std::unique_ptr<ChassisObject> makeChassis() {
    const TreflectHandlerState state(true);
    auto chassis = std::make_unique<ChassisObject>();
    chassis->sendCreationEvent(ChassisMeta::instance()); // agents that are there already wait for it
    return chassis;
}

void endChassis(std::unique_ptr<ChassisObject> chassis) {
    const TreflectHandlerState state(true);
    chassis->sendDeletionEvent(ChassisMeta::instance());
    chassis.reset();
}

int manage() {
    std::string problem;
    const TreflectORB *const orb = View::joinUnit(problem);
    if (orb == nullptr) {
        return fail(4, problem);
    }
    if (isManaged()) {
        return fail(1, "the unit in " + View::unitDirectory() + " has a manager already");
    }
    std::unique_ptr<ChassisObject> chassis = makeChassis();
    View::Reporter reporter([](const View::Picture::News &) { return true; },
                            [&chassis](const View::Event &event) {
                                if (event.kind == View::Event::Kind::brokerGone) {
                                    const TreflectHandlerState state(true);
                                    chassis->drop(Transport::TerminationId(event.broker));
                                }
                            });
    const std::string who = "slot " + std::to_string(orb->orbId().slotId()) + "  manager of " + Paths::chassis();
    reporter.start(who + " ready");
    while (View::waitForSignal({SIGTERM, SIGINT, SIGUSR1}) == SIGUSR1) {
        reporter.printTree();
    }
    View::letSignalsEnd();
    reporter.print(who + " ends");
    reporter.stop();
    endChassis(std::move(chassis));
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    View::blockSignals({SIGTERM, SIGINT, SIGUSR1});
    View::stayRunning();
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            std::fputs(kHelp, stdout);
            return 0;
        }
        if (argument != "--slot") {
            return fail(2, "what is '" + argument + "'? See chassis_manager --help");
        }
        if (i + 1 == argc) {
            return fail(2, "--slot needs a number; see chassis_manager --help");
        }
        if (!View::setSlot(argv[++i])) {
            return fail(2, std::string("'") + argv[i] + "' is no slot: they have numbers from 1 to 255");
        }
    }
    return manage();
}
