#pragma once

#include "support/Process.h"

#include <deque>
#include <string>
#include <vector>

namespace Testing {

/** The unit that the actors of a test belong to: a directory of their own, and what else they are started with. */
struct Unit {
    std::string directory;
    std::vector<std::string> environment; // for all actors, "NAME=value"
};

/**
 * One actor process, which obeys commands and tells what happens to it (see system/actor/Main.cpp). Killed, and waited
 * for, at the end of the scope.
 */
class Actor {
public:
    explicit Actor(const Unit &unit, unsigned slot = 1, const std::vector<std::string> &environment = {});
    ~Actor();
    Actor(const Actor &) = delete;
    Actor &operator=(const Actor &) = delete;

    void tell(const std::string &command);
    /** The next line that begins so, with what follows; lines before it stay for others. Fails the test after 60 s, or
     *  when the process has ended, and returns "?". */
    std::string expect(const std::string &begin);
    /** tell() and expect(). */
    std::string ask(const std::string &command, const std::string &answerBegin);
    /** Asks again until this is the answer; false after 60 s. */
    bool askUntil(const std::string &command, const std::string &answerBegin, const std::string &answer);
    /** Lines that begin so among those read and not yet expected, after everything was read that the actor has said
     *  before the answer to a command that it gets now. */
    std::vector<std::string> sofar(const std::string &begin);

    /** The same when the process has ended: of everything that it said. */
    std::vector<std::string> last(const std::string &begin);

    /** Starts a probe in the group; its id as eight digits. */
    std::string probe(unsigned group = 1);

    pid_t pid() const noexcept { return process_.pid; }
    void signal(int number) const;
    /** Waits for the end of the process, at most 60 s; its status as waitpid() gives it, -1 if it had to be killed. */
    int end();
    /** SIGKILL, and waits for the end. */
    void kill();
    /** What it logged so far. */
    std::string log() const;
    /** Waits until the log has this; false after 60 s. */
    bool waitLog(const std::string &text) const;

private:
    bool readMore(int milliseconds);
    std::vector<std::string> unread(const std::string &begin) const;

    Process process_;
    std::string logPath_;
    std::string partial_;
    std::deque<std::string> lines_;
    bool ended_ = false;
};

/** In alphabetical order. */
std::vector<std::string> filesIn(const std::string &directory);
/** Waits until so many are there; false after 60 s. */
bool waitForFiles(const std::string &directory, std::size_t count);

} // namespace Testing
