#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

namespace {

using Testing::Actor;

/** An actor with a broker ends by itself, with its own status, and is seen to go. */
class Exit : public testing::Test {
protected:
    void SetUp() override {
        witness_.probe();
        id_ = actor_.ask("orb 1", "orb ").substr(9);
        witness_.expect("appeared " + id_);
    }
    void endsWith(const std::string &command, int status) {
        actor_.tell(command);
        EXPECT_EQ(status << 8, actor_.end());
        EXPECT_EQ("", witness_.expect("disappeared " + id_));
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {}};
    Actor witness_{unit_};
    Actor actor_{unit_, 2};
    std::string id_;
};

TEST_F(Exit, OfMainWithoutPermission) {
    endsWith("exit 5", 5);
}

TEST_F(Exit, OfMainThatHoldsThePermission) {
    actor_.ask("enter", "ok");
    endsWith("exit 5", 5);
}

TEST_F(Exit, OfAWorkerThatHoldsThePermission) {
    endsWith("exitworker", 7);
}

TEST_F(Exit, WithTwoBrokersAndAThirdNeverMade) {
    EXPECT_NE("none", actor_.ask("orb 2", "orb "));
    endsWith("exit 0", 0);
}

TEST_F(Exit, AfterThePeersHaveGone) {
    witness_.kill();
    actor_.tell("exit 4");
    EXPECT_EQ(4 << 8, actor_.end());
    EXPECT_EQ((std::vector<std::string>{"names"}), Testing::filesIn(unit_.directory));
}

} // namespace
