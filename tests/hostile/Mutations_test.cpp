#include "hostile/HostileTest.h"
#include "hostile/Mutator.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <poll.h>
#include <sstream>

#ifndef HOSTILE_MUTATIONS
#define HOSTILE_MUTATIONS 200000
#endif

namespace Hostile {

namespace {

constexpr std::uint32_t kSeed = 20210907;
constexpr unsigned kPackets = HOSTILE_MUTATIONS / 10; // the rest are messages
constexpr unsigned kMessages = HOSTILE_MUTATIONS - kPackets;
constexpr unsigned kWindow = 200; // messages that may be on the way
#ifdef REFLECTORB_SANITIZED
constexpr long kMostGrowth = 512 * 1024; // KiB; freed memory is kept back for a while
#else
constexpr long kMostGrowth = 64 * 1024;
#endif
constexpr std::uint32_t kClass = 0x7A;
constexpr std::uint32_t kSetContainer = 2100;
constexpr std::uint32_t kWatched = 0x0B5E47ED; // a class of the server

/** What a reader of the protocol's description takes for the object and the method that a message calls. */
struct Called {
    bool call = false;
    std::uint32_t object = 0;
    std::uint32_t method = 0;
};

Called calledBy(const Bytes &message) {
    Called called;
    if (message.size() < 12 || wordAt(message, 4) != kCall) {
        return called;
    }
    const std::uint32_t kind = wordAt(message, 8);
    called.call = kind != kResponse && kind != kNoDestination && kind != kResponseFailure;
    std::size_t there = 0;
    if (message.size() >= 16 && wordAt(message, 12) < 0x80000000U) {
        there = std::min<std::size_t>(wordAt(message, 12), message.size() - 16);
    }
    called.object = there >= 4 ? wordAt(message, 16) : 0;
    called.method = there >= 16 ? wordAt(message, 28) : 0;
    return called;
}

class HostileMutations : public HostileTest {
protected:
    HostileMutations() : HostileTest(2) {}

    void SetUp() override {
        HostileTest::SetUp();
        prey_ = static_cast<std::uint32_t>(std::stoul(server_.ask("serve prey", "serves "), nullptr, 16));
        decoy_ = static_cast<std::uint32_t>(std::stoul(server_.ask("serve decoy", "serves "), nullptr, 16));
        mutator_.words.insert(mutator_.words.end(), {prey_, prey_, other_, served_, kSetContainer, kWatched});
        std::printf("seed %u, %u messages, %u packets\n", kSeed, kMessages, kPackets);
    }

    std::vector<Bytes> validMessages() const;
    std::vector<Bytes> validPackets(const Peer &peer) const;
    bool allowed(const Bytes &message);
    /** Waits until the server has worked off about all that was sent; answers what it asks meanwhile. */
    void catchUp(Peer &peer);
    void answerRequests(Peer &peer);
    bool eventuallyCalled(std::uint32_t object, unsigned times);
    void checkMemory(unsigned done, unsigned all);

    Mutator mutator_{kSeed};
    std::uint32_t prey_ = 0;
    std::uint32_t decoy_ = 0;
    unsigned preyCalls_ = 0;
    std::uint32_t markers_ = 0x60000000;
    long memoryBefore_ = 0;
};

std::vector<Bytes> HostileMutations::validMessages() const {
    const Bytes oid = Data().text("name").word(1).get();
    const Bytes values = Data().word(2).text("").text("\1\2\3\4").get();
    const Bytes everything = Data()
                                 .word(1)
                                 .word(1)
                                 .text("string")
                                 .text("characters")
                                 .text("nested")
                                 .text("any")
                                 .word(7)
                                 .bytes(oid)
                                 .word(2)
                                 .word(1)
                                 .word(2)
                                 .bytes(values)
                                 .word(1)
                                 .text("\1\2\3\4")
                                 .bytes(oid)
                                 .word(5)
                                 .word(6)
                                 .get();
    std::vector<Bytes> valid{
        call(0x1001, prey_, kClass, 1, Data().word(6).get()),
        call(0x1002, prey_, kClass, 2, Data().text("a text that comes back").get()),
        call(0x1003, prey_, kClass, 3, everything),
        call(0x1004, prey_, kClass, kSetContainer, Data().word(7).text("some data").get()),
        call(0x1005, prey_, kClass, kSetContainer, Data().word(0).word(0).get()),
        call(0x1006, prey_, kClass, 2101, {}),
        message(0x1007, kCall, kMessage, Data().word(prey_).word(0).word(kClass).word(1).word(3).get()),
        message(0x1008, kResolve, kRequest, Data().text("prey").word(1).get()),
        message(0x1009, kResolve, kRequest, Data().text("nobody").word(1).get()),
        message(0x100A, kCounters, kRequest, {}),
        message(0x100B, kCall, kResponse, Data().word(0).word(0).word(7).get()),
        message(0x100C, kResolve, kNoDestination, Data().text("prey").word(1).get()),
    };
    const Bytes object = Data().word(kWatched).bytes(oid).word(9).word(0xC0010201).get();
    const Bytes nameless = Data().word(kWatched).text("").word(1).word(10).word(0xC0010201).get();
    for (const Bytes &body : {object, nameless}) {
        valid.push_back(message(0x1010, kCreated, kRequest, body));
        valid.push_back(message(0x1011, kDeleted, kRequest, body));
    }
    for (std::uint32_t cc : {kWatched, kClass}) {
        valid.push_back(message(0x1012, kWatchCreations, kRequest, Data().word(cc).word(1).get()));
        valid.push_back(message(0x1013, kWatchDeletions, kRequest, Data().word(cc).get()));
        valid.push_back(message(0x1014, kUnwatchCreations, kRequest, Data().word(cc).get()));
        valid.push_back(message(0x1015, kUnwatchDeletions, kRequest, Data().word(cc).get()));
    }
    valid.push_back(message(0x1016, kAppeared, kRequest, Data().word(0xC0010201).get()));
    return valid;
}

std::vector<Bytes> HostileMutations::validPackets(const Peer &peer) const {
    const Bytes calling = call(0x2001, decoy_, kClass, 2, Data().text("sixteen letters!").get());
    const auto size = static_cast<std::uint32_t>(calling.size());
    return {
        packet(kHello, 1, peer.name(), 0),
        packet(kAnnounce, peer.termination() + 1, 0, 0),
        packet(kWithdraw, peer.termination(), 0, 0),
        packet(kSync, 77, 0, 0),
        packet(kSyncAck, 77, 0, 0),
        packet(kData, peer.termination(), orb_, size, calling),
        packet(kData, peer.termination(), orb_, size, calling),
        packet(kReturned, orb_, peer.termination(), size, calling),
        packet(kData, peer.termination(), orb_, size, Bytes(calling.begin(), calling.begin() + 30), kFirst),
        packet(kData, peer.termination(), orb_, size, Bytes(calling.begin() + 30, calling.end()), kLast),
    };
}

/**
 * Two kinds of messages are not sent, as they do by definition what a test of robustness must not do: a response
 * failure resets the unit, and a complete exception container that is set at the client's object would end the
 * client's calls with that exception.
 */
bool HostileMutations::allowed(const Bytes &message) {
    if (message.size() >= 12 && wordAt(message, 8) == kResponseFailure) {
        return false;
    }
    const Called called = calledBy(message);
    if (called.call && called.method == kSetContainer && called.object != prey_) {
        return false;
    }
    preyCalls_ += called.call && called.object == prey_ ? 1 : 0;
    expectedCalls_ += called.call && called.object == other_ ? 1 : 0;
    strayCalls_ += called.call && called.object == served_ ? 1 : 0;
    return true;
}

void HostileMutations::answerRequests(Peer &peer) {
    Bytes asked;
    while (peer.waiting() != 0 && peer.nextMessage(asked)) {
        if (asked.size() >= 12 && wordAt(asked, 8) == kRequest) {
            peer.sendMessage(orb_, message(wordAt(asked, 0), wordAt(asked, 4), kResponse, Data().word(0).get()));
        }
    }
}

void HostileMutations::catchUp(Peer &peer) {
    const std::uint32_t marker = ++markers_;
    ASSERT_TRUE(peer.sendMessage(orb_, message(marker, kResolve, kRequest, Data().text("other").word(1).get())));
    for (Bytes came; peer.nextMessage(came);) {
        if (came.size() < 12) {
            continue;
        }
        if (wordAt(came, 8) == kRequest) {
            peer.sendMessage(orb_, message(wordAt(came, 0), wordAt(came, 4), kResponse, Data().word(0).get()));
        } else if (wordAt(came, 0) == marker) {
            ASSERT_GE(came.size(), 20U);
            EXPECT_EQ(other_, wordAt(came, 16));
            return;
        }
    }
    FAIL() << "no answer any more";
}

/** Several workers are at it, so those before the last message may still be running. */
bool HostileMutations::eventuallyCalled(std::uint32_t object, unsigned times) {
    for (int tries = 0; tries < 6000 && calls(object) < times; ++tries) {
        ::poll(nullptr, 0, 10);
    }
    return calls(object) >= times;
}

void HostileMutations::checkMemory(unsigned done, unsigned all) {
    if (done == all / 5) {
        memoryBefore_ = memory();
        EXPECT_LT(0, memoryBefore_);
    } else if (done == all) {
        EXPECT_LT(memory() - memoryBefore_, kMostGrowth);
    }
}

TEST_F(HostileMutations, OfMessagesHarmNobody) {
    const std::vector<Bytes> valid = validMessages();
    server_.ask("make 10", "made ");
    server_.ask("watch", "watch "); // so the peer is asked, too; the answers are wrong ones
    Peer peer(socket_);
    ASSERT_TRUE(peer.join());
    for (const Bytes &message : valid) {
        ASSERT_TRUE(allowed(message));
        ASSERT_TRUE(peer.sendMessage(orb_, message));
    }
    ASSERT_TRUE(eventuallyCalled(prey_, 7));
    unsigned sent = 0;
    while (sent < kMessages) {
        Bytes message = valid[mutator_.below(static_cast<std::uint32_t>(valid.size()))];
        mutator_.mutate(message, valid);
        if (!allowed(message)) {
            continue;
        }
        ASSERT_TRUE(peer.sendMessage(orb_, message)) << sent;
        ++sent;
        if (sent % kWindow == 0) {
            catchUp(peer);
            checkMemory(sent, kMessages);
        }
        ASSERT_FALSE(HasFatalFailure()) << "among the " << kWindow << " messages before " << sent;
    }
    answerRequests(peer);
    EXPECT_TRUE(eventuallyCalled(prey_, preyCalls_));
    EXPECT_TRUE(eventuallyCalled(other_, expectedCalls_));
    EXPECT_EQ(preyCalls_, calls(prey_));
    EXPECT_LT(kMessages / 20, preyCalls_); // or nothing much was tried
    std::istringstream events(server_.ask("watched", "watched "));
    unsigned created = 0;
    unsigned deleted = 0;
    events >> created >> deleted;
    EXPECT_LT(kMessages / 50, created);
    EXPECT_LT(kMessages / 50, deleted);
    std::printf("%u creations and %u deletions were told\n", created, deleted);
    std::printf("%u calls of the prey, %u and %u of others by chance\n", preyCalls_, expectedCalls_, strayCalls_);
}

TEST_F(HostileMutations, OfPacketsHarmNobody) {
    std::unique_ptr<Peer> peer;
    unsigned joined = 0;
    unsigned calling = 0;
    std::vector<Bytes> valid;
    for (unsigned sent = 0; sent < kPackets; ++sent) {
        if (!peer || sent % 50 == 0 || !peer->sync()) {
            peer = std::make_unique<Peer>(socket_);
            valid = validPackets(*peer);
            // Now and then the hello itself is wrong.
            if (mutator_.below(8) != 0) {
                ASSERT_TRUE(peer->join()) << sent;
                ASSERT_TRUE(peer->send(valid[5]));
                ++calling;
                ++joined;
            }
        }
        Bytes packet = valid[mutator_.below(static_cast<std::uint32_t>(valid.size()))];
        // A message that is cut so that its kind would be made of other bytes could be any message.
        mutator_.mutatePacket(packet, std::min<std::size_t>(packet.size(), kHead + 16));
        peer->send(packet); // which may fail: the connection may be closed already
        ++calling;
        checkMemory(sent + 1, kPackets);
    }
    peer.reset();
    EXPECT_LT(kPackets / 100, joined);
    expectServesNewPeer();
    EXPECT_TRUE(eventuallyCalled(decoy_, joined));
    EXPECT_GE(calling, calls(decoy_));
    EXPECT_EQ(0U, calls(prey_));
    std::printf("%u connections, %u calls of the decoy\n", joined, calls(decoy_));
}

} // namespace

} // namespace Hostile
