#include "chassis/Machine.h"
#include "chassis/Network.h"
#include "system/Actor.h"

#include <chrono>
#include <csignal>

namespace {

using Testing::MachineTest;
using Testing::Network;
using Testing::Outcome;
using Testing::Program;

/** Interfaces of the test's own, which may be changed. */
class Changes : public MachineTest {
protected:
    void SetUp() override { NEEDS(network_); }

    Started agentIn(const Network &network, unsigned slot) {
        network.enter();
        return startAgent(slot);
    }
    Started startWatch() {
        auto watch = std::make_unique<Program>(unit_, 9, std::vector<std::string>{PORTCTL, "watch"});
        watch->expect("watching /chassis");
        return watch;
    }
    void set(const std::string &path, const std::string &what, const std::string &output) {
        const Outcome outcome = portctl({"set", path, what});
        EXPECT_EQ(0, outcome.status);
        EXPECT_EQ(output, outcome.output);
    }

    Network network_;
};

TEST_F(Changes, OfAnMtuReachTheKernelAndWhoeverWatches) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const Started manager = startManager();
    const Started agent = agentIn(network_, 2);
    const Started watch = startWatch();
    manager->expect("slot 2  port left created: down, mtu 1500, " + network_.macAddress("left"));
    const std::string found = watch->expect("slot 2  port left ");
    EXPECT_TRUE(has(found, ": down, mtu 1500, " + network_.macAddress("left"))) << found;
    const Outcome outcome = portctl({"set", "slot2/left", "mtu", "1400"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("/chassis/slot2/left: down, mtu 1400\n", outcome.output);
    EXPECT_EQ(1400U, network_.mtu("left"));
    manager->expect("slot 2  port left changed: mtu 1500 -> 1400");
    watch->expect("slot 2  port left changed: mtu 1500 -> 1400");
    ASSERT_EQ("", network_.setMtu("left", 1300)); // by somebody else
    manager->expect("slot 2  port left changed: mtu 1400 -> 1300");
    watch->expect("slot 2  port left changed: mtu 1400 -> 1300");
}

TEST_F(Changes, ThatTheKernelRefusesAreExplainedInItsWords) {
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const Started manager = startManager();
    const Started agent = agentIn(network_, 2);
    const Outcome outcome = portctl({"set", "/chassis/slot2/left", "mtu", "50"});
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(0U, outcome.output.find("portctl: /chassis/slot2/left: refused by the kernel: ")) << outcome.output;
    EXPECT_TRUE(has(outcome.output, "mtu less than device minimum")) << outcome.output;
    EXPECT_TRUE(has(outcome.output, "Invalid argument")) << outcome.output;
    EXPECT_FALSE(has(outcome.output, "CAP_NET_ADMIN")) << outcome.output;
    EXPECT_EQ(1500U, network_.mtu("left"));
}

TEST_F(Changes, OfOneEndOfACableAreSeenAtTheOther) {
    Network other;
    ASSERT_EQ("", network_.addVeth("left", "right"));
    const Started manager = startManager();
    const Started second = agentIn(network_, 2);
    const Started third = agentIn(other, 3);
    manager->expectAll({"slot 2  port left created", "slot 2  port right created", agentOf(2), agentOf(3)});
    const Started watch = startWatch();
    watch->expectAll({"slot 2  port left ", "slot 2  port right ", agentOf(2), agentOf(3)});
    ASSERT_EQ("", network_.move("right", other));
    for (const Started *each : {&manager, &watch}) {
        (*each)->expectAll({"slot 2  port right deleted", "slot 3  port right created: down, mtu 1500"});
    }
    set("slot2/left", "up", "/chassis/slot2/left: up, mtu 1500\n");
    for (const Started *each : {&manager, &watch}) {
        (*each)->expect("slot 2  port left changed: admin down -> up");
    }
    set("slot3/right", "up", "/chassis/slot3/right: up, mtu 1500\n");
    for (const Started *each : {&manager, &watch}) {
        (*each)->expectAll({"slot 2  port left changed: oper ", "slot 3  port right changed: "});
    }
    set("slot3/right", "down", "/chassis/slot3/right: down, mtu 1500\n");
    for (const Started *each : {&manager, &watch}) {
        (*each)->expectAll({"slot 2  port left changed: oper up -> ", "slot 3  port right changed: admin up -> down"});
    }
}

TEST_F(Changes, InterfacesThatComeAndGoAreToldOfInTheirOrder) {
    const Started manager = startManager();
    const Started agent = agentIn(network_, 2);
    const Started watch = startWatch();
    manager->expect(agentOf(2));
    watch->expect(agentOf(2));
    for (const std::string name : {"one", "two"}) {
        ASSERT_EQ("", network_.add(name));
        ASSERT_EQ("", network_.remove(name));
    }
    for (const Started *each : {&manager, &watch}) {
        for (const char *text : {"port one created", "port one deleted", "port two created", "port two deleted"}) {
            (*each)->expect(std::string("slot 2  ") + text);
        }
    }
    ASSERT_EQ("", network_.add("before"));
    ASSERT_EQ("", network_.rename("before", "after"));
    for (const Started *each : {&manager, &watch}) {
        (*each)->expect("slot 2  port before created");
        (*each)->expect("slot 2  port before deleted");
        (*each)->expect("slot 2  port after created");
    }
    EXPECT_EQ(3, portctl({"show", "slot2/before"}).status);
    EXPECT_EQ(0, portctl({"show", "slot2/after"}).status);
}

TEST_F(Changes, OddNamesAreFoundAndDoNoHarm) {
    const std::string name = "x\x1b[7m";
    ASSERT_EQ("", network_.add(name));
    const Started manager = startManager();
    const Started agent = agentIn(network_, 2);
    manager->expect("slot 2  port x\\x1b[7m created");
    const Outcome tree = portctl({"tree"});
    EXPECT_TRUE(has(tree.output, "/chassis/slot2/x\\x1b[7m ")) << tree.output;
    const Outcome port = portctl({"show", "slot2/" + name});
    EXPECT_EQ(0, port.status);
    EXPECT_EQ(0U, port.output.find("/chassis/slot2/x\\x1b[7m: class Port")) << port.output;
    EXPECT_FALSE(has(tree.output + port.output + manager->output(), "\x1b"));
}

TEST_F(Changes, NothingIsLeftOfInterfacesThatGoWhileTheirAgentStarts) {
    const Started manager = startManager();
    const auto treeIs = [&](const std::string &counted) { // not at once: the last events are still on their way
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        do {
            manager->signal(SIGUSR1);
            if (manager->expect(" in ") == counted) {
                return true;
            }
        } while (std::chrono::steady_clock::now() < limit);
        return false;
    };
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 50; ++i) {
            ASSERT_EQ("", network_.add("d" + std::to_string(i)));
        }
        const Started agent = agentIn(network_, 2);
        for (int i = 0; i < 50; ++i) {
            ASSERT_EQ("", network_.remove("d" + std::to_string(i)));
        }
        EXPECT_TRUE(treeIs("1 port in 1 slot")) << manager->output();
        agent->signal(SIGTERM);
        EXPECT_EQ(0, agent->end());
        EXPECT_TRUE(treeIs("0 ports in 0 slots")) << manager->output();
    }
}

TEST_F(Changes, PortsWhoseInterfaceIsGoneAreLeftOutOrReported) {
    ASSERT_EQ("", network_.add("first"));
    ASSERT_EQ("", network_.add("second"));
    const Started manager = startManager();
    const Started agent = agentIn(network_, 2);
    Testing::Actor probe({unit_.directory(), {}}, 5);
    probe.ask("watch", "watching");
    EXPECT_EQ("", probe.expect("came 2"));
    probe.signal(SIGSTOP); // now the agent cannot end to tell of the first one, so it does not come to the second one
    ASSERT_EQ("", network_.remove("first"));
    ASSERT_EQ("", network_.remove("second"));
    const Outcome tree = portctl({"tree"});
    EXPECT_EQ(0, tree.status);
    EXPECT_FALSE(has(tree.output, "second")) << tree.output;
    EXPECT_TRUE(has(tree.output, "\n1 port in 1 slot\n")) << tree.output;
    const Outcome counters = portctl({"counters", "slot2"});
    EXPECT_EQ(0, counters.status);
    EXPECT_TRUE(has(counters.output, "/chassis/slot2/lo ")) << counters.output;
    EXPECT_FALSE(has(counters.output, "second")) << counters.output;
    for (const char *command : {"counters", "show"}) {
        const Outcome one = portctl({command, "slot2/second"});
        EXPECT_EQ(1, one.status) << command;
        EXPECT_EQ("portctl: /chassis/slot2/second: it has gone meanwhile. 'portctl tree' shows what is there\n",
                  one.output);
    }
}

TEST_F(Changes, TwoHundredInterfacesComeAndGoWithTheirAgent) {
    constexpr int kMany = 200;
    for (int i = 0; i < kMany; ++i) {
        ASSERT_EQ("", network_.add("d" + std::to_string(i)));
    }
    const Started manager = startManager();
    Started agent = agentIn(network_, 2);
    std::vector<std::string> created{"port lo created"};
    for (int i = 0; i < kMany; ++i) {
        created.push_back("port d" + std::to_string(i) + " created");
    }
    manager->expectAll(created);
    const Outcome tree = portctl({"tree"});
    EXPECT_TRUE(has(tree.output, "\n201 ports in 1 slot\n")) << tree.output;
    agent->kill();
    manager->expect("is gone, and with it 201 ports: d0, d1, d10, d100, d101, d102, ...");
    agent = agentIn(network_, 2);
    manager->expectAll(created);
    manager->signal(SIGUSR1);
    manager->expect("201 ports in 1 slot");
}

} // namespace
