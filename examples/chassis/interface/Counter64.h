#pragma once

#include "rmi/IPPRMI_stream.h"
#include "rmi/StreamOperators.h"

#include <cstdint>

/** A 64-bit number; streams have none. On the wire two 32-bit ones, the high half first. */
struct Counter64 {
    std::uint64_t value = 0;
};

inline TipprmiStream &operator<<(TipprmiStream &stream, const Counter64 &counter) {
    return stream << static_cast<unsigned>(counter.value >> 32U) << static_cast<unsigned>(counter.value & 0xFFFFFFFFU);
}

inline TipprmiStream &operator>>(TipprmiStream &stream, Counter64 &counter) {
    unsigned high = 0;
    unsigned low = 0;
    stream >> high >> low;
    counter.value = (static_cast<std::uint64_t>(high) << 32U) | low;
    return stream;
}
