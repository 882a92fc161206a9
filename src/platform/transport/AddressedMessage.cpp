#include "platform/AddressedMessage.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Transport {

/** Head of a heap block; the bytes stand behind it, at the alignment asked for. */
struct AddressedMessage::Buffer {
    std::atomic<std::uint32_t> owners{1};
    unsigned align;
    unsigned capacity;
    unsigned char *bytes;

    // An acquire load: another thread's last read of the bytes must be over before their sole owner writes them.
    bool shared() const noexcept { return owners.load(std::memory_order_acquire) != 1; }
};

AddressedMessage::Buffer *AddressedMessage::makeBuffer(unsigned size, unsigned align, unsigned spare) noexcept {
    if (size > kMaxMessageSize) {
        return nullptr;
    }
    if (spare > kMaxMessageSize - size) {
        spare = kMaxMessageSize - size;
    }
    if (align < 4) {
        align = 4;
    }
    if (align > 16 || (align & (align - 1)) != 0) {
        return nullptr;
    }
    const std::size_t total = sizeof(Buffer) + align + size + spare;
    void *block = std::calloc(1, total); // spare bytes are zero, too: they become visible when the message grows
    if (block == nullptr) {
        return nullptr;
    }
    auto *buffer = new (block) Buffer;
    buffer->align = align;
    buffer->capacity = size + spare;
    auto address = reinterpret_cast<std::uintptr_t>(block) + sizeof(Buffer);
    buffer->bytes = static_cast<unsigned char *>(block) + sizeof(Buffer) + (align - address % align) % align;
    return buffer;
}

AddressedMessage AddressedMessage::allocate(unsigned size, unsigned align, unsigned spare) noexcept {
    AddressedMessage message;
    message.buffer_ = makeBuffer(size, align, spare);
    message.size_ = message.buffer_ != nullptr ? size : 0;
    return message;
}

AddressedMessage::AddressedMessage(const AddressedMessage &other) noexcept
    : buffer_(other.buffer_), size_(other.size_), originator_(other.originator_), destination_(other.destination_) {
    if (buffer_ != nullptr) {
        buffer_->owners.fetch_add(1, std::memory_order_relaxed);
    }
}

AddressedMessage::AddressedMessage(AddressedMessage &&other) noexcept
    : buffer_(std::exchange(other.buffer_, nullptr)), size_(std::exchange(other.size_, 0)),
      originator_(other.originator_), destination_(other.destination_) {}

AddressedMessage &AddressedMessage::operator=(const AddressedMessage &other) noexcept {
    AddressedMessage copy(other);
    return *this = std::move(copy);
}

AddressedMessage &AddressedMessage::operator=(AddressedMessage &&other) noexcept {
    if (this != &other) {
        release();
        buffer_ = std::exchange(other.buffer_, nullptr);
        size_ = std::exchange(other.size_, 0);
        originator_ = other.originator_;
        destination_ = other.destination_;
    }
    return *this;
}

AddressedMessage::~AddressedMessage() {
    release();
}

void AddressedMessage::release() noexcept {
    if (buffer_ != nullptr && buffer_->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        std::free(buffer_);
    }
    buffer_ = nullptr;
}

const unsigned char *AddressedMessage::buf() const noexcept {
    return buffer_ != nullptr ? buffer_->bytes : nullptr;
}

unsigned char *AddressedMessage::buf() noexcept {
    if (buffer_ == nullptr) {
        return nullptr;
    }
    if (buffer_->shared()) {
        Buffer *own = makeBuffer(size_, buffer_->align, 0);
        if (own == nullptr) {
            return nullptr;
        }
        std::memcpy(own->bytes, buffer_->bytes, size_);
        release();
        buffer_ = own;
    }
    return buffer_->bytes;
}

bool AddressedMessage::extend(unsigned size) noexcept {
    if (buffer_ == nullptr || size < size_ || size > buffer_->capacity || buffer_->shared()) {
        return false;
    }
    size_ = size;
    return true;
}

} // namespace Transport
