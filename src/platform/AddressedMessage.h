#pragma once

#include "platform/Export.h"
#include "platform/TerminationId.h"

namespace Transport {

/** The largest message that travels, in bytes. */
constexpr unsigned kMaxMessageSize = 64U * 1024 * 1024;

/**
 * A message with its addresses. A value: copies share the buffer (one atomic count) until one of them writes, which
 * then gets a buffer of its own. Different copies may be used by different threads. Pointers from the non-const buf()
 * must not be used any more once the message has been copied.
 */
class REFLECTORB_API AddressedMessage {
public:
    /** A message without buffer. */
    AddressedMessage() noexcept = default;
    AddressedMessage(const AddressedMessage &other) noexcept;
    AddressedMessage(AddressedMessage &&other) noexcept;
    AddressedMessage &operator=(const AddressedMessage &other) noexcept;
    AddressedMessage &operator=(AddressedMessage &&other) noexcept;
    ~AddressedMessage();

    /** `size` zero bytes, aligned to max(align, 4) (a power of two up to 16), with room for `spare` more. Without
     *  buffer if the size is above kMaxMessageSize or memory is short. */
    static AddressedMessage allocate(unsigned size, unsigned align, unsigned spare = 0) noexcept;

    const unsigned char *buf() const noexcept;
    /** Takes a buffer of its own first if it is shared; null without buffer or if memory is short. */
    unsigned char *buf() noexcept;
    /** Bytes in the buffer; 0 without buffer. */
    unsigned size() const noexcept { return size_; }
    /** Grows within the spare room. False, and nothing changed, if there is too little, or the buffer is shared. */
    bool extend(unsigned size) noexcept;

    TerminationId originator() const noexcept { return originator_; }
    TerminationId &originator() noexcept { return originator_; }
    TerminationId destination() const noexcept { return destination_; }
    TerminationId &destination() noexcept { return destination_; }

private:
    struct Buffer;
    static Buffer *makeBuffer(unsigned size, unsigned align, unsigned spare) noexcept;
    void release() noexcept;

    Buffer *buffer_ = nullptr;
    unsigned size_ = 0;
    TerminationId originator_;
    TerminationId destination_;
};

} // namespace Transport
