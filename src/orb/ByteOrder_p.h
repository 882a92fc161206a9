#pragma once

#include <cstdint>

namespace Wire {

/** 32-bit numbers in network byte order, at any address. */
inline std::uint32_t loadBigEndian(const unsigned char *bytes) noexcept {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | static_cast<std::uint32_t>(bytes[3]);
}

inline void storeBigEndian(unsigned char *bytes, std::uint32_t value) noexcept {
    bytes[0] = static_cast<unsigned char>(value >> 24);
    bytes[1] = static_cast<unsigned char>(value >> 16);
    bytes[2] = static_cast<unsigned char>(value >> 8);
    bytes[3] = static_cast<unsigned char>(value);
}

} // namespace Wire
