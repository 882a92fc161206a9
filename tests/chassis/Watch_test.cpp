#include "chassis/Machine.h"
#include "system/Actor.h"

#include <csignal>
#include <fstream>

namespace {

using Testing::Actor;
using Testing::MachineTest;
using Testing::Program;
using Testing::Unit;

/** What those who watch make of ports that go at the wrong moment: they belong to the test. */
class Watch : public MachineTest {
protected:
    /** An actor in slot 3 whose ports the manager, which runs again, finds all there. */
    std::unique_ptr<Actor> startPorts(const Program &manager, const std::vector<std::string> &commands) const {
        manager.signal(SIGSTOP);
        auto actor = std::make_unique<Actor>(probes_, 3);
        for (const std::string &command : commands) {
            actor->ask(command, "made");
        }
        manager.signal(SIGCONT);
        return actor;
    }

    const Unit probes_{unit_.directory(), {}};
};

TEST_F(Watch, AnActorThatDiesWhileItIsTakenInTakesItsPortsWithIt) {
    const Started manager = startManager();
    const auto actor = startPorts(*manager, {"make one index death", "make two"});
    manager->expectAll({"slot 3  port one created", "slot 3  port two created"});
    manager->expect(") is gone, and with it 2 ports: one, two");
    EXPECT_FALSE(has(manager->output(), "deleted")) << manager->output();
}

TEST_F(Watch, APortWithoutInterfaceIsDeletedAlsoIfNobodySaysSo) {
    const Started manager = startManager();
    const auto actor = startPorts(*manager, {"make one index gone", "make two"});
    manager->expectAll({"slot 3  port one created", "slot 3  port two created"});
    manager->expect("slot 3  port one deleted");
    manager->signal(SIGUSR1);
    manager->expect("   3  two ");
    manager->expect("1 port in 1 slot");
}

TEST_F(Watch, APortThatGoesWhileItIsAskedIsNotHalfKnown) {
    const Started manager = startManager();
    Actor actor(probes_, 3);
    manager->expect("slot 3  actor ");
    for (const char *attribute : {"adminState", "operState", "mtu", "macAddress"}) {
        const std::string name = attribute;
        actor.ask("make " + name + " " + attribute + " gone", "made");
        manager->expect("slot 3  port " + name + " created: gone before it could be asked");
    }
    Program watch(unit_, 9, {PORTCTL, "watch"}); // may have missed their deletion
    watch.expect("slot 3  actor ");
    actor.ask("make last", "made");
    EXPECT_EQ("slot 3  port last created: up, mtu 1500, last", watch.expect("  port ").substr(13));
}

/** Of one that observes the port of the actor until it ends. */
void expectLeave(Program &program, Actor &actor) {
    program.expect("slot 3  port one ");
    EXPECT_EQ("1", actor.ask("observed one", "observed "));
    program.signal(SIGTERM);
    EXPECT_EQ(0, program.end()) << program.output();
    EXPECT_TRUE(actor.askUntil("observed one", "observed ", "0")); // the program waits for that, but not for ever
}

TEST_F(Watch, WhoEndsObservesNoMore) {
    Actor actor(probes_, 3);
    actor.ask("make one", "made");
    expectLeave(*startManager(), actor);
    actor.ask("chassis", "chassis made");
    Program watch(unit_, 9, {PORTCTL, "watch"});
    expectLeave(watch, actor);
}

/** As the kernel sees it: whether the signal would stop the process depends on what the tests were started from. */
bool ignores(const Program &program, int signal) {
    std::ifstream status("/proc/" + std::to_string(program.pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.find("SigIgn:") == 0) {
            return (std::stoull(line.substr(7), nullptr, 16) >> static_cast<unsigned>(signal - 1) & 1U) != 0;
        }
    }
    return false;
}

TEST_F(Watch, NobodyIsHeldUpByCtrlZ) {
    const Started manager = startManager();
    const Started agent = startAgent(2);
    Program watch(unit_, 9, {PORTCTL, "watch"});
    watch.expect("watching");
    for (Program *program : {manager.get(), agent.get(), &watch}) {
        EXPECT_TRUE(ignores(*program, SIGTSTP));
        program->signal(SIGTSTP);
    }
    Actor actor(probes_, 3);
    actor.ask("make one", "made");
    manager->expect("slot 3  port one created");
    watch.expect("slot 3  port one created");
    EXPECT_EQ(0, portctl({"show", "slot2/lo"}).status);
}

} // namespace
