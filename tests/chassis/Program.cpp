#include "chassis/Program.h"

#include "support/Deadline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience{60};

} // namespace

ChassisUnit::ChassisUnit() {
    const std::string logs = temporary_.path() + "/root/ffs/run/logs";
    std::filesystem::create_directories(logs);
    std::ofstream(logs + "/orbWaitDuration") << "10\n";
}

std::vector<std::string> ChassisUnit::environment(unsigned slot) const {
    return {"REFLECTORB_UNIT_DIR=" + directory(), "REFLECTORB_SLOT=" + std::to_string(slot),
            "REFLECTORB_ROOT=" + temporary_.path() + "/root", "REFLECTORB_LOG=file:" + temporary_.path() + "/log"};
}

Program::Program(const ChassisUnit &unit, unsigned slot, std::vector<std::string> command)
    : process_(startProcess(command, unit.environment(slot), Errors::withOutput)) {
    if (process_.pid < 0) {
        ADD_FAILURE() << command[0] << " cannot be started";
        ended_ = true;
    }
}

Program::~Program() {
    kill();
    ::close(process_.input);
    ::close(process_.output);
}

bool Program::readMore(int milliseconds) {
    pollfd readable{process_.output, POLLIN, 0};
    if (ended_ || ::poll(&readable, 1, milliseconds) <= 0) {
        return false;
    }
    char buffer[4096];
    const ssize_t length = ::read(process_.output, buffer, sizeof buffer);
    if (length <= 0) {
        ended_ = true;
        return false;
    }
    output_.append(buffer, static_cast<std::size_t>(length));
    return true;
}

bool Program::nextLine(std::string &line) {
    const Clock::time_point limit = Clock::now() + kPatience;
    std::size_t newline = output_.find('\n', taken_);
    while (newline == std::string::npos) {
        if (!readMore(leftUntil(limit)) && (ended_ || leftUntil(limit) == 0)) {
            return false;
        }
        newline = output_.find('\n', taken_);
    }
    line = output_.substr(taken_, newline - taken_);
    taken_ = newline + 1;
    return true;
}

std::string Program::expect(const std::string &text) {
    for (std::string line; nextLine(line);) {
        if (line.find(text) != std::string::npos) {
            return line;
        }
    }
    ADD_FAILURE() << "process " << process_.pid << (ended_ ? " ended" : " went on") << " without '" << text << "':\n"
                  << output_;
    return "?";
}

void Program::expectAll(std::vector<std::string> texts) {
    for (std::string line; !texts.empty();) {
        if (!nextLine(line)) {
            ADD_FAILURE() << "process " << process_.pid << (ended_ ? " ended" : " went on") << " without '"
                          << texts.front() << "':\n"
                          << output_;
            return;
        }
        texts.erase(std::remove_if(texts.begin(), texts.end(),
                                   [&line](const std::string &text) { return line.find(text) != std::string::npos; }),
                    texts.end());
    }
}

void Program::signal(int number) const {
    if (process_.pid > 0) {
        signalProcess(process_.pid, number);
    }
}

int Program::end() {
    const Clock::time_point limit = Clock::now() + kPatience;
    while (readMore(leftUntil(limit)) || (!ended_ && leftUntil(limit) > 0)) {
    }
    if (!ended_ || process_.pid < 0) {
        kill();
        return -1;
    }
    const int status = awaitEnd(process_.pid);
    process_.pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Program::kill() {
    if (process_.pid > 0) {
        signal(SIGKILL);
        awaitEnd(process_.pid);
        process_.pid = -1;
    }
}

Outcome runProgram(const ChassisUnit &unit, unsigned slot, std::vector<std::string> command) {
    Program program(unit, slot, std::move(command));
    const int status = program.end();
    return {status, program.output()};
}

} // namespace Testing
