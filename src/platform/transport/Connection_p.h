#pragma once

#include "platform/AddressedMessage.h"
#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"
#include "platform/transport/Backpressure_p.h"
#include "platform/transport/Descriptor_p.h"
#include "platform/transport/Frame_p.h"
#include "platform/transport/Reactor_p.h"

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace Transport {

class Connection;

/** Who made a connection; called on the receiving thread. */
class ConnectionOwner {
public:
    virtual ~ConnectionOwner() = default;
    /** False: the frame is not acceptable, `problem` says why. */
    virtual bool frameArrived(Connection &from, const Frame &frame, AddressedMessage &&message,
                              std::string &problem) = 0;
    /** The other side is gone, or sent something that cannot be. All that came before has been reported. */
    virtual void connectionEnded(Connection &connection, const std::string &problem) = 0;
};

/**
 * One socket to another actor. Sends straight from the caller's thread; what the socket does not take waits in a
 * bounded queue that the receiving thread drains. A large message goes in pieces, and nothing else in between.
 */
class Connection : public Pollable {
public:
    /** Packets are at most this large; smaller if the socket's buffer is. */
    static constexpr std::size_t kMaxPacket = std::size_t{80} * 1024;

    Connection(Descriptor socket, Reactor &reactor, ConnectionOwner &owner);

    /** Whoever listens or connects at the other end, as the kernel knows it. False if it cannot be told. */
    bool peerCredentials(unsigned long &user, long &process) const;

    /** Any thread. False: it will not arrive. */
    bool send(const Frame &head, AddressedMessage &&message, bool mayWait);
    /** A frame without body; not bounded, as it is small and rare. False: the connection should be given up. */
    bool sendControl(FrameType type, std::uint32_t originator, std::uint32_t destination = 0);
    /** Any thread but the receiving one: waits while the other side reads, until all is handed over. */
    bool flush();

    /** Receiving thread: takes in what is there now, as far as the other side had sent it. */
    void readAll();
    /** Receiving thread: no send works from now on. The messages that were not handed over completely are returned. */
    std::vector<AddressedMessage> close();

    int descriptor() const noexcept override { return socket_.get(); }
    short events() const noexcept override;
    void ready(short events) override;

    /** Name id of the actor at the other end; 0 until its hello. For the owner. */
    unsigned peer = 0;

private:
    struct Item {
        Frame head;
        AddressedMessage message;
        std::size_t sent = 0;
        bool begun = false;
    };
    enum class Sent { all, blocked, broken };
    enum class Read { frame, nothing, end };

    bool enqueue(Item &&item) RB_REQUIRES(lock_);
    Sent sendPieces(Item &item) RB_REQUIRES(lock_);
    Sent sendPacket(const unsigned char *head, const unsigned char *body, std::size_t size) RB_REQUIRES(lock_);
    void flushQueue();
    Read readPacket(std::string &problem);
    bool takePacket(std::size_t length, std::string &problem);
    bool addPiece(const Frame &frame, const unsigned char *body, std::size_t size, AddressedMessage &whole,
                  std::string &problem);

    Descriptor socket_;
    Reactor &reactor_;
    ConnectionOwner &owner_;
    std::size_t maxBody_;

    OSWrap::Mutex lock_;
    std::deque<Item> queue_ RB_GUARDED_BY(lock_);
    Backpressure pressure_ RB_GUARDED_BY(lock_);
    bool closed_ RB_GUARDED_BY(lock_) = false;
    std::atomic<bool> wantsWrite_{false};

    // Used by the receiving thread only.
    Frame pieceHead_;
    AddressedMessage pieces_;
    std::size_t piecesTaken_ = 0;
    std::size_t bytesRead_ = 0; // since ready() was called
    bool inPieces_ = false;
    bool ended_ = false;
};

} // namespace Transport
