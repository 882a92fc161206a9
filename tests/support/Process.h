#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace Testing {

/** A child process with pipes at its standard input and output. */
struct Process {
    pid_t pid = -1;
    int input = -1;  // writes to its standard input
    int output = -1; // reads its standard output
};

/** What a child writes to its error output. */
enum class Errors { withOutput, inherited };

/**
 * Starts a program, also one that needs the emulator which this process runs under. `environment` holds "NAME=value"s
 * that replace or add to those of this process. A process that could not be started has pid -1.
 */
Process startProcess(const std::vector<std::string> &command, const std::vector<std::string> &environment,
                     Errors errors);

/** To a child of this process; one that is to stop has stopped then. */
void signalProcess(pid_t pid, int number);

/** Waits for the end; the status as waitpid() gives it. */
int awaitEnd(pid_t pid);

} // namespace Testing
