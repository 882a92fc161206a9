#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

using Testing::Actor;

class Calls : public testing::Test {
protected:
    /** The address of the broker. */
    static std::string makeBroker(Actor &actor) { return actor.ask("orb 1", "orb ").substr(9); }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
};

TEST_F(Calls, FindTheirObjectByNameInAnotherActor) {
    Actor server(unit_, 1, {"REFLECTORB_ACTOR=server"});
    Actor client(unit_, 2);
    makeBroker(server);
    makeBroker(client);
    const std::string number = server.ask("serve thing", "serves ");
    EXPECT_EQ(number, client.ask("locate thing", "located ").substr(0, number.size()));
    EXPECT_EQ("100 of 100", client.ask("call addone thing 100", "called "));
    EXPECT_EQ("1 of 1", client.ask("call echo thing 1", "called "));
    EXPECT_EQ("1 of 1", client.ask("call echo thing 1000000", "called "));
}

TEST_F(Calls, OfAnObjectOfTheOwnActorNeedNoMessage) {
    Actor actor(unit_);
    makeBroker(actor);
    actor.ask("serve own", "serves ");
    EXPECT_EQ("10 of 10", actor.ask("call addone own 10", "called "));
    EXPECT_EQ(std::string::npos, actor.log().find("waits now"));
}

TEST_F(Calls, OfAnObjectThatNobodyHasFail) {
    Actor server(unit_);
    Actor client(unit_, 2);
    makeBroker(server);
    makeBroker(client);
    EXPECT_EQ("0 00000000", client.ask("locate nothing", "located "));
    EXPECT_EQ("0 of 1", client.ask("call addone nothing 1", "called "));
}

TEST_F(Calls, ThatAreNotHandledFailWhateverWasWritten) {
    Actor server(unit_);
    Actor client(unit_, 2);
    makeBroker(server);
    makeBroker(client);
    server.ask("serve thing", "serves ");
    EXPECT_EQ("0 of 3", client.ask("call refuse thing 3", "called "));
    EXPECT_TRUE(server.waitLog("REFLECT_orb"));
    EXPECT_TRUE(server.waitLog("Handling request message failed rc=0"));
    EXPECT_EQ("5 of 5", client.ask("call addone thing 5", "called "));
}

TEST_F(Calls, WhoseServerIsKilledEndAtOnce) {
    Actor server(unit_);
    Actor client(unit_, 2);
    const std::string id = makeBroker(server);
    makeBroker(client);
    server.ask("serve thing", "serves ");
    client.tell("call hold thing 1 3");
    for (int i = 0; i < 3; ++i) {
        server.expect("holding");
    }
    server.kill();
    EXPECT_EQ("0 of 3", client.expect("called "));
    EXPECT_TRUE(client.waitLog("request to target 0x" + id + " aborted (Detection Rem.Disc.=true, TargetGone=false)"));
    EXPECT_EQ(std::string::npos, client.log().find("waits now"));
    EXPECT_EQ("0 of 1", client.ask("call addone thing 1", "called "));
}

TEST_F(Calls, OfOtherServersWaitOn) {
    Actor server(unit_);
    Actor other(unit_);
    Actor client(unit_, 2);
    const std::string id = makeBroker(server);
    makeBroker(other);
    makeBroker(client);
    server.ask("serve thing", "serves ");
    other.ask("serve another", "serves ");
    client.ask("begin hold thing 1 2", "begun");
    client.ask("begin hold another 1 3", "begun");
    for (int i = 0; i < 5; ++i) {
        (i < 2 ? server : other).expect("holding");
    }
    server.kill();
    EXPECT_TRUE(client.waitLog("request to target 0x" + id + " aborted (Detection Rem.Disc.=true, TargetGone=false)"));
    other.ask("release", "ok");
    EXPECT_EQ("3 of 5", client.ask("join", "called "));
}

TEST_F(Calls, FindTheObjectAgainAfterItsActorWasRestarted) {
    Actor client(unit_, 2);
    makeBroker(client);
    for (int i = 0; i < 5; ++i) {
        Actor server(unit_);
        makeBroker(server);
        server.ask("serve thing", "serves ");
        EXPECT_EQ("20 of 20", client.ask("call addone thing 20", "called ")) << i;
    }
}

TEST_F(Calls, MayNestBackIntoTheCaller) {
    Actor one(unit_);
    Actor two(unit_, 2);
    makeBroker(one);
    makeBroker(two);
    one.ask("serve a", "serves ");
    two.ask("serve b", "serves ");
    EXPECT_EQ("12", one.ask("through 12 b a", "through "));
}

TEST_F(Calls, OfManyThreadsBothWaysAreNotMixedUp) {
    Actor one(unit_);
    Actor two(unit_, 2);
    makeBroker(one);
    makeBroker(two);
    one.ask("serve a", "serves ");
    two.ask("serve b", "serves ");
    one.tell("call addone b 300 8");
    two.tell("call addone a 300 8");
    EXPECT_EQ("2400 of 2400", one.expect("called "));
    EXPECT_EQ("2400 of 2400", two.expect("called "));
}

TEST_F(Calls, OneWayNeverWait) {
    Actor server(unit_);
    Actor client(unit_, 2);
    makeBroker(server);
    makeBroker(client);
    server.ask("serve thing", "serves ");
    EXPECT_EQ("1000 of 1000", client.ask("call note thing 1000", "called "));
    EXPECT_EQ("1 of 1", client.ask("call addone thing 1", "called ")); // so that all have come
    EXPECT_TRUE(client.log().find("unexpected") == std::string::npos);
    std::string noted;
    for (int tries = 0; tries < 1000 && noted != "1000"; ++tries) { // several workers take them
        noted = server.ask("noted", "noted ");
    }
    EXPECT_EQ("1000", noted);
}

TEST_F(Calls, AreCountedAndRecorded) {
    Actor server(unit_, 1, {"REFLECTORB_ACTOR=server"});
    Actor client(unit_, 2, {"REFLECTORB_ACTOR=client"});
    const std::string serverId = makeBroker(server);
    const std::string clientId = makeBroker(client);
    server.ask("serve thing", "serves ");
    EXPECT_EQ("3 of 3", client.ask("call addone thing 3", "called "));
    // One to find it and three calls; the question for the counters of the other is the first in that direction.
    const std::string target = std::to_string(std::stoul(serverId, nullptr, 16));
    EXPECT_EQ(" client to " + target + ":4/0", server.ask("counters", "counters " + clientId));
    EXPECT_EQ("", server.ask("dump", "ok"));
    EXPECT_TRUE(
        server.waitLog("Processed Msg : Sender:0x" + clientId + " Destination:0x" + serverId + " CC:0x51 MC:0x1"));
    EXPECT_TRUE(server.waitLog("Size of RMI msg queue : 0"));
}

TEST_F(Calls, InFlightDoNotKeepAnActorFromExiting) {
    Actor server(unit_);
    Actor client(unit_, 2);
    makeBroker(server);
    makeBroker(client);
    server.ask("serve thing", "serves ");
    client.tell("call hold thing 1 2");
    server.expect("holding");
    server.expect("holding");
    server.tell("exit 6");
    EXPECT_EQ(6 << 8, server.end());
    EXPECT_EQ("0 of 2", client.expect("called "));
}

} // namespace
