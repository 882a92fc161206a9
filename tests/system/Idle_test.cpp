#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fstream>
#include <map>
#include <poll.h>

namespace {

using Testing::Actor;

// Sanitizers have threads and memory of their own.
#ifndef REFLECTORB_SANITIZED

/** For each thread how often it was switched to. */
std::map<std::string, unsigned long> switches(pid_t pid) {
    std::map<std::string, unsigned long> counts;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    if (DIR *list = ::opendir(tasks.c_str())) {
        while (const dirent *entry = ::readdir(list)) {
            std::ifstream status(tasks + "/" + entry->d_name + "/status");
            for (std::string word; status >> word;) {
                if (word == "voluntary_ctxt_switches:" || word == "nonvoluntary_ctxt_switches:") {
                    unsigned long count = 0;
                    status >> count;
                    counts[entry->d_name] += count;
                }
            }
        }
        ::closedir(list);
    }
    return counts;
}

/** The actors are watched for two seconds in which nothing happens: no thread may run in that time. */
TEST(Idle, AnActorThatHasNothingToDoIsNeverWoken) {
    const Testing::TempDir directory;
    const Testing::Unit unit{directory.path() + "/unit", {}};
    Actor actor(unit);
    Actor other(unit, 2);
    const std::string id = actor.ask("orb 1", "orb ").substr(9);
    const std::string otherId = other.ask("orb 1", "orb ").substr(9);
    EXPECT_EQ("1", actor.ask("exists " + otherId, "exists "));
    std::map<std::string, unsigned long> before;
    std::map<std::string, unsigned long> after = switches(actor.pid());
    for (int tries = 0; tries < 20 && before != after; ++tries) { // what it still had to do at first
        before = after;
        ::poll(nullptr, 0, 100);
        after = switches(actor.pid());
    }
    ASSERT_EQ(before, after);
    ::poll(nullptr, 0, 2000);
    EXPECT_EQ(before, switches(actor.pid()));
    EXPECT_GE(before.size(), 3U) << "threads were counted";
}

TEST(Idle, AnActorThatOnlyMadeItsBrokerIsSmall) {
    const Testing::TempDir directory;
    const Testing::Unit unit{directory.path() + "/unit", {}};
    Actor actor(unit);
    actor.ask("orb 1", "orb ");
    const std::string figures = actor.ask("figures", "figures ");
    EXPECT_LE(std::stol(figures), 4);
    if (sizeof(void *) == 8) { // an emulated process counts its emulator
        EXPECT_LT(std::stol(figures.substr(figures.find(' '))), 6 * 1024);
    }
}

#endif

} // namespace
