#pragma once

#include <cstdint>

namespace OSWrap {

/** A number of 2 or 4 bytes held in network byte order, at any address. */
template <class T>
class NetNumVar {
    static_assert(sizeof(T) == 2 || sizeof(T) == 4, "network numbers have 2 or 4 bytes");

public:
    T get() const noexcept {
        std::uint32_t value = 0;
        for (unsigned char byte : bytes_) {
            value = value << 8 | byte;
        }
        return static_cast<T>(value);
    }
    void set(T number) noexcept {
        auto value = static_cast<std::uint32_t>(number);
        for (unsigned i = sizeof(T); i-- > 0; value >>= 8) {
            bytes_[i] = static_cast<unsigned char>(value);
        }
    }

private:
    unsigned char bytes_[sizeof(T)] = {};
};

} // namespace OSWrap
