#pragma once

#include <utility>

namespace Transport {

/**
 * Owns one descriptor of the transport. Every live one is closed in a child of fork(): the peers must see this actor
 * go when it goes, whatever its children do.
 */
class Descriptor {
public:
    Descriptor() noexcept = default;
    explicit Descriptor(int fd) noexcept;
    Descriptor(Descriptor &&other) noexcept
        : fd_(std::exchange(other.fd_, -1)), entry_(std::exchange(other.entry_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
            entry_ = std::exchange(other.entry_, -1);
        }
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    void reset() noexcept;

private:
    int fd_ = -1;
    int entry_ = -1; // place in the table that the child of a fork walks; -1 if that was full
};

} // namespace Transport
