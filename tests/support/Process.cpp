#include "support/Process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

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

} // namespace

Process startProcess(const std::vector<std::string> &command, const std::vector<std::string> &environment,
                     Errors errors) {
    std::vector<std::string> direct = command;
    std::vector<std::string> emulated{"qemu-arm-static", "-L", "/usr/arm-linux-gnueabihf"};
    emulated.insert(emulated.end(), command.begin(), command.end());
    std::vector<std::string> variables = childEnvironment(environment);
    const std::vector<char *> directArguments = pointers(direct);
    const std::vector<char *> emulatedArguments = pointers(emulated);
    const std::vector<char *> variablePointers = pointers(variables);

    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) {
        return {};
    }
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        return {};
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing is left behind by a test that crashes
        ::signal(SIGPIPE, SIG_DFL);
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        if (errors == Errors::withOutput) {
            ::dup2(out[1], STDERR_FILENO);
        }
        ::execve(directArguments[0], directArguments.data(), variablePointers.data());
        ::execvpe(emulatedArguments[0], emulatedArguments.data(), variablePointers.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (child < 0) {
        ::close(in[1]);
        ::close(out[0]);
        return {};
    }
    return {child, in[1], out[0]};
}

void signalProcess(pid_t pid, int number) {
    ::kill(pid, number);
    if (number == SIGSTOP) { // its threads run on until one of them takes the signal in
        siginfo_t stopped{};
        ::waitid(P_PID, static_cast<id_t>(pid), &stopped, WSTOPPED | WEXITED | WNOWAIT);
    }
}

int awaitEnd(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

} // namespace Testing
