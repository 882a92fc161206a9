/*
 * Runs a small unit: three actors in two slots. They find each other, exchange greetings, one of them is killed, and
 * the others report how long it took them to notice. Exit status 0 if all of that happened.
 */
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <poll.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience{8};

struct Member {
    Member(std::string itsName, int itsSlot) : name(std::move(itsName)), slot(itsSlot) {}

    std::string name;
    int slot;
    pid_t pid = -1;
    int input = -1;
    int output = -1;
    std::string unread;
    std::string broker;
    std::set<std::string> sees;
    std::set<std::string> greetedBy;
    std::map<std::string, long long> gone; // broker -> when it was noticed, in ns
    std::string answer;                    // of its last call
    double answerTook = 0;                 // in us
    long long failedAt = 0;                // its last call, in ns; 0 if it did not
    bool thinking = false;                 // a call of its object is under way
    bool counted = false;
};

class Unit {
public:
    explicit Unit(std::string actorProgram) : program_(std::move(actorProgram)) {}
    ~Unit();

    bool run();

private:
    bool makeDirectory();
    bool start(Member &member);
    void readFrom(Member &member);
    void took(Member &member, const std::string &line);
    bool waitUntil(const char *what, const std::function<bool()> &condition);
    static void tell(Member &member, const std::string &command);
    bool callObjects();
    bool killAndWatch(Member &victim);
    bool showCounters();
    bool end();
    std::vector<std::string> socketsLeft() const;

    const std::string program_;
    std::string directory_;
    std::deque<Member> members_;
};

Unit::~Unit() {
    for (const Member &member : members_) {
        if (member.pid > 0) {
            ::kill(member.pid, SIGKILL);
            ::waitpid(member.pid, nullptr, 0);
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

/** For the sockets of the unit, and for the one file that each broker reads: how many minutes a call may take. */
bool Unit::makeDirectory() {
    directory_ = (std::filesystem::temp_directory_path() / "greeting-XXXXXX").string();
    if (::mkdtemp(directory_.data()) == nullptr) {
        return false;
    }
    const std::string logs = directory_ + "/root/ffs/run/logs";
    std::error_code problem;
    std::filesystem::create_directories(logs, problem);
    std::ofstream(logs + "/orbWaitDuration") << "10\n";
    return !problem;
}

std::vector<std::string> Unit::socketsLeft() const {
    std::vector<std::string> sockets;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(directory_ + "/unit", ignored)) {
        if (entry.is_socket()) {
            sockets.push_back(entry.path().filename());
        }
    }
    return sockets;
}

bool Unit::start(Member &member) {
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        return false;
    }
    member.pid = ::fork();
    if (member.pid == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::setenv("REFLECTORB_UNIT_DIR", (directory_ + "/unit").c_str(), 1);
        ::setenv("REFLECTORB_SLOT", std::to_string(member.slot).c_str(), 1);
        ::setenv("REFLECTORB_ACTOR", member.name.c_str(), 1);
        ::setenv("REFLECTORB_ROOT", (directory_ + "/root").c_str(), 1);
        ::execl(program_.c_str(), program_.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    member.input = in[1];
    member.output = out[0];
    return member.pid > 0;
}

void Unit::readFrom(Member &member) {
    char buffer[1024];
    const ssize_t length = ::read(member.output, buffer, sizeof buffer);
    if (length <= 0) {
        ::close(member.output);
        member.output = -1;
        return;
    }
    member.unread.append(buffer, static_cast<std::size_t>(length));
    for (std::size_t end = member.unread.find('\n'); end != std::string::npos; end = member.unread.find('\n')) {
        took(member, member.unread.substr(0, end));
        member.unread.erase(0, end + 1);
    }
}

void Unit::took(Member &member, const std::string &line) {
    std::istringstream words(line);
    std::string what;
    std::string whom;
    words >> what >> whom;
    if (what == "broker") {
        member.broker = whom;
        std::printf("  %-5s (slot %d): made its broker, %s\n", member.name.c_str(), member.slot, whom.c_str());
    } else if (what == "sees") {
        member.sees.insert(whom);
    } else if (what == "greeting") {
        member.greetedBy.insert(whom);
        std::printf("  %-5s (slot %d): got a message from '%s'\n", member.name.c_str(), member.slot, whom.c_str());
    } else if (what == "gone") {
        words >> member.gone[whom];
    } else if (what == "answer") {
        member.answerTook = static_cast<double>(std::stoll(whom)) / 1e3;
        std::getline(words >> std::ws, member.answer);
    } else if (what == "failed") {
        member.failedAt = std::stoll(whom);
    } else if (what == "thinking") {
        member.thinking = true;
    } else if (what == "counter") {
        std::string target;
        std::string requests;
        std::string failures;
        words >> target >> requests >> failures;
        std::printf("  %-5s made %s requests to %s, %s failed\n", whom.c_str(), requests.c_str(), target.c_str(),
                    failures.c_str());
    } else if (what == "counted") {
        member.counted = true;
    }
}

/** Takes what the actors say until the condition holds. */
bool Unit::waitUntil(const char *what, const std::function<bool()> &condition) {
    const Clock::time_point limit = Clock::now() + kPatience;
    while (!condition()) {
        std::vector<pollfd> readable;
        for (const Member &member : members_) {
            readable.push_back({member.output, POLLIN, 0}); // -1 is passed over
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
        if (left <= 0 || ::poll(readable.data(), readable.size(), static_cast<int>(left)) <= 0) {
            std::printf("  gave up waiting: %s\n", what);
            return false;
        }
        for (std::size_t i = 0; i < readable.size(); ++i) {
            if (readable[i].revents != 0) {
                readFrom(members_[i]);
            }
        }
    }
    return true;
}

void Unit::tell(Member &member, const std::string &command) {
    const std::string line = command + "\n";
    static_cast<void>(!::write(member.input, line.data(), line.size()));
}

/** One that succeeds, and one to an object that nobody has. */
bool Unit::callObjects() {
    Member &one = members_[0];
    tell(one, "call two");
    if (!waitUntil("for the answer of a call", [&one] { return !one.answer.empty(); })) {
        return false;
    }
    std::printf("  one   (slot 1): called the object 'two' by its name, got \"%s\" in %.0f us, the search included\n",
                one.answer.c_str(), one.answerTook);
    one.answer.clear();
    tell(one, "call nobody");
    if (!waitUntil("for a call to fail", [&one] { return one.failedAt != 0; })) {
        return false;
    }
    one.failedAt = 0;
    std::printf("  one   (slot 1): called an object 'nobody' that nobody has: the call failed, as it should\n");
    tell(one, "wait two");
    return waitUntil("for a call to arrive", [this] { return members_[1].thinking; });
}

bool Unit::showCounters() {
    Member &three = members_[2];
    tell(three, "counters");
    return waitUntil("for the counters", [&three] { return three.counted; });
}

bool Unit::killAndWatch(Member &victim) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const long long killed = now.tv_sec * 1000000000LL + now.tv_nsec;
    ::kill(victim.pid, SIGKILL);
    ::waitpid(victim.pid, nullptr, 0);
    victim.pid = -1;
    const auto others = [&](const std::function<bool(Member &)> &holds) {
        for (Member &member : members_) {
            if (&member != &victim && !holds(member)) {
                return false;
            }
        }
        return true;
    };
    if (!waitUntil("for the news that the killed actor is gone",
                   [&] { return others([&](Member &member) { return member.gone.count(victim.broker) != 0; }); })) {
        return false;
    }
    if (!waitUntil("for the call to end", [this] { return members_[0].failedAt != 0; })) {
        return false;
    }
    std::printf("  one   (slot 1): its call of 'two' ended with a failure, %.2f ms after the kill\n",
                static_cast<double>(members_[0].failedAt - killed) / 1e6);
    return others([&](Member &member) {
        std::printf("  %-5s (slot %d): noticed that %s is gone, %.2f ms after the kill\n", member.name.c_str(),
                    member.slot, victim.broker.c_str(), static_cast<double>(member.gone[victim.broker] - killed) / 1e6);
        return true;
    });
}

bool Unit::end() {
    bool good = true;
    for (Member &member : members_) {
        ::close(member.input); // which tells it to end
    }
    const bool ended = waitUntil("for the actors to end", [this] {
        for (const Member &member : members_) {
            if (member.output >= 0) {
                return false;
            }
        }
        return true;
    });
    for (Member &member : members_) {
        if (ended && member.pid > 0) {
            int status = 0;
            ::waitpid(member.pid, &status, 0);
            member.pid = -1;
            good = good && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
    }
    return ended && good;
}

bool Unit::run() {
    if (!makeDirectory()) {
        std::printf("no temporary directory\n");
        return false;
    }
    std::printf("Three actors start, two in slot 1 and one in slot 2. There is no daemon.\n");
    for (const auto &[name, slot] : {std::pair<const char *, int>{"one", 1}, {"two", 1}, {"three", 2}}) {
        members_.emplace_back(name, slot);
        if (!start(members_.back())) {
            return false;
        }
    }
    const auto complete = [this] {
        for (const Member &member : members_) {
            for (const Member &other : members_) {
                if (other.broker.empty() || member.sees.count(other.broker) == 0 ||
                    (&other != &member && member.greetedBy.count(other.name) == 0)) {
                    return false;
                }
            }
        }
        return true;
    };
    if (!waitUntil("for the actors to find and greet each other", complete)) {
        return false;
    }
    std::printf("Each sees the brokers of the others and has a message from each.\n");
    std::printf("Remote calls:\n");
    if (!callObjects()) {
        return false;
    }
    std::printf("Now 'two' is killed with SIGKILL, in the middle of a call. The kernel closes its connections:\n");
    if (!killAndWatch(members_[1])) {
        return false;
    }
    std::printf("'three' asks the brokers that are left for their counters:\n");
    if (!showCounters()) {
        return false;
    }
    if (!end()) {
        std::printf("an actor did not end as it should\n");
        return false;
    }
    const bool clean = socketsLeft().empty();
    std::printf(clean ? "The others have ended, and left no socket behind.\n" : "Sockets were left behind.\n");
    return clean;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: greeting_unit ACTOR-PROGRAM\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Unit unit(argv[1]);
    return unit.run() ? 0 : 1;
}
