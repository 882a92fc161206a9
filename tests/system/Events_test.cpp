#include "support/Deadline.h"
#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iterator>
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
        ids_[actor.get()] = actor->ask("orb 1", "orb ").substr(9);
        return actor;
    }
    const std::string &idOf(const Actor &actor) const { return ids_.at(&actor); }
    /** Returns when each has seen all others, and has subscribed at them to what it watches. */
    void meet(const std::vector<Actor *> &actors) const {
        for (const Actor *actor : actors) {
            for (const Actor *other : actors) {
                EXPECT_TRUE(actor == other || seen(*actor, idOf(*other)));
            }
        }
        // It is logged before that is done, but appearances are dealt with one after the other.
        const std::string last = actors.back()->probe(2);
        for (const Actor *actor : actors) {
            EXPECT_TRUE(seen(*actor, last));
        }
    }
    static bool seen(const Actor &actor, const std::string &id) { return actor.waitLog("sees 0x" + id + " appear\n"); }
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
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=5"}};
    std::map<const Actor *, std::string> ids_; // of their brokers
};

TEST_F(Events, ReachAllThatWatch) {
    const auto one = start(1);
    const auto two = start(2);
    const auto three = start(2);
    meet({one.get(), two.get(), three.get()});
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
    EXPECT_EQ(idOf(*two) + " appears", one->expect("broker "));
    create(*two, "first");
    EXPECT_EQ("first", one->expect("created "));
    two->kill();
    EXPECT_EQ(idOf(*two) + " disappears", one->expect("broker "));
    two = start(2);
    EXPECT_EQ(idOf(*two) + " appears", one->expect("broker "));
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
    meet({one.get(), two.get(), three.get()});
    two->ask("events watch", "events ");
    three->ask("events watch", "events ");
    two->kill();
    create(*one, "thing");
    EXPECT_EQ((Names{"thing"}), all(*three, "created"));
    erase(*one, "thing");
    EXPECT_EQ((Names{"thing"}), all(*three, "deleted"));
}

#if defined(REFLECTORB_SANITIZED) || !defined(__x86_64__)
constexpr unsigned kObjects = 100; // slower by far
#else
constexpr unsigned kObjects = 1000;
#endif
constexpr unsigned kActors = 5;

/** Objects come and go in five actors, watchers too, and agents die; each watcher is told exactly of what is made and
 *  deleted while it watches, in that order, before who made or deleted it goes on. */
class Model : public Events {
protected:
    Model() {
        for (unsigned i = 0; i < kActors; ++i) {
            actors.push_back(start(i + 1));
        }
        meetAll();
    }
    void meetAll() const {
        std::vector<Actor *> present;
        for (const auto &each : actors) {
            present.push_back(each.get());
        }
        meet(present);
    }
    /** All that watch have been told, and are told nothing else; not even by the end. */
    void expectTold(const std::string &what, const std::string &name) {
        for (unsigned i = 0; i < kActors; ++i) {
            if (watches[i]) {
                ASSERT_EQ(name, actors[i]->expect(what + " ")) << "actor " << i << ", step " << step;
            }
        }
    }
    void expectNothingElse() {
        for (const auto &actor : actors) {
            for (const char *what : {"created", "deleted"}) {
                ASSERT_EQ(Names{}, all(*actor, what)) << "step " << step;
            }
        }
    }
    void make(unsigned who) {
        const std::string name = "o" + std::to_string(++made);
        create(*actors[who], name);
        objects[who].insert(name);
        expectTold("created", name);
    }
    void remove(unsigned who) {
        if (objects[who].empty()) {
            return;
        }
        auto chosen = objects[who].begin();
        std::advance(chosen, random() % objects[who].size());
        const std::string name = *chosen;
        erase(*actors[who], name);
        objects[who].erase(name);
        ++deleted;
        expectTold("deleted", name);
    }
    void changeWatch(unsigned who, bool existing) {
        actors[who]->ask(watches[who] ? "events unwatch" : existing ? "events watchall" : "events watch", "events ");
        watches[who] = !watches[who];
        if (!watches[who] || !existing) {
            return;
        }
        Names expected;
        for (const Names &each : objects) {
            expected.insert(each.begin(), each.end());
        }
        Names told;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            told.insert(actors[who]->expect("created "));
        }
        ASSERT_EQ(expected, told) << "step " << step;
    }
    void restart(unsigned who) {
        expectNothingElse();
        actors[who]->kill();
        actors[who] = start(who + 1);
        lost += static_cast<unsigned>(objects[who].size());
        objects[who].clear();
        watches[who] = false;
        meetAll();
        const std::string count = std::to_string(std::count(watches.begin(), watches.end(), true));
        EXPECT_TRUE(actors[who]->askUntil("events subscribers", "events ", count + " " + count));
    }

    std::mt19937 random{20};
    std::vector<std::unique_ptr<Actor>> actors;
    std::vector<Names> objects{kActors};
    std::vector<bool> watches = std::vector<bool>(kActors);
    unsigned step = 0;
    unsigned made = 0;
    unsigned deleted = 0;
    unsigned lost = 0; // with their actor
};

TEST_F(Model, SaysWhatEachIsTold) {
    unsigned changes = 0;
    unsigned restarts = 0;
    while (!HasFatalFailure() && !HasNonfatalFailure() && (made < kObjects || made != deleted + lost)) {
        ++step;
        const unsigned who = random() % kActors;
        const unsigned dice = random() % 1000;
        if (dice < 500 && made < kObjects) {
            make(who);
        } else if (dice < 900) {
            remove(who);
        } else if (dice < 985) {
            changeWatch(who, dice % 2 == 0);
            ++changes;
        } else {
            restart(who);
            ++restarts;
        }
        if (step % 20 == 0) {
            expectNothingElse();
        }
    }
    expectNothingElse();
    EXPECT_EQ(kObjects, made);
    EXPECT_LT(kObjects / 2, deleted);
    EXPECT_LT(kObjects / 10, changes);
    EXPECT_LT(kObjects / 100, restarts);
    std::printf("%u objects, %u deleted, %u lost, %u changes of watchers, %u restarts\n", made, deleted, lost, changes,
                restarts);
}

/** Numbers of the objects, by who made them, in the order in which one was told of them. */
using Told = std::map<std::string, std::vector<unsigned>>;

/** Four actors make and delete objects at the same time, two watch all the time and two now and then, and one of those
 *  that make objects dies. */
class Crowd : public Events {
protected:
    static constexpr unsigned kMakers = 4;
    static constexpr unsigned kEach = kObjects / kMakers;
    using Lines = std::vector<std::string>;
    struct Place {
        std::size_t created = 0;
        std::size_t deleted = 0;
    };

    Crowd() {
        for (unsigned i = 0; i < kMakers; ++i) {
            makers.push_back(start(i + 1));
        }
        std::vector<Actor *> present;
        for (unsigned i = 0; i < 4; ++i) {
            watchers.push_back(start(i + 5));
            present.push_back(watchers.back().get());
        }
        for (const auto &maker : makers) {
            present.push_back(maker.get());
        }
        meet(present);
    }
    void beginToMake() {
        for (unsigned i = 0; i < kMakers; ++i) {
            makers[i]->ask("object churn m" + std::to_string(i) + "_ " + std::to_string(kEach), "object ");
        }
    }
    static Lines lines(Actor &watcher, const char *what) { return watcher.sofar(std::string(what) + " "); }
    static Place place(Actor &watcher) { return {lines(watcher, "created").size(), lines(watcher, "deleted").size()}; }
    static Told byMaker(const Lines &lines, std::size_t from, std::size_t to) {
        Told told;
        for (std::size_t i = from; i < to; ++i) {
            told[lines[i].substr(0, 2)].push_back(static_cast<unsigned>(std::stoul(lines[i].substr(3))));
        }
        return told;
    }
    /** In order, and without gaps but among those of each maker that come first. */
    static void expectInOrder(const Told &told, std::size_t mayHaveGaps) {
        for (const auto &[maker, numbers] : told) {
            for (std::size_t i = 1; i < numbers.size(); ++i) {
                ASSERT_LE(numbers[i - 1] + (i <= mayHaveGaps ? 0 : 1), numbers[i]) << maker;
                ASSERT_TRUE(i <= mayHaveGaps || numbers[i - 1] + 1 == numbers[i]) << maker << ' ' << numbers[i];
            }
        }
    }
    /** What one is told that watches from the start to the first place, and from each place to the next one. */
    static void expectPeriodsInOrder(Actor &watcher, const std::vector<Place> &ends) {
        const Lines created = lines(watcher, "created");
        const Lines deleted = lines(watcher, "deleted");
        Place begin;
        for (const Place &end : ends) {
            const bool first = begin.created == 0;
            // First of all may come what it was being told when it left before, and what was there when it came back.
            expectInOrder(byMaker(created, begin.created, end.created), first ? 0 : 2);
            expectInOrder(byMaker(deleted, begin.deleted, end.deleted), first ? 0 : 1);
            begin = end;
        }
        for (const auto &[maker, numbers] : byMaker(created, 0, ends.front().created)) {
            EXPECT_EQ(0U, numbers.front()) << maker << ", which had begun to make objects later";
        }
        // Then nothing, but what each of the makers was telling.
        Told rest = byMaker(created, begin.created, created.size());
        for (const auto &[maker, numbers] : byMaker(deleted, begin.deleted, deleted.size())) {
            rest[maker].insert(rest[maker].end(), numbers.begin(), numbers.end());
        }
        for (const auto &[maker, numbers] : rest) {
            EXPECT_GE(1U, numbers.size()) << maker;
        }
    }
    /** Up to the end; of the first one, which died, up to some event of the object that was worked at. */
    static void expectAll(Actor &watcher, std::size_t ofTheFirst) {
        for (const char *what : {"created", "deleted"}) {
            const Lines all = lines(watcher, what);
            const Told told = byMaker(all, 0, all.size());
            EXPECT_EQ(kMakers, told.size());
            expectInOrder(told, 0);
            for (const auto &[maker, numbers] : told) {
                EXPECT_EQ(0U, numbers.front()) << what << ' ' << maker;
                if (maker == "m0") {
                    EXPECT_LE(ofTheFirst, numbers.size()) << what;
                    EXPECT_GE(ofTheFirst + 1, numbers.size()) << what;
                } else {
                    EXPECT_EQ(maker == "m1" ? kEach + 1 : kEach, numbers.size()) << what << ' ' << maker;
                }
            }
        }
    }

    std::vector<std::unique_ptr<Actor>> makers;
    std::vector<std::unique_ptr<Actor>> watchers;
};

TEST_F(Crowd, IsToldInOrderAndWithoutGaps) {
    for (const auto &watcher : watchers) {
        watcher->ask("events watch", "events ");
    }
    beginToMake();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    std::map<Actor *, std::vector<Place>> ends;
    for (unsigned i = 0; i < 9; ++i) {
        for (unsigned late : {2U, 3U}) {
            Actor &watcher = *watchers[late];
            if (i == 0) {
                while (lines(watcher, "deleted").size() <= kMakers) {
                    ASSERT_NE(0, Testing::leftUntil(limit));
                }
            }
            EXPECT_EQ("ok", watcher.ask(i % 2 == 0 ? "events unwatch" : "events watchall", "events "));
            if (i % 2 == 0) {
                ends[&watcher].push_back(place(watcher));
            }
        }
    }
    const std::string middle = std::to_string(kEach / 2);
    while (makers[0]->expect("churned ") != middle) {
    }
    makers[0]->kill();
    const std::size_t known = kEach / 2 + 1 + makers[0]->last("churned ").size(); // of which the last may be over
    for (unsigned i = 1; i < kMakers; ++i) {
        while (makers[i]->expect("churned ") != std::to_string(kEach - 1)) {
        }
    }
    create(*makers[1], "m1_" + std::to_string(kEach)); // after all that
    erase(*makers[1], "m1_" + std::to_string(kEach));
    for (const auto &[watcher, places] : ends) {
        expectPeriodsInOrder(*watcher, places);
    }
    for (unsigned steady : {0U, 1U}) {
        expectAll(*watchers[steady], known);
    }
}

/** The broker that stops in the middle of being asked has not answered. */
TEST_F(Events, AWatcherThatLeavesReportsWhoDiedInstead) {
    const auto one = start(1);
    const auto three = start(2); // which is asked before the next one
    const auto two = start(2);
    meet({one.get(), two.get(), three.get()});
    one->ask("events watch", "events ");
    EXPECT_EQ("1 1", two->ask("events subscribers", "events "));
    two->signal(SIGSTOP);
    one->tell("events unwatch");
    EXPECT_TRUE(three->askUntil("events subscribers", "events ", "0 0"));
    two->kill();
    EXPECT_EQ("ok", one->expect("events "));
    const std::string id = idOf(*two);
    EXPECT_TRUE(one->waitLog("could not unregister from 0x" + id.substr(id.find_first_not_of('0')) + "\n"));
    create(*three, "thing");
    erase(*three, "thing");
    EXPECT_EQ(Names{}, all(*one, "created"));
    EXPECT_EQ(Names{}, all(*one, "deleted"));
}

} // namespace
