#include "platform/transport/Frame_p.h"

#include "platform/AddressedMessage.h"
#include "platform/Log.h"

namespace Transport {

namespace {

constexpr unsigned char kMagic[2] = {'R', 'O'};

void put32(unsigned char *at, std::uint32_t value) noexcept {
    at[0] = static_cast<unsigned char>(value >> 24);
    at[1] = static_cast<unsigned char>(value >> 16);
    at[2] = static_cast<unsigned char>(value >> 8);
    at[3] = static_cast<unsigned char>(value);
}

std::uint32_t get32(const unsigned char *at) noexcept {
    return static_cast<std::uint32_t>(at[0]) << 24 | static_cast<std::uint32_t>(at[1]) << 16 |
           static_cast<std::uint32_t>(at[2]) << 8 | at[3];
}

bool isMessage(FrameType type) noexcept {
    return type == FrameType::data || type == FrameType::returned;
}

} // namespace

void Frame::encode(unsigned char *head) const noexcept {
    head[0] = kMagic[0];
    head[1] = kMagic[1];
    head[2] = kVersion;
    head[3] = static_cast<unsigned char>(type);
    head[4] = static_cast<unsigned char>(flags >> 8);
    head[5] = static_cast<unsigned char>(flags);
    head[6] = 0;
    head[7] = 0;
    put32(head + 8, originator);
    put32(head + 12, destination);
    put32(head + 16, size);
}

bool Frame::decode(const unsigned char *packet, std::size_t length, std::string &problem) noexcept {
    if (length < kHeadSize) {
        problem = LogMakeString("packet of %zu bytes is shorter than a head", length);
        return false;
    }
    if (packet[0] != kMagic[0] || packet[1] != kMagic[1]) {
        problem = LogMakeString("packet starts with %02X%02X", packet[0], packet[1]);
        return false;
    }
    if (packet[2] != kVersion) {
        problem = LogMakeString("protocol version %u is not known", packet[2]);
        return false;
    }
    if (packet[3] < static_cast<unsigned>(FrameType::hello) || packet[3] > static_cast<unsigned>(FrameType::returned)) {
        problem = LogMakeString("packet type %u is not known", packet[3]);
        return false;
    }
    type = static_cast<FrameType>(packet[3]);
    flags = static_cast<std::uint16_t>(packet[4] << 8 | packet[5]);
    originator = get32(packet + 8);
    destination = get32(packet + 12);
    size = get32(packet + 16);
    const std::size_t body = length - kHeadSize;
    const std::size_t most = isMessage(type) ? size : 0;
    if (body > most) {
        problem = LogMakeString("packet of type %u has %zu bytes too many", packet[3], body - most);
        return false;
    }
    if (isMessage(type) && size > kMaxMessageSize) {
        problem = LogMakeString("message of %u bytes is larger than allowed", size);
        return false;
    }
    if (isMessage(type) && body == 0 && size != 0) {
        problem = "piece of a message without bytes";
        return false;
    }
    return true;
}

} // namespace Transport
