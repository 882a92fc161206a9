#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <random>

namespace {

using Testing::Actor;
using Strings = std::vector<std::string>;

class Presence : public testing::Test {
protected:
    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {}};
};

TEST_F(Presence, AnActorThatExitsDisappears) {
    Actor observer(unit_);
    observer.probe();
    Actor other(unit_, 2);
    const std::string id = other.probe();
    observer.expect("appeared " + id);
    other.tell("exit 0");
    EXPECT_EQ(0, other.end());
    EXPECT_EQ("", observer.expect("disappeared " + id));
    EXPECT_EQ("0", observer.ask("exists " + id, "exists "));
}

TEST_F(Presence, AnActorThatStopsItsTerminationDisappearsAndLivesOn) {
    Actor observer(unit_);
    observer.probe();
    Actor other(unit_, 2);
    const std::string id = other.probe();
    observer.expect("appeared " + id);
    EXPECT_EQ("", other.ask("stop", "ok"));
    EXPECT_EQ("", observer.expect("disappeared " + id));
    EXPECT_EQ("list", "list" + other.ask("list 1", "list"));
    EXPECT_EQ("0", observer.ask("send " + id + " 10 1", "sent "));
}

TEST_F(Presence, AnActorThatIsKilledDisappears) {
    Actor observer(unit_);
    observer.probe();
    Actor other(unit_, 2);
    const std::string id = other.probe();
    observer.expect("appeared " + id);
    other.signal(SIGKILL);
    EXPECT_EQ(SIGKILL, other.end());
    EXPECT_EQ("", observer.expect("disappeared " + id));
}

TEST_F(Presence, AnActorThatCrashesDisappears) {
    Actor observer(unit_);
    observer.probe();
    Actor other(unit_, 2);
    const std::string id = other.probe();
    observer.expect("appeared " + id);
    other.tell("segv");
    EXPECT_NE(0, other.end());
    EXPECT_EQ("", observer.expect("disappeared " + id));
}

TEST_F(Presence, AnActorThatIsStoppedIsStillThereAndGoesOn) {
    Actor observer(unit_);
    const std::string observerId = observer.probe();
    Actor other(unit_, 2);
    const std::string id = other.probe();
    observer.expect("appeared " + id);
    other.signal(SIGSTOP);
    EXPECT_EQ("1", observer.ask("exists " + id, "exists "));
    EXPECT_EQ("50", observer.ask("send " + id + " 1000 50", "sent "));
    EXPECT_EQ(Strings{}, observer.sofar("disappeared"));
    other.signal(SIGCONT);
    EXPECT_EQ("", other.ask("await 50", "got"));
    EXPECT_EQ(" count 50 bytes 50000 errors 0", other.ask("tell", "from " + observerId));
    EXPECT_EQ(Strings{}, observer.sofar("disappeared"));
}

TEST_F(Presence, TheFilesOfAKilledActorDisturbNobodyAndGoAway) {
    {
        Actor victim(unit_);
        victim.probe();
    }                                                        // killed
    EXPECT_EQ(2U, Testing::filesIn(unit_.directory).size()); // its socket is still there, and the names
    Actor next(unit_, 2);
    const std::string id = next.probe();
    EXPECT_EQ(" " + id, next.ask("list 1", "list"));
    EXPECT_TRUE(Testing::waitForFiles(unit_.directory, 2)) << "the stale socket should have been removed";
    EXPECT_EQ("", next.ask("stop", "ok"));
    EXPECT_EQ((Strings{"names"}), Testing::filesIn(unit_.directory));
}

TEST_F(Presence, ARubbishFileInTheDirectoryDisturbsNobody) {
    Actor first(unit_);
    const std::string firstId = first.probe();
    std::ofstream(unit_.directory + "/a.00ff") << "no socket";
    std::ofstream(unit_.directory + "/a.zzzz") << "no name";
    std::ofstream(unit_.directory + "/something") << "else";
    Actor second(unit_, 2);
    const std::string secondId = second.probe();
    EXPECT_NE("failed", secondId);
    EXPECT_EQ("", first.expect("appeared " + secondId));
    EXPECT_EQ("1", second.ask("exists " + firstId, "exists "));
}

TEST_F(Presence, TwoUnitsOfOneHostDoNotSeeEachOther) {
    const Testing::Unit otherUnit{directory_.path() + "/other", {}};
    Actor here(unit_);
    const std::string hereId = here.probe();
    Actor there(otherUnit);
    const std::string thereId = there.probe();
    Actor alsoHere(unit_, 2);
    const std::string alsoHereId = alsoHere.probe();
    EXPECT_EQ("", here.expect("appeared " + alsoHereId));
    EXPECT_EQ((Strings{hereId}), here.sofar("appeared "));
    EXPECT_EQ((Strings{thereId}), there.sofar("appeared "));
    EXPECT_EQ(" " + thereId, there.ask("list 1", "list"));
}

TEST_F(Presence, EveryActorListsTheSameAndAnActorThatCameLaterKnowsAllAtOnce) {
    std::vector<std::unique_ptr<Actor>> actors;
    std::vector<std::string> ids;
    for (unsigned slot = 1; slot <= 6; ++slot) {
        actors.push_back(std::make_unique<Actor>(unit_, slot));
        ids.push_back(actors.back()->probe(1));
        std::string expected;
        std::vector<std::string> sorted = ids;
        std::sort(sorted.begin(), sorted.end());
        for (const std::string &id : sorted) {
            expected += " " + id;
        }
        EXPECT_TRUE(actors.back()->askUntil("list 1", "list", expected)) << expected;
        EXPECT_EQ("", actors.back()->ask("list 2", "list"));
    }
    for (const auto &actor : actors) {
        for (const std::string &id : ids) {
            actor->expect("appeared " + id);
        }
        EXPECT_EQ(actors.back()->ask("list 1", "list"), actor->ask("list 1", "list"));
    }
}

TEST_F(Presence, ItsOwnTerminationAppearsFirstThenThePresentOnesInOrder) {
    Actor a(unit_);
    Actor b(unit_);
    const std::string aId = a.probe();
    const std::string bId = b.probe();
    Actor c(unit_, 3);
    const std::string cId = c.probe();
    c.expect("appeared " + cId);
    // Had another one come before, it would still be among the lines.
    std::vector<std::string> rest{aId, bId};
    std::sort(rest.begin(), rest.end());
    c.expect("appeared " + rest[0]);
    c.expect("appeared " + rest[1]);

    Actor d(unit_, 4);
    const std::string dId = d.probe();
    std::vector<std::string> present{aId, bId, cId};
    std::sort(present.begin(), present.end());
    d.expect("appeared " + present[2]); // the last one, so all are read now
    EXPECT_EQ((Strings{dId, present[0], present[1]}), d.sofar("appeared "));
}

/** Starts, kills and exits at random; every observer is told each appearance and each disappearance exactly once. */
TEST_F(Presence, TwoHundredStartsAndEndsInRandomOrderLeaveNothingBehind) {
    std::mt19937 random(20260131);
    Actor observer(unit_);
    observer.probe();
    std::vector<std::unique_ptr<Actor>> alive;
    std::vector<std::string> ids;
    Strings told{observer.expect("appeared ")};
    int started = 0;
    while (started < 200 || !alive.empty()) {
        if (started < 200 && (alive.empty() || (alive.size() < 6 && random() % 2 == 0))) {
            alive.push_back(std::make_unique<Actor>(unit_, 1 + random() % 4));
            ids.push_back(alive.back()->probe(1 + random() % 3));
            ASSERT_EQ("", observer.expect("appeared " + ids.back())) << "start " << started;
            ++started;
            continue;
        }
        const auto chosen = static_cast<std::ptrdiff_t>(random() % alive.size());
        Actor &victim = *alive[static_cast<std::size_t>(chosen)];
        if (random() % 3 == 0) {
            victim.tell("exit 0");
            EXPECT_EQ(0, victim.end());
        } else {
            victim.kill();
        }
        ASSERT_EQ("", observer.expect("disappeared " + ids[static_cast<std::size_t>(chosen)]));
        alive.erase(alive.begin() + chosen);
        ids.erase(ids.begin() + chosen);
    }
    EXPECT_EQ(Strings{}, observer.sofar("appeared"));
    EXPECT_EQ(Strings{}, observer.sofar("disappeared"));
    EXPECT_EQ(Strings{}, observer.sofar("bounced"));
    EXPECT_EQ("", observer.ask("stop", "ok"));
    EXPECT_EQ((Strings{"names"}), Testing::filesIn(unit_.directory));
}

TEST_F(Presence, TheSocketOfAKilledActorGoesWhileOthersLive) {
    Actor observer(unit_);
    observer.probe();
    for (int i = 0; i < 20; ++i) {
        Actor victim(unit_, 2);
        const std::string id = victim.probe();
        observer.expect("appeared " + id);
        victim.kill();
        observer.expect("disappeared " + id);
        EXPECT_TRUE(Testing::waitForFiles(unit_.directory, 2)) << "round " << i;
    }
}

TEST_F(Presence, ARestartedActorHasAnotherIdEachTime) {
    Actor observer(unit_);
    observer.probe();
    std::map<std::string, int> seen;
    for (int i = 0; i < 100; ++i) {
        Actor actor(unit_, 2);
        ++seen[actor.probe()];
    }
    EXPECT_EQ(100U, seen.size());
}

TEST_F(Presence, ActorsThatStartAtOnceAllSeeEachOther) {
    for (int round = 0; round < 25; ++round) {
        std::vector<std::unique_ptr<Actor>> actors;
        for (unsigned slot = 1; slot <= 4; ++slot) {
            actors.push_back(std::make_unique<Actor>(unit_, slot));
        }
        for (const auto &actor : actors) {
            actor->tell("probe 1");
        }
        Strings ids;
        for (const auto &actor : actors) {
            ids.push_back(actor->expect("probe "));
        }
        // All have started, so each knows all now, unless the machine was too busy for them to hear of each other in
        // time.
        for (const auto &actor : actors) {
            for (const std::string &id : ids) {
                EXPECT_TRUE(actor->askUntil("exists " + id, "exists ", "1")) << "round " << round;
            }
        }
    }
}

} // namespace
