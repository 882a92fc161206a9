#pragma once

#include "chassis/Network.h"
#include "chassis/Program.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace Testing {

/** Agents of slots whose interfaces are those of network namespaces that belong to the test. */
class AgentTest : public testing::Test {
protected:
    void SetUp() override { NEEDS(network_); }

    std::unique_ptr<Program> startAgent(unsigned slot = 2) { return startAgent(slot, network_); }
    /** Returns when it has published its interfaces. */
    std::unique_ptr<Program> startAgent(unsigned slot, const Network &network) const {
        network.enter();
        auto agent = std::make_unique<Program>(unit_, slot,
                                               std::vector<std::string>{PORT_AGENT, "--slot", std::to_string(slot)});
        agent->expect("slot " + std::to_string(slot) + " is published");
        return agent;
    }

    /** Returns when it has subscribed to all that happens in these slots, which have agents. */
    static void watch(Actor &probe, const std::vector<unsigned> &slots = {2}) {
        probe.ask("watch", "watching");
        for (const unsigned slot : slots) {
            EXPECT_EQ("", probe.expect("came " + std::to_string(slot)));
        }
    }

    Network network_;
    const ChassisUnit unit_;
    const Unit probes_{unit_.directory(), {}};
};

} // namespace Testing
