#include "system/Actor.h"

#include "support/Deadline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience{60};

bool beginsWith(const std::string &line, const std::string &begin) {
    return line.compare(0, begin.size(), begin) == 0;
}

std::string freshLogPath(const Unit &unit) {
    static int count = 0;
    return unit.directory + ".log" + std::to_string(++count);
}

/** Where the brokers find the one file that they look for. */
std::string rootOf(const Unit &unit) {
    const std::string root = unit.directory + ".root";
    std::error_code exists;
    if (std::filesystem::create_directories(root + "/ffs/run/logs", exists)) {
        std::ofstream(root + "/ffs/run/logs/orbWaitDuration") << "10\n";
    }
    return root;
}

} // namespace

Actor::Actor(const Unit &unit, unsigned slot, const std::vector<std::string> &environment)
    : logPath_(freshLogPath(unit)) {
    std::vector<std::string> variables = environment; // of two with the same name the first counts
    variables.insert(variables.end(), unit.environment.begin(), unit.environment.end());
    variables.push_back("REFLECTORB_UNIT_DIR=" + unit.directory);
    variables.push_back("REFLECTORB_SLOT=" + std::to_string(slot));
    variables.push_back("REFLECTORB_LOG=file:" + logPath_);
    variables.push_back("REFLECTORB_ROOT=" + rootOf(unit));
    process_ = startProcess({SYSTEM_ACTOR}, variables, Errors::inherited);
    if (process_.pid < 0) {
        ADD_FAILURE() << "actor cannot be started";
        ended_ = true;
    }
}

Actor::~Actor() {
    kill();
    ::close(process_.input);
    ::close(process_.output);
}

void Actor::tell(const std::string &command) {
    static const auto before = ::signal(SIGPIPE, SIG_IGN); // one that has crashed fails the test, but does not end it
    static_cast<void>(before);
    const std::string line = command + "\n";
    if (::write(process_.input, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        ADD_FAILURE() << "actor " << process_.pid << " does not take '" << command << "'\nlog:\n" << log();
    }
}

bool Actor::readMore(int milliseconds) {
    pollfd readable{process_.output, POLLIN, 0};
    if (::poll(&readable, 1, milliseconds) <= 0) {
        return false;
    }
    char buffer[4096];
    const ssize_t length = ::read(process_.output, buffer, sizeof buffer);
    if (length <= 0) {
        ended_ = true;
        return false;
    }
    partial_.append(buffer, static_cast<std::size_t>(length));
    for (std::size_t newline = partial_.find('\n'); newline != std::string::npos; newline = partial_.find('\n')) {
        lines_.push_back(partial_.substr(0, newline));
        partial_.erase(0, newline + 1);
    }
    return true;
}

std::string Actor::expect(const std::string &begin) {
    const Clock::time_point limit = Clock::now() + kPatience;
    do {
        const auto found = std::find_if(lines_.begin(), lines_.end(),
                                        [&begin](const std::string &line) { return beginsWith(line, begin); });
        if (found != lines_.end()) {
            const std::string rest = found->substr(begin.size());
            lines_.erase(found);
            return rest;
        }
    } while (!ended_ && (readMore(leftUntil(limit)) || (!ended_ && Clock::now() < limit)));
    std::string said;
    for (const std::string &line : lines_) {
        said += line + "; ";
    }
    ADD_FAILURE() << "actor " << process_.pid << (ended_ ? " ended" : " said nothing") << ", expected '" << begin
                  << "', unread: " << said << "\nlog:\n"
                  << log();
    return "?";
}

std::string Actor::ask(const std::string &command, const std::string &answerBegin) {
    tell(command);
    return expect(answerBegin);
}

bool Actor::askUntil(const std::string &command, const std::string &answerBegin, const std::string &answer) {
    const Clock::time_point limit = Clock::now() + kPatience;
    while (ask(command, answerBegin) != answer) {
        if (ended_ || Clock::now() > limit) {
            return false;
        }
        ::poll(nullptr, 0, 5);
    }
    return true;
}

std::vector<std::string> Actor::sofar(const std::string &begin) {
    ask("figures", "figures");
    return unread(begin);
}

std::vector<std::string> Actor::last(const std::string &begin) {
    while (!ended_ && readMore(leftUntil(Clock::now() + kPatience))) {
    }
    return unread(begin);
}

std::vector<std::string> Actor::unread(const std::string &begin) const {
    std::vector<std::string> found;
    for (const std::string &line : lines_) {
        if (beginsWith(line, begin)) {
            found.push_back(line.substr(begin.size()));
        }
    }
    return found;
}

std::string Actor::probe(unsigned group) {
    return ask("probe " + std::to_string(group), "probe ");
}

void Actor::signal(int number) const {
    if (process_.pid > 0) {
        signalProcess(process_.pid, number);
    }
}

int Actor::end() {
    if (process_.pid <= 0) {
        return -1;
    }
    const Clock::time_point limit = Clock::now() + kPatience;
    while (!ended_ && Clock::now() < limit) {
        readMore(leftUntil(limit)); // its end of the pipe closes when it ends
    }
    if (!ended_) {
        kill();
        return -1;
    }
    const int status = awaitEnd(process_.pid);
    process_.pid = -1;
    return status;
}

void Actor::kill() {
    if (process_.pid > 0) {
        signal(SIGKILL);
        awaitEnd(process_.pid);
        process_.pid = -1;
    }
}

std::string Actor::log() const {
    std::ifstream file(logPath_);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool Actor::waitLog(const std::string &text) const {
    const Clock::time_point limit = Clock::now() + kPatience;
    while (log().find(text) == std::string::npos) {
        if (Clock::now() > limit) {
            return false;
        }
        ::poll(nullptr, 0, 5); // a file cannot be waited for
    }
    return true;
}

std::vector<std::string> filesIn(const std::string &directory) {
    std::vector<std::string> files;
    if (DIR *list = ::opendir(directory.c_str())) {
        while (const dirent *entry = ::readdir(list)) {
            if (entry->d_name[0] != '.') {
                files.emplace_back(entry->d_name);
            }
        }
        ::closedir(list);
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool waitForFiles(const std::string &directory, std::size_t count) {
    const Clock::time_point limit = Clock::now() + kPatience;
    while (filesIn(directory).size() != count) {
        if (Clock::now() > limit) {
            return false;
        }
        ::poll(nullptr, 0, 5); // a directory cannot be waited for
    }
    return true;
}

} // namespace Testing
