#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

namespace {

using Testing::Actor;

/** Processes that end while calls are under way. What is left behind ends at once, not at the next report of a wait. */
class ExitInCalls : public testing::Test {
protected:
    void SetUp() override {
        for (Actor *actor : {&a_, &b_}) {
            ids_.push_back(actor->ask("orb 1", "orb ").substr(9));
        }
        a_.ask("serve a", "serves ");
        b_.ask("serve b", "serves ");
    }
    /** Calls of the one that wait in methods of the other. */
    static void hang(Actor &caller, const std::string &name, Actor &server, int threads) {
        caller.ask("begin hold " + name + " 1 " + std::to_string(threads), "begun");
        for (int i = 0; i < threads; ++i) {
            server.expect("holding");
        }
    }
    static void endsWith(Actor &actor, int status) { EXPECT_EQ(status << 8, actor.end()) << actor.log(); }
    static void ended(Actor &caller, const std::string &called) {
        EXPECT_EQ(called, caller.ask("join", "called "));
        EXPECT_EQ(std::string::npos, caller.log().find("waits now")) << caller.log();
    }
    /** Nothing of the calls is left, and it answers. */
    void isWhole(Actor &actor, const std::string &name) {
        EXPECT_EQ(0U, actor.ask("counts", "counts ").find("pending 0 "));
        Actor other(unit_, 3);
        other.ask("orb 1", "orb ");
        EXPECT_EQ("50 of 50", other.ask("call addone " + name + " 50", "called "));
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor a_{unit_, 1};
    Actor b_{unit_, 2};
    std::vector<std::string> ids_;
};

TEST_F(ExitInCalls, OfTheCallerLeavesTheTargetWhole) {
    hang(a_, "b", b_, 3);
    a_.tell("exit 4");
    endsWith(a_, 4);
    b_.ask("release", "ok");
    EXPECT_TRUE(b_.waitLog("Sending response message failed rc=0"));
    isWhole(b_, "b");
}

TEST_F(ExitInCalls, OfAWorkerOfTheTargetEndsAllItsCallers) {
    hang(a_, "b", b_, 2);
    a_.ask("begin leave b 6", "begun");
    endsWith(b_, 6);
    ended(a_, "0 of 3");
    EXPECT_TRUE(a_.waitLog("request to target 0x" + ids_[1] + " aborted (Detection Rem.Disc.=true, TargetGone=false)"));
    isWhole(a_, "a");
}

TEST_F(ExitInCalls, OfACallerInAMethodThatItsOwnCallCameBackTo) {
    hang(a_, "b", b_, 2);
    a_.tell("detour b a"); // its main thread waits for b, whose method has one of its workers end the process
    endsWith(a_, 9);
    EXPECT_EQ("0", b_.expect("detour "));
    b_.ask("release", "ok");
    EXPECT_EQ(std::string::npos, b_.log().find("waits now")) << b_.log();
    isWhole(b_, "b");
}

TEST_F(ExitInCalls, OfTheTargetOfANestedCallFailsTheInnerCallOnly) {
    Actor c(unit_, 3);
    c.ask("orb 1", "orb ");
    c.ask("serve c", "serves ");
    EXPECT_EQ("1", a_.ask("detour b c", "detoured "));
    EXPECT_EQ("0", b_.expect("detour "));
    endsWith(c, 9);
    isWhole(a_, "a");
    isWhole(b_, "b");
}

TEST_F(ExitInCalls, OfBothAtTheSameTime) {
    hang(a_, "b", b_, 3);
    hang(b_, "a", a_, 3);
    a_.tell("exit 4");
    b_.tell("exit 5");
    endsWith(a_, 4);
    endsWith(b_, 5);
}

} // namespace
