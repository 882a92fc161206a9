#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

namespace {

using Testing::Actor;

/** Objects of generated classes, called in the actor where they live and from another one. */
class Ports : public testing::Test {
protected:
    Ports() {
        owner.ask("orb 1", "orb ");
        other.ask("orb 1", "orb ");
        EXPECT_TRUE(owner.askUntil("events members", "events ", "2"));
        EXPECT_TRUE(other.askUntil("events members", "events ", "2"));
        ask(owner, "make p");
        ask(owner, "make q");
    }
    static std::string ask(Actor &actor, const std::string &command) { return actor.ask("port " + command, "port "); }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor owner{unit_, 1};
    Actor other{unit_, 2};
};

TEST_F(Ports, TakeAndGiveParametersOfAllKinds) {
    for (Actor *caller : {&owner, &other}) {
        EXPECT_EQ("50 fast? 50", ask(*caller, "rate p 5 fast"));
        EXPECT_EQ("5000 slow? 1000", ask(*caller, "rate p 500 slow"));
    }
}

TEST_F(Ports, HaveAttributesThatAreReadAndSet) {
    int round = 0;
    for (Actor *caller : {&owner, &other}) {
        const std::string speed = std::to_string(9600 + ++round);
        EXPECT_EQ(speed, ask(*caller, "speed p " + speed));
        EXPECT_EQ("up" + speed, ask(*caller, "label p up" + speed));
        EXPECT_EQ("S-p", ask(*caller, "serial p"));
        EXPECT_EQ("3", ask(*caller, "faults p"));
        for (Actor *reader : {&owner, &other}) {
            EXPECT_EQ(speed, ask(*reader, "speed p"));
            EXPECT_EQ("0 " + speed, ask(*reader, "number p speed"));
            EXPECT_EQ("0 up" + speed, ask(*reader, "text p label"));
            EXPECT_EQ("0 S-p", ask(*reader, "text p serial")) << "an inherited one";
            EXPECT_EQ("4 0", ask(*reader, "number p nothing"));
        }
    }
}

TEST_F(Ports, RefuseToSetWhatCanOnlyBeRead) {
    ask(owner, "speed p 9600");
    for (Actor *caller : {&owner, &other}) {
        EXPECT_EQ("5", ask(*caller, "set p faults"));
        EXPECT_EQ("5", ask(*caller, "set p serial"));
        EXPECT_EQ("5", ask(*caller, "set p nothing"));
        EXPECT_EQ("0", ask(*caller, "set p speed")) << "which says nothing of whether it came to pass";
        EXPECT_EQ("9600", ask(*caller, "speed p")) << "there was no value";
        EXPECT_EQ("S-p", ask(*caller, "serial p"));
    }
}

TEST_F(Ports, HoldObjectsOfAnyActor) {
    ask(other, "make r");
    ask(owner, "join p q r");
    for (Actor *caller : {&owner, &other}) {
        EXPECT_EQ("q r", ask(*caller, "members p"));
        EXPECT_EQ("q r - -", ask(*caller, "lanes p"));
        EXPECT_EQ("0 r", ask(*caller, "element p members 1"));
        EXPECT_EQ("0 p", ask(*caller, "element p members 2")) << "there is none: it is as it was";
        EXPECT_EQ("0 q", ask(*caller, "element p lanes 0"));
        EXPECT_EQ("0 r", ask(*caller, "element p lanes 1"));
        EXPECT_EQ("0 -", ask(*caller, "element p lanes 3")) << "an element that is no object";
        EXPECT_EQ("0 p", ask(*caller, "element p lanes 4"));
        EXPECT_EQ("0 q", ask(*caller, "plain p lanes 1")) << "a handle that the object gives out knows of no elements";
        EXPECT_EQ("", ask(*caller, "members q"));
    }
    EXPECT_EQ("0 2", ask(owner, "reads q")) << "which has answered that it has none";
}

TEST_F(Ports, LeadToOneAnother) {
    ask(other, "make r");
    ask(owner, "carry p q");
    ask(owner, "carry q r");
    for (Actor *caller : {&owner, &other}) {
        EXPECT_EQ("Port", ask(*caller, "class r"));
        EXPECT_EQ("0 S-q", ask(*caller, "via p carrier serial"));
        EXPECT_EQ("0 S-r", ask(*caller, "via p carrier carrier serial"));
        EXPECT_EQ("0 ", ask(*caller, "via p carrier carrier carrier serial")) << "r has none, and that travels too";
        EXPECT_EQ("0", ask(*caller, "do p carrier carrier reset"));
        EXPECT_EQ("0", ask(*caller, "do p carrier carrier carrier reset"));
        EXPECT_EQ("0", ask(*caller, "do p blink"));
        EXPECT_EQ("4 ", ask(*caller, "via p carrier nothing serial"));
        EXPECT_EQ("5", ask(*caller, "do p carrier nothing"));
        EXPECT_EQ("5", ask(*caller, "do p nothing"));
        EXPECT_EQ("-", ask(*caller, "class nothing"));
    }
    EXPECT_EQ("4 0", ask(other, "reads r")) << "has answered that nobody carries it";
    EXPECT_EQ("2", ask(other, "resets r"));
    EXPECT_EQ("0", ask(owner, "resets q"));
    EXPECT_EQ("2", ask(owner, "blinks p"));
    EXPECT_EQ("0", ask(other, "do p setRate")) << "which it refuses without arguments";
    EXPECT_TRUE(owner.waitLog("Unmarshall error on cc=0x5A3C10F1"));
}

/** In both actors at once, of objects here and there. */
TEST_F(Ports, AreUsedByManyThreads) {
    ask(other, "make r");
    ask(owner, "carry p r");
    ask(owner, "join p q r");
    constexpr unsigned kThreads = 4;
    constexpr unsigned kRounds = 25;
    const std::string command = "threads p " + std::to_string(kThreads) + " " + std::to_string(kRounds);
    owner.tell("port " + command);
    other.tell("port " + command);
    const std::string all = std::to_string(kThreads * kRounds);
    EXPECT_EQ(all + " of " + all, owner.expect("port "));
    EXPECT_EQ(all + " of " + all, other.expect("port "));
    EXPECT_EQ(std::to_string(2 * kThreads * kRounds), ask(other, "resets r"));
}

TEST_F(Ports, RaiseExceptionsWithTheirMembers) {
    ask(owner, "busy p 60 maintenance");
    for (Actor *caller : {&owner, &other}) {
        EXPECT_EQ("0 fast 0 busy maintenance 60", ask(*caller, "rate p 5 fast"));
        EXPECT_EQ("50 fast? 50", ask(*caller, "rate q 5 fast"));
        EXPECT_EQ("S-p", ask(*caller, "serial p")) << "other calls of the object have nothing to do with it";
    }
    ask(owner, "busy p 0 -");
    for (Actor *caller : {&owner, &other}) {
        EXPECT_EQ("50 fast? 50", ask(*caller, "rate p 5 fast"));
    }
}

TEST_F(Ports, ExceptionsThatAreNotWholeAreFailedCalls) {
    for (const char *kind : {"empty", "short", "wild"}) {
        ask(owner, std::string("broken p ") + kind);
        EXPECT_EQ("0  0 failed", ask(other, "rate p 5 fast")) << kind;
        EXPECT_TRUE(other.waitLog("Unmarshall error on cc=0x5A3C10F1"));
    }
    ask(owner, "broken p none");
    EXPECT_EQ("50 fast? 50", ask(other, "rate p 5 fast"));
}

TEST_F(Ports, ThatAreNotThereFailCalls) {
    for (Actor *caller : {&owner, &other}) {
        EXPECT_EQ("0  0 failed", ask(*caller, "rate nothing 5 fast"));
        EXPECT_EQ("", ask(*caller, "label nothing down"));
        EXPECT_EQ("4 0", ask(*caller, "number nothing speed"));
    }
    EXPECT_EQ("50 fast? 50", ask(other, "rate p 5 fast"));
    owner.kill();
    EXPECT_EQ("0  0 failed", ask(other, "rate p 5 fast"));
}

TEST_F(Ports, TakeOneWayCalls) {
    ask(owner, "blink p");
    EXPECT_EQ("1", ask(owner, "blinks p"));
    for (int i = 0; i < 20; ++i) {
        ask(other, "blink p");
    }
    EXPECT_TRUE(owner.askUntil("port blinks p", "port ", "21"));
}

} // namespace
