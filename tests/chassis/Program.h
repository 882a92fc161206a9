#pragma once

#include "support/Process.h"
#include "support/TempDir.h"

#include <string>
#include <vector>

namespace Testing {

/** A unit directory of the test's own, with what the brokers look for. */
class ChassisUnit {
public:
    ChassisUnit();

    /** For a process in a slot; its log goes to a file. */
    std::vector<std::string> environment(unsigned slot) const;
    std::string directory() const { return temporary_.path() + "/unit"; }

private:
    TempDir temporary_;
};

/** A program of the example. Killed, and waited for, at the end of the scope. */
class Program {
public:
    Program(const ChassisUnit &unit, unsigned slot, std::vector<std::string> command);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    /** The next line, standard error included, that has the text; those before it are passed over. Fails the test after
     *  60 s, or when the process has ended, and returns "?". */
    std::string expect(const std::string &text);
    /** The same until each of the texts was in a line, in whatever order they come. */
    void expectAll(std::vector<std::string> texts);
    void signal(int number) const;
    /** Waits for the end, at most 60 s: the exit status, 128 + signal if it was killed, -1 if it did not end. */
    int end();
    void kill();
    pid_t pid() const noexcept { return process_.pid; }
    /** All that it has written up to now, as far as it was read. */
    const std::string &output() const noexcept { return output_; }

private:
    bool readMore(int milliseconds);
    bool nextLine(std::string &line);

    Process process_;
    std::string output_;
    std::size_t taken_ = 0;
    bool ended_ = false;
};

struct Outcome {
    int status;
    std::string output; // with standard error
};
/** Runs a program to its end. */
Outcome runProgram(const ChassisUnit &unit, unsigned slot, std::vector<std::string> command);

} // namespace Testing
