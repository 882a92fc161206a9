#pragma once

#include "hostile/HostileTest.h"

#include <memory>
#include <string>

namespace Hostile {

/** The messages by which brokers tell each other of objects that come and go; the server has a class of such objects.
 */
class NotificationTest : public HostileTest {
protected:
    static constexpr std::uint32_t kWatched = 0x0B5E47ED;
    static constexpr std::uint32_t kNumber = 0x77; // of an object of the peer
    static constexpr std::uint32_t kTypes[] = {kCreated,        kDeleted,          kWatchCreations,
                                               kWatchDeletions, kUnwatchCreations, kUnwatchDeletions};

    using HostileTest::HostileTest;

    static bool isNotification(std::uint32_t type) { return type == kCreated || type == kDeleted; }
    static bool isSubscription(std::uint32_t type) { return type == kWatchCreations || type == kWatchDeletions; }
    static bool isEnd(std::uint32_t type) { return type == kUnwatchCreations || type == kUnwatchDeletions; }

    static Bytes firstOf(const Bytes &bytes, std::size_t length) {
        return Bytes(bytes.begin(), bytes.begin() + static_cast<long>(length));
    }
    /** A reference to an object of that number and name of the broker. */
    static Bytes reference(const std::string &name, std::uint32_t number, std::uint32_t broker) {
        return Data().text(name).word(1).word(number).word(broker).get();
    }
    /** A whole and right body. */
    static Bytes body(std::uint32_t type, const Peer &peer, std::uint32_t cc = kWatched) {
        Data data;
        data.word(cc);
        if (isNotification(type)) {
            data.bytes(reference("name", kNumber, peer.termination()));
        } else if (type == kWatchCreations) {
            data.word(0);
        }
        return data.get();
    }
    /** What every such message is answered with if nothing comes of it. */
    static Bytes nothing(std::uint32_t type) {
        Data data;
        if (type == kWatchCreations) {
            data.word(0);
        }
        if (isSubscription(type)) {
            data.word(1).word(kWatched); // the server's classes
        }
        return data.get();
    }

    /** Sends it; the data of the response, without what is unused behind it. */
    Bytes ask(Peer &peer, std::uint32_t type, const Bytes &data);
    /** The next request of the server, which must be of this type, gets this answer. */
    void answer(Peer &peer, std::uint32_t type, const Bytes &data);
    /** A peer whose appearance the server has dealt with; if the server watches, its subscriptions were answered. */
    std::unique_ptr<Peer> join(bool serverWatches);
    /** The server's broker has dealt with all appearances before. */
    void awaitAppearance(Peer &peer);
    /** The server watches from now on; the peer says that it has the class and no objects. */
    void watch(Peer &peer);

    std::string watched() { return server_.ask("watched", "watched "); }
    /** "CREATIONS DELETIONS": brokers that want to be told. */
    std::string subscribers(std::uint32_t cc = kWatched);

private:
    std::uint32_t transaction_ = 0x1000;
    std::uint32_t markers_ = 0;
};

} // namespace Hostile
