#include "chassis/Program.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

using Testing::ChassisUnit;
using Testing::Outcome;
using Testing::Program;
using Testing::runProgram;

class Manager : public testing::Test {
protected:
    const ChassisUnit unit_;
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
    const Outcome help = runProgram(unit_, 1, {CHASSIS_MANAGER, "--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_EQ(0U, help.output.find("usage: chassis_manager")) << help.output;
}

} // namespace
