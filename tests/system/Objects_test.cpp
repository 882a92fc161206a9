#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

namespace {

using Testing::Actor;

/** Reflective objects of two actors. */
class Objects : public testing::Test {
protected:
    Objects() {
        one.ask("orb 1", "orb ");
        two.ask("orb 1", "orb ");
    }
    /** What the actor answers to a command about objects. */
    static std::string ask(Actor &actor, const std::string &command) {
        return actor.ask("object " + command, "object ");
    }
    static bool askUntil(Actor &actor, const std::string &command, const std::string &answer) {
        return actor.askUntil("object " + command, "object ", answer);
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor one{unit_, 1};
    Actor two{unit_, 2};
};

TEST_F(Objects, OfDifferentActorsMakeOneTree) {
    ask(one, "make root");
    ask(two, "make b root");
    ask(one, "make a root");
    ask(one, "make leaf b");
    for (Actor *actor : {&one, &two}) {
        EXPECT_EQ("/root/a /root/b", ask(*actor, "children root"));
        EXPECT_EQ("/root/b", ask(*actor, "abs b"));
        EXPECT_EQ("/root/b/leaf", ask(*actor, "abs leaf"));
        EXPECT_EQ("/root/b", ask(*actor, "parent leaf"));
        EXPECT_EQ("", ask(*actor, "parent root"));
        EXPECT_EQ("", ask(*actor, "children leaf"));
    }
    ask(two, "drop b");
    for (Actor *actor : {&one, &two}) {
        EXPECT_EQ("/root/a", ask(*actor, "children root"));
        EXPECT_EQ("/leaf", ask(*actor, "abs leaf")) << "its parent is gone";
    }
    EXPECT_EQ("dropped", ask(one, "drop leaf"));
}

TEST_F(Objects, OutliveTheActorOfTheirParent) {
    ask(one, "make root");
    ask(two, "make b root");
    EXPECT_EQ("/root/b", ask(two, "abs b"));
    one.kill();
    EXPECT_TRUE(askUntil(two, "abs b", "/b"));
    EXPECT_EQ("dropped", ask(two, "drop b"));
}

TEST_F(Objects, OfAKilledActorAreNotReachableChildren) {
    ask(one, "make root");
    ask(two, "make b root");
    EXPECT_EQ("/root/b", ask(one, "children root"));
    two.kill();
    EXPECT_TRUE(askUntil(one, "children root", "")) << "one that has no name any more";
    Actor again(unit_, 2);
    again.ask("orb 1", "orb ");
    ask(again, "make b root");
    EXPECT_EQ("/root/b", ask(one, "children root"));
}

TEST_F(Objects, TellObserversOfOtherActors) {
    ask(one, "make thing");
    EXPECT_EQ("1", ask(two, "observe thing 0"));
    EXPECT_EQ("1", ask(two, "observe thing 1"));
    EXPECT_EQ("1 1", ask(one, "observed thing"));
    for (Actor *caller : {&one, &two}) { // in both, the observer's own one among them
        EXPECT_EQ("42", ask(*caller, "double thing 21"));
        EXPECT_EQ("/thing", two.expect("told "));
        EXPECT_EQ("/thing", two.expect("told "));
    }
    EXPECT_EQ("2", ask(one, "calls thing"));
    ask(two, "forget thing");
    EXPECT_EQ("0 0", ask(one, "observed thing"));
    EXPECT_EQ("42", ask(two, "double thing 21"));
    EXPECT_TRUE(two.sofar("told ").empty());
}

TEST_F(Objects, ObeyObserversOfOtherActors) {
    ask(one, "make thing");
    ask(two, "observe thing 0");
    ask(two, "observe thing 1");
    ask(two, "verdict 0");
    for (Actor *caller : {&one, &two}) {
        EXPECT_EQ("0", ask(*caller, "double thing 21")) << "it is forbidden";
        EXPECT_EQ("/thing", two.expect("told "));
    }
    EXPECT_TRUE(two.sofar("told ").empty()) << "of calls that were not made";
    EXPECT_EQ("0", ask(one, "calls thing"));
    EXPECT_EQ("1 1", ask(one, "observed thing")) << "who refuses stays";
    ask(two, "verdict 1");
    EXPECT_EQ("42", ask(one, "double thing 21"));
    EXPECT_EQ("1", ask(one, "calls thing"));
}

TEST_F(Objects, ForgetObserversOfAKilledActor) {
    ask(one, "make thing");
    ask(two, "observe thing 0");
    ask(two, "observe thing 1");
    ask(one, "observe thing 0");
    ask(two, "verdict 0");
    two.kill();
    // Whether the end is known by now or not: the call waits for nobody that is gone, and is made.
    EXPECT_EQ("42", ask(one, "double thing 21"));
    EXPECT_EQ("/thing", one.expect("told "));
    EXPECT_EQ("1 0", ask(one, "observed thing")) << "only the own one is left";
    EXPECT_EQ("42", ask(one, "double thing 21"));
    EXPECT_EQ("/thing", one.expect("told "));
    EXPECT_EQ("2", ask(one, "calls thing"));
}

TEST_F(Objects, OfUnknownNamesHaveNoOperations) {
    EXPECT_EQ("0", ask(one, "observe nothing 0"));
    EXPECT_EQ("", ask(one, "abs nothing"));
    EXPECT_EQ("0", ask(one, "double nothing 21"));
    EXPECT_EQ("", ask(one, "children nothing"));
}

} // namespace
