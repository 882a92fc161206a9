#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace {

using Testing::Actor;

/** Threads that are cancelled while they call another actor. */
class Cancel : public testing::Test {
protected:
    void SetUp() override {
        serverId_ = server_.ask("orb 1", "orb ").substr(9);
        clientId_ = client_.ask("orb 1", "orb ").substr(9);
        server_.ask("serve thing", "serves ");
    }
    void hang(int threads) {
        client_.ask("begin hold thing 1 " + std::to_string(threads), "begun");
        for (int i = 0; i < threads; ++i) {
            server_.expect("holding");
        }
    }
    /** Requests, stubs and threads with handler state of the client, as it tells them. */
    bool holds(int pending, int stubs, int handlers) {
        char begin[64];
        std::snprintf(begin, sizeof begin, "pending %d stubs %d ", pending, stubs);
        for (int tries = 0; tries < 1000; ++tries) { // a late response may be on its way
            const std::string counts = client_.ask("counts", "counts ");
            const std::size_t at = counts.find("handlers ");
            if (counts.find(begin) == 0 && std::atoi(counts.c_str() + at + 9) == handlers) {
                return true;
            }
            last_ = counts;
        }
        return false;
    }
    std::string unexpected() const {
        return "ORB 0x" + clientId_ + " receives unexpected response (org=0x" + serverId_ + ", TransactionId=";
    }
    std::size_t unexpectedLines() const {
        const std::string log = client_.log();
        std::size_t count = 0;
        for (std::size_t at = log.find(unexpected()); at != std::string::npos; at = log.find(unexpected(), at + 1)) {
            ++count;
        }
        return count;
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor server_{unit_, 1};
    Actor client_{unit_, 2};
    std::string serverId_;
    std::string clientId_;
    std::string last_;
};

TEST_F(Cancel, OfWaitingThreadsLeavesNothingOfThemAndTheOthersUndisturbed) {
    ASSERT_TRUE(holds(0, 1, 0)) << last_;
    hang(5);
    ASSERT_TRUE(holds(5, 2, 5)) << last_; // all share the stub of the object
    EXPECT_EQ("0", client_.ask("cancel", "cancelled "));
    EXPECT_EQ("0", client_.ask("cancel", "cancelled "));
    EXPECT_TRUE(holds(3, 2, 3)) << last_;
    EXPECT_EQ(0U, unexpectedLines());
    server_.ask("release", "ok");
    EXPECT_EQ("3 of 5", client_.ask("join", "called "));
    EXPECT_TRUE(holds(0, 1, 0)) << last_;
    EXPECT_EQ("100 of 100", client_.ask("call addone thing 100", "called "));
    for (int tries = 0; tries < 1000 && unexpectedLines() < 2; ++tries) { // both of the cancelled ones come in the end
        client_.ask("counts", "counts ");
    }
    EXPECT_EQ(2U, unexpectedLines()) << client_.log();
}

TEST_F(Cancel, OfAThreadOfTheSystemIsTheSame) {
    hang(1);
    client_.tell("cancelbare thing");
    server_.expect("holding");
    ASSERT_TRUE(server_.sofar("holding").empty());
    client_.tell("now");
    EXPECT_EQ("0", client_.expect("cancelled "));
    EXPECT_TRUE(holds(1, 2, 1)) << last_;
    server_.ask("release", "ok");
    EXPECT_EQ("1 of 1", client_.ask("join", "called "));
    EXPECT_TRUE(client_.waitLog(unexpected()));
    EXPECT_EQ("10 of 10", client_.ask("call addone thing 10", "called "));
    EXPECT_TRUE(holds(0, 1, 0)) << last_;
}

TEST_F(Cancel, AtAnyMomentOfACallLeavesNothing) {
    server_.ask("release", "ok");
    client_.ask("begin hold thing 1000 2", "begun"); // others that call meanwhile
    const std::string stormed = client_.ask("storm thing 150", "stormed ");
    EXPECT_EQ("150 ", stormed.substr(0, 4));
    EXPECT_EQ("2000 of 2000", client_.ask("join", "called "));
    EXPECT_TRUE(holds(0, 1, 0)) << last_;
    EXPECT_EQ("100 of 100", client_.ask("call addone thing 100", "called "));
}

TEST_F(Cancel, OfAllCallersOfATargetThatIsKilledEndsThemOnce) {
    hang(6);
    EXPECT_EQ("0", client_.ask("cancel", "cancelled "));
    server_.kill();
    EXPECT_EQ("0 of 6", client_.ask("join", "called "));
    EXPECT_TRUE(holds(0, 1, 0)) << last_;
    EXPECT_EQ(0U, unexpectedLines());
}

} // namespace
