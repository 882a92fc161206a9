#include "support/Scenario.h"

#include "support/Process.h"

#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

constexpr const char *kVariable = "REFLECTORB_TEST_SCENARIO";

std::map<std::string, Scenario::Body> &scenarios() {
    static std::map<std::string, Scenario::Body> all;
    return all;
}

std::string ownProgram() {
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

/** What the process writes until it and its children have closed the pipe, or the time is over. */
bool readAll(int descriptor, int timeoutSeconds, std::string &output) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now());
        pollfd readable{descriptor, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) == 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t length = ::read(descriptor, buffer, sizeof buffer);
        if (length <= 0) {
            return true;
        }
        output.append(buffer, static_cast<std::size_t>(length));
    }
}

} // namespace

Scenario::Scenario(const char *name, Body body) {
    scenarios()[name] = body;
}

bool Scenario::requested() {
    return std::getenv(kVariable) != nullptr;
}

int Scenario::runRequested() {
    const auto found = scenarios().find(std::getenv(kVariable));
    if (found == scenarios().end()) {
        std::fprintf(stderr, "no such scenario\n");
        return 126;
    }
    found->second();
    return 0;
}

void failScenario(const char *file, int line, const char *what) {
    std::printf("%s:%d: does not hold: %s\n", file, line, what);
    std::fflush(nullptr);
    ::_exit(99);
}

ProcessResult runScenario(const std::string &name, const std::vector<std::string> &environment, int timeoutSeconds) {
    ProcessResult result;
    std::vector<std::string> additions = environment;
    additions.push_back(std::string(kVariable) + "=" + name);
    const Process child = startProcess({ownProgram()}, additions, Errors::withOutput);
    if (child.pid < 0) {
        return result;
    }
    ::close(child.input);
    result.timedOut = !readAll(child.output, timeoutSeconds, result.output);
    if (result.timedOut) {
        ::kill(child.pid, SIGKILL);
    }
    const int status = awaitEnd(child.pid);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    ::close(child.output);
    return result;
}

} // namespace Testing
