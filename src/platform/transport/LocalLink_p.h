#pragma once

#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/transport/Connection_p.h"
#include "platform/transport/Link_p.h"
#include "platform/transport/UnitDirectory_p.h"

#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

namespace Transport {

/**
 * The link between the actors of one host. Each actor listens at a socket in the unit directory, and on its start
 * connects to all others; there is no daemon. Each side picks the connection that it sends on once and keeps it, so
 * two actors that connect to each other at the same time just have one to spare. An actor is present as long as the
 * connection that it announced itself on lives.
 * All state belongs to the receiving thread, but for the routes and what start() waits for.
 */
class LocalLink : public Link, private ConnectionOwner {
public:
    LocalLink(std::string directory, Reactor &reactor, LinkListener &listener);
    ~LocalLink() override;

    unsigned claimName() override;
    void releaseName(unsigned name) override;
    bool announce(TerminationId id) override;
    void withdraw(TerminationId id) override;
    bool send(AddressedMessage &&message) override;
    bool giveBack(AddressedMessage &&message) override;

private:
    class Listener;
    struct Peer {
        std::shared_ptr<Connection> in;  // where it announces itself
        std::shared_ptr<Connection> out; // what we send on
        std::set<unsigned> terminations;
        std::deque<unsigned> withdrawn; // the last few: messages may still be under way
        int tries = 0;                  // that are left to connect again
    };
    using Handler = bool (LocalLink::*)(Connection &, const Frame &, AddressedMessage &&, std::string &);
    static const Handler kHandlers[];

    bool openDirectory();
    // Receiving thread.
    bool open();
    void closeAll();
    void connectTo(unsigned name, int tries);
    void connectLater(unsigned name, int tries);
    void acceptAll();
    void acceptOne(Descriptor socket);
    bool checkUser(const Connection &connection) const;
    void greet(Peer &peer, const std::shared_ptr<Connection> &out);
    void control(FrameType type, std::uint32_t first, std::uint32_t second = 0);
    void drop(unsigned name, const std::string &problem);
    void removeLeftover(unsigned name, int tries);
    std::shared_ptr<Connection> takeStranger(const Connection &connection);
    Peer *peerOf(const Connection &connection);

    bool frameArrived(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem) override;
    void connectionEnded(Connection &connection, const std::string &problem) override;
    bool onHello(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem);
    bool onAnnounce(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem);
    bool onWithdraw(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem);
    bool onSync(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem);
    bool onSyncAck(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem);
    bool onData(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem);
    bool onReturned(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem);

    std::shared_ptr<Connection> route(TerminationId id);
    void answered(unsigned peer, std::uint32_t upTo);
    void awaitAnswers(std::uint32_t sync);

    UnitDirectory directory_;
    Reactor &reactor_;
    LinkListener &listener_;

    // Receiving thread only.
    unsigned name_ = 0; // the name id under which this actor listens; 0: closed
    std::shared_ptr<Listener> acceptor_;
    std::map<unsigned, Peer> peers_;
    std::list<std::shared_ptr<Connection>> strangers_; // accepted, no hello yet; oldest first
    std::set<unsigned> announced_;
    std::set<unsigned> leftovers_; // names of peers that went and whose socket still stands in the directory

    OSWrap::Mutex routesLock_;
    std::unordered_map<unsigned, std::shared_ptr<Connection>> routes_ RB_GUARDED_BY(routesLock_);

    OSWrap::Mutex syncLock_;
    std::condition_variable_any syncChanged_;
    std::uint32_t lastSync_ RB_GUARDED_BY(syncLock_) = 0;
    std::map<unsigned, std::uint32_t> awaited_ RB_GUARDED_BY(syncLock_); // peer -> last sync it owes an answer for
};

} // namespace Transport
