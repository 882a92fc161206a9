#include "hostile/HostileTest.h"

#include <memory>
#include <vector>

namespace Hostile {

namespace {

class HostileFrames : public HostileTest {
protected:
    /** What a peer that is known, or one that has not even said hello, sends; the line that tells why it was closed. */
    void expectRefused(const Bytes &bad, const std::string &reason) {
        {
            Peer peer(socket_);
            ASSERT_TRUE(peer.join());
            ASSERT_TRUE(peer.send(bad));
            expectClosed(peer, reason);
        }
        Peer stranger(socket_);
        ASSERT_TRUE(stranger.send(bad));
        expectClosed(stranger, "connection of a stranger closed: ");
    }

    Bytes good() const { return call(1, other_, 0x7A, 1, Data().word(1).get()); }
};

TEST_F(HostileFrames, ThatAreNoPacketsEndTheirConnectionOnly) {
    Bytes head = packet(kSync, 1, 0, 0);
    for (std::size_t length : {1U, 4U, 19U}) {
        expectRefused(Bytes(head.begin(), head.begin() + static_cast<long>(length)),
                      "packet of " + std::to_string(length) + " bytes is shorter than a head");
    }
    head[0] = 'X';
    expectRefused(head, "packet starts with 584F");
    for (unsigned version : {0U, 2U, 255U}) {
        head = packet(kSync, 1, 0, 0);
        head[2] = static_cast<unsigned char>(version);
        expectRefused(head, "protocol version " + std::to_string(version) + " is not known");
    }
    for (unsigned type : {0U, 8U, 255U}) {
        expectRefused(packet(type, 1, 0, 0), "packet type " + std::to_string(type) + " is not known");
    }
    expectServesNewPeer();
}

TEST_F(HostileFrames, WhoseSizesCannotBeEndTheirConnectionOnly) {
    expectRefused(packet(kSync, 1, 0, 0, Bytes(3)), "packet of type 4 has 3 bytes too many");
    expectRefused(packet(kSync, 1, 0, 0xFFFFFFFF, Bytes(3)), "packet of type 4 has 3 bytes too many");
    expectRefused(packet(kData, 1, orb_, 12, Bytes(13)), "packet of type 6 has 1 bytes too many");
    expectRefused(packet(kData, 1, orb_, kMostOfMessage + 1, Bytes(13), kFirst),
                  "message of 67108865 bytes is larger than allowed");
    expectRefused(packet(kReturned, 1, orb_, 0xFFFFFFFF, Bytes(13), kFirst),
                  "message of 4294967295 bytes is larger than allowed");
    expectRefused(packet(kData, 1, orb_, 100), "piece of a message without bytes");
    expectRefused(packet(kData, 1, orb_, 100000, Bytes(kMostOfPacket + 1 - kHead)), "packet is larger than allowed");
    expectServesNewPeer();
}

TEST_F(HostileFrames, BeforeTheHelloAreNotAccepted) {
    for (unsigned type : {kAnnounce, kWithdraw, kSync, kSyncAck}) {
        Peer peer(socket_);
        ASSERT_TRUE(peer.send(packet(type, peer.termination(), 0, 0)));
        expectClosed(peer, "connection of a stranger closed: packet before the hello");
    }
    for (unsigned type : {kData, kReturned}) {
        Peer peer(socket_);
        const Bytes message = good();
        ASSERT_TRUE(
            peer.send(packet(type, peer.termination(), orb_, static_cast<std::uint32_t>(message.size()), message)));
        expectClosed(peer, "connection of a stranger closed: packet before the hello");
    }
    expectServesNewPeer();
}

TEST_F(HostileFrames, OfHelloCannotTakeTheNamesOfOthers) {
    const auto own = static_cast<std::uint32_t>(std::stoul(socket_.substr(socket_.size() - 4), nullptr, 16));
    for (std::uint32_t name : {0U, 0x10000U, 0xFFFFFFFFU, own}) {
        Peer peer(socket_);
        ASSERT_TRUE(peer.send(packet(kHello, 1, name, 0)));
        expectClosed(peer, "hello with name id " + std::to_string(name));
    }
    for (const std::string &file : Testing::filesIn(unit_.directory)) {
        const auto name = static_cast<std::uint32_t>(std::stoul("0" + file.substr(file.size() - 4), nullptr, 16));
        if (file.compare(0, 2, "a.") == 0 && name != own) {
            Peer peer(socket_);
            ASSERT_TRUE(peer.send(packet(kHello, 1, name, 0)));
            expectClosed(peer, "second hello of actor " + file.substr(2));
        }
    }
    Peer twice(socket_);
    ASSERT_TRUE(twice.join());
    ASSERT_TRUE(twice.send(packet(kHello, 1, twice.name(), 0)));
    expectClosed(twice, "second hello of actor ");
    Peer renamed(socket_);
    ASSERT_TRUE(renamed.join());
    ASSERT_TRUE(renamed.send(packet(kHello, 1, renamed.name() + 0x100, 0)));
    expectClosed(renamed, "hello with name id " + std::to_string(renamed.name() + 0x100));
}

TEST_F(HostileFrames, CannotAnnounceOrWithdrawForOthers) {
    for (std::uint32_t id : {0U, 0x0000FFFFU, orb_, clientOrb_}) {
        Peer peer(socket_);
        ASSERT_TRUE(peer.join());
        ASSERT_TRUE(peer.send(packet(kAnnounce, id, 0, 0)));
        expectClosed(peer, ", which is not its own");
    }
    for (std::uint32_t id : {0U, orb_, clientOrb_}) {
        Peer peer(socket_);
        ASSERT_TRUE(peer.join());
        ASSERT_TRUE(peer.send(packet(kWithdraw, id, 0, 0)));
        expectClosed(peer, "withdraws 0x");
    }
    Peer twice(socket_);
    ASSERT_TRUE(twice.join());
    ASSERT_TRUE(twice.send(packet(kAnnounce, twice.termination(), 0, 0)));
    expectClosed(twice, ", which is not its own");
    Peer many(socket_);
    ASSERT_TRUE(many.join());
    for (std::uint32_t i = 1; i <= 1024; ++i) {
        many.send(packet(kAnnounce, (0xF000U << 16) + i, 0, 0));
    }
    expectClosed(many, "announces too many terminations");
    expectServesNewPeer();
}

TEST_F(HostileFrames, OfForgedOriginatorsDoNotArrive) {
    const Bytes message = good();
    const auto size = static_cast<std::uint32_t>(message.size());
    for (std::uint32_t originator : {0U, 0xFFFFFFFFU, orb_, clientOrb_}) {
        Peer peer(socket_);
        ASSERT_TRUE(peer.join());
        ASSERT_TRUE(peer.send(packet(kData, originator, orb_, size, message)));
        expectClosed(peer, "message with forged originator 0x");
    }
    for (std::uint32_t destination : {orb_, clientOrb_}) {
        Peer peer(socket_);
        ASSERT_TRUE(peer.join());
        ASSERT_TRUE(peer.send(packet(kReturned, orb_, destination, size, message)));
        expectClosed(peer, "returns a message for 0x");
    }
    // One that was withdrawn is passed over; the peer may have sent it just before.
    Peer late(socket_);
    ASSERT_TRUE(late.join());
    ASSERT_TRUE(late.send(packet(kWithdraw, late.termination(), 0, 0)));
    ASSERT_TRUE(late.sendMessage(orb_, message));
    ASSERT_TRUE(late.sync());
    EXPECT_EQ(0U, calls(other_));
}

TEST_F(HostileFrames, ToNobodyComeBack) {
    Peer peer(socket_);
    ASSERT_TRUE(peer.join());
    for (std::uint32_t destination : {0U, 0xFFFFFFFFU, orb_ ^ 0x100U, clientOrb_, peer.termination()}) {
        ASSERT_TRUE(peer.sendMessage(destination, good()));
        ASSERT_TRUE(peer.sync());
        EXPECT_TRUE(peer.returned()) << std::hex << destination;
    }
    // Messages that the server never sent, or that go to nobody there.
    for (std::uint32_t originator : {0U, 0xFFFFFFFFU, orb_, peer.termination()}) {
        for (std::uint32_t destination : {0U, 0xFFFFFFFFU, peer.termination()}) {
            const Bytes message = good();
            ASSERT_TRUE(peer.send(
                packet(kReturned, originator, destination, static_cast<std::uint32_t>(message.size()), message)));
        }
    }
    ASSERT_TRUE(peer.send(packet(kReturned, orb_, peer.termination(), 0)));
    ASSERT_TRUE(peer.send(packet(kSyncAck, 0xFFFFFFFF, 0, 0)));
    expectServed(peer);
}

TEST_F(HostileFrames, InPiecesThatDoNotFitEndTheirConnectionOnly) {
    struct Case {
        std::vector<Bytes> packets;
        std::string reason;
    };
    const std::uint32_t from = 0; // put in for each peer
    const Bytes half(50);
    const std::vector<Case> cases{
        {{packet(kData, from, orb_, 100, half, kFirst), packet(kData, from, orb_, 100, half, kFirst)},
         "message begins inside another one"},
        {{packet(kData, from, orb_, 100, half, 0)}, "message without beginning"},
        {{packet(kData, from, orb_, 100, half, kLast)}, "message without beginning"},
        {{packet(kData, from, orb_, 100, half, kFirst), packet(kData, from, orb_, 101, half, kLast)},
         "pieces of a message do not belong together"},
        {{packet(kData, from, orb_, 100, half, kFirst), packet(kData, from, orb_ + 1, 100, half, kLast)},
         "pieces of a message do not belong together"},
        {{packet(kData, from, orb_, 100, half, kFirst), packet(kReturned, from, orb_, 100, half, kLast)},
         "pieces of a message do not belong together"},
        {{packet(kData, from, orb_, 100, half, kFirst | kLast)}, "message of 100 bytes has 50 in its pieces"},
        {{packet(kData, from, orb_, 50, half, kFirst)}, "message of 50 bytes has 50 in its pieces"},
        {{packet(kData, from, orb_, 99, half, kFirst), packet(kData, from, orb_, 99, half, kLast)},
         "message of 99 bytes has 100 in its pieces"},
        {{packet(kData, from, orb_, 100, half, kFirst), packet(kSync, 1, 0, 0)},
         "packet of type 4 between the pieces of a message"},
    };
    for (const Case &each : cases) {
        Peer peer(socket_);
        ASSERT_TRUE(peer.join());
        for (Bytes bytes : each.packets) {
            if (bytes[3] != kSync) {
                setWord(bytes, 8, peer.termination());
            }
            ASSERT_TRUE(peer.send(bytes));
        }
        expectClosed(peer, each.reason);
    }
    expectServesNewPeer();
}

TEST_F(HostileFrames, ThatAnnounceLargeMessagesCostNoMemoryUntilTheyCome) {
    const long before = memory();
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 10; ++i) {
        peers.push_back(std::make_unique<Peer>(socket_));
        ASSERT_TRUE(peers.back()->join());
        ASSERT_TRUE(
            peers.back()->send(packet(kData, peers.back()->termination(), orb_, kMostOfMessage, Bytes(1000), kFirst)));
    }
    expectServesNewPeer();
#ifdef REFLECTORB_SANITIZED // memory is touched when it is made
    constexpr long kMost = 12 * (kMostOfMessage / 1024);
#else
    constexpr long kMost = kMostOfMessage / 1024;
#endif
    EXPECT_LT(memory() - before, kMost);
}

TEST_F(HostileFrames, OfManyStrangersDoNotKeepOthersOut) {
    std::vector<std::unique_ptr<Peer>> strangers;
    for (int i = 0; i < 300; ++i) {
        strangers.push_back(std::make_unique<Peer>(socket_));
    }
    expectServesNewPeer();
    EXPECT_TRUE(strangers.front()->closed());
    EXPECT_TRUE(logged("Transport: too many connections without hello, the oldest is closed"));
}

} // namespace

} // namespace Hostile
