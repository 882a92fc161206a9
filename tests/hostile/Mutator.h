#pragma once

#include "hostile/Wire.h"

#include <cstdint>
#include <random>
#include <vector>

namespace Hostile {

/** Makes many wrong things of a few right ones; the same ones for the same seed, on every machine. */
class Mutator {
public:
    explicit Mutator(std::uint32_t seed) : random_(seed) {}

    /** Words that are more likely than others to be put somewhere. */
    std::vector<std::uint32_t> words{0,           1,           4,           12,          65536,    65537,
                                     0x7FFFFFFFU, 0x80000000U, 0xFFFFFFF0U, 0xFFFFFFFFU, 1U << 20, 1U << 26};

    std::uint32_t below(std::uint32_t end) { return static_cast<std::uint32_t>(random_()) % end; }
    /** One to four changes anywhere; `others` are there to be mixed with. */
    void mutate(Bytes &bytes, const std::vector<Bytes> &others);
    /** One to three changes of the head of a packet, of which at least `kept` bytes stay. */
    void mutatePacket(Bytes &packet, std::size_t kept);

private:
    void change(Bytes &bytes, const std::vector<Bytes> &others);
    void changeWithin(Bytes &bytes, std::size_t end);

    std::mt19937 random_;
};

} // namespace Hostile
