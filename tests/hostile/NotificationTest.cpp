#include "hostile/NotificationTest.h"

#include <cstdio>

namespace Hostile {

constexpr std::uint32_t NotificationTest::kTypes[];

Bytes NotificationTest::ask(Peer &peer, std::uint32_t type, const Bytes &data) {
    const std::uint32_t transaction = ++transaction_;
    Bytes response;
    EXPECT_TRUE(peer.sendMessage(orb_, message(transaction, type, kRequest, data)));
    EXPECT_TRUE(peer.response(transaction, response)) << "message of type " << type;
    if (response.size() < 16 || wordAt(response, 4) != type || wordAt(response, 12) > response.size() - 16) {
        ADD_FAILURE() << "response of " << response.size() << " bytes to a message of type " << type;
        return {};
    }
    return Bytes(response.begin() + 16, response.begin() + 16 + wordAt(response, 12));
}

void NotificationTest::answer(Peer &peer, std::uint32_t type, const Bytes &data) {
    Bytes request;
    ASSERT_TRUE(peer.nextMessage(request)) << "no request of type " << type;
    ASSERT_LE(16U, request.size());
    EXPECT_EQ(type, wordAt(request, 4));
    ASSERT_TRUE(peer.sendMessage(orb_, message(wordAt(request, 0), wordAt(request, 4), kResponse, data)));
}

std::unique_ptr<Peer> NotificationTest::join(bool serverWatches) {
    auto peer = std::make_unique<Peer>(socket_);
    EXPECT_TRUE(peer->join());
    if (serverWatches) {
        answer(*peer, kWatchCreations, nothing(kWatchCreations));
        answer(*peer, kWatchDeletions, nothing(kWatchDeletions));
    }
    awaitAppearance(*peer);
    return peer;
}

void NotificationTest::awaitAppearance(Peer &peer) {
    // Appearances are dealt with one after the other: this one, of another group, comes last.
    const std::uint32_t marker = (peer.termination() & 0xFFFF0000U) + (++markers_ << 8) + 2;
    ASSERT_TRUE(peer.send(packet(kAnnounce, marker, 0, 0)));
    char line[80];
    std::snprintf(line, sizeof line, "ORB 0x%08X sees 0x%08X appear", orb_, marker);
    ASSERT_TRUE(logged(line));
}

void NotificationTest::watch(Peer &peer) {
    server_.tell("watch");
    answer(peer, kWatchDeletions, nothing(kWatchDeletions));
    answer(peer, kWatchCreations, nothing(kWatchCreations));
    EXPECT_EQ("ok", server_.expect("watch "));
}

std::string NotificationTest::subscribers(std::uint32_t cc) {
    char command[40];
    std::snprintf(command, sizeof command, "subscribers %X", cc);
    return server_.ask(command, "subscribers ");
}

} // namespace Hostile
