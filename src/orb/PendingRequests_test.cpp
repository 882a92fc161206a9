#include "orb/PendingRequests_p.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

constexpr unsigned kCounter = 1U << 20;

/** 200 requests, of which many fall into the same row. */
class PendingRequestsTest : public testing::Test {
protected:
    PendingRequestsTest() {
        for (unsigned i = 0; i < 200; ++i) {
            requests.push_back(std::make_unique<OngoingRequest>());
            table.add(id(i), *requests.back());
        }
    }
    static unsigned id(unsigned number) { return number * kCounter | 0x10002U; }

    std::vector<std::unique_ptr<OngoingRequest>> requests;
    PendingRequests table;
};

TEST_F(PendingRequestsTest, EachIsFoundByItsIdUntilItIsTaken) {
    for (unsigned i = 199; i < 200; --i) {
        EXPECT_TRUE(table.contains(id(i)));
        EXPECT_EQ(requests[i].get(), table.take(id(i)));
        EXPECT_FALSE(table.contains(id(i)));
        EXPECT_EQ(nullptr, table.take(id(i)));
    }
}

TEST_F(PendingRequestsTest, WhatIsTakenOutOfTheMiddleLeavesTheOthers) {
    EXPECT_EQ(requests[64].get(), table.take(id(64)));
    EXPECT_TRUE(table.contains(id(0)));
    EXPECT_TRUE(table.contains(id(128)));
    EXPECT_TRUE(table.contains(id(192)));
    table.add(id(64), *requests[64]);
    EXPECT_EQ(requests[64].get(), table.take(id(64)));
}

TEST_F(PendingRequestsTest, AnIdDiffersInAllItsBits) {
    EXPECT_FALSE(table.contains(id(5) ^ 1U));
    EXPECT_EQ(nullptr, table.take(id(5) ^ 0x10000U));
}

TEST_F(PendingRequestsTest, OnlyTheOneThatWasEnteredIsTakenBack) {
    EXPECT_FALSE(table.takeBack(id(7), *requests[8]));
    EXPECT_FALSE(table.takeBack(id(200), *requests[7]));
    EXPECT_TRUE(table.takeBack(id(7), *requests[7]));
    EXPECT_FALSE(table.takeBack(id(7), *requests[7]));
}

TEST_F(PendingRequestsTest, TheFirstThatMatchesIsTaken) {
    const OngoingRequest *const wanted = requests[150].get();
    const auto matches = [wanted](const OngoingRequest &request) { return &request == wanted; };
    EXPECT_EQ(wanted, table.takeFirst(matches));
    EXPECT_EQ(nullptr, table.takeFirst(matches));
}

TEST_F(PendingRequestsTest, AllComeOutWithTheirIds) {
    std::vector<bool> taken(requests.size());
    unsigned which = 0;
    while (OngoingRequest *request = table.takeAny(which)) {
        const unsigned number = which / kCounter;
        ASSERT_LT(number, requests.size());
        EXPECT_EQ(requests[number].get(), request);
        EXPECT_FALSE(taken[number]);
        taken[number] = true;
    }
    EXPECT_EQ(std::vector<bool>(requests.size(), true), taken);
    EXPECT_EQ(0U, which);
}

} // namespace
