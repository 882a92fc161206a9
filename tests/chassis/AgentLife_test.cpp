#include "chassis/AgentTest.h"
#include "support/Concurrency.h"

#include <csignal>
#include <sys/wait.h>

namespace {

using Testing::Actor;
using Testing::AgentTest;
using Testing::ChassisUnit;
using Testing::Outcome;
using Testing::Program;
using Testing::runProgram;

/** What an agent needs no interfaces of its own for. */
class AgentProgram : public testing::Test {
protected:
    const ChassisUnit unit_;
};

TEST_F(AgentProgram, ExplainsItself) {
    const Outcome outcome = runProgram(unit_, 1, {PORT_AGENT, "--help"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(0U, outcome.output.find("usage: port_agent --slot N\n")) << outcome.output;
}

TEST_F(AgentProgram, RefusesArgumentsThatMakeNoSense) {
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{}, "port_agent: which slot? Try --slot 1, or --help\n"},
        {{"--slot"}, "port_agent: --slot needs a number; try --help\n"},
        {{"--slot", "0"}, "port_agent: '0' is not a slot; a slot is a number from 1 to 255\n"},
        {{"--slot", "256"}, "port_agent: '256' is not a slot; a slot is a number from 1 to 255\n"},
        {{"--slot", "-1"}, "port_agent: '-1' is not a slot; a slot is a number from 1 to 255\n"},
        {{"--slot", "2x"}, "port_agent: '2x' is not a slot; a slot is a number from 1 to 255\n"},
        {{"--slot", ""}, "port_agent: '' is not a slot; a slot is a number from 1 to 255\n"},
        {{"--slot", "99999999999999999999"},
         "port_agent: '99999999999999999999' is not a slot; a slot is a number from 1 to 255\n"},
        {{"--slot", "2", "more"}, "port_agent: unknown argument 'more'; try --help\n"},
    };
    for (const auto &[arguments, message] : cases) {
        std::vector<std::string> command{PORT_AGENT};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const Outcome outcome = runProgram(unit_, 1, command);
        EXPECT_EQ(2, outcome.status) << message;
        EXPECT_EQ(message, outcome.output);
    }
}

TEST_F(AgentProgram, NeedsADirectoryOfItsUnit) {
    const Outcome outcome =
        runProgram(unit_, 1, {"/usr/bin/env", "REFLECTORB_UNIT_DIR=/dev/null/unit", PORT_AGENT, "--slot", "2"});
    EXPECT_EQ(1, outcome.status);
    EXPECT_NE(std::string::npos, outcome.output.find("port_agent: cannot be an actor of the unit: ")) << outcome.output;
}

TEST_F(AgentProgram, PublishesTheInterfacesOfTheMachineToo) {
    Program agent(unit_, 2, {PORT_AGENT, "--slot", "2"});
    agent.expect("slot 2 is published");
    Actor probe({unit_.directory(), {}});
    EXPECT_EQ("lo", probe.ask("attribute /chassis/slot2/lo name", "attribute "));
    EXPECT_EQ("1", probe.ask("attribute /chassis/slot2/lo index", "attribute "));
    agent.signal(SIGTERM);
    EXPECT_EQ(0, agent.end());
}

TEST_F(AgentProgram, ASlotHasOneAgent) {
    Program first(unit_, 2, {PORT_AGENT, "--slot", "2"});
    first.expect("slot 2 is published");
    const Outcome second = runProgram(unit_, 2, {PORT_AGENT, "--slot", "2"});
    EXPECT_EQ(3, second.status);
    EXPECT_EQ("port_agent: slot 2 has an agent already; end that one, or take another slot\n", second.output);
    first.kill();
    Program third(unit_, 2, {PORT_AGENT, "--slot", "2"}); // that one is gone at once
    third.expect("slot 2 is published");
}

TEST_F(AgentTest, EndsBySignalsAndTakesItsPortsWithIt) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    for (const int number : {SIGTERM, SIGINT}) {
        Actor probe(probes_);
        probe.ask("chassis", "chassis made");
        probe.ask("watch", "watching");
        const auto agent = startAgent();
        EXPECT_EQ("", probe.expect("came 2"));
        EXPECT_EQ("", probe.expect("created /chassis/slot2/left"));
        agent->expect("slot 2 is part of /chassis");
        EXPECT_EQ(" 2:" + std::to_string(agent->pid()), probe.ask("slots", "slots"));
        agent->signal(number);
        EXPECT_EQ(0, agent->end()) << agent->output();
        for (const char *name : {"left", "lo", "right"}) {
            EXPECT_EQ("", probe.expect(std::string("deleted /chassis/slot2/") + name));
        }
        EXPECT_EQ("", probe.ask("slots", "slots"));
    }
}

TEST_F(AgentTest, ComesBackAfterItWasKilled) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    Actor probe(probes_);
    probe.ask("chassis", "chassis made");
    auto agent = startAgent();
    agent->expect("slot 2 is part of /chassis");
    EXPECT_EQ("1500", probe.ask("attribute /chassis/slot2/left mtu", "attribute "));
    agent->kill();
    EXPECT_TRUE(probe.askUntil("port /chassis/slot2/left", "port ", "- 0 - 0 - - 0 unreachable"));
    ASSERT_EQ("", network_.setMtu("left", 1400));

    agent = startAgent();
    agent->expect("slot 2 is part of /chassis");
    EXPECT_EQ(" 2:" + std::to_string(agent->pid()), probe.ask("slots", "slots"));
    EXPECT_EQ("1400", probe.ask("attribute /chassis/slot2/left mtu", "attribute "));
    watch(probe);
    EXPECT_EQ("", probe.expect("created /chassis/slot2/left"));
    ASSERT_EQ("", network_.setMtu("left", 1300));
    EXPECT_EQ("down down 1300", probe.expect("changed /chassis/slot2/left "));
}

TEST_F(AgentTest, GoesOnWithoutAChassisAndBecomesPartOfEachThatComes) {
    const auto agent2 = startAgent(2);
    const auto agent3 = startAgent(3);
    Actor watcher(probes_, 4);
    watch(watcher, {2, 3});
    EXPECT_EQ("", watcher.expect("created /chassis/slot2/lo"));
    for (int i = 0; i < 3; ++i) {
        Actor owner(probes_, 1);
        owner.ask("chassis", "chassis made");
        agent2->expect("slot 2 is part of /chassis");
        agent3->expect("slot 3 is part of /chassis");
        EXPECT_EQ(" 2:" + std::to_string(agent2->pid()) + " 3:" + std::to_string(agent3->pid()),
                  owner.ask("slots", "slots"));
        EXPECT_EQ("2 " + std::to_string(agent2->pid()) + " /chassis/slot2 chassis", watcher.ask("slot 2", "slot "));
        EXPECT_EQ("/chassis/slot3/lo slot3", watcher.ask("path /chassis/slot3/lo", "path "));
        owner.kill();
        ASSERT_EQ("", network_.add("new" + std::to_string(i)));
        EXPECT_EQ("", watcher.expect("created /chassis/slot2/new" + std::to_string(i)));
        EXPECT_EQ("", watcher.expect("created /chassis/slot3/new" + std::to_string(i)));
    }
}

TEST_F(AgentTest, SaysThatItIsPartOfAChassisOnlyIfItIs) {
    const auto agent = startAgent();
    Actor first(probes_, 1);
    first.tell("trap");
    agent->expect("slot 2 did not become part of /chassis");
    EXPECT_EQ(std::string::npos, agent->output().find("is part of")) << agent->output();
    Actor second(probes_, 1);
    second.ask("chassis", "chassis made");
    agent->expect("slot 2 is part of /chassis");
}

TEST_F(AgentTest, BelongsToTheManagerThatIsThere) {
    const auto agent = startAgent();
    for (int i = 0; i < 3; ++i) {
        Program manager(unit_, 1, {CHASSIS_MANAGER});
        manager.expectAll({"port lo ", "actor port_agent"});
        agent->expect("slot 2 is part of /chassis");
        ASSERT_EQ("", network_.add("new" + std::to_string(i)));
        manager.expect("port new" + std::to_string(i) + " created");
        manager.kill();
    }
}

TEST_F(AgentTest, ASecondSignalEndsItWhenThoseThatItTellsHang) {
    const auto agent = startAgent();
    Actor probe(probes_);
    watch(probe);
    EXPECT_EQ("", probe.expect("created /chassis/slot2/lo"));
    probe.signal(SIGSTOP);
    EXPECT_TRUE(Testing::eventually([&agent] { // until the first one is taken, a second is the same
        agent->signal(SIGTERM);
        siginfo_t ended{};
        return ::waitid(P_PID, static_cast<id_t>(agent->pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid != 0;
    }));
    EXPECT_EQ(128 + SIGTERM, agent->end());
    probe.signal(SIGCONT);
    EXPECT_TRUE(probe.askUntil("port /chassis/slot2/lo", "port ", "- 0 - 0 - - 0 unreachable"));
}

} // namespace
