#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <poll.h>
#include <sys/personality.h>

namespace {

using Testing::Actor;

/** Handles whose object went away with its actor. */
class Stale : public testing::Test {
protected:
    void SetUp() override {
        restart("thing");
        client_.ask("orb 1", "orb ");
        EXPECT_EQ("1", client_.ask("keep thing", "kept "));
        EXPECT_EQ("1 of 1", client_.ask("kept", "called "));
    }
    /** A new incarnation of the server; if possible its heap lies where it lay before. */
    void restart(const char *name) {
        const int before = ::personality(0xFFFFFFFF);
        ::personality(static_cast<unsigned long>(before) | ADDR_NO_RANDOMIZE);
        server_ = std::make_unique<Actor>(unit_, 1);
        ::personality(static_cast<unsigned long>(before));
        id_ = server_->ask("orb 1", "orb ").substr(9);
        number_ = server_->ask(std::string("serve ") + name, "serves ");
    }
    /** The next actor gets the name that the server had. */
    void nameAgain() const {
        const unsigned name = static_cast<unsigned>(std::stoul(id_.substr(0, 4), nullptr, 16));
        std::filesystem::resize_file(unit_.directory + "/names", name - 1);
    }
    /** The client is told of everything in order: when it has seen the second, it has dealt with the end of the first.
     */
    bool seesTheSecond() const {
        const std::string appears = " sees 0x" + id_ + " appear";
        for (int tries = 0; tries < 12000; ++tries) {
            const std::string log = client_.log();
            const std::size_t first = log.find(appears);
            if (first != std::string::npos && log.find(appears, first + 1) != std::string::npos) {
                return true;
            }
            ::poll(nullptr, 0, 5); // a file cannot be waited for
        }
        return false;
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    std::unique_ptr<Actor> server_;
    Actor client_{unit_, 2};
    std::string id_;
    std::string number_;
};

TEST_F(Stale, AHandleDoesNotComeBackToLifeAndANewOneFindsTheNewObject) {
    const std::string first = id_;
    for (int round = 0; round < 3; ++round) {
        server_->kill();
        EXPECT_EQ("0 of 1", client_.ask("kept", "called "));
        restart("thing");
        EXPECT_NE(first, id_);
        EXPECT_EQ("0 of 1", client_.ask("kept", "called ")) << "a handle of the one before";
        EXPECT_EQ("10 of 10", client_.ask("call addone thing 10", "called "));
        EXPECT_EQ("0 of 1", client_.ask("kept", "called ")) << "there is another handle of that name now";
        EXPECT_EQ("1", client_.ask("keep thing", "kept "));
        EXPECT_EQ("1 of 1", client_.ask("kept", "called "));
    }
    EXPECT_TRUE(client_.waitLog(" request to stub object set to invalid"));
    EXPECT_EQ(std::string::npos, server_->log().find("ioid=")) << "asked for an object that it does not have";
}

TEST_F(Stale, AHandleDoesNotReachAnObjectThatHasAllItsNumbers) {
    const std::string id = id_;
    const std::string number = number_;
    server_->kill();
    nameAgain();
    restart("other");
    ASSERT_EQ(id, id_);
    ASSERT_TRUE(seesTheSecond());
    RecordProperty("SameObjectNumber", number == number_ ? "yes" : "no");
    EXPECT_EQ("10 of 10", client_.ask("call addone other 10", "called "));
    EXPECT_EQ("0 of 1", client_.ask("kept", "called "));
    EXPECT_EQ("1", client_.ask("keep other", "kept "));
    EXPECT_EQ("1 of 1", client_.ask("kept", "called "));
    EXPECT_EQ(std::string::npos, server_->log().find("ioid=")) << server_->log();
}

/** The disappearance comes late, with the next one of that name already there. */
TEST_F(Stale, AnActorThatSleptThroughTheRestartKnowsOfIt) {
    client_.signal(SIGSTOP);
    server_->kill();
    nameAgain();
    restart("other");
    client_.signal(SIGCONT);
    ASSERT_TRUE(seesTheSecond());
    EXPECT_EQ("0 of 1", client_.ask("kept", "called "));
    EXPECT_EQ("10 of 10", client_.ask("call addone other 10", "called "));
    EXPECT_EQ("0 of 1", client_.ask("kept", "called "));
    EXPECT_EQ(std::string::npos, server_->log().find("ioid=")) << server_->log();
}

/** A reply of the first incarnation may not be there for the second, nor the other way round. */
TEST_F(Stale, WaitingCallsOfADeadIncarnationAreNotAnsweredByTheNext) {
    client_.ask("begin hold thing 1 4", "begun");
    for (int i = 0; i < 4; ++i) {
        server_->expect("holding");
    }
    server_->kill();
    nameAgain();
    restart("thing");
    server_->ask("release", "ok");
    EXPECT_EQ("0 of 4", client_.ask("join", "called "));
    EXPECT_TRUE(server_->sofar("holding").empty()) << "a call was sent twice";
    EXPECT_TRUE(client_.askUntil("call addone thing 1", "called ", "1 of 1"));
}

} // namespace
