#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>

namespace {

using Testing::Actor;
using Names = std::multiset<std::string>;

/** Actors that are told of objects that others make and delete. */
class Events : public testing::Test {
protected:
    std::unique_ptr<Actor> start(unsigned slot) {
        auto actor = std::make_unique<Actor>(unit_, slot);
        actor->ask("orb 1", "orb ");
        return actor;
    }
    /** When the others have seen it. */
    static void meet(const std::vector<Actor *> &actors) {
        for (Actor *actor : actors) {
            EXPECT_TRUE(actor->askUntil("events members", "events ", std::to_string(actors.size())));
        }
    }
    static void create(Actor &actor, const std::string &name) {
        EXPECT_EQ("created", actor.ask("object create " + name, "object "));
    }
    static void erase(Actor &actor, const std::string &name) {
        EXPECT_EQ("deleted", actor.ask("object delete " + name, "object "));
    }
    /** Since the actor was started. */
    static Names all(Actor &actor, const std::string &what) {
        const std::vector<std::string> lines = actor.sofar(what + " ");
        return Names(lines.begin(), lines.end());
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=4"}};
};

TEST_F(Events, ReachAllThatWatch) {
    const auto one = start(1);
    const auto two = start(2);
    const auto three = start(2);
    create(*one, "early");
    for (Actor *actor : {one.get(), two.get()}) {
        actor->ask("events watch", "events ");
    }
    three->ask("events watchall", "events ");
    EXPECT_EQ((Names{"early"}), all(*three, "created"));
    create(*two, "late");
    // Who makes an object goes on when all have been told.
    EXPECT_EQ((Names{"late"}), all(*one, "created"));
    EXPECT_EQ((Names{"late"}), all(*two, "created"));
    EXPECT_EQ((Names{"early", "late"}), all(*three, "created"));
    erase(*one, "early");
    for (Actor *actor : {one.get(), two.get(), three.get()}) {
        EXPECT_EQ((Names{"early"}), all(*actor, "deleted"));
    }
    two->ask("events unwatch", "events ");
    erase(*two, "late");
    EXPECT_EQ((Names{"early", "late"}), all(*one, "deleted"));
    EXPECT_EQ((Names{"early"}), all(*two, "deleted"));
    EXPECT_EQ((Names{"early", "late"}), all(*three, "deleted"));
}

TEST_F(Events, OfAnActorThatComesLaterAndOfOneThatComesBack) {
    const auto one = start(1);
    one->ask("events watch", "events ");
    one->ask("events brokers", "events ");
    auto two = start(2);
    const std::string id = one->expect("broker ");
    EXPECT_NE(std::string::npos, id.find(" appears")) << id;
    create(*two, "first");
    EXPECT_EQ("first", one->expect("created "));
    two->kill();
    const std::string gone = one->expect("broker ");
    EXPECT_NE(std::string::npos, gone.find(" disappears")) << gone;
    two = start(2);
    one->expect("broker ");
    create(*two, "second");
    EXPECT_EQ("second", one->expect("created "));
    erase(*two, "second");
    EXPECT_EQ("second", one->expect("deleted "));
    EXPECT_TRUE(all(*one, "created").empty()) << "each once";
}

TEST_F(Events, DoNotWaitForAWatcherThatWasKilled) {
    const auto one = start(1);
    const auto two = start(2);
    const auto three = start(2);
    two->ask("events watch", "events ");
    three->ask("events watch", "events ");
    two->kill();
    create(*one, "thing");
    EXPECT_EQ((Names{"thing"}), all(*three, "created"));
    erase(*one, "thing");
    EXPECT_EQ((Names{"thing"}), all(*three, "deleted"));
}

/** Objects come and go in five actors, watchers too, and agents die; at every point each watcher was told exactly of
 *  what was made and deleted while it watched. */
TEST_F(Events, AreThoseOfAModel) {
    constexpr unsigned kActors = 5;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr unsigned kSteps = 120;
#else
    constexpr unsigned kSteps = 1000;
#endif
    std::mt19937 random(20);
    std::vector<std::unique_ptr<Actor>> actors;
    std::vector<Names> objects(kActors);
    std::vector<bool> watches(kActors);
    std::map<std::string, std::vector<Names>> expected{{"created", std::vector<Names>(kActors)},
                                                       {"deleted", std::vector<Names>(kActors)}};
    for (unsigned i = 0; i < kActors; ++i) {
        actors.push_back(start(i + 1));
    }
    const auto tell = [&](const char *what, const std::string &name) {
        for (unsigned i = 0; i < kActors; ++i) {
            if (watches[i]) {
                expected[what][i].insert(name);
            }
        }
    };
    for (unsigned step = 0; step < kSteps; ++step) {
        const unsigned who = random() % kActors;
        const unsigned dice = random() % 100;
        Actor &actor = *actors[who];
        if (dice < 45) {
            const std::string name = "o" + std::to_string(step);
            create(actor, name);
            objects[who].insert(name);
            tell("created", name);
        } else if (dice < 85 && !objects[who].empty()) {
            const std::string name = *objects[who].begin();
            erase(actor, name);
            objects[who].erase(name);
            tell("deleted", name);
        } else if (dice < 98) {
            actor.ask(watches[who] ? "events unwatch" : "events watchall", "events ");
            watches[who] = !watches[who];
            for (unsigned i = 0; watches[who] && i < kActors; ++i) {
                expected["created"][who].insert(objects[i].begin(), objects[i].end());
            }
        } else {
            for (const char *what : {"created", "deleted"}) {
                EXPECT_EQ(expected[what][who], all(actor, what)) << what << " step " << step << " actor " << who;
                expected[what][who].clear();
            }
            actor.kill();
            actors[who] = start(who + 1);
            objects[who].clear();
            watches[who] = false;
            std::vector<Actor *> present;
            for (const auto &each : actors) {
                present.push_back(each.get());
            }
            // All have subscribed at the new one when their questions to it have been answered.
            meet(present);
            const std::string count = std::to_string(std::count(watches.begin(), watches.end(), true));
            EXPECT_TRUE(actors[who]->askUntil("events subscribers", "events ", count + " " + count));
        }
    }
    for (const char *what : {"created", "deleted"}) {
        for (unsigned i = 0; i < kActors; ++i) {
            EXPECT_EQ(expected[what][i], all(*actors[i], what)) << what << " actor " << i;
        }
    }
}

} // namespace
