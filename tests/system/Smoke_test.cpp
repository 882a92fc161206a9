#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <csignal>

namespace {

using Testing::Actor;

TEST(Smoke, TwoActorsSeeEachOtherExchangeMessagesAndNoticeTheEnd) {
    const Testing::TempDir directory;
    const Testing::Unit unit{directory.path() + "/unit", {}};
    Actor first(unit, 1);
    const std::string firstId = first.probe(1);
    Actor second(unit, 2);
    const std::string secondId = second.probe(2);
    EXPECT_TRUE(second.askUntil("exists " + firstId, "exists ", "1"));
    EXPECT_EQ("", first.expect("appeared " + secondId));
    EXPECT_EQ("", second.expect("appeared " + firstId));

    EXPECT_EQ("3", second.ask("send " + firstId + " 1000 3", "sent "));
    EXPECT_EQ("2", first.ask("send " + secondId + " 200000 2", "sent "));
    EXPECT_EQ("", first.ask("await 3", "got"));
    EXPECT_EQ("", second.ask("await 2", "got"));
    EXPECT_EQ(" count 3 bytes 3000 errors 0", first.ask("tell", "from " + secondId));
    EXPECT_EQ(" count 2 bytes 400000 errors 0", second.ask("tell", "from " + firstId));

    second.signal(SIGKILL);
    EXPECT_EQ("", first.expect("disappeared " + secondId));
    EXPECT_EQ("0", first.ask("exists " + secondId, "exists "));
}

TEST(Smoke, TwoBrokersSeeEachOther) {
    const Testing::TempDir directory;
    const Testing::Unit unit{directory.path() + "/unit", {"REFLECTORB_LOG_LEVEL=5"}};
    Actor first(unit, 1, {"REFLECTORB_ACTOR=one"});
    const std::string firstId = first.ask("orb 1", "orb ").substr(9);
    Actor second(unit, 2, {"REFLECTORB_ACTOR=two"});
    const std::string secondId = second.ask("orb 1", "orb ").substr(9);
    EXPECT_NE("00000000", firstId);
    EXPECT_NE("00000000", secondId);
    EXPECT_TRUE(first.waitLog("ORB 0x" + firstId + " sees 0x" + secondId + " appear"));
    EXPECT_TRUE(second.waitLog("ORB 0x" + secondId + " sees 0x" + firstId + " appear"));
    EXPECT_TRUE(second.waitLog("ORB created for actor two with OrbId 0x"));
    second.tell("exit 3");
    EXPECT_EQ(3 << 8, second.end());
    EXPECT_TRUE(first.waitLog("ORB 0x" + firstId + " sees 0x" + secondId + " disappear"));
}

TEST(Smoke, AnActorThatCrashedFailsTheTestAndDoesNotEndIt) {
    const Testing::TempDir directory;
    Actor actor(Testing::Unit{directory.path() + "/unit", {}}, 1);
    actor.ask("orb 1", "orb ");
    actor.kill();
    EXPECT_NONFATAL_FAILURE(actor.tell("orb 1"), "does not take 'orb 1'");
}

} // namespace
