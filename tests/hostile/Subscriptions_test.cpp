#include "hostile/NotificationTest.h"

#include <cstdio>
#include <memory>
#include <vector>

#ifndef HOSTILE_MUTATIONS
#define HOSTILE_MUTATIONS 200000
#endif

namespace Hostile {

namespace {

/** The server subscribes at a peer, or tells it of an object, and gets a wrong answer or none. */
class HostileSubscriptions : public NotificationTest {
protected:
    struct Answered {
        Bytes data;
        unsigned objects; // that the server is told of
        bool taught;      // the classes of the peer, so that it is not asked for others
    };

    /** A new peer answers the server's subscription to creations so; how many objects that were. */
    unsigned objectsOf(const Bytes &data) {
        const std::unique_ptr<Peer> peer = join(false);
        const auto before = std::stoul(watched());
        server_.tell("watch");
        answer(*peer, kWatchDeletions, {}); // says nothing of its classes
        answer(*peer, kWatchCreations, data);
        EXPECT_EQ("ok", server_.expect("watch "));
        end(*peer);
        return static_cast<unsigned>(std::stoul(watched()) - before);
    }
    void end(Peer &peer) {
        server_.tell("unwatch");
        // Two observers go, and each time those of creations are none.
        for (std::uint32_t type : {kUnwatchCreations, kUnwatchCreations, kUnwatchDeletions}) {
            answer(peer, type, {});
        }
        EXPECT_EQ("ok", server_.expect("watch "));
    }
    static Bytes one(std::uint32_t number) { return reference("", number, 0xC0FE0201); }
};

TEST_F(HostileSubscriptions, AreAnsweredWithObjectsThatCannotBe) {
    const Bytes three = Data().word(3).bytes(one(5)).bytes(one(6)).bytes(one(7)).get();
    EXPECT_EQ(3U, objectsOf(Data().bytes(three).word(1).word(kWatched).get()));
    EXPECT_EQ(3U, objectsOf(three)) << "no classes";
    for (std::size_t size = 0; size < three.size(); ++size) { // as many as are whole; zeros are no objects
        const std::size_t whole = size < 4 ? 0 : (size - 4) / 16;
        EXPECT_EQ(whole, objectsOf(firstOf(three, size))) << size;
    }
    for (std::uint32_t count : {65537U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(0U, objectsOf(Data().word(count).bytes(one(5)).get())) << count;
    }
    EXPECT_EQ(1U, objectsOf(Data().word(65536).bytes(one(5)).get()));
    EXPECT_EQ(1U, objectsOf(Data().word(3).bytes(one(5)).bytes(one(5)).bytes(one(5)).get())) << "each once";
    EXPECT_EQ(1U, objectsOf(Data().word(3).bytes(reference("InvalidStub", 0, 0)).bytes(Bytes(16)).bytes(one(5)).get()));
    EXPECT_EQ(1U, objectsOf(Data().word(2).bytes(one(5)).counted(0x7FFFFFFF, "name").get()));
    expectServesNewPeer();
}

TEST_F(HostileSubscriptions, AreAnsweredWithClassesThatCannotBe) {
    const Answered answers[] = {
        {{}, 0, false},
        {Data().bytes({0, 0, 0}).get(), 0, false},
        {Data().word(0xFFFFFFFF).get(), 0, false},
        {Data().word(65537).word(kWatched + 1).get(), 0, false},
        {Data().word(0).get(), 0, true},
        {Data().word(1).word(kWatched + 1).get(), 0, true},
        {Data().word(3).word(kWatched + 1).get(), 0, true}, // the others are zeros
    };
    for (const Answered &each : answers) {
        const std::unique_ptr<Peer> peer = join(false);
        server_.tell("watch");
        answer(*peer, kWatchDeletions, each.data);
        if (!each.taught) {
            answer(*peer, kWatchCreations, each.data);
        }
        EXPECT_EQ("ok", server_.expect("watch "));
        end(*peer);
    }
    expectServesNewPeer();
}

TEST_F(HostileSubscriptions, ThatAreNotAnsweredEndWithThePeer) {
    std::unique_ptr<Peer> peer = join(false);
    server_.tell("watch");
    answer(*peer, kWatchDeletions, nothing(kWatchDeletions));
    Bytes request;
    ASSERT_TRUE(peer->nextMessage(request));
    peer.reset();
    EXPECT_EQ("ok", server_.expect("watch "));
    EXPECT_EQ("ok", server_.ask("unwatch", "watch "));
    // One that begins to answer.
    peer = join(false);
    server_.tell("watch");
    ASSERT_TRUE(peer->nextMessage(request));
    ASSERT_TRUE(peer->send(packet(kData, peer->termination(), orb_, 100000, Bytes(1000), kFirst)));
    peer.reset();
    EXPECT_EQ("ok", server_.expect("watch "));
    peer = join(true);
    EXPECT_EQ(Bytes(), ask(*peer, kCreated, body(kCreated, *peer)));
    EXPECT_EQ("1 0 4 77", watched());
}

/** Who makes an object waits for those that want to know; nobody else does. */
TEST_F(HostileSubscriptions, OfPeersThatDoNotAnswerHoldUpWhoTellsThem) {
    std::unique_ptr<Peer> mute = join(false);
    const std::unique_ptr<Peer> other = join(false);
    for (Peer *peer : {mute.get(), other.get()}) {
        ask(*peer, kWatchCreations, body(kWatchCreations, *peer));
        ask(*peer, kWatchDeletions, body(kWatchDeletions, *peer));
    }
    server_.tell("making");
    Bytes request;
    ASSERT_TRUE(mute->nextMessage(request)); // the first one that subscribed is told first
    EXPECT_EQ(std::uint32_t{kCreated}, wordAt(request, 4));
    expectServed(*other);
    expectServesNewPeer();
    EXPECT_EQ("0", server_.ask("made", "made "));
    EXPECT_EQ("2 2", subscribers());
    mute.reset();
    answer(*other, kCreated, {});
    EXPECT_TRUE(server_.askUntil("made", "made ", "1"));
    EXPECT_EQ("1 2", subscribers()) << "who did not answer is not told again";
    // What the answer holds is not looked at.
    for (const Bytes &data : {Bytes(3), Data().word(0xFFFFFFFF).get(), Bytes(100000, 0xEE)}) {
        server_.tell("making");
        answer(*other, kCreated, data);
    }
    EXPECT_TRUE(server_.askUntil("made", "made ", "4"));
    server_.tell("making");
    ASSERT_TRUE(other->nextMessage(request));
    ASSERT_TRUE(other->sendMessage(orb_, message(wordAt(request, 0), kCreated, kNoDestination, {})));
    EXPECT_TRUE(server_.askUntil("made", "made ", "5"));
    EXPECT_EQ("0 2", subscribers());
    expectServed(*other);
}

/** Much of it; nothing is logged but errors. */
class HostileFloods : public NotificationTest {
protected:
    static constexpr unsigned kFlood = HOSTILE_MUTATIONS / 2;
    static constexpr unsigned kWindow = 200; // requests that wait for their answers
#ifdef REFLECTORB_SANITIZED
    static constexpr long kSlack = 256L * 1024; // KiB; freed memory is kept back for a while
#else
    static constexpr long kSlack = 8L * 1024;
#endif

    HostileFloods() : NotificationTest(3) {}

    void SetUp() override {
        HostileTest::SetUp();
        peer_ = std::make_unique<Peer>(socket_);
        ASSERT_TRUE(peer_->join());
    }
    /** One request for each class, with whatever answers; all are worked off at its end. */
    void flood(std::uint32_t type, unsigned count, std::uint32_t firstClass, std::uint32_t step) {
        for (unsigned i = 0; i < count; ++i) {
            const Bytes data = body(type, *peer_, firstClass + i * step);
            ASSERT_TRUE(peer_->sendMessage(orb_, message(0x100000 + i, type, kRequest, data)));
            if ((i + 1) % kWindow == 0 || i + 1 == count) {
                Bytes response;
                for (unsigned answers = i % kWindow + 1; answers != 0; --answers) {
                    ASSERT_TRUE(peer_->nextMessage(response)) << i;
                }
            }
        }
    }
    std::unique_ptr<Peer> peer_;
};

TEST_F(HostileFloods, OfTheSameSubscriptionCostNothing) {
    for (std::uint32_t type : kTypes) {
        flood(type, kFlood / 50, 0x51, 0);
    }
    const long before = memory();
    flood(kWatchCreations, kFlood, 0x51, 0);
    for (std::uint32_t type : kTypes) {
        flood(type, kFlood / 10, 0x51, 0);
    }
    EXPECT_LT(memory() - before, kSlack);
    EXPECT_EQ("0 0", subscribers(0x51));
    expectServed(*peer_);
}

/** Each class that somebody watches is kept; that is all it may cost, also when a broker comes up and when objects and
 *  observers come and go. */
TEST_F(HostileFloods, OfSubscriptionsToManyClassesCostLittle) {
    flood(kWatchCreations, 1000, 0x01000000, 7);
    const long before = memory();
    flood(kWatchCreations, kFlood, 0x02000000, 7);
    flood(kWatchDeletions, kFlood, 0x02000000, 7);
    const long grown = memory() - before;
    std::printf("%ld bytes a class\n", grown * 1024 / static_cast<long>(kFlood));
    EXPECT_LT(grown, kSlack + kFlood / 2) << "KiB: half a KiB each";
    EXPECT_EQ("1 1", subscribers(0x02000000 + 7 * (kFlood - 1)));
    watch(*peer_);
    for (int i = 0; i < 3; ++i) {
        Peer late(socket_);
        ASSERT_TRUE(late.join());
        answer(late, kWatchCreations, nothing(kWatchCreations));
        answer(late, kWatchDeletions, nothing(kWatchDeletions));
        expectServed(late);
    }
    EXPECT_EQ("20", server_.ask("make 20", "made "));
    server_.ask("remove", "removed");
    EXPECT_EQ("20 20 0 ", watched().substr(0, 8));
    flood(kUnwatchCreations, kFlood, 0x02000000, 7);
    EXPECT_EQ("0 0", subscribers(0x02000000 + 7 * (kFlood - 1)));
    expectServed(*peer_);
}

/** It asks for all objects again and again, and takes no answer. */
TEST_F(HostileFloods, OfAnswersThatNobodyReadsAreBounded) {
    constexpr unsigned kObjects = 100;
    constexpr unsigned kRequests = 300; // some 400 KiB each to answer
    EXPECT_EQ(std::to_string(kObjects), server_.ask("make " + std::to_string(kObjects) + " 4096", "made "));
    const long before = memory();
    for (unsigned i = 0; i < kRequests; ++i) {
        ASSERT_TRUE(peer_->sendMessage(
            orb_, message(0x100000 + i, kWatchCreations, kRequest, Data().word(kWatched).word(1).get())));
    }
    EXPECT_TRUE(logged("Sending response message failed rc=0")) << "what waits for the peer has reached its limit";
    expectServesNewPeer();
    EXPECT_LT(memory() - before, kSlack + 64 * 1024) << "of 120 MiB";
    // Who makes an object waits for it, until it goes.
    server_.tell("making");
    expectServesNewPeer();
    EXPECT_EQ("1 0", subscribers());
    peer_.reset();
    EXPECT_TRUE(server_.askUntil("made", "made ", std::to_string(kObjects + 1)));
    EXPECT_EQ("0 0", subscribers());
    expectServesNewPeer();
}

} // namespace

} // namespace Hostile
