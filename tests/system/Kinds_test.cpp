#include "support/Deadline.h"
#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <poll.h>
#include <string>
#include <vector>

namespace {

using Testing::Actor;
using Lines = std::vector<std::string>;

/** An actor that observes objects, and others that have different classes of them; and what it asks these. */
class Kinds : public testing::Test {
protected:
    Kinds() { EXPECT_TRUE(clerk->askUntil("exists " + idOf(*watcher), "exists ", "1")); }
    std::unique_ptr<Actor> start(unsigned slot, const Lines &classes = {}) {
        auto actor = std::make_unique<Actor>(unit_, slot);
        for (const std::string &each : classes) { // before others can ask for them
            EXPECT_EQ("added", ask(*actor, "add " + each));
        }
        ids_[actor.get()] = actor->ask("orb 1", "orb ").substr(9);
        return actor;
    }
    const std::string &idOf(const Actor &actor) const { return ids_.at(&actor); }
    static std::string ask(Actor &actor, const std::string &command) { return actor.ask("kind " + command, "kind "); }
    /** The actor starts, and the watcher has asked it what it has to. */
    std::unique_ptr<Actor> join(unsigned slot, const Lines &classes = {}) {
        std::unique_ptr<Actor> actor = start(slot, classes);
        awaitDealtWith(*watcher, idOf(*actor));
        return actor;
    }
    /** It has dealt with that many appearances of the other: it logs them before, but one after the other. */
    void awaitDealtWith(const Actor &actor, const std::string &id, unsigned appearances = 1) {
        const std::string line = "sees 0x" + id + " appear\n";
        EXPECT_TRUE(until([&] {
            const std::string log = actor.log();
            unsigned count = 0;
            for (auto at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) {
                ++count;
            }
            return count >= appearances;
        })) << line;
        const std::string marker = clerk->probe(++markers_ + 9); // in a group without brokers
        EXPECT_TRUE(actor.waitLog("sees 0x" + marker + " appear\n"));
    }
    static bool until(const std::function<bool()> &condition) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!condition()) {
            if (Testing::leftUntil(limit) == 0) {
                return false;
            }
            ::poll(nullptr, 0, 5); // there is nothing to wait for
        }
        return true;
    }
    /** What observers of the actor were told since the last time. */
    static Lines seen(Actor &actor) {
        Lines lines = actor.sofar("sees ");
        for (std::size_t i = 0; i < lines.size(); ++i) {
            actor.expect("sees ");
        }
        return lines;
    }
    /** What the watcher has asked of a broker, or told it, since it was started. */
    unsigned requests(const std::string &id) {
        const std::string counters = clerk->ask("counters " + idOf(*watcher), "counters " + idOf(*watcher));
        const std::string target = " to " + std::to_string(std::stoul(id, nullptr, 16)) + ":";
        const std::string::size_type at = counters.find(target);
        return at == std::string::npos ? 0 : static_cast<unsigned>(std::stoul(counters.substr(at + target.size())));
    }
    unsigned requests(const Actor &actor) { return requests(idOf(actor)); }
    /** The next actor gets the name that this one had. */
    void nameAgain(const std::string &id) const {
        const unsigned name = static_cast<unsigned>(std::stoul(id.substr(0, 4), nullptr, 16));
        std::filesystem::resize_file(unit_.directory + "/names", name - 1);
    }
    void expectOthersAfterARestart(bool asleep);

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=5"}};
    std::map<const Actor *, std::string> ids_; // of their brokers
    unsigned markers_ = 0;
    const std::unique_ptr<Actor> clerk = start(3);
    const std::unique_ptr<Actor> watcher = start(2);
};

// --- classes that an actor has, or has not --------------------------------------------------------------------------

TEST_F(Kinds, ThatAnActorDoesNotHaveAreNotAskedOfIt) {
    const auto server = join(1, {"A1"});
    ask(*watcher, "watch A1 creations a");
    EXPECT_EQ(1U, requests(*server)) << "it has said nothing of its classes before";
    ask(*watcher, "watch B2 existing b");
    ask(*watcher, "watch B2 deletions gone-b");
    EXPECT_EQ(1U, requests(*server));
    ask(*watcher, "watch A1 deletions gone-a");
    EXPECT_EQ(2U, requests(*server));
    EXPECT_EQ("1 1", ask(*server, "subscribers A1"));
    EXPECT_EQ("0 0", ask(*server, "subscribers B2"));
}

TEST_F(Kinds, AreThoseThatTheActorHadWhenItWasFirstAsked) {
    auto server = join(1, {"A1"});
    ask(*watcher, "watch A1 creations a");
    EXPECT_EQ(1U, requests(*server));
    ask(*server, "add C3");
    ask(*watcher, "watch C3 existing c");
    EXPECT_EQ(1U, requests(*server)) << "it is not asked again for its classes";
    EXPECT_EQ("created", ask(*server, "create C3 unseen"));
    EXPECT_EQ(Lines{}, seen(*watcher));
    server->kill();
    server = join(1, {"A1", "C3"});
    EXPECT_EQ("1 0", ask(*server, "subscribers C3"));
    EXPECT_EQ("created", ask(*server, "create C3 seen"));
    EXPECT_EQ((Lines{"c seen"}), seen(*watcher));
}

/** Under the same id: what its predecessor said does not count, but what was asked of that is counted on. */
void Kinds::expectOthersAfterARestart(bool asleep) {
    for (const char *each : {"A1 creations a", "A1 deletions gone-a", "B2 creations b", "B2 deletions gone-b"}) {
        EXPECT_EQ("ok", ask(*watcher, std::string("watch ") + each));
    }
    auto server = join(1, {"A1"});
    const std::string id = idOf(*server);
    EXPECT_EQ("1 1", ask(*server, "subscribers A1"));
    EXPECT_EQ("0 0", ask(*server, "subscribers B2"));
    EXPECT_EQ(2U, requests(id));
    EXPECT_EQ("created", ask(*server, "create A1 first"));
    EXPECT_EQ((Lines{"a first"}), seen(*watcher));

    if (asleep) {
        watcher->signal(SIGSTOP);
    }
    server->kill();
    nameAgain(id);
    server = start(1, {"B2"});
    ASSERT_EQ(id, idOf(*server));
    if (asleep) {
        EXPECT_EQ("created", ask(*server, "create B2 second"));
        watcher->signal(SIGCONT);
    }
    awaitDealtWith(*watcher, id, 2);
    if (!asleep) {
        EXPECT_EQ("created", ask(*server, "create B2 second"));
    }
    EXPECT_EQ((Lines{"b second"}), seen(*watcher));
    EXPECT_EQ("1 0", ask(*server, "subscribers A1")) << "the first question to one that has said nothing yet";
    EXPECT_EQ("1 1", ask(*server, "subscribers B2"));
    EXPECT_EQ(2U + 3U, requests(id));

    ask(*watcher, "watch A1 existing late-a");
    EXPECT_EQ(5U, requests(id)) << "a class that it had, and has no more";
    ask(*watcher, "watch B2 existing late-b");
    EXPECT_EQ(6U, requests(id));
    EXPECT_EQ("deleted", ask(*server, "delete second"));
    EXPECT_EQ((Lines{"late-b second", "gone-b second"}), seen(*watcher));
}

TEST_F(Kinds, OfARestartedActorAreOthersThanThoseBefore) {
    expectOthersAfterARestart(false);
}

TEST_F(Kinds, OfAnActorThatWasRestartedWhileTheWatcherWasStoppedAreTheNewOnes) {
    expectOthersAfterARestart(true);
}

TEST_F(Kinds, OfBrokersOfOtherNamespacesAreNotAskedFor) {
    ask(*watcher, "watch A1 existing a");
    ask(*watcher, "watch A1 deletions gone-a");
    Actor other(unit_, 1);
    const std::string id = other.ask("orb 2", "orb ").substr(9);
    awaitDealtWith(*watcher, id);
    EXPECT_EQ(0U, requests(id));
}

// --- subscriptions --------------------------------------------------------------------------------------------------

TEST_F(Kinds, AreSubscribedToByTheFirstObserverAndByThoseThatWantWhatIsThere) {
    const auto server = join(1, {"A1"});
    ask(*server, "create A1 there");
    ask(*watcher, "add A1");
    ask(*watcher, "create A1 own");
    ask(*watcher, "watch A1 creations one");
    EXPECT_EQ(1U, requests(*server));
    ask(*watcher, "watch A1 creations two");
    EXPECT_EQ(1U, requests(*server));
    ask(*watcher, "watch A1 existing three");
    EXPECT_EQ(2U, requests(*server));
    EXPECT_EQ((Lines{"three own", "three there"}), seen(*watcher)) << "each once";
    ask(*watcher, "watch A1 deletions gone");
    EXPECT_EQ(3U, requests(*server));
    ask(*watcher, "unwatch two");
    ask(*watcher, "unwatch three");
    EXPECT_EQ(3U, requests(*server));
    EXPECT_EQ("1 1", ask(*server, "subscribers A1"));
    ask(*watcher, "unwatch one");
    EXPECT_EQ(4U, requests(*server)) << "the last one that observes creations";
    EXPECT_EQ("0 0", ask(*server, "subscribers A1")) << "the end of either ends both";
    ask(*watcher, "unwatch gone");
    EXPECT_EQ(6U, requests(*server)) << "nobody is left to observe creations, nor deletions";
}

/** It is not among those that the subscription asks; and nobody observes the class yet when it is seen. */
TEST_F(Kinds, AreAskedOfABrokerThatComesUpWhileAnotherIsAsked) {
    for (const std::string kind : {"creations", "existing", "deletions"}) {
        auto held = join(1);
        held->signal(SIGSTOP);
        watcher->tell("kind watch E5 " + kind + " w");
        EXPECT_TRUE(until([&] { return requests(*held) == 1; }));
        auto late = join(4, {"E5"});
        EXPECT_EQ("created", ask(*late, "create E5 early"));
        EXPECT_EQ(0U, requests(*late)) << kind;
        held->signal(SIGCONT);
        EXPECT_EQ("ok", watcher->expect("kind "));
        EXPECT_EQ(1U, requests(*late)) << kind;
        EXPECT_EQ("created", ask(*late, "create E5 more"));
        EXPECT_EQ("deleted", ask(*late, "delete early"));
        const std::map<std::string, Lines> expected{
            {"creations", {"w more"}}, {"existing", {"w early", "w more"}}, {"deletions", {"w early"}}};
        EXPECT_EQ(expected.at(kind), seen(*watcher)) << kind;
        EXPECT_EQ("ok", ask(*watcher, "unwatch w"));
        for (const auto &actor : {std::move(held), std::move(late)}) {
            actor->kill();
            EXPECT_TRUE(watcher->waitLog("sees 0x" + idOf(*actor) + " disappear\n"));
        }
    }
}

TEST_F(Kinds, AreNoMoreSubscribedToAtABrokerThatEndsBeforeItIsTold) {
    const auto server = join(1, {"A1"});
    ask(*watcher, "watch A1 creations a");
    server->signal(SIGSTOP);
    watcher->tell("kind unwatch a");
    EXPECT_TRUE(until([&] { return requests(*server) == 2; }));
    server->kill();
    EXPECT_EQ("ok", watcher->expect("kind "));
    EXPECT_TRUE(
        watcher->waitLog("could not unregister from 0x" + idOf(*server).substr(idOf(*server).find_first_not_of('0'))));
}

// --- who is told ----------------------------------------------------------------------------------------------------

TEST_F(Kinds, AreToldOfToThoseThatAnswer) {
    const auto server = join(1, {"A1"});
    auto other = join(4);
    for (Actor *actor : {watcher.get(), other.get()}) {
        ask(*actor, "watch A1 creations a");
        ask(*actor, "watch A1 deletions gone");
    }
    EXPECT_TRUE(until([&] { return ask(*server, "subscribers A1") == "2 2"; }));
    other->kill();
    EXPECT_EQ("created", ask(*server, "create A1 thing"));
    EXPECT_EQ("1 2", ask(*server, "subscribers A1"));
    EXPECT_EQ("deleted", ask(*server, "delete thing"));
    EXPECT_EQ("1 1", ask(*server, "subscribers A1"));
    EXPECT_EQ((Lines{"a thing", "gone thing"}), seen(*watcher));
}

TEST_F(Kinds, HaveAnObjectUntilAllAreToldOfItsEnd) {
    const auto server = join(1, {"A1"});
    ask(*server, "create A1 thing");
    ask(*watcher, "watch A1 deletions gone");
    watcher->ask("react hold", "reacts");
    server->tell("kind delete thing");
    watcher->expect("holding");
    awaitDealtWith(*clerk, idOf(*server));
    ask(*clerk, "watch A1 existing meanwhile");
    EXPECT_EQ((Lines{"meanwhile thing"}), seen(*clerk));
    watcher->ask("react go", "reacts");
    EXPECT_EQ("deleted", server->expect("kind "));
    ask(*clerk, "watch A1 existing later");
    EXPECT_EQ(Lines{}, seen(*clerk));
}

TEST_F(Kinds, MayLoseAnObjectWhileItsCreationIsTold) {
    const auto server = join(1, {"A1"});
    ask(*server, "watch A1 creations own");
    ask(*watcher, "watch A1 creations a");
    server->ask("react delete", "reacts");
    EXPECT_EQ("created", ask(*server, "create A1 thing"));
    EXPECT_EQ((Lines{"own thing"}), seen(*server));
    EXPECT_EQ((Lines{"a thing"}), seen(*watcher)) << "there was one";
    ask(*watcher, "watch A1 existing late");
    EXPECT_EQ(Lines{}, seen(*watcher));
    server->ask("react nothing", "reacts");
    EXPECT_EQ("created", ask(*server, "create A1 other"));
    EXPECT_EQ((Lines{"own other"}), seen(*server));
}

TEST_F(Kinds, AreObservedNoMoreByWhatIsDestroyed) {
    const auto server = join(1, {"A1"});
    for (const char *each : {"A1 creations a", "A1 creations b", "A1 deletions gone"}) {
        ask(*watcher, std::string("watch ") + each);
    }
    ask(*watcher, "lose a");
    EXPECT_EQ("created", ask(*server, "create A1 thing"));
    ask(*watcher, "lose b");
    ask(*watcher, "lose gone");
    EXPECT_EQ("created", ask(*server, "create A1 other"));
    EXPECT_EQ("deleted", ask(*server, "delete thing"));
    EXPECT_EQ((Lines{"b thing"}), seen(*watcher));
    EXPECT_EQ("1 1", ask(*server, "subscribers A1")) << "no message tells of that";
    ask(*watcher, "watch A1 existing again");
    EXPECT_EQ((Lines{"again other"}), seen(*watcher));
}

} // namespace
