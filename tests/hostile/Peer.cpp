#include "hostile/Peer.h"

#include "support/Deadline.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace Hostile {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience{60};

using Testing::leftUntil;

} // namespace

// Far from the numbers that are given out to actors that start one after the other.
std::uint32_t Peer::lastNumber_ = 0;

Peer::Peer(const std::string &socket)
    : name_(0x8000 + ++lastNumber_ % 0x3000), termination_((0xC000 + lastNumber_ % 0x3000) << 16 | 2 << 8 | 1) {
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, socket.c_str(), sizeof where.sun_path - 1);
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const timeval patience{60, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    ended_ = ::connect(socket_, reinterpret_cast<const sockaddr *>(&where), sizeof where) != 0;
}

Peer::~Peer() {
    ::close(socket_);
}

bool Peer::send(const Bytes &packet) {
    return !ended_ &&
           ::send(socket_, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

bool Peer::join() {
    joined_ = send(packet(kHello, static_cast<std::uint32_t>(::getpid()), name_, 0)) &&
              send(packet(kAnnounce, termination_, 0, 0)) && sync();
    return joined_;
}

bool Peer::sync() {
    send(packet(kSync, ++syncs_, 0, 0));
    const Clock::time_point limit = Clock::now() + kPatience;
    while (answered_ != syncs_ && !ended_ && Clock::now() < limit) {
        readOne(leftUntil(limit));
    }
    return answered_ == syncs_;
}

bool Peer::sendMessage(std::uint32_t destination, const Bytes &message) {
    constexpr std::size_t kPiece = 60000;
    const auto size = static_cast<std::uint32_t>(message.size());
    std::size_t sent = 0;
    do {
        const std::size_t now = std::min(message.size() - sent, kPiece);
        const auto begin = message.begin() + static_cast<long>(sent);
        const unsigned flags = (sent == 0 ? kFirst : 0U) | (sent + now == message.size() ? kLast : 0U);
        if (!send(
                packet(kData, termination_, destination, size, Bytes(begin, begin + static_cast<long>(now)), flags))) {
            return false;
        }
        sent += now;
    } while (sent < message.size());
    return true;
}

bool Peer::closed() {
    if (joined_) {
        return !sync() && ended_;
    }
    const Clock::time_point limit = Clock::now() + kPatience;
    while (!ended_ && Clock::now() < limit) {
        readOne(leftUntil(limit));
    }
    return ended_;
}

void Peer::readAll() {
    while (readOne(0)) {
    }
}

bool Peer::nextMessage(Bytes &message) {
    const Clock::time_point limit = Clock::now() + kPatience;
    while (messages_.empty() && !ended_ && Clock::now() < limit) {
        readOne(leftUntil(limit));
    }
    if (messages_.empty()) {
        return false;
    }
    message = std::move(messages_.front());
    messages_.pop_front();
    return true;
}

bool Peer::response(std::uint32_t transaction, Bytes &message) {
    while (nextMessage(message)) {
        if (message.size() >= 12 && wordAt(message, 0) == transaction && wordAt(message, 8) == kResponse) {
            return true;
        }
    }
    return false;
}

bool Peer::returned() {
    return std::exchange(returned_, false);
}

bool Peer::readOne(int milliseconds) {
    pollfd readable{socket_, POLLIN, 0};
    if (ended_ || ::poll(&readable, 1, milliseconds) <= 0) {
        return false;
    }
    Bytes buffer(kMostOfPacket);
    const ssize_t length = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (length <= 0) { // also a reset: the other side closed with packets of ours unread
        ended_ = true;
        return false;
    }
    buffer.resize(static_cast<std::size_t>(length));
    take(std::move(buffer));
    return true;
}

void Peer::take(Bytes &&packet) {
    if (packet.size() < kHead) {
        return;
    }
    if (packet[3] == kSyncAck) {
        answered_ = wordAt(packet, 8);
    } else if (packet[3] == kReturned) {
        returned_ = true;
    } else if (packet[3] == kData) {
        if ((packet[5] & kFirst) != 0) {
            pieces_.clear();
        }
        pieces_.insert(pieces_.end(), packet.begin() + kHead, packet.end());
        if ((packet[5] & kLast) != 0) {
            messages_.push_back(std::move(pieces_));
        }
    }
}

} // namespace Hostile
