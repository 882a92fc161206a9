#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;
using Testing::Actor;

/** What an actor finds under its root: the launcher of the diagnostic script, which notes how it was started, and how
 *  long to wait; null for no such file. */
class Root {
public:
    explicit Root(const char *minutes) {
        fs::create_directories(path() + "/ffs/run/logs");
        fs::create_directories(path() + "/opt/zef/bin");
        const std::string launcher = path() + "/opt/zef/bin/llpd";
        std::ofstream(launcher) << "#!/bin/sh\necho \"$# $1\" >>" << path() << "/started\n";
        fs::permissions(launcher, fs::perms::owner_all);
        if (minutes != nullptr) {
            std::ofstream(path() + "/ffs/run/logs/orbWaitDuration") << minutes;
        }
    }
    const std::string &path() const { return directory_.path(); }
    std::string variable() const { return "REFLECTORB_ROOT=" + path(); }
    /** How often the script was started, as soon as it was. */
    std::string starts() const {
        std::string line;
        for (int tries = 0; tries < 6000 && line.empty(); ++tries) {
            std::ifstream file(path() + "/started");
            std::getline(file, line);
            ::poll(nullptr, 0, line.empty() ? 10 : 0); // a file cannot be waited for
        }
        std::ostringstream rest;
        rest << std::ifstream(path() + "/started").rdbuf();
        return rest.str();
    }
    std::string oneStart() const { return "1 " + path() + "/opt/zef/bin/debug_orbhang.sh\n"; }

private:
    const Testing::TempDir directory_;
};

constexpr char kReplaced[] = "ORB Wait duration should be >= 10 andmultiple of 5. Taking default value of 10";

/** Where this line begins in the log, npos if it is not there exactly once. */
std::size_t once(const std::string &log, int level, const std::string &text) {
    std::size_t found = std::string::npos;
    for (std::size_t at = log.find("] " + text + "\n"); at != std::string::npos;
         at = log.find("] " + text + "\n", at + 1)) {
        const std::size_t begin = log.rfind('\n', at) + 1; // 0 for the first line
        const std::string head = log.substr(begin, at - begin);
        if (head.find(" " + std::to_string(level) + " REFLECT_orb ") == std::string::npos ||
            found != std::string::npos) {
            return std::string::npos;
        }
        found = begin;
    }
    return found;
}

std::size_t occurrences(const std::string &text, const std::string &what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

/** Calls wait for an actor that stands still. The clocks of the callers run fast. */
class Hang : public testing::Test {
protected:
    void SetUp() override {
        targetId_ = target_.ask("orb 1", "orb ").substr(9);
        target_.ask("serve thing", "serves ");
    }
    /** With a handle of what it is going to call. */
    std::unique_ptr<Actor> caller(unsigned slot, const Root &root, int scale) {
        auto actor = std::make_unique<Actor>(
            unit_, slot, std::vector<std::string>{root.variable(), "REFLECTORB_TIME_SCALE=" + std::to_string(scale)});
        callerId_ = actor->ask("orb 1", "orb ").substr(9);
        EXPECT_EQ("1", actor->ask("keep thing", "kept "));
        return actor;
    }
    static void call(Actor &actor) { actor.ask("begin kept thing 1", "begun"); }
    static bool aborted(Actor &actor) {
        const int status = actor.end();
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    }
    std::string secondsLine(int seconds) const {
        char text[128];
        std::snprintf(text, sizeof text, "ORB 0x%s waits now %3d seconds for response from 0x%s", callerId_.c_str(),
                      seconds, targetId_.c_str());
        return text;
    }
    std::string minutesLine(int minutes) const {
        return "ORB Ox" + callerId_ + " waits now " + std::to_string(minutes) + " minutes for 0x" + targetId_;
    }
    static std::vector<std::string> resetLines(const std::string &id) {
        return {"ORB 0x" + id + " requests UNIT RESET", "ORB 0x" + id + " failed to reset unit, EXIT ACTOR"};
    }
    static void hasReset(const std::string &log, const std::string &id) {
        EXPECT_NE(std::string::npos, once(log, 5, resetLines(id)[0])) << log;
        EXPECT_NE(std::string::npos, once(log, 0, resetLines(id)[1])) << log;
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor target_{unit_, 2};
    std::string targetId_;
    std::string callerId_; // of the last one made
};

TEST_F(Hang, InAnotherSlotIsReportedInStepsAndEndsBothUnits) {
    const Root root("10\n");
    const std::unique_ptr<Actor> client = caller(1, root, 200);
    target_.signal(SIGSTOP);
    call(*client);
    EXPECT_TRUE(aborted(*client));
    const std::string log = client->log();

    std::size_t last = 0;
    for (int seconds = 30; seconds <= 600; seconds += 30) {
        const std::size_t at = once(log, 4, secondsLine(seconds));
        ASSERT_NE(std::string::npos, at) << seconds << "\n" << log;
        EXPECT_LE(last, at);
        const std::size_t described = log.find("]     ReflMsg output: tPayld, kRequ.(kRequ.), des=" + targetId_, at);
        EXPECT_NE(std::string::npos, described) << seconds;
        last = described;
    }
    EXPECT_EQ(20U, occurrences(log, " waits now ") - occurrences(log, " minutes for "));
    const std::size_t script = once(log, 3, "Triggered debug_orbhang.sh at 210 seconds");
    EXPECT_LT(once(log, 4, secondsLine(210)), script);
    EXPECT_LT(script, once(log, 4, secondsLine(240)));
    EXPECT_EQ(root.oneStart(), root.starts());

    const std::string told = minutesLine(5) + ", sending response failure message succeeded";
    EXPECT_EQ(2U, occurrences(log, "] " + told + "\n")) << log;
    EXPECT_LT(once(log, 4, secondsLine(300)), log.find(told));
    EXPECT_LT(log.rfind(told), once(log, 4, secondsLine(360)));
    EXPECT_NE(std::string::npos, once(log, 0, minutesLine(10))) << log;
    hasReset(log, callerId_);

    target_.signal(SIGCONT); // it finds what it was told
    EXPECT_TRUE(aborted(target_));
    EXPECT_NE(std::string::npos,
              once(target_.log(), 0, "ORB 0x" + targetId_ + " received response failure message from 0x" + callerId_))
        << target_.log();
    hasReset(target_.log(), targetId_);
}

TEST_F(Hang, InTheOwnSlotEndsTheCallerOnly) {
    const Root root("10\n");
    const std::unique_ptr<Actor> client = caller(2, root, 200);
    target_.signal(SIGSTOP);
    call(*client);
    EXPECT_TRUE(aborted(*client));
    EXPECT_EQ(1U, occurrences(client->log(), " minutes for ")) << client->log();
    EXPECT_NE(std::string::npos, once(client->log(), 0, minutesLine(10))) << client->log();
    hasReset(client->log(), callerId_);
    EXPECT_EQ(root.oneStart(), root.starts());

    target_.signal(SIGCONT);
    Actor other(unit_, 1);
    other.ask("orb 1", "orb ");
    EXPECT_EQ("20 of 20", other.ask("call addone thing 20", "called "));
}

TEST_F(Hang, OfATargetThatGoesOnEndsWithItsAnswer) {
    const Root root("600\n"); // the end is far away, should this machine be slow
    const std::unique_ptr<Actor> client = caller(1, root, 200);
    target_.signal(SIGSTOP);
    call(*client);
    EXPECT_TRUE(client->waitLog(secondsLine(240)));
    target_.signal(SIGCONT);
    EXPECT_EQ("1 of 1", client->ask("join", "called "));
    EXPECT_EQ(root.oneStart(), root.starts());
    EXPECT_EQ(0U, occurrences(client->log(), " minutes for ")) << client->log();
    EXPECT_EQ(0U, occurrences(client->log(), "unexpected response")) << client->log();
    EXPECT_EQ("20 of 20", client->ask("call addone thing 20", "called "));
}

TEST_F(Hang, EndsAfterTheDurationThatTheFileSays) {
    struct Form {
        const char *content;
        int minutes;
        bool replaced;
    };
    constexpr Form kForms[] = {{"12", 10, true},  {"5", 10, true},      {"", 10, true},   {"-1", 10, true},
                               {"15", 15, false}, {nullptr, 10, false}, {"20", 20, false}};
    std::vector<std::unique_ptr<Root>> roots;
    std::vector<std::unique_ptr<Actor>> clients;
    std::vector<std::string> ids;
    for (const Form &form : kForms) {
        roots.push_back(std::make_unique<Root>(form.content));
        clients.push_back(caller(1, *roots.back(), 200));
        ids.push_back(callerId_);
    }
    target_.signal(SIGSTOP);
    for (const auto &client : clients) {
        call(*client);
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        const Form &form = kForms[i];
        EXPECT_TRUE(aborted(*clients[i])) << i;
        const std::string log = clients[i]->log();
        callerId_ = ids[i];
        EXPECT_EQ(form.replaced ? 1U : 0U, occurrences(log, "Wait duration")) << i << log;
        EXPECT_EQ(form.replaced, once(log, 4, kReplaced) != std::string::npos) << i << log;
        EXPECT_EQ(2U,
                  occurrences(log, minutesLine(form.minutes - 5) + ", sending response failure message succeeded\n"))
            << i << log;
        EXPECT_NE(std::string::npos, once(log, 4, secondsLine(form.minutes * 60))) << i << log;
        EXPECT_EQ(3U, occurrences(log, " minutes for ")) << i << log;
        EXPECT_NE(std::string::npos, once(log, 0, minutesLine(form.minutes))) << i << log;
        hasReset(log, ids[i]);
    }
}

} // namespace
