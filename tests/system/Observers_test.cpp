#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <sys/wait.h>

namespace {

using Testing::Actor;
using Lines = std::vector<std::string>;

/** Observers that fail or do not answer, and actors with observers that stop and end. */
class Observers : public testing::Test {
protected:
    Observers() {
        const std::string orb = one.ask("orb 1", "orb ").substr(0, 8);
        two.ask("orb 1", "orb ");
        three.ask("orb 1", "orb ");
        served_ = "rmi_" + orb + "_" + one.ask("serve served", "serves ");
        for (Actor *actor : {&one, &two, &three}) {
            EXPECT_TRUE(actor->askUntil("events members", "events ", "3"));
        }
    }
    static std::string ask(Actor &actor, const std::string &command) {
        return actor.ask("object " + command, "object ");
    }
    /** Calls that ask nobody but the first actor are made. */
    void expectOneServes() { EXPECT_EQ("10 of 10", three.ask("call addone " + served_ + " 10", "called ")); }
    static void expectAborted(Actor &actor, const std::string &thread) {
        const int status = actor.end();
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(SIGABRT, WTERMSIG(status));
        EXPECT_TRUE(actor.waitLog("Thread " + thread + " ends the actor: an observer has failed"));
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=5"}};
    Actor one{unit_, 1};
    Actor two{unit_, 2};
    Actor three{unit_, 2};

private:
    std::string served_; // an object of the first one, by its address
};

/** An exception that nobody catches is the end of an actor, but of no other. */
TEST_F(Observers, OfOperationsThatThrowEndTheirActorOnly) {
    ask(one, "make thing");
    ask(two, "observe thing 0");
    ask(three, "observe thing 1");
    two.ask("react throw", "reacts");
    EXPECT_EQ("42", ask(one, "double thing 21")) << "who was not told does not count";
    expectAborted(two, "ReflectWorker");
    EXPECT_EQ("/thing", three.expect("told "));
    EXPECT_EQ("0 1", ask(one, "observed thing"));
}

TEST_F(Observers, OfCreationsThatThrowEndTheirActorOnly) {
    two.ask("events watch", "events ");
    three.ask("events watch", "events ");
    two.ask("react throw", "reacts");
    EXPECT_EQ("created", ask(one, "create thing"));
    expectAborted(two, "ReflectWorker");
    EXPECT_EQ("thing", three.expect("created "));
    EXPECT_EQ("deleted", ask(one, "delete thing"));
    EXPECT_EQ("thing", three.expect("deleted "));
}

TEST_F(Observers, OfBrokersThatThrowEndTheirActorOnly) {
    two.ask("events brokers", "events ");
    two.ask("react throw", "reacts");
    Actor four(unit_, 3);
    four.ask("orb 1", "orb ");
    expectAborted(two, "OrbObsWorker");
    EXPECT_TRUE(one.askUntil("events members", "events ", "3")) << "one, three and four";
}

TEST_F(Observers, MayEndTheirActor) {
    ask(one, "make thing");
    ask(two, "observe thing 0");
    three.ask("events watch", "events ");
    two.ask("react exit", "reacts");
    three.ask("react exit", "reacts");
    EXPECT_EQ("42", ask(one, "double thing 21"));
    EXPECT_EQ("created", ask(one, "create other"));
    for (Actor *actor : {&two, &three}) {
        const int status = actor->end();
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(3, WEXITSTATUS(status));
    }
    EXPECT_EQ("0 0", ask(one, "observed thing"));
}

/** The call waits for its observer, and nothing else does. */
TEST_F(Observers, OfOperationsThatAreKilledWhileTheyAreToldLetTheCallGoOn) {
    ask(one, "make thing");
    ask(two, "observe thing 0");
    two.ask("react hold", "reacts");
    one.tell("object double thing 21");
    two.expect("holding");
    expectOneServes();
    two.kill();
    EXPECT_EQ("42", one.expect("object "));
    EXPECT_EQ("0 0", ask(one, "observed thing"));
}

TEST_F(Observers, OfOperationsThatAreStoppedHoldTheCallUpAndAreToldWhenTheyGoOn) {
    ask(one, "make thing");
    ask(two, "observe thing 0");
    two.ask("object verdict 0", "object ");
    for (const bool goesOn : {true, false}) {
        two.signal(SIGSTOP);
        one.tell("object double thing 21");
        expectOneServes();
        if (goesOn) {
            two.signal(SIGCONT);
            EXPECT_EQ("0", one.expect("object ")) << "it was asked, and has forbidden it";
            EXPECT_EQ("/thing", two.expect("told "));
            EXPECT_EQ("1 0", ask(one, "observed thing"));
        } else {
            two.kill();
            EXPECT_EQ("42", one.expect("object "));
            EXPECT_EQ("0 0", ask(one, "observed thing"));
        }
    }
    EXPECT_EQ("1", ask(one, "calls thing"));
}

TEST_F(Observers, OfARestartedActorAreOthersThanThoseBefore) {
    ask(one, "make thing");
    ask(two, "observe thing 0");
    ask(two, "observe thing 1");
    two.kill();
    Actor again(unit_, 2);
    again.ask("orb 1", "orb ");
    EXPECT_EQ("1", ask(again, "observe thing 1"));
    EXPECT_EQ("42", ask(three, "double thing 21"));
    EXPECT_EQ("/thing", again.expect("told "));
    EXPECT_EQ("0 1", ask(one, "observed thing")) << "the old ones are gone";
    EXPECT_TRUE(again.sofar("told ").empty());
}

TEST_F(Observers, OfCreationsThatAreStoppedHoldUpWhoMakesObjects) {
    two.ask("events watch", "events ");
    two.signal(SIGSTOP);
    one.tell("object create thing");
    expectOneServes();
    two.signal(SIGCONT);
    EXPECT_EQ("created", one.expect("object "));
    EXPECT_EQ("thing", two.expect("created "));
    two.signal(SIGSTOP);
    one.tell("object delete thing");
    expectOneServes();
    two.kill();
    EXPECT_EQ("deleted", one.expect("object "));
    EXPECT_EQ("created", ask(one, "create thing"));
    Actor again(unit_, 2);
    again.ask("orb 1", "orb ");
    again.ask("events watchall", "events ");
    EXPECT_EQ("thing", again.expect("created "));
    EXPECT_EQ("deleted", ask(one, "delete thing"));
    EXPECT_EQ("thing", again.expect("deleted "));
    EXPECT_TRUE(again.sofar("created ").empty()) << "each once";
}

/** While the one that made the object waits for the answer, it is asked to tell no more. */
TEST_F(Observers, OfCreationsMayLeaveWhileTheyAreTold) {
    two.ask("events watch", "events ");
    three.ask("events watch", "events ");
    EXPECT_TRUE(one.askUntil("events subscribers", "events ", "2 2"));
    two.ask("react leave", "reacts");
    EXPECT_EQ("created", ask(one, "create first"));
    EXPECT_EQ("first", two.expect("created "));
    EXPECT_EQ("1 1", one.ask("events subscribers", "events ")) << "the end of either ends both";
    EXPECT_EQ("created", ask(one, "create second"));
    EXPECT_EQ("deleted", ask(one, "delete first"));
    EXPECT_TRUE(two.sofar("created ").empty());
    EXPECT_TRUE(two.sofar("deleted ").empty());
    EXPECT_EQ((Lines{"first", "second"}), three.sofar("created "));
    EXPECT_EQ((Lines{"first"}), three.sofar("deleted "));
    two.ask("react nothing", "reacts");
    two.ask("events unwatch", "events "); // its observer of deletions, which nobody tells any more
    two.ask("events watchall", "events ");
    EXPECT_EQ("second", two.expect("created "));
    EXPECT_EQ("deleted", ask(one, "delete second"));
    EXPECT_EQ("second", two.expect("deleted ")) << "who comes again is told again";
}

TEST_F(Observers, OfCreationsInTheActorItselfAreToldFirst) {
    one.ask("events watch", "events ");
    two.ask("events watch", "events ");
    EXPECT_TRUE(one.askUntil("events subscribers", "events ", "1 1"));
    one.ask("react hold", "reacts");
    ask(one, "churn m 1");
    one.expect("holding");
    EXPECT_TRUE(two.sofar("created ").empty());
    EXPECT_EQ((Lines{"m0"}), one.sofar("created "));
    one.ask("react go", "reacts");
    EXPECT_EQ("0", one.expect("churned "));
    EXPECT_EQ((Lines{"m0"}), two.sofar("created "));
    EXPECT_EQ((Lines{"m0"}), two.sofar("deleted "));
}

TEST_F(Observers, OfBrokersAreToldOfThoseThatAreThereBeforeTheirRegistrationReturns) {
    Lines expected;
    for (Actor *actor : {&one, &two, &three}) {
        expected.push_back(actor->ask("orb 1", "orb ").substr(9) + " appears already");
    }
    expected.push_back(three.probe(9) + " appears already");
    EXPECT_TRUE(two.waitLog("sees 0x" + expected.back().substr(0, 8) + " appear"));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ("ok", two.ask("events brokersall", "events "));
    Lines told = two.sofar("broker ");
    // Its thread may still be about to tell what came up before.
    told.erase(std::remove_if(told.begin(), told.end(),
                              [](const std::string &line) { return line.find(" already") == std::string::npos; }),
               told.end());
    std::sort(told.begin(), told.end());
    EXPECT_EQ(expected, told);
}

/** The one that appears is no member of the list that the subscription goes through. */
TEST_F(Observers, SubscribeAtABrokerThatAppearsMeanwhile) {
    for (const bool killed : {false, true}) {
        three.signal(SIGSTOP);
        two.tell("events watchall");
        auto four = std::make_unique<Actor>(unit_, 3);
        four->ask("orb 1", "orb ");
        EXPECT_EQ("created", ask(*four, "create early"));
        EXPECT_TRUE(two.waitLog("sees 0x" + four->ask("orb 1", "orb ").substr(9) + " appear"));
        if (killed) {
            three.kill();
        } else {
            three.signal(SIGCONT);
        }
        EXPECT_EQ("ok", two.expect("events "));
        EXPECT_TRUE(four->askUntil("events subscribers", "events ", "1 1"));
        EXPECT_EQ("early", two.expect("created "));
        EXPECT_EQ("created", ask(*four, "create late"));
        EXPECT_EQ("late", two.expect("created "));
        EXPECT_EQ("deleted", ask(*four, "delete early"));
        EXPECT_EQ("early", two.expect("deleted "));
        EXPECT_TRUE(two.sofar("deleted ").empty());
        two.ask("events unwatch", "events ");
        EXPECT_EQ("0 0", four->ask("events subscribers", "events "));
        const std::string id = four->ask("orb 1", "orb ").substr(9);
        four.reset();
        EXPECT_TRUE(two.waitLog("sees 0x" + id + " disappear"));
        two.sofar("created ");
    }
}

} // namespace
