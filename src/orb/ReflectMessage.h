#pragma once

#include "platform/AddressedMessage.h"
#include "platform/Export.h"

#include <cstdint>
#include <string>
#include <utility>

class TreflectORB;

/**
 * A message between two brokers: a transport message that begins with the broker's header of 12 bytes (transaction id,
 * type, kind, each 32-bit big-endian) in front of the payload. A value with the transport message's semantics: copies
 * share the bytes until one of them writes.
 *
 * Without a buffer (no memory, moved from), or with one too short for the header, every reader gives 0 or null and
 * every writer does nothing.
 */
class REFLECTORB_API TreflectMessage {
public:
    /** What the payload is about. Any value can come from the wire. */
    enum type_t : std::uint32_t {
        tUndef = 0,
        tRslve = 1,
        tPayld = 2,
        tOCN = 3,
        tODN = 4,
        tOCNSU = 5,
        tODNSU = 6,
        tOCNUN = 7,
        tODNUN = 8,
        tOrbAp = 9,
        tPfCnt = 10,
    };
    /** The part that the message plays in an exchange. Any value can come from the wire. */
    enum kind_t : std::uint32_t {
        kUndef = 0,
        kMsg = 1,
        kRequ = 2,
        kResp = 3,
        kNoDes = 4,
        kReFai = 5,
    };

    static constexpr unsigned kHeaderSize = 12;

    /** A message without buffer. */
    TreflectMessage() noexcept = default;
    /** A zeroed payload of `size` bytes, with `orb` as originator. Without buffer if `orb` is null, memory is short or
     *  the transport does not take that much. */
    TreflectMessage(const TreflectORB *orb, const unsigned &transactionId, unsigned size);
    /** The same with the header of `other` and as much of its payload as fits. `spare`: room behind the payload for
     *  extend(), in bytes. The addresses are not copied. */
    TreflectMessage(const TreflectORB *orb, const TreflectMessage &other, unsigned size, unsigned spare = 0);
    TreflectMessage(const Transport::AddressedMessage &message) noexcept : message_(message) {}
    TreflectMessage(Transport::AddressedMessage &&message) noexcept : message_(std::move(message)) {}
    operator Transport::AddressedMessage() const noexcept { return message_; }

    unsigned transactionId() const noexcept { return word(0); }
    type_t type() const noexcept { return static_cast<type_t>(word(4)); }
    kind_t kind() const noexcept { return static_cast<kind_t>(word(8)); }
    void transactionId(const unsigned &id) noexcept { setWord(0, id); }
    void type(type_t type) noexcept { setWord(4, type); }
    void kind(kind_t kind) noexcept { setWord(8, kind); }

    /** The payload. The non-const one makes the bytes this message's own first; do not keep its result across a copy
     *  of the message. */
    const unsigned char *buf() const noexcept;
    unsigned char *buf() noexcept;
    /** Bytes of payload. */
    unsigned size() const noexcept { return hasHeader() ? message_.size() - kHeaderSize : 0; }
    /** Grows the payload within the spare room; false, and nothing changed, if that is not possible. */
    bool extend(unsigned size) noexcept;

    Transport::TerminationId destination() const noexcept { return message_.destination(); }
    Transport::TerminationId &destination() noexcept { return message_.destination(); }
    Transport::TerminationId originator() const noexcept { return message_.originator(); }
    Transport::TerminationId &originator() noexcept { return message_.originator(); }
    /** The transport message, for sending. */
    const Transport::AddressedMessage &addressed() const noexcept { return message_; }

    /** Six characters, padded with blanks; "t?????" and "k?????" for unknown values. */
    static std::string typeToStr(const type_t &type);
    static std::string kindToStr(const kind_t &kind);

    /**
     * Checks addresses, type and kind (kUndef: any kind is expected) and logs what it finds: always when something is
     * wrong, else if `verbose`. True if the message is usable, which it is without destination as well. `number` and
     * `text` are repeated in the line; the last argument is not used.
     */
    bool testValidation(kind_t expectedKind, int number, const char *text, bool verbose, int) const;

private:
    bool hasHeader() const noexcept { return message_.size() >= kHeaderSize; }
    std::uint32_t word(unsigned offset) const noexcept;
    void setWord(unsigned offset, std::uint32_t value) noexcept;

    Transport::AddressedMessage message_;
};
