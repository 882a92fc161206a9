#include "chassis/Machine.h"
#include "system/Actor.h"

#include <csignal>
#include <fstream>
#include <net/if.h>
#include <sstream>
#include <unistd.h>

namespace {

using Testing::MachineTest;
using Testing::Outcome;
using Testing::Program;
using Arguments = std::vector<std::string>;

/** What the kernel says of an interface: "mtu", "address", "statistics/rx_bytes". */
std::string ofKernel(const std::string &interface, const std::string &what) {
    std::string value;
    std::getline(std::ifstream("/sys/class/net/" + interface + "/" + what), value);
    return value;
}

/** The words of the line that begins with the first of them. */
std::vector<std::string> lineOf(const std::string &output, const std::string &first) {
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::vector<std::string> found;
        for (std::string word; words >> word;) {
            found.push_back(word);
        }
        if (!found.empty() && found[0] == first) {
            return found;
        }
    }
    ADD_FAILURE() << "no line of " << first << " in\n" << output;
    return std::vector<std::string>(20);
}

std::string textOf(const Arguments &arguments) {
    std::string text = "portctl";
    for (const std::string &argument : arguments) {
        text += " " + argument;
    }
    return text;
}

/** A command that runs another, which then cannot administrate the network. */
Arguments withoutPrivileges() {
    return ::geteuid() == 0 ? Arguments{"/usr/bin/setpriv", "--bounding-set", "-all", "--inh-caps", "-all"}
                            : Arguments{};
}

class Portctl : public MachineTest {};

TEST_F(Portctl, HelpNamesCommandsAndExitStatuses) {
    const Outcome help = portctl({"--help"});
    EXPECT_EQ(0, help.status);
    for (const char *part :
         {"tree", "show PATH", "watch [PATH]", "set PATH mtu N", "set PATH up|down", "counters PATH",
          "/chassis/slot2/eth0", "slot2/eth0", "0 done", "1 refused", "2 wrong", "3 no such", "4 no"}) {
        EXPECT_TRUE(has(help.output, part)) << part;
    }
}

TEST_F(Portctl, WrongArgumentsAreExplained) {
    const std::vector<std::pair<Arguments, std::string>> cases = {
        {{"fly"}, "no command 'fly'"},
        {{"tree", "x"}, "tree takes no arguments"},
        {{"show"}, "show takes one PATH"},
        {{"show", "a", "b"}, "show takes one PATH"},
        {{"show", "slot2//lo"}, "'slot2//lo' is no path"},
        {{"show", ""}, "'' is no path"},
        {{"watch", ""}, "'' is no path"},
        {{"counters"}, "counters takes one PATH"},
        {{"set"}, "set takes a PATH"},
        {{"set", "slot2/lo"}, "set takes a PATH"},
        {{"set", "slot2/lo", "mtu"}, "set takes a PATH"},
        {{"set", "slot2/lo", "sideways"}, "set takes a PATH"},
        {{"set", "slot2/lo", "mtu", "many"}, "'many' is no MTU"},
        {{"set", "slot2/lo", "mtu", "-1"}, "'-1' is no MTU"},
        {{"set", "slot2/lo", "mtu", "4294967296"}, "'4294967296' is too large for an MTU"},
        {{"set", "slot2/lo", "mtu", "99999999999"}, "'99999999999' is too large for an MTU"},
        {{"set", "slot2/lo", "mtu", ""}, "'' is no MTU"},
        {{"watch", "a", "b"}, "watch takes one PATH"},
        {{"watch", "a/b/c"}, "'a/b/c' is no path"},
    };
    for (const auto &[arguments, text] : cases) {
        const Outcome outcome = portctl(arguments);
        EXPECT_EQ(2, outcome.status) << textOf(arguments);
        EXPECT_EQ(0U, outcome.output.find("portctl: " + text)) << textOf(arguments) << "\n" << outcome.output;
        EXPECT_TRUE(has(outcome.output, "See portctl --help\n")) << outcome.output;
    }
    const Outcome nothing = portctl({});
    EXPECT_EQ(2, nothing.status);
    EXPECT_EQ(0U, nothing.output.find("usage: portctl")) << nothing.output;
}

TEST_F(Portctl, WithoutManagerEveryCommandSaysWhatIsMissingAndWhere) {
    for (const Arguments &arguments : std::vector<Arguments>{
             {"tree"}, {"show", "slot1/lo"}, {"counters", "slot1"}, {"set", "slot1/lo", "up"}, {"watch"}}) {
        const Outcome outcome = portctl(arguments);
        EXPECT_EQ(4, outcome.status) << textOf(arguments);
        EXPECT_EQ("portctl: nobody has /chassis in the unit in " + unit_.directory() +
                      ": start chassis_manager there, or set REFLECTORB_UNIT_DIR to the unit's directory\n",
                  outcome.output);
    }
}

TEST_F(Portctl, AUnitThatCannotBeJoinedIsNamed) {
    const std::string file = unit_.directory() + ".file";
    std::ofstream(file) << "no directory";
    const std::string joins = "cannot join the unit in " + file +
                              ": it must be a directory of this user only (mode 700), whose parent exists; the log "
                              "says more\n";
    const Outcome client =
        Testing::runProgram(unit_, 1, {"/usr/bin/env", "REFLECTORB_UNIT_DIR=" + file, PORTCTL, "tree"});
    EXPECT_EQ(4, client.status);
    EXPECT_EQ("portctl: " + joins, client.output);
    const Outcome manager =
        Testing::runProgram(unit_, 1, {"/usr/bin/env", "REFLECTORB_UNIT_DIR=" + file, CHASSIS_MANAGER});
    EXPECT_EQ(4, manager.status);
    EXPECT_EQ("chassis_manager: " + joins, manager.output);
}

TEST_F(Portctl, TreeShowsWhatTheKernelSays) {
    const Started manager = startManager();
    const Started second = startAgent(2);
    const Started third = startAgent(3);
    const Outcome tree = portctl({"tree"});
    EXPECT_EQ(0, tree.status);
    for (const char *slot : {"/chassis/slot2", "/chassis/slot3"}) {
        lineOf(tree.output, slot);
        const std::vector<std::string> lo = lineOf(tree.output, std::string(slot) + "/lo");
        EXPECT_EQ(ofKernel("lo", "operstate"), lo[2]);
        EXPECT_EQ(ofKernel("lo", "mtu"), lo[3]);
        EXPECT_EQ(ofKernel("lo", "address"), lo[4]);
    }
    EXPECT_TRUE(has(tree.output, " ports in 2 slots\n")) << tree.output;
}

TEST_F(Portctl, ShowTellsWhatObjectsTellOfThemselves) {
    const Started manager = startManager();
    const Started agent = startAgent(2);
    const Outcome port = portctl({"show", "/chassis/slot2/lo"});
    EXPECT_EQ(0, port.status);
    EXPECT_EQ(0U, port.output.find("/chassis/slot2/lo: class Port (0x3B7D5A21), broker 0x")) << port.output;
    EXPECT_EQ((Arguments{"name", "string", "lo"}), lineOf(port.output, "name"));
    EXPECT_EQ((Arguments{"mtu", "unsigned", "long", ofKernel("lo", "mtu")}), lineOf(port.output, "mtu"));
    EXPECT_EQ((Arguments{"index", "unsigned", "long", std::to_string(::if_nametoindex("lo"))}),
              lineOf(port.output, "index"));
    EXPECT_EQ("Counter64", lineOf(port.output, "rxBytes")[1]);
    EXPECT_TRUE(has(port.output, "\noperation setMtu(unsigned long mtu)\n")) << port.output;
    EXPECT_FALSE(has(port.output, "operation getmtu")) << port.output;
    EXPECT_EQ(port.output.substr(0, port.output.find("rxBytes")),
              portctl({"show", "slot2/lo"}).output.substr(0, port.output.find("rxBytes")));

    const Outcome slot = portctl({"show", "slot2"});
    EXPECT_EQ(0, slot.status);
    EXPECT_EQ((Arguments{"number", "unsigned", "long", "2"}), lineOf(slot.output, "number"));
    EXPECT_EQ((Arguments{"pid", "unsigned", "long", std::to_string(agent->pid())}), lineOf(slot.output, "pid"));
    EXPECT_TRUE(has(slot.output.substr(slot.output.find("\nports ")), "lo")) << slot.output;

    const Outcome chassis = portctl({"show", "/chassis"});
    EXPECT_EQ(0, chassis.status);
    EXPECT_EQ((Arguments{"slots", "Slot", "slot2"}), lineOf(chassis.output, "slots"));
}

TEST_F(Portctl, ShowLeavesOutObjectsWhoseActorHasEnded) {
    Testing::Actor owner({unit_.directory(), {}}); // its chassis keeps those
    owner.ask("chassis", "chassis made");
    const Started second = startAgent(2);
    const Started third = startAgent(3);
    const Started fourth = startAgent(4);
    EXPECT_TRUE(has(portctl({"show", "/chassis"}).output, "  slot2, slot3, slot4\n"));
    third->kill();
    fourth->kill();
    const Outcome chassis = portctl({"show", "/chassis"});
    EXPECT_EQ(0, chassis.status);
    EXPECT_TRUE(has(chassis.output, "  slot2\n")) << chassis.output;
}

TEST_F(Portctl, CountersAreThoseOfTheKernel) {
    const Started manager = startManager();
    const Started agent = startAgent(2);
    const std::string before = ofKernel("lo", "statistics/rx_bytes");
    const Outcome counters = portctl({"counters", "slot2/lo"});
    const std::string after = ofKernel("lo", "statistics/rx_bytes");
    EXPECT_EQ(0, counters.status);
    const std::vector<std::string> lo = lineOf(counters.output, "/chassis/slot2/lo");
    ASSERT_EQ(9U, lo.size()) << counters.output;
    EXPECT_LE(std::stoull(before), std::stoull(lo[1]));
    EXPECT_GE(std::stoull(after), std::stoull(lo[1]));
    EXPECT_EQ(lo[1], lo[5]) << "what it sends, it receives";
    for (const char *path : {"slot2", "/chassis"}) {
        const Outcome all = portctl({"counters", path});
        EXPECT_EQ(0, all.status);
        EXPECT_EQ(9U, lineOf(all.output, "/chassis/slot2/lo").size());
    }
}

TEST_F(Portctl, WhatIsNotThereIsNamedWithWhatIsLikeIt) {
    const Started manager = startManager();
    const std::string none = portctl({"show", "slot2"}).output;
    EXPECT_EQ("portctl: no slot 'slot2' in /chassis, which has none: start a port_agent\n", none);
    const Started second = startAgent(2);
    const Started other = startAgent(13);
    const std::vector<std::pair<Arguments, std::string>> cases = {
        {{"show", "slto2"}, "no slot 'slto2' in /chassis; nearest: slot2, slot13. 'portctl tree' shows all\n"},
        {{"counters", "/chassis/slot33"}, "no slot 'slot33' in /chassis; nearest: slot13, slot2."},
        {{"show", "slot13/l0"}, "no port 'l0' in /chassis/slot13; nearest: lo"},
        {{"set", "slot2/l0", "mtu", "1500"}, "no port 'l0' in /chassis/slot2; nearest: lo"},
        {{"show", "slot2/lo/mtu"}, "/chassis/slot2/lo is a port: there is nothing below it\n"},
    };
    for (const auto &[arguments, text] : cases) {
        const Outcome outcome = portctl(arguments);
        EXPECT_EQ(3, outcome.status) << textOf(arguments);
        EXPECT_EQ(0U, outcome.output.find("portctl: " + text)) << textOf(arguments) << "\n" << outcome.output;
    }
}

TEST_F(Portctl, OnlyPortsAreSet) {
    const Started manager = startManager();
    const Started agent = startAgent(2);
    for (const char *path : {"/chassis", "slot2"}) {
        const Outcome outcome = portctl({"set", path, "mtu", "1500"});
        EXPECT_EQ(2, outcome.status);
        EXPECT_TRUE(has(outcome.output, "is no port: name one in it, as /chassis/slot")) << outcome.output;
    }
}

TEST_F(Portctl, WithoutPrivilegesTheKernelRefusesAndItIsSaidWhatToDo) {
    const Started manager = startManager();
    const Started agent = startAgent(2, withoutPrivileges());
    const Outcome outcome = portctl({"set", "slot2/lo", "mtu", ofKernel("lo", "mtu")}); // as it is: nothing can happen
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(0U, outcome.output.find("portctl: /chassis/slot2/lo: refused by the kernel: Operation not permitted"))
        << outcome.output;
    EXPECT_TRUE(has(outcome.output, "CAP_NET_ADMIN")) << outcome.output;
}

TEST_F(Portctl, WatchTellsWhatIsThereAndWhatHappensUntilItIsEnded) {
    const Started manager = startManager();
    Started agent = startAgent(2);
    for (const int number : {SIGTERM, SIGINT}) {
        Program watch(unit_, 9, {PORTCTL, "watch"});
        watch.expectAll({"watching /chassis; ends with Ctrl-C", agentOf(2), "slot 2  port lo ",
                         "slot 1  actor chassis_manager (broker 0x"});
        agent->kill();
        watch.expectAll({") is gone, and with it "});
        agent = startAgent(2);
        watch.expectAll({"slot 2  port lo created: ", ") is there"});
        watch.signal(number);
        EXPECT_EQ(0, watch.end()) << watch.output();
    }
}

TEST_F(Portctl, WatchOfAPathTellsOfNothingElse) {
    const Started manager = startManager();
    const Started agent = startAgent(2);
    Program slot(unit_, 9, {PORTCTL, "watch", "slot3"});
    Program port(unit_, 9, {PORTCTL, "watch", "/chassis/slot3/lo"});
    Program none(unit_, 9, {PORTCTL, "watch", "/chassis/slot3/nonesuch"});
    for (Program *watch : {&slot, &port, &none}) {
        watch->expect("watching /chassis/slot3");
    }
    {
        const Started later = startAgent(3);
        slot.expectAll({"slot 3  port lo created", agentOf(3)});
        port.expectAll({"slot 3  port lo created", agentOf(3)});
        none.expect(agentOf(3));
        later->signal(SIGTERM);
        EXPECT_EQ(0, later->end());
    }
    slot.expectAll({"slot 3  port lo deleted", ") is gone"});
    port.expectAll({"slot 3  port lo deleted", ") is gone"});
    none.expect(") is gone");
    for (Program *watch : {&slot, &port, &none}) {
        watch->signal(SIGTERM);
        EXPECT_EQ(0, watch->end());
        EXPECT_FALSE(has(watch->output(), "slot 2  ")) << watch->output();
        EXPECT_FALSE(has(watch->output(), "slot 1  ")) << watch->output();
    }
    EXPECT_FALSE(has(none.output(), "  port ")) << none.output();
}

TEST_F(Portctl, WatchGoesOnWhenTheManagerIsGone) {
    const Started manager = startManager();
    Program watch(unit_, 9, {PORTCTL, "watch"});
    watch.expectAll({"watching", "slot 1  actor chassis_manager"});
    manager->kill();
    watch.expect("slot 1  actor chassis_manager (broker 0x");
    const Started agent = launchAgent(2);
    watch.expect("slot 2  port lo created");
}

} // namespace
