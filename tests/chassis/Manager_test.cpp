#include "chassis/Machine.h"
#include "system/Actor.h"

#include <csignal>

namespace {

using Testing::MachineTest;
using Testing::Outcome;
using Testing::Program;
using Testing::runProgram;

class Manager : public MachineTest {
protected:
    /** What SIGUSR1 makes it print. */
    static std::string treeOf(Program &manager) {
        const std::size_t before = manager.output().size();
        manager.signal(SIGUSR1);
        manager.expect("SLOT  PORT");
        manager.expect(" in ");
        return manager.output().substr(before);
    }
};

TEST_F(Manager, EndsCleanlyBySignals) {
    for (const int number : {SIGTERM, SIGINT}) {
        Program manager(unit_, 1, {CHASSIS_MANAGER});
        manager.expect("slot 1  manager of /chassis ready");
        manager.signal(number);
        EXPECT_EQ(0, manager.end()) << manager.output();
    }
}

TEST_F(Manager, PrintsTheTreeOnSigusr1) {
    Program manager(unit_, 1, {CHASSIS_MANAGER});
    manager.expect("ready");
    manager.signal(SIGUSR1);
    manager.expect("SLOT  PORT  STATE  MTU  ADDRESS  SINCE  ACTOR");
    manager.expect("0 ports in 0 slots");
    manager.signal(SIGTERM);
    EXPECT_EQ(0, manager.end());
}

TEST_F(Manager, TellsOfThePortsOfAllSlots) {
    const Started early = launchAgent(2);
    early->expect("slot 2 is published");
    const Started manager = startManager();
    manager->expectAll({agentOf(2), "slot 2  port lo "});
    early->expect("slot 2 is part of /chassis");
    const Started late = startAgent(3);
    manager->expectAll({agentOf(3), "slot 3  port lo created: "});
    late->signal(SIGTERM);
    EXPECT_EQ(0, late->end()) << late->output();
    manager->expect("slot 3  port lo deleted");
    manager->expect(agentOf(3));
}

TEST_F(Manager, MissesNobodyWhenAllStartAtOnce) {
    for (int round = 0; round < 5; ++round) {
        const Testing::ChassisUnit unit;
        std::vector<Started> agents;
        const auto launch = [&](unsigned slot) {
            agents.push_back(std::make_unique<Program>(
                unit, slot, std::vector<std::string>{PORT_AGENT, "--slot", std::to_string(slot)}));
        };
        launch(1);
        Program manager(unit, 1, {CHASSIS_MANAGER});
        launch(2);
        launch(3);
        manager.expectAll({"slot 1  port lo ", "slot 2  port lo ", "slot 3  port lo "});
        for (const Started &agent : agents) {
            agent->expect("is part of /chassis");
        }
        const Outcome slots = runProgram(unit, 9, {PORTCTL, "show", "/chassis"});
        EXPECT_TRUE(has(slots.output, "  slot1, slot2, slot3\n")) << slots.output;
    }
}

TEST_F(Manager, PictureAndTreeHealWhenAnAgentIsKilledAndStartedAgain) {
    const Started manager = startManager();
    const Started other = startAgent(3);
    Started agent = startAgent(2);
    manager->expect("slot 2  port lo created: ");
    for (int round = 0; round < 3; ++round) {
        agent->kill();
        manager->expect(") is gone, and with it ");
        EXPECT_FALSE(has(treeOf(*manager), "\n   2  ")) << manager->output();
        EXPECT_TRUE(has(portctl({"show", "/chassis"}).output, "  slot3\n"));
        agent = startAgent(2);
        manager->expect("slot 2  port lo created: ");
        EXPECT_TRUE(has(treeOf(*manager), "\n   2  lo ")) << manager->output();
        EXPECT_TRUE(has(portctl({"show", "/chassis"}).output, "  slot2, slot3\n"));
    }
}

TEST_F(Manager, ThatIsKilledIsReplacedByAnotherToWhichAllAgentsCome) {
    Started manager = startManager();
    const Started second = startAgent(2);
    const Started third = startAgent(3);
    manager->kill();
    EXPECT_EQ(4, portctl({"tree"}).status);
    manager = startManager();
    manager->expectAll({"slot 2  port lo ", "slot 3  port lo "});
    for (const Started *agent : {&second, &third}) {
        (*agent)->expect("is part of /chassis");
    }
    EXPECT_TRUE(has(portctl({"show", "/chassis"}).output, "  slot2, slot3\n"));
    EXPECT_EQ(0, portctl({"show", "slot3/lo"}).status);
}

TEST_F(Manager, IsNotHeldUpByAnAgentThatDoesNotAnswer) {
    const Started manager = startManager();
    const Started agent = startAgent(2);
    manager->expect("slot 2  port lo created: ");
    const Testing::Actor last({unit_.directory(), {}}, 5); // when it is told of, all ports of the agent have been asked
    manager->expect("slot 5  actor ");
    agent->signal(SIGSTOP);
    EXPECT_TRUE(has(treeOf(*manager), "\n   2  lo ")) << manager->output();
    manager->signal(SIGTERM);
    EXPECT_EQ(0, manager->end()) << manager->output();
}

TEST_F(Manager, ASecondSignalEndsItWhenThoseThatItTellsHang) {
    const Started manager = startManager();
    Testing::Actor probe({unit_.directory(), {}}, 3);
    probe.ask("ends", "watching");
    EXPECT_EQ("", probe.expect("came 1"));
    probe.signal(SIGSTOP);
    manager->signal(SIGTERM);
    manager->expect("manager of /chassis ends"); // and tells the probe, for which it has to wait
    manager->signal(SIGINT);
    EXPECT_EQ(128 + SIGINT, manager->end()) << manager->output();
}

TEST_F(Manager, IsTheOnlyOneOfItsUnit) {
    Program manager(unit_, 1, {CHASSIS_MANAGER});
    manager.expect("ready");
    const Outcome second = runProgram(unit_, 2, {CHASSIS_MANAGER});
    EXPECT_EQ(1, second.status);
    EXPECT_EQ("chassis_manager: the unit in " + unit_.directory() + " has a manager already\n", second.output);
}

TEST_F(Manager, TellsOfActorsThatComeAndGo) {
    Program manager(unit_, 1, {CHASSIS_MANAGER});
    manager.expect("ready");
    Program watcher(unit_, 7, {PORTCTL, "watch"});
    manager.expect("slot 7  actor portctl (broker 0x");
    watcher.expect("slot 1  actor chassis_manager (broker 0x");
    watcher.kill();
    manager.expect(") is gone");
}

TEST_F(Manager, IsInTheSlotThatItIsToldToBe) {
    Program manager(unit_, 1, {CHASSIS_MANAGER, "--slot", "9"});
    manager.expect("slot 9  manager of /chassis ready");
}

TEST_F(Manager, RefusesArgumentsThatItDoesNotKnow) {
    for (const std::vector<std::string> &arguments :
         {std::vector<std::string>{"--slot", "0"}, {"--slot", "256"}, {"--slot", "x"}, {"--slot"}, {"x"}}) {
        std::vector<std::string> command{CHASSIS_MANAGER};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const Outcome outcome = runProgram(unit_, 1, command);
        EXPECT_EQ(2, outcome.status) << arguments.back();
        EXPECT_EQ(0U, outcome.output.find("chassis_manager: ")) << outcome.output;
    }
    EXPECT_EQ("chassis_manager: --slot needs a number; see chassis_manager --help\n",
              runProgram(unit_, 1, {CHASSIS_MANAGER, "--slot"}).output);
    const Outcome help = runProgram(unit_, 1, {CHASSIS_MANAGER, "--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_EQ(0U, help.output.find("usage: chassis_manager")) << help.output;
}

} // namespace
