#include "chassis/AgentTest.h"

#include <cerrno>
#include <csignal>
#include <memory>
#include <random>
#include <set>
#include <sstream>

namespace {

using Testing::Actor;
using Testing::AgentTest;
using Testing::Network;
using Testing::Program;

constexpr char kPath[] = "/chassis/slot2/";

std::vector<std::string> wordsOf(const std::string &line) {
    std::istringstream text(line);
    std::vector<std::string> words;
    for (std::string word; text >> word;) {
        words.push_back(word);
    }
    return words;
}

TEST_F(AgentTest, PublishesWhatTheKernelHas) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    ASSERT_EQ("", network_.setMtu("left", 1400));
    ASSERT_EQ("", network_.setUp("left", true));
    const auto agent = startAgent();
    Actor probe(probes_);
    EXPECT_EQ(" left lo right", probe.ask("ports 2", "ports"));
    EXPECT_EQ("2 " + std::to_string(agent->pid()) + " /chassis/slot2 -", probe.ask("slot 2", "slot "));
    EXPECT_EQ("/chassis/slot2/left slot2", probe.ask("path /chassis/slot2/left", "path "));
    EXPECT_TRUE(probe.askUntil("port /chassis/slot2/left", "port ",
                               "left " + std::to_string(network_.index("left")) + " " + network_.macAddress("left") +
                                   " 1400 up lowerlayerdown 10000"));
    EXPECT_EQ("right " + std::to_string(network_.index("right")) + " " + network_.macAddress("right") +
                  " 1500 down down 10000",
              probe.ask("port /chassis/slot2/right", "port "));
    EXPECT_EQ("lo 1 00:00:00:00:00:00 65536 down down 0", probe.ask("port /chassis/slot2/lo", "port "));
}

TEST_F(AgentTest, AttributesAreReadByName) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const auto agent = startAgent();
    Actor probe(probes_);
    const std::pair<const char *, std::string> expected[] = {{"name", "left"},
                                                             {"index", std::to_string(network_.index("left"))},
                                                             {"macAddress", network_.macAddress("left")},
                                                             {"mtu", "1500"},
                                                             {"adminState", "down"},
                                                             {"operState", "down"},
                                                             {"speed", "10000"},
                                                             {"rxBytes", "0"},
                                                             {"txDrops", "0"},
                                                             {"colour", "none"}};
    for (const auto &[name, value] : expected) {
        EXPECT_EQ(value, probe.ask(std::string("attribute /chassis/slot2/left ") + name, "attribute ")) << name;
    }
}

TEST_F(AgentTest, ReadsTheKernelAtEachCall) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const auto agent = startAgent();
    Actor probe(probes_);
    for (unsigned mtu = 1000; mtu < 1100; ++mtu) {
        ASSERT_EQ("", network_.setMtu("left", mtu));
        ASSERT_EQ(std::to_string(mtu), probe.ask("attribute /chassis/slot2/left mtu", "attribute "));
    }
}

TEST_F(AgentTest, CountsWhatIsSent) {
    ASSERT_EQ("", network_.setUp("lo", true));
    const auto agent = startAgent();
    Actor probe(probes_);
    EXPECT_EQ("0 0 0 0 0 0 0 0", probe.ask("counters /chassis/slot2/lo", "counters "));
    ASSERT_EQ("", network_.sendPackets(100));
    // An empty packet is 28 bytes with its headers; what "lo" sends it has received when that returns.
    EXPECT_EQ("2800 2800 100 100 0 0 0 0", probe.ask("counters /chassis/slot2/lo", "counters "));
    EXPECT_EQ("2800", probe.ask("attribute /chassis/slot2/lo txBytes", "attribute "));
}

TEST_F(AgentTest, InterfacesComeChangeAndGo) {
    const auto agent = startAgent();
    Actor probe(probes_);
    watch(probe);
    EXPECT_EQ("", probe.expect("created /chassis/slot2/lo"));

    ASSERT_EQ("", network_.add("plain"));
    EXPECT_EQ("", probe.expect("created /chassis/slot2/plain"));
    ASSERT_EQ("", network_.addVeth("left", "right"));
    EXPECT_EQ("", probe.expect("created /chassis/slot2/left"));
    EXPECT_EQ("", probe.expect("created /chassis/slot2/right"));
    EXPECT_EQ(" left lo plain right", probe.ask("ports 2", "ports"));

    // Whether it works underneath the kernel says a little later, once or more often.
    ASSERT_EQ("", network_.setMtu("left", 1300));
    EXPECT_EQ("", probe.expect("changed /chassis/slot2/left down down 1300"));
    ASSERT_EQ("", network_.setUp("left", true));
    EXPECT_EQ("", probe.expect("changed /chassis/slot2/left up lowerlayerdown 1300"));
    ASSERT_EQ("", network_.setUp("right", true));
    EXPECT_EQ("", probe.expect("changed /chassis/slot2/right up up 1500"));
    EXPECT_EQ("", probe.expect("changed /chassis/slot2/left up up 1300"));

    ASSERT_EQ("", network_.remove("left"));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/left"));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/right"));
    ASSERT_EQ("", network_.remove("plain"));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/plain"));
    EXPECT_TRUE(probe.askUntil("ports 2", "ports", " lo"));
    EXPECT_TRUE(probe.askUntil("port /chassis/slot2/plain", "port ", "- 0 - 0 - - 0 unreachable"));
}

TEST_F(AgentTest, AnEventWithNothingButTheNameChangesNothing) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    network_.enter();
    Program agent(unit_, 2, {WIRELESS_AGENT, "--slot", "2"});
    agent.expect("slot 2 is published");
    Actor probe(probes_);
    watch(probe);
    EXPECT_EQ("", probe.expect("created /chassis/slot2/left"));
    ASSERT_EQ("", network_.setMtu("left", 1234)); // of which that agent is told the name only
    ASSERT_EQ("", network_.setMtu("left", 1300));
    EXPECT_EQ("down down 1300", probe.expect("changed /chassis/slot2/left "));
}

TEST_F(AgentTest, ARenamedInterfaceIsAnotherPort) {
    ASSERT_EQ("", network_.add("before"));
    const auto agent = startAgent();
    Actor probe(probes_);
    watch(probe);
    EXPECT_EQ("", probe.expect("created /chassis/slot2/before"));
    ASSERT_EQ("", network_.rename("before", "after"));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/before"));
    EXPECT_EQ("", probe.expect("created /chassis/slot2/after"));
    ASSERT_EQ("", network_.add("before")); // the old name is free
    EXPECT_EQ("", probe.expect("created /chassis/slot2/before"));
    EXPECT_EQ(" after before lo", probe.ask("ports 2", "ports"));
    EXPECT_EQ(std::to_string(network_.index("after")), probe.ask("attribute /chassis/slot2/after index", "attribute "));
}

TEST_F(AgentTest, InterfacesMoveFromSlotToSlot) {
    const auto agent2 = startAgent(2);
    Network other;
    NEEDS(other);
    const auto agent3 = startAgent(3, other);
    Actor probe(probes_);
    watch(probe, {2, 3});
    EXPECT_EQ("", probe.expect("created /chassis/slot3/lo"));
    ASSERT_EQ("", network_.addVeth("left", "right"));
    EXPECT_EQ("", probe.expect("created /chassis/slot2/right"));
    ASSERT_EQ("", network_.move("right", other));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/right"));
    EXPECT_EQ("", probe.expect("created /chassis/slot3/right"));
    EXPECT_TRUE(probe.askUntil("ports 2", "ports", " left lo"));
    EXPECT_EQ(" lo right", probe.ask("ports 3", "ports"));
    ASSERT_EQ("", other.move("right", network_));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot3/right"));
    EXPECT_EQ("", probe.expect("created /chassis/slot2/right"));
    ASSERT_EQ("", network_.remove("left"));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/right"));
}

TEST_F(AgentTest, APortOfABridgeStaysAPort) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    ASSERT_EQ("", network_.add("bridge"));
    const auto agent = startAgent();
    Actor probe(probes_);
    watch(probe);
    const std::string refusal = network_.setBridge("left", "bridge");
    if (!refusal.empty()) {
        GTEST_SKIP() << "no bridges here: " << refusal;
    }
    ASSERT_EQ("", network_.setBridge("left", ""));
    ASSERT_EQ("", network_.setMtu("left", 1200));
    EXPECT_EQ("down down 1200", probe.expect("changed /chassis/slot2/left "));
    EXPECT_EQ("", probe.expect("created /chassis/slot2/left"));
    EXPECT_EQ(std::vector<std::string>(), probe.sofar("deleted ")); // it left the bridge, not the machine
}

TEST_F(AgentTest, NamesMayHaveAlmostAnyCharacters) {
    const std::string names[] = {"\"a,b\"", "\xff\x01\xc3", "$(x);'\\", "a-very-long-one", "*", "..."};
    for (const std::string &name : names) {
        ASSERT_EQ("", network_.add(name)) << name;
    }
    const auto agent = startAgent();
    Actor probe(probes_);
    watch(probe);
    std::set<std::string> expected{"lo"};
    for (const std::string &name : names) {
        EXPECT_EQ("", probe.expect("created " + (kPath + name)));
        EXPECT_EQ(name, probe.ask("attribute " + (kPath + name) + " name", "attribute "));
        expected.insert(name);
    }
    const std::vector<std::string> list = wordsOf(probe.ask("ports 2", "ports"));
    EXPECT_EQ(expected, std::set<std::string>(list.begin(), list.end()));
    ASSERT_EQ("", network_.remove(names[1]));
    EXPECT_EQ("", probe.expect("deleted " + (kPath + names[1])));
}

TEST_F(AgentTest, ChangesWhatItIsToldTo) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const auto agent = startAgent();
    Actor probe(probes_);
    EXPECT_EQ("", probe.ask("mtu /chassis/slot2/left 1234", "done"));
    EXPECT_EQ(1234U, network_.mtu("left"));
    EXPECT_EQ("", probe.ask("admin /chassis/slot2/left up", "done"));
    EXPECT_EQ("up", probe.ask("attribute /chassis/slot2/left adminState", "attribute "));
    EXPECT_EQ("", probe.ask("admin /chassis/slot2/left down", "done"));
    EXPECT_EQ("down", probe.ask("attribute /chassis/slot2/left adminState", "attribute "));
}

TEST_F(AgentTest, TellsWhyTheKernelRefuses) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const auto agent = startAgent();
    Actor probe(probes_);
    for (const char *mtu : {"70000", "20", "0", "4294967295"}) {
        const std::string answer = probe.ask(std::string("mtu /chassis/slot2/left ") + mtu, "done");
        EXPECT_EQ(0U, answer.find(" refused " + std::to_string(EINVAL) + " ")) << answer;
        EXPECT_NE(std::string::npos, answer.find("(Invalid argument)")) << answer; // behind the kernel's own words
        EXPECT_NE(std::string::npos, answer.find("mtu")) << answer;
    }
    EXPECT_EQ(1500U, network_.mtu("left"));
    EXPECT_EQ("", probe.ask("mtu /chassis/slot2/left 1400", "done")); // an exception does not stick
}

TEST_F(AgentTest, WithoutPrivilegesItReadsAndTellsWhyItCannotChange) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    network_.enter();
    Program agent(unit_, 2, {"/usr/bin/setpriv", "--bounding-set", "-net_admin", PORT_AGENT, "--slot", "2"});
    agent.expect("slot 2 is published");
    Actor probe(probes_);
    const std::string refusal = " refused " + std::to_string(EPERM) + " Operation not permitted";
    EXPECT_EQ(refusal, probe.ask("mtu /chassis/slot2/left 1400", "done"));
    EXPECT_EQ(refusal, probe.ask("admin /chassis/slot2/left up", "done"));
    EXPECT_EQ("1500", probe.ask("attribute /chassis/slot2/left mtu", "attribute "));
    EXPECT_EQ("down", probe.ask("attribute /chassis/slot2/left adminState", "attribute "));
}

TEST_F(AgentTest, AnObserverMayForbidAChange) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const auto agent = startAgent();
    Actor guard(probes_, 1);
    Actor probe(probes_, 3);
    EXPECT_EQ("", guard.ask("forbid /chassis/slot2/left", "forbidden"));
    EXPECT_EQ("", probe.ask("mtu /chassis/slot2/left 1400", "done"));
    EXPECT_EQ(1500U, network_.mtu("left"));
    guard.kill();
    EXPECT_EQ("", probe.ask("mtu /chassis/slot2/left 1400", "done")); // who is gone forbids nothing
    EXPECT_EQ(1400U, network_.mtu("left"));
}

TEST_F(AgentTest, AnInterfaceGoesInTheMiddleOfACall) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const auto agent = startAgent();
    Actor guard(probes_, 1);
    Actor caller(probes_, 3);
    Actor watcher(probes_, 4);
    watch(watcher);
    EXPECT_EQ("", guard.ask("hold /chassis/slot2/left", "ready"));
    caller.tell("mtu /chassis/slot2/left 1400");
    EXPECT_EQ("", guard.expect("held"));
    ASSERT_EQ("", network_.remove("left"));
    EXPECT_EQ("", watcher.expect("deleted /chassis/slot2/left"));
    EXPECT_TRUE(watcher.askUntil("port /chassis/slot2/left", "port ", "- 0 - 0 - - 0 unreachable"));
    EXPECT_EQ("", guard.ask("go", "gone"));
    EXPECT_EQ(" refused " + std::to_string(ENODEV) + " No such device", caller.expect("done"));
    EXPECT_EQ("", watcher.expect("deleted /chassis/slot2/right"));
    EXPECT_EQ(" lo", watcher.ask("ports 2", "ports"));
}

TEST_F(AgentTest, TwoHundredInterfaces) {
    constexpr unsigned kHalf = 100;
    for (unsigned i = 0; i < kHalf; ++i) {
        ASSERT_EQ("", network_.addVeth("l" + std::to_string(i), "r" + std::to_string(i)));
    }
    const auto agent = startAgent();
    Actor probe(probes_);
    watch(probe);
    EXPECT_EQ(2 * kHalf + 1, wordsOf(probe.ask("ports 2", "ports")).size());
    for (unsigned i = 0; i < kHalf; ++i) {
        for (const char *side : {"l", "r"}) {
            EXPECT_EQ("", probe.expect("created " + (kPath + (side + std::to_string(i)))));
        }
    }
    for (unsigned i = 0; i < kHalf; ++i) {
        ASSERT_EQ("", network_.setMtu("l" + std::to_string(i), 1000 + i));
    }
    for (unsigned i = 0; i < kHalf; ++i) {
        EXPECT_EQ("down down " + std::to_string(1000 + i),
                  probe.expect("changed " + (kPath + ("l" + std::to_string(i))) + " "));
    }
    for (unsigned i = 0; i < kHalf; ++i) {
        ASSERT_EQ("", network_.remove("l" + std::to_string(i)));
    }
    for (unsigned i = 0; i < kHalf; ++i) {
        for (const char *side : {"l", "r"}) {
            EXPECT_EQ("", probe.expect("deleted " + (kPath + (side + std::to_string(i)))));
        }
    }
    EXPECT_TRUE(probe.askUntil("ports 2", "ports", " lo"));
    EXPECT_EQ(std::vector<std::string>(), probe.sofar("deleted "));
}

TEST_F(AgentTest, LooksAnewWhenTheKernelHadNoRoomForItsEvents) {
    ASSERT_EQ("", network_.addVeth("gone", "peer"));
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const auto agent = startAgent();
    Actor probe(probes_);
    watch(probe);
    EXPECT_EQ("", probe.expect("created /chassis/slot2/left"));
    agent->signal(SIGSTOP);
    ASSERT_EQ("", network_.remove("gone"));
    for (unsigned i = 0; i < 3000; ++i) { // some hundred fit
        ASSERT_EQ("", network_.setMtu("left", 1000 + i % 100));
    }
    ASSERT_EQ("", network_.setMtu("left", 1200));
    ASSERT_EQ("", network_.add("new"));
    agent->signal(SIGCONT);
    agent->expect("looks at all interfaces anew");
    EXPECT_EQ("", probe.expect("created /chassis/slot2/new"));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/gone"));
    EXPECT_EQ("", probe.expect("deleted /chassis/slot2/peer"));
    EXPECT_EQ("down down 1200", probe.expect("changed /chassis/slot2/left "));
    EXPECT_TRUE(probe.askUntil("ports 2", "ports", " left lo new right"));
}

/** What happens to interfaces at random, and what watchers of the ports are to be told. */
class Churn {
public:
    explicit Churn(Network &network) : network_(network) {}

    void step() {
        const std::string name = "n" + std::to_string(random_() % 8);
        const std::string other = "n" + std::to_string(random_() % 8);
        if (there_.count(name) == 0) {
            ASSERT_EQ("", network_.add(name));
            come(name);
        } else if (random_() % 3 == 0 && there_.count(other) == 0) {
            ASSERT_EQ("", network_.rename(name, other));
            go(name);
            come(other);
        } else if (random_() % 3 == 0) {
            ASSERT_EQ("", network_.setMtu(name, 1000 + random_() % 2));
        } else {
            ASSERT_EQ("", network_.remove(name));
            go(name);
        }
    }
    const std::vector<std::string> &events() const { return events_; }
    std::set<std::string> there() const { return there_; }

private:
    void come(const std::string &name) {
        there_.insert(name);
        events_.push_back("created " + (kPath + name));
    }
    void go(const std::string &name) {
        there_.erase(name);
        events_.push_back("deleted " + (kPath + name));
    }

    Network &network_;
    std::minstd_rand random_{7};
    std::set<std::string> there_;
    std::vector<std::string> events_;
};

TEST_F(AgentTest, EachWatcherIsToldOfEachPortInOrder) {
    const auto agent = startAgent();
    Actor first(probes_, 1);
    Actor second(probes_, 3);
    auto victim = std::make_unique<Actor>(probes_, 4);
    for (Actor *watcher : {&first, &second, victim.get()}) {
        watch(*watcher);
        EXPECT_EQ("", watcher->expect("created /chassis/slot2/lo"));
    }
    Churn churn(network_);
    for (int i = 0; i < 300; ++i) {
        ASSERT_NO_FATAL_FAILURE(churn.step());
        if (i == 150) {
            victim.reset(); // killed while it is told
        }
    }
    ASSERT_EQ("", network_.add("last"));
    for (Actor *watcher : {&first, &second}) {
        EXPECT_EQ("", watcher->expect("created /chassis/slot2/last"));
        std::vector<std::string> told;
        for (const std::string &line : watcher->sofar("")) {
            if (line.find("created ") == 0 || line.find("deleted ") == 0) {
                told.push_back(line);
            }
        }
        EXPECT_EQ(churn.events(), told);
    }
    std::set<std::string> expected = churn.there();
    expected.insert({"last", "lo"});
    const std::vector<std::string> list = wordsOf(first.ask("ports 2", "ports"));
    EXPECT_EQ(expected, std::set<std::string>(list.begin(), list.end()));
}

} // namespace
