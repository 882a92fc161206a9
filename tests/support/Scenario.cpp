#include "support/Scenario.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
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

std::vector<char *> pointers(std::vector<std::string> &strings) {
    std::vector<char *> result;
    for (std::string &string : strings) {
        result.push_back(string.data());
    }
    result.push_back(nullptr);
    return result;
}

/** The environment of the child: this one's, without what the additions replace. */
std::vector<std::string> childEnvironment(const std::vector<std::string> &additions) {
    std::vector<std::string> result = additions;
    for (char **variable = environ; *variable != nullptr; ++variable) {
        const std::string entry = *variable;
        const std::string name = entry.substr(0, entry.find('=') + 1);
        const bool replaced = std::any_of(additions.begin(), additions.end(), [&name](const std::string &addition) {
            return addition.compare(0, name.size(), name) == 0;
        });
        if (!replaced) {
            result.push_back(entry);
        }
    }
    return result;
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

ProcessResult runScenario(const std::string &name, const std::vector<std::string> &environment, int timeoutSeconds) {
    ProcessResult result;
    std::vector<std::string> additions = environment;
    additions.push_back(std::string(kVariable) + "=" + name);
    std::vector<std::string> variables = childEnvironment(additions);
    std::vector<std::string> direct{ownProgram()};
    std::vector<std::string> emulated{"qemu-arm-static", "-L", "/usr/arm-linux-gnueabihf", direct[0]};
    const std::vector<char *> directArguments = pointers(direct);
    const std::vector<char *> emulatedArguments = pointers(emulated);
    const std::vector<char *> variablePointers = pointers(variables);

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return result;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
        ::execve(directArguments[0], directArguments.data(), variablePointers.data());
        ::execvpe(emulatedArguments[0], emulatedArguments.data(), variablePointers.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    if (child > 0) {
        result.timedOut = !readAll(ends[0], timeoutSeconds, result.output);
        if (result.timedOut) {
            ::kill(child, SIGKILL);
        }
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    ::close(ends[0]);
    return result;
}

} // namespace Testing
