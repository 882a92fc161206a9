#include "hostile/Mutator.h"

#include <algorithm>

namespace Hostile {

void Mutator::mutate(Bytes &bytes, const std::vector<Bytes> &others) {
    for (std::uint32_t changes = 1 + below(4); changes != 0; --changes) {
        change(bytes, others);
    }
}

void Mutator::mutatePacket(Bytes &packet, std::size_t kept) {
    for (std::uint32_t changes = 1 + below(3); changes != 0; --changes) {
        const std::uint32_t kind = below(8);
        if (kind == 0 && packet.size() > kept) {
            packet.resize(kept + below(static_cast<std::uint32_t>(packet.size() - kept)));
        } else if (kind == 1) {
            packet.resize(packet.size() + 1 + below(40), static_cast<unsigned char>(below(256)));
        } else {
            changeWithin(packet, std::min(packet.size(), kHead));
        }
    }
}

void Mutator::changeWithin(Bytes &bytes, std::size_t end) {
    if (end == 0) {
        return;
    }
    const auto size = static_cast<std::uint32_t>(end);
    switch (below(3)) {
    case 0:
        bytes[below(size)] ^= static_cast<unsigned char>(1U << below(8));
        break;
    case 1:
        bytes[below(size)] = static_cast<unsigned char>(below(256));
        break;
    default:
        if (size >= 4) {
            setWord(bytes, below(size / 4) * 4, words[below(static_cast<std::uint32_t>(words.size()))]);
        }
        break;
    }
}

void Mutator::change(Bytes &bytes, const std::vector<Bytes> &others) {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    const std::uint32_t from = below(size + 1);
    const auto at = bytes.begin() + static_cast<long>(from);
    switch (below(9)) {
    case 0:
        bytes.resize(from);
        break;
    case 1:
        bytes.resize(size + 1 + below(64), static_cast<unsigned char>(below(256)));
        break;
    case 2:
        bytes.erase(at, at + static_cast<long>(below(size - from + 1)));
        break;
    case 3: {
        const Bytes repeated(at, at + static_cast<long>(below(size - from + 1)));
        bytes.insert(bytes.begin() + static_cast<long>(from), repeated.begin(), repeated.end());
        break;
    }
    case 4: {
        const Bytes &other = others[below(static_cast<std::uint32_t>(others.size()))];
        const std::size_t tail = std::min<std::size_t>(from, other.size());
        bytes.resize(from);
        bytes.insert(bytes.end(), other.begin() + static_cast<long>(tail), other.end());
        break;
    }
    default:
        changeWithin(bytes, size);
        break;
    }
}

} // namespace Hostile
