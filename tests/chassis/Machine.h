#pragma once

#include "chassis/Program.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace Testing {

/** A unit whose agents publish the machine's own interfaces, of which "lo" is there everywhere. None is changed. */
class MachineTest : public testing::Test {
protected:
    using Started = std::unique_ptr<Program>;

    Started startManager() const {
        auto manager = std::make_unique<Program>(unit_, 1, std::vector<std::string>{CHASSIS_MANAGER});
        manager->expect("manager of /chassis ready");
        return manager;
    }
    /** `prefix`: a command that runs it. */
    Started launchAgent(unsigned slot, std::vector<std::string> prefix = {}) const {
        prefix.insert(prefix.end(), {PORT_AGENT, "--slot", std::to_string(slot)});
        return std::make_unique<Program>(unit_, slot, prefix);
    }
    /** One that has found the manager. */
    Started startAgent(unsigned slot, std::vector<std::string> prefix = {}) const {
        Started agent = launchAgent(slot, std::move(prefix));
        agent->expect("slot " + std::to_string(slot) + " is part of /chassis");
        return agent;
    }
    /** How one that watches tells of an agent. It does so when it has subscribed to all that happens there; the ports
     *  of an agent that was there before are "found", or "created" if it learns of that one only now. */
    static std::string agentOf(unsigned slot) {
        return "slot " + std::to_string(slot) + "  actor port_agent (broker 0x";
    }
    Outcome portctl(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), PORTCTL);
        return runProgram(unit_, 9, arguments);
    }
    static bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

    const ChassisUnit unit_;
};

} // namespace Testing
