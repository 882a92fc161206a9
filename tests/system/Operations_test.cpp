#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Testing::Actor;
using Lines = std::vector<std::string>;

/** What observers of operations are told, and in which order, if they are not where the object is. */
class Operations : public testing::Test {
protected:
    Operations() {
        for (Actor *actor : {&one, &two, &three}) {
            actor->ask("orb 1", "orb ");
        }
        for (Actor *actor : {&one, &two, &three}) {
            EXPECT_TRUE(actor->askUntil("events members", "events ", "3"));
        }
        ask(one, "make thing");
    }
    static std::string ask(Actor &actor, const std::string &command) {
        return actor.ask("object " + command, "object ");
    }
    /** What the actor's observer has been told since the last time. */
    static Lines told(Actor &actor) {
        Lines lines = actor.sofar("told ");
        for (std::size_t i = 0; i < lines.size(); ++i) {
            actor.expect("told ");
        }
        return lines;
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=5"}};
    Actor one{unit_, 1};
    Actor two{unit_, 2};
    Actor three{unit_, 2};
};

TEST_F(Operations, AreToldInTheOrderOfRegistration) {
    ask(three, "observe thing 0");
    ask(two, "observe thing 0");
    ask(one, "observe thing 0");
    three.ask("react hold", "reacts");
    two.ask("react hold", "reacts");
    Actor caller(unit_, 1);
    caller.ask("orb 1", "orb ");
    caller.tell("object double thing 21");
    three.expect("holding");
    EXPECT_EQ(Lines{}, told(two));
    three.ask("react go", "reacts");
    two.expect("holding");
    EXPECT_EQ(Lines{}, told(one));
    EXPECT_EQ("0", ask(one, "calls thing"));
    two.ask("react go", "reacts");
    EXPECT_EQ("42", caller.expect("object "));
    for (Actor *actor : {&one, &two, &three}) {
        EXPECT_EQ((Lines{"/thing"}), told(*actor));
    }
}

TEST_F(Operations, AreToldAsOftenAsTheyAreRegisteredFor) {
    ask(two, "observe thing 0");
    ask(two, "observe thing 0");
    ask(two, "observe thing 7");
    EXPECT_EQ("1 1", ask(one, "observed thing")) << "whatever is not before is after";
    EXPECT_EQ("42", ask(one, "double thing 21"));
    EXPECT_EQ((Lines{"/thing", "/thing", "/thing"}), told(two));
    ask(two, "verdict 0");
    EXPECT_EQ("0", ask(one, "double thing 21"));
    EXPECT_EQ((Lines{"/thing", "/thing"}), told(two)) << "the others are asked, too, but nobody is told of the end";
    ask(two, "forget thing");
    EXPECT_EQ("0 0", ask(one, "observed thing")) << "all of them";
    EXPECT_EQ("42", ask(one, "double thing 21"));
    EXPECT_EQ(Lines{}, told(two));
}

TEST_F(Operations, AreToldWithTheResultAndTheParameters) {
    for (Actor *caller : {&one, &two, &three}) {
        ask(two, "observe thing 0");
        EXPECT_EQ("42", ask(*caller, "double thing 21"));
        EXPECT_EQ("[][00000015]", ask(two, "parameters"));
        ask(two, "forget thing");
        ask(two, "observe thing 1");
        EXPECT_EQ("42", ask(*caller, "double thing 21"));
        EXPECT_EQ("[0000002A][00000015]", ask(two, "parameters"));
        ask(two, "forget thing");
    }
}

/** Two workers of the observer's actor are in it, each with an object of its own. */
TEST_F(Operations, OfTwoObjectsAreToldToOneObserverAtTheSameTime) {
    ask(three, "make other");
    ask(two, "observe thing 0");
    ask(two, "observe other 0");
    two.ask("react hold", "reacts");
    one.tell("object double thing 21");
    two.expect("holding");
    three.tell("object double other 4");
    two.expect("holding");
    two.ask("react go", "reacts");
    EXPECT_EQ("42", one.expect("object "));
    EXPECT_EQ("8", three.expect("object "));
    EXPECT_EQ((Lines{"/thing", "/other"}), told(two));
    EXPECT_EQ(Lines{}, two.sofar("mixed up"));
}

TEST_F(Operations, AreToldNoMoreToAnObserverThatWasDestroyed) {
    ask(two, "observe thing 0");
    ask(two, "observe thing 1");
    ask(three, "observe thing 1");
    ask(two, "verdict 0");
    ask(two, "blind");
    EXPECT_EQ("1 1", ask(one, "observed thing"));
    EXPECT_EQ("42", ask(one, "double thing 21")) << "nobody is there who could forbid it";
    EXPECT_EQ("0 1", ask(one, "observed thing"));
    EXPECT_EQ(Lines{}, told(two));
    EXPECT_EQ((Lines{"/thing"}), told(three));
    EXPECT_EQ("42", ask(two, "double thing 21"));
    EXPECT_EQ((Lines{"/thing"}), told(three));
}

/** The object's actor waits for what the observer says, and is asked by it to tell it no more. */
TEST_F(Operations, MayBeLeftWhileTheyAreTold) {
    for (Actor *observer : {&one, &two}) {
        ask(*observer, "observe thing 0");
        ask(*observer, "observe thing 0");
        ask(*observer, "observe thing 1");
        ask(three, "observe thing 1");
        observer->ask("react leave", "reacts");
        EXPECT_EQ("42", ask(three, "double thing 21"));
        EXPECT_EQ((Lines{"/thing", "/thing"}), told(*observer)) << "those that were registered when it began";
        EXPECT_EQ("0 1", ask(one, "observed thing"));
        EXPECT_EQ((Lines{"/thing"}), told(three));
        EXPECT_EQ("42", ask(one, "double thing 21"));
        EXPECT_EQ(Lines{}, told(*observer));
        EXPECT_EQ((Lines{"/thing"}), told(three));
        ask(three, "forget thing");
    }
}

} // namespace
