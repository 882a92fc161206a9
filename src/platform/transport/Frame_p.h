#pragma once

#include "platform/TerminationId.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Transport {

/** What one packet between two actors is about; docs/protocol.md has the layout. */
enum class FrameType : std::uint8_t {
    hello = 1,    // first on a connection, in each direction: name id and process id of the sender
    announce = 2, // a termination of the sender has started
    withdraw = 3, // ... has stopped
    sync = 4,     // asks for a syncAck once all that came before has been taken in
    syncAck = 5,
    data = 6,     // a message, or a piece of one
    returned = 7, // a message, or a piece of one, that found no target here and goes back to its originator
};

/** The fixed head of every packet. */
struct Frame {
    static constexpr std::size_t kHeadSize = 20;
    static constexpr std::uint8_t kVersion = 1;
    static constexpr std::uint16_t kFirst = 1; // flags of data and returned: first piece, last piece
    static constexpr std::uint16_t kLast = 2;

    FrameType type = FrameType::hello;
    std::uint16_t flags = 0;
    std::uint32_t originator = 0;  // hello: process id; announce, withdraw: the termination; sync: its number
    std::uint32_t destination = 0; // hello: name id of the sending actor
    std::uint32_t size = 0;        // data, returned: bytes of the whole message

    void encode(unsigned char *head) const noexcept;
    /** Checks all that can be checked without knowing the connection. On false, `problem` says what is wrong. */
    bool decode(const unsigned char *packet, std::size_t length, std::string &problem) noexcept;
};

} // namespace Transport
