#include "support/TempDir.h"
#include "system/Actor.h"
#include "system/Counts.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <poll.h>
#include <vector>

namespace {

using Testing::Actor;
using Testing::Counts;

constexpr unsigned kActors = 5;
#if defined(REFLECTORB_SANITIZED)
constexpr unsigned kLeaves = 0;           // the sanitizers are slow
constexpr bool kMemoryIsMeasured = false; // and keep what is freed
#else
constexpr unsigned kLeaves = 4;
constexpr bool kMemoryIsMeasured = true;
#endif
constexpr long kMoreMemory = 4 * 1024; // KiB; a stub that is left for each object of one walk takes half of that

// See actor/Trees.h.
constexpr unsigned kBelowNode = 1 + 20 * (1 + kLeaves); // with the node itself
constexpr unsigned kAll = 1 + kActors * (1 + 20 * kBelowNode);
static_assert(kLeaves < 4 || kAll >= 10000);

constexpr unsigned kNone = kActors;

/** What a walk has to miss while an actor is not there: its objects, and, by way of the parents, all below those. */
unsigned lostWith(unsigned actor, const std::string &how) {
    const unsigned nodes = 20 / kActors; // of each actor in each branch
    if (how == "names") {
        return (actor == 0 ? 1 : 0) + 1 + kActors * nodes * kBelowNode;
    }
    return actor == 0 ? kAll : 1 + 20 * kBelowNode + (kActors - 1) * nodes * kBelowNode;
}

/** Actors that make one tree together, one of which is killed and started again now and then. */
class Tree : public testing::Test {
protected:
    Tree() {
        for (unsigned i = 0; i < kActors; ++i) {
            start(i);
        }
        awaitMembers(kActors);
        build(0);
    }
    static std::string ask(Actor &actor, const std::string &command) { return actor.ask("tree " + command, "tree "); }
    static std::string number(unsigned value) { return std::to_string(value); }

    void start(unsigned which) {
        actors_[which] = std::make_unique<Actor>(unit_, 1 + which);
        actors_[which]->ask("orb 1", "orb ");
        ask(*actors_[which], "plan " + number(which) + " " + number(kActors) + " " + number(kLeaves));
    }
    void forEach(const std::function<void(unsigned, Actor &)> &action) {
        for (unsigned i = 0; i < kActors; ++i) {
            if (actors_[i] != nullptr) {
                action(i, *actors_[i]);
            }
        }
    }
    static bool nobody(unsigned) { return false; }
    void awaitMembers(unsigned count, const std::function<bool(unsigned)> &except = nobody) {
        forEach([&](unsigned which, Actor &actor) {
            EXPECT_TRUE(except(which) || actor.askUntil("events members", "events ", number(count)));
        });
    }
    void kill(unsigned which) {
        actors_[which]->kill();
        actors_[which].reset();
    }
    /** What was lost with an actor; not what those make of it that are excepted. */
    void build(unsigned lost, const std::function<bool(unsigned)> &except = nobody) {
        if (lost == 0 && !except(0)) {
            EXPECT_EQ("made 1", ask(*actors_[0], "root"));
        }
        for (unsigned branch = 0; branch < kActors; ++branch) {
            if ((lost == 0 || branch == lost) && !except(branch)) {
                EXPECT_EQ("made 1", ask(*actors_[branch], "branch " + number(branch)));
            }
        }
        forEach([&](unsigned which, Actor &actor) {
            for (unsigned branch = 0; branch < kActors; ++branch) {
                if ((lost == 0 || lost == branch || lost == which) && !except(which)) {
                    EXPECT_EQ("made " + number(20 / kActors * kBelowNode), ask(actor, "nodes " + number(branch)));
                }
            }
        });
    }
    /** How an actor walks; the other way next time. Only `namer` asks for every object by its identifier, which its
     * owner searches for among all. */
    const char *way(unsigned which, unsigned namer) const {
        return which == namer ? "names" : (which + walks_) % 2 == 0 ? "child" : "childs";
    }
    /** All actors walk at once; `expected` for each way of walking. */
    void walk(unsigned namer, const std::string &state, const std::function<std::string(const char *)> &expected) {
        ++walks_;
        forEach([&](unsigned which, Actor &actor) {
            actor.tell("tree walk " + std::string(way(which, namer)) + " " + state);
        });
        forEach([&](unsigned which, Actor &actor) {
            EXPECT_EQ(expected(way(which, namer)), actor.expect("tree ")) << which << " " << state;
            EXPECT_TRUE(actor.sofar("wrong").empty()) << actor.sofar("wrong").front();
        });
    }
    void walkWhole(unsigned namer) {
        walk(namer, "up", [](const char *) { return "found " + number(kAll) + " missing 0 wrong 0"; });
    }
    void walkWithout(unsigned lost, unsigned namer) {
        walk(namer, "down " + number(lost), [lost](const char *how) {
            const unsigned missing = lostWith(lost, how);
            return "found " + number(kAll - missing) + " missing " + number(missing) + " wrong 0";
        });
    }
    /** Kills one while all walk and at least one is well on its way; they find what has nothing to do with it. */
    void killInWalk(unsigned victim, unsigned namer) {
        ++walks_;
        forEach([&](unsigned which, Actor &actor) {
            actor.tell("tree walk " + std::string(way(which, namer)) + " dying " + number(victim));
        });
        actors_[(victim + 1) % kActors]->expect("dying at " + number(kAll / 1000 * 100) + " of " + number(victim));
        kill(victim);
        forEach(
            [&](unsigned which, Actor &actor) { expectAtMostLost(actor, lostWith(victim, way(which, namer)), which); });
    }
    static void expectAtMostLost(Actor &actor, unsigned lost, unsigned which) {
        const std::string result = actor.expect("tree ");
        EXPECT_NE(std::string::npos, result.find(" wrong 0")) << which << " " << result;
        EXPECT_LE(Counts(result)["missing"], static_cast<long>(lost)) << which << " " << result;
        EXPECT_TRUE(actor.sofar("wrong").empty()) << actor.sofar("wrong").front();
    }
    /** Starts the killed one again, and has what was lost with it made anew, while two others walk; then all of it once
     *  more, with what those two had to make. */
    void comeBackInWalk(unsigned victim) {
        const std::array<unsigned, 2> walkers{(victim + 1) % kActors, (victim + 2) % kActors};
        for (const unsigned walker : walkers) {
            actors_[walker]->tell("tree walk names coming " + number(victim));
        }
        for (const unsigned walker : walkers) {
            actors_[walker]->expect("coming at 100 of " + number(victim));
        }
        start(victim);
        const auto isWalking = [&walkers](unsigned which) { return which == walkers[0] || which == walkers[1]; };
        awaitMembers(kActors, isWalking);
        build(victim, isWalking);
        for (const unsigned walker : walkers) {
            expectAtMostLost(*actors_[walker], lostWith(victim, "coming"), walker);
        }
        awaitMembers(kActors);
        build(victim);
    }

    static bool isAtRest(const Counts &counts) {
        return counts["pending"] == 0 && counts["queued"] == 0 && counts["idle"] <= 3 &&
               counts["handlers"] <= counts["idle"];
    }
    /** Workers end, and connections are closed, a little later. */
    static Counts rest(Actor &actor, const std::function<bool(const Counts &)> &isEnough) {
        for (unsigned tries = 0; tries < 6000; ++tries) {
            const Counts counts(actor.ask("counts", "counts "));
            if (isAtRest(counts) && isEnough(counts)) {
                return counts;
            }
            ::poll(nullptr, 0, 10);
        }
        const Counts counts(actor.ask("counts", "counts "));
        ADD_FAILURE() << counts.text;
        return counts;
    }
    static Counts rest(Actor &actor) {
        return rest(actor, [](const Counts &) { return true; });
    }
    /** Until it holds just what it held before. */
    static void expectAtRest(Actor &actor, const Counts &before) {
        SCOPED_TRACE(before.text);
        rest(actor, [&before](const Counts &counts) {
            return counts["stubs"] == before["stubs"] && counts["files"] == before["files"] &&
                   counts["threads"] - counts["idle"] == before["threads"] - before["idle"];
        });
    }
    static long memoryOf(Actor &actor) {
        const std::string figures = actor.ask("figures", "figures ");
        return std::strtol(figures.substr(figures.find(' ')).c_str(), nullptr, 10);
    }

    unsigned walks_ = 0;
    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=0"}};
    std::array<std::unique_ptr<Actor>, kActors> actors_;
};

TEST_F(Tree, IsFoundAsFarAsItsOwnersAreThere) {
    walkWhole(kNone);
    std::vector<Counts> before;
    forEach([&before](unsigned, Actor &actor) { before.push_back(rest(actor)); });
    std::vector<long> memory;
    forEach([&memory](unsigned, Actor &actor) { memory.push_back(memoryOf(actor)); });

    struct Round {
        unsigned victim;
        unsigned namerInWalk;
        unsigned namerWithout;
        unsigned namerAfter;
    };
    for (const Round &round : {Round{3, 2, kNone, 1}, Round{0, kNone, 2, kNone}}) {
        killInWalk(round.victim, round.namerInWalk);
        awaitMembers(kActors - 1);
        walkWithout(round.victim, round.namerWithout);
        comeBackInWalk(round.victim);
        walkWhole(round.namerAfter);
    }

    forEach([&](unsigned which, Actor &actor) {
        expectAtRest(actor, before[which]);
        const long now = memoryOf(actor);
        std::printf("tree: %u objects, actor %u: %ld KiB before, %ld KiB after\n", kAll, which, memory[which], now);
        if (kMemoryIsMeasured) {
            EXPECT_LE(now, memory[which] + kMoreMemory) << which;
        }
    });
}

} // namespace
