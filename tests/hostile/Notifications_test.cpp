#include "hostile/NotificationTest.h"

#include <cstdio>
#include <memory>

namespace Hostile {

namespace {

/** What a peer tells and asks for, and how it answers when it is asked. */
class HostileNotifications : public NotificationTest {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        peer_ = join(false);
    }
    /** The server is told of the creation of an object with this reference. */
    void expectTold(const Bytes &reference, const std::string &lengthAndNumber) {
        EXPECT_EQ(Bytes(), ask(*peer_, kCreated, Data().word(kWatched).bytes(reference).get()));
        EXPECT_EQ(std::to_string(++creations_) + " 0 " + lengthAndNumber, watched());
    }

    std::unique_ptr<Peer> peer_;
    unsigned creations_ = 0;
};

TEST_F(HostileNotifications, ThatAreRightHaveTheirEffect) {
    watch(*peer_);
    EXPECT_EQ(nothing(kCreated), ask(*peer_, kCreated, body(kCreated, *peer_)));
    EXPECT_EQ("1 0 4 77", watched());
    EXPECT_EQ(nothing(kDeleted), ask(*peer_, kDeleted, body(kDeleted, *peer_)));
    EXPECT_EQ("1 1 4 77", watched());
    EXPECT_EQ(nothing(kWatchCreations), ask(*peer_, kWatchCreations, body(kWatchCreations, *peer_)));
    EXPECT_EQ("1 0", subscribers());
    EXPECT_EQ(nothing(kWatchDeletions), ask(*peer_, kWatchDeletions, body(kWatchDeletions, *peer_)));
    EXPECT_EQ("1 1", subscribers());
    for (std::uint32_t end : {kUnwatchCreations, kUnwatchDeletions}) {
        EXPECT_EQ(nothing(end), ask(*peer_, end, body(end, *peer_)));
        EXPECT_EQ("0 0", subscribers());
        ask(*peer_, kWatchCreations, body(kWatchCreations, *peer_));
        ask(*peer_, kWatchDeletions, body(kWatchDeletions, *peer_));
    }
    expectServed(*peer_);
}

TEST_F(HostileNotifications, ThatAreCutAnywhereHaveNone) {
    watch(*peer_);
    ask(*peer_, kWatchCreations, body(kWatchCreations, *peer_));
    ask(*peer_, kWatchDeletions, body(kWatchDeletions, *peer_));
    unsigned cuts = 0;
    for (std::uint32_t type : kTypes) {
        // A class that the peer has not subscribed to, or the one that it must not lose.
        const Bytes whole = body(type, *peer_, isSubscription(type) ? 0x51 : kWatched);
        for (std::size_t size = 0; size < whole.size(); ++size, ++cuts) {
            EXPECT_EQ(nothing(type), ask(*peer_, type, firstOf(whole, size))) << "type " << type << ", " << size;
        }
        char line[120];
        std::snprintf(line, sizeof line, "ORB 0x%08X received an incomplete message of type %u from 0x%08X", orb_, type,
                      peer_->termination());
        EXPECT_TRUE(logged(line));
    }
    EXPECT_EQ(2 * 24U + 8 + 4 + 4 + 4, cuts);
    EXPECT_EQ("0 0 0 0", watched());
    EXPECT_EQ("1 1", subscribers());
    for (std::uint32_t cc : {0U, 0x51U}) {
        EXPECT_EQ("0 0", subscribers(cc));
    }
    expectServed(*peer_);
}

TEST_F(HostileNotifications, AreReadAsFarAsTheyGo) {
    watch(*peer_);
    for (std::uint32_t type : kTypes) {
        for (std::uint32_t size : {0x7FFFFFFFU, 1000U, 0U, 0x80000000U, 0xFFFFFFFFU}) { // right, and nothing, of each
            const std::uint32_t transaction = 0x5000 + type * 16 + (size & 0xF);
            Bytes sent = message(transaction, type, kRequest, body(type, *peer_));
            setWord(sent, 12, size);
            Bytes response;
            ASSERT_TRUE(peer_->sendMessage(orb_, sent));
            ASSERT_TRUE(peer_->response(transaction, response)) << type << ' ' << size;
        }
        // What comes behind is passed over.
        EXPECT_EQ(nothing(type), ask(*peer_, type, Data().bytes(body(type, *peer_)).bytes(Bytes(5000, 0xEE)).get()));
    }
    EXPECT_EQ("3 3 4 77", watched());
    EXPECT_EQ("0 0", subscribers()) << "the last ones have ended the subscription";
    for (std::uint32_t truth : {2U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nothing(kWatchCreations), ask(*peer_, kWatchCreations, Data().word(kWatched).word(truth).get()));
    }
    EXPECT_EQ("1 0", subscribers());
    expectServed(*peer_);
}

TEST_F(HostileNotifications, OfObjectsWithStrangeNames) {
    watch(*peer_);
    const std::uint32_t broker = peer_->termination();
    expectTold(reference("", kNumber, broker), "0 77");
    expectTold(reference("%s%n%p%999999999d", kNumber, broker), "17 77");
    expectTold(reference("\xFF\xFE\x80\xC0", kNumber, broker), "4 77");
    expectTold(reference(std::string("ab\0cd", 5), kNumber, broker), "2 77");
    expectTold(reference(std::string(5, '\0'), kNumber, broker), "0 77");
    expectTold(reference(std::string(1024 * 1024, 'x'), kNumber, broker), "1048576 77");
    expectTold(reference(std::string(8U * 1024 * 1024, 'y'), kNumber, broker), "8388608 77");
    // Negative lengths are empty; so what follows is read as namespace, number and broker.
    for (std::uint32_t length : {0x80000000U, 0xFFFFFFFFU}) {
        expectTold(Data().word(length).word(1).word(kNumber).word(broker).get(), "0 77");
    }
    const std::string before = watched();
    for (std::uint32_t length : {17U, 1024U * 1024, 1024U * 1024 + 1, 0x7FFFFFFFU}) {
        for (std::uint32_t type : {kCreated, kDeleted}) {
            EXPECT_EQ(Bytes(), ask(*peer_, type,
                                   Data().word(kWatched).counted(length, "name").word(1).word(2).word(broker).get()));
        }
    }
    EXPECT_EQ(before, watched()) << "longer than what is there";
    expectServed(*peer_);
}

/** It can be any number of any broker; the object need not exist, and may be one of the server itself. */
TEST_F(HostileNotifications, OfObjectsOfOthers) {
    watch(*peer_);
    char number[16];
    std::snprintf(number, sizeof number, "0 %X", served_);
    expectTold(reference("", served_, orb_), number);
    expectTold(reference("", 0x12345, orb_), "0 12345");
    expectTold(reference("", 1, clientOrb_), "0 1");
    for (std::uint32_t broker : {1U, 0xFFFFFFFFU, 0xFFFF0000U, 0x0203U, 0x02FFU}) {
        expectTold(reference("", 9, broker), "0 9");
    }
    expectTold(reference("InvalidStub", 5, peer_->termination()), "11 5");
    EXPECT_EQ(Bytes(), ask(*peer_, kDeleted, Data().word(kWatched).bytes(reference("", served_, orb_)).get()));
    EXPECT_EQ(std::to_string(creations_) + " 1 " + number, watched());
    expectServed(*peer_); // and the object that was "deleted" serves the client
}

/** Who has a name without an address is asked for: all others are, the peer that told of it, too. */
TEST_F(HostileNotifications, OfANameWaitForItsLookUp) {
    watch(*peer_);
    const Bytes nowhere = Data().word(kWatched).bytes(reference("nowhere", 0, 0)).get();
    ASSERT_TRUE(peer_->sendMessage(orb_, message(0x4444, kCreated, kRequest, nowhere)));
    Bytes came;
    do {
        ASSERT_TRUE(peer_->nextMessage(came));
        ASSERT_LE(16U, came.size());
        if (wordAt(came, 8) == kRequest) {
            EXPECT_EQ(std::uint32_t{kResolve}, wordAt(came, 4));
            expectServesNewPeer(); // the server does not wait with everything else
            ASSERT_TRUE(
                peer_->sendMessage(orb_, message(wordAt(came, 0), kResolve, kResponse, Data().word(0x99).get())));
        }
    } while (wordAt(came, 0) != 0x4444);
    EXPECT_EQ("1 0 7 99", watched());
}

TEST_F(HostileNotifications, OfClassesThatNobodyKnows) {
    watch(*peer_);
    for (std::uint32_t cc : {0U, 0x51U, kWatched + 1, 0x641E8FCDU, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        for (std::uint32_t type : kTypes) {
            EXPECT_EQ(nothing(type), ask(*peer_, type, body(type, *peer_, cc))) << cc << ' ' << type;
        }
        EXPECT_EQ("0 0", subscribers(cc)) << "the last ones have ended the subscription";
        ask(*peer_, kWatchCreations, body(kWatchCreations, *peer_, cc));
        EXPECT_EQ("1 0", subscribers(cc)) << "objects of it may still come";
    }
    EXPECT_EQ("0 0 0 0", watched());
    EXPECT_EQ("0 0", subscribers());
    expectServed(*peer_);
}

TEST_F(HostileNotifications, ThatComeAgain) {
    watch(*peer_);
    for (unsigned i = 1; i <= 5; ++i) {
        ask(*peer_, kCreated, body(kCreated, *peer_)); // by the protocol, each is one
        EXPECT_EQ(std::to_string(i) + " 0 4 77", watched());
    }
    for (unsigned i = 1; i <= 7; ++i) {
        ask(*peer_, kDeleted, body(kDeleted, *peer_)); // of what was told, and of what never was
        EXPECT_EQ("5 " + std::to_string(i) + " 4 77", watched());
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(nothing(kUnwatchCreations), ask(*peer_, kUnwatchCreations, body(kUnwatchCreations, *peer_)));
        EXPECT_EQ("0 0", subscribers()) << "before there was a subscription";
    }
    for (int i = 0; i < 5; ++i) {
        ask(*peer_, kWatchCreations, body(kWatchCreations, *peer_));
        EXPECT_EQ("1 0", subscribers());
    }
    server_.tell("making");
    answer(*peer_, kCreated, {});
    EXPECT_TRUE(server_.askUntil("made", "made ", "1")) << "told once";
    expectServed(*peer_);
    EXPECT_EQ(0U, peer_->waiting());
}

/** One way or of a kind that does not exist: taken for requests. */
TEST_F(HostileNotifications, OfOtherKindsAreTakenOrPassedOver) {
    watch(*peer_);
    unsigned taken = 0;
    for (std::uint32_t kind : {0U, 1U, 2U, 6U, 0xFFFFFFFFU}) {
        ASSERT_TRUE(peer_->sendMessage(orb_, message(0x6000 + kind, kCreated, kind, body(kCreated, *peer_))));
        ++taken;
    }
    for (std::uint32_t type : kTypes) {
        for (std::uint32_t kind : {kResponse, kNoDestination}) { // an answer to nothing
            ASSERT_TRUE(peer_->sendMessage(orb_, message(0xABC00123, type, kind, body(type, *peer_))));
        }
    }
    EXPECT_TRUE(server_.askUntil("watched", "watched ", std::to_string(taken) + " 0 4 77"));
    EXPECT_EQ("0 0", subscribers());
    char line[120];
    std::snprintf(line, sizeof line, "ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=ABC00123)",
                  orb_, peer_->termination());
    EXPECT_TRUE(logged(line));
    expectServed(*peer_);
}

TEST_F(HostileNotifications, OfWhoWasNeverAnnouncedDoNotArrive) {
    watch(*peer_);
    for (std::uint32_t type : kTypes) {
        Peer stranger(socket_);
        const Bytes sent = message(1, type, kRequest, body(type, stranger));
        const auto size = static_cast<std::uint32_t>(sent.size());
        ASSERT_TRUE(stranger.send(packet(kHello, 1, stranger.name(), 0)));
        ASSERT_TRUE(stranger.send(packet(kData, stranger.termination(), orb_, size, sent)));
        expectClosed(stranger, "message with forged originator 0x");
    }
    EXPECT_EQ("0 0 0 0", watched());
    EXPECT_EQ("0 0", subscribers());
    expectServed(*peer_);
}

} // namespace

} // namespace Hostile
