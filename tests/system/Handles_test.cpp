#include "support/TempDir.h"
#include "system/Actor.h"
#include "system/Counts.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

using Testing::Actor;
using Testing::Counts;

/** Handles of objects that live in another actor, and of own ones. */
class Handles : public testing::Test {
protected:
    Handles() {
        for (Actor *actor : {&owner, &other}) {
            actor->ask("orb 1", "orb ");
        }
        for (Actor *actor : {&owner, &other}) {
            EXPECT_TRUE(actor->askUntil("events members", "events ", "2"));
        }
        owner.ask("port make p", "port ");
        owner.ask("port make q", "port ");
        owner.ask("port carry p q", "port ");
    }
    static std::string ask(Actor &actor, const std::string &command) {
        return actor.ask("handle " + command, "handle ");
    }
    static long stubs(Actor &actor) { return Counts(actor.ask("counts", "counts "))["stubs"]; }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor owner{unit_, 1};
    Actor other{unit_, 2};
};

TEST_F(Handles, ComeFromBlocksOf256) {
    EXPECT_EQ("256 1 same same same", ask(other, "pool p")) << "the first ones of the process";
    EXPECT_EQ("0 ", other.ask("port via p label", "port ")) << "they were handles of an object that is still there";
}

TEST_F(Handles, AreCountedByTheirObjectAndAssignedWithoutACall) {
    const long before = stubs(other);
    for (Actor *actor : {&other, &owner}) {
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ("2/0 2/0 1/1 0/2 0/1 2/0 sent 0", ask(*actor, "assign p q"));
        }
        EXPECT_EQ("1", ask(*actor, "shares p")) << "whichever way it was found";
    }
    EXPECT_EQ(before, stubs(other)) << "they go with their last handle";
}

TEST_F(Handles, OfNothingAreAssignedWithoutASearch) {
    EXPECT_EQ("1 0", ask(other, "lost nowhere")) << "the copy looks again";
    EXPECT_EQ("1 0", ask(owner, "lost nowhere"));
    EXPECT_EQ("0 0", ask(other, "lost p"));
}

TEST_F(Handles, GoFromObjectToObject) {
    owner.ask("object make root", "object ");
    other.ask("object make b root", "object ");
    owner.ask("object make a b", "object ");
    other.ask("object make leaf a", "object ");
    const long before = stubs(other);
    for (Actor *actor : {&owner, &other}) {
        EXPECT_EQ("leaf a b root", ask(*actor, "climb leaf"));
    }
    EXPECT_EQ(before, stubs(other));
}

TEST_F(Handles, OfAnActorThatIsGoneAreCountedToo) {
    const long before = stubs(other);
    EXPECT_EQ("2", ask(other, "keep p"));
    EXPECT_EQ("2", ask(other, "mix"));
    EXPECT_EQ(before + 1, stubs(other));
    owner.kill();
    EXPECT_TRUE(other.askUntil("events members", "events ", "1"));
    EXPECT_EQ("2", ask(other, "mix"));
    EXPECT_EQ(before + 1, stubs(other));
    EXPECT_EQ("ok", ask(other, "drop"));
    EXPECT_EQ(before, stubs(other));
}

/** Processes that end with handles of objects of each other, and with members of these. */
class HandlesAtExit : public Handles {
protected:
    HandlesAtExit() {
        other.ask("port make r", "port ");
        other.ask("port carry r p", "port ");
        EXPECT_EQ("0", ask(other, "hold p"));
        EXPECT_EQ("0", ask(other, "hold r"));
        EXPECT_EQ("0", ask(owner, "hold r"));
    }
    /** The late ones have all that they had; for the early ones there is nothing any more, nor does it come back. */
    static void expectGone(Actor &actor, const std::string &count, const std::string &late) {
        EXPECT_EQ(std::vector<std::string>{count + late}, actor.last("gone late "));
        EXPECT_EQ(std::vector<std::string>{count + " 000"}, actor.last("gone early "));
    }
    static void endsWith(Actor &actor, int status) {
        actor.tell("exit " + std::to_string(status));
        EXPECT_EQ(status << 8, actor.end()) << actor.log();
    }
    static void expectServed(Actor &actor, const std::string &name) {
        EXPECT_EQ("S-" + name, actor.ask("port serial " + name, "port "));
    }
};

TEST_F(HandlesAtExit, OfTheOneThatIsServed) {
    endsWith(other, 5);
    expectGone(other, "4", " 111");
    EXPECT_TRUE(owner.askUntil("events members", "events ", "1"));
    expectServed(owner, "p");
    EXPECT_EQ("", owner.ask("port serial r", "port "));
    endsWith(owner, 6);
    expectGone(owner, "2", " 101");
}

TEST_F(HandlesAtExit, OfTheOneThatServes) {
    endsWith(owner, 5);
    expectGone(owner, "2", " 111");
    EXPECT_TRUE(other.askUntil("events members", "events ", "1"));
    expectServed(other, "r");
    EXPECT_EQ("", other.ask("port serial p", "port "));
    endsWith(other, 6);
    expectGone(other, "4", " 101");
}

TEST_F(HandlesAtExit, OfBoth) {
    owner.tell("exit 5");
    other.tell("exit 6");
    EXPECT_EQ(5 << 8, owner.end()) << owner.log();
    EXPECT_EQ(6 << 8, other.end()) << other.log();
    EXPECT_EQ(std::vector<std::string>{"2 000"}, owner.last("gone early "));
    EXPECT_EQ(std::vector<std::string>{"4 000"}, other.last("gone early "));
}

TEST_F(HandlesAtExit, OfTheOneThatIsServedAfterTheOtherWasKilled) {
    owner.kill();
    endsWith(other, 5);
    EXPECT_EQ(std::vector<std::string>{"4 000"}, other.last("gone early "));
}

TEST_F(HandlesAtExit, OfAWorkerThatHoldsThePermission) {
    other.tell("exitworker");
    EXPECT_EQ(7 << 8, other.end()) << other.log();
    expectGone(other, "4", " 111");
    EXPECT_TRUE(owner.askUntil("events members", "events ", "1"));
    expectServed(owner, "p");
}

/** It would answer nothing: nothing is asked. */
TEST_F(HandlesAtExit, OfOneWhileTheOtherSleeps) {
    Actor third(unit_, 3);
    third.ask("orb 1", "orb ");
    third.ask("port make s", "port ");
    EXPECT_EQ("0", ask(third, "hold s")); // what is looked at in the end
    EXPECT_EQ("0", ask(third, "hold p"));
    owner.signal(SIGSTOP);
    endsWith(third, 5);
    expectGone(third, "4", " 111");
    owner.signal(SIGCONT);
    EXPECT_TRUE(owner.askUntil("events members", "events ", "2"));
    expectServed(owner, "p");
}

TEST_F(HandlesAtExit, WhileThreadsReadMembers) {
    for (Actor *actor : {&other, &owner}) {
        EXPECT_EQ("ok", ask(*actor, actor == &other ? "readers p 3" : "readers r 3"));
    }
    for (Actor *actor : {&other, &owner}) {
        for (int i = 0; i < 3; ++i) {
            actor->expect("reading");
        }
    }
    endsWith(other, 5);
    EXPECT_TRUE(owner.askUntil("events members", "events ", "1"));
    expectServed(owner, "p");
    endsWith(owner, 6);
}

} // namespace
