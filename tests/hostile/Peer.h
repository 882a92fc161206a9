#pragma once

#include "hostile/Wire.h"

#include <cstdint>
#include <deque>
#include <string>

namespace Hostile {

/**
 * A connection to the socket of an actor that says whatever it is told to. It has a name id and one termination of its
 * own that nobody else has.
 */
class Peer {
public:
    /** Connects; says nothing yet. */
    explicit Peer(const std::string &socket);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    std::uint32_t name() const { return name_; }
    std::uint32_t termination() const { return termination_; }

    /** One packet as it is; false if the connection is gone. */
    bool send(const Bytes &packet);
    /** Hello, announcement of the termination, and waits until both were taken in. */
    bool join();
    /** Waits until all that was sent was taken in; false if the connection was closed instead. */
    bool sync();
    /** From the own termination, in as many packets as it takes. */
    bool sendMessage(std::uint32_t destination, const Bytes &message);
    /** Waits for the other side to close, at most a minute, or until it shows that it does not. */
    bool closed();

    /** Takes in what is there, without waiting. */
    void readAll();
    /** The next message that came; false if there is none within a minute, or the connection ends. */
    bool nextMessage(Bytes &message);
    /** Waits for the response to this transaction and drops the messages before it. */
    bool response(std::uint32_t transaction, Bytes &message);
    /** Messages that came and were not asked for yet. */
    std::size_t waiting() const { return messages_.size(); }
    /** A packet `returned` came since the last question. */
    bool returned();

private:
    bool readOne(int milliseconds);
    void take(Bytes &&packet);

    static std::uint32_t lastNumber_;
    const std::uint32_t name_;
    const std::uint32_t termination_;
    int socket_ = -1;
    bool joined_ = false;
    bool ended_ = false;
    bool returned_ = false;
    std::uint32_t syncs_ = 0;
    std::uint32_t answered_ = 0;
    Bytes pieces_;
    std::deque<Bytes> messages_;
};

} // namespace Hostile
