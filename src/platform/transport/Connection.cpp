#include "platform/transport/Connection_p.h"

#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/socket.h>
#include <sys/uio.h>

namespace Transport {

namespace {

// What is read of one connection before the others have their turn.
constexpr int kFramesATime = 64;
constexpr std::size_t kBytesATime = 256 * 1024;
constexpr std::size_t kMaxQueuedControl = 8192;

/** One buffer serves all connections: only the receiving thread reads. */
unsigned char *packetBuffer() {
    static thread_local std::unique_ptr<unsigned char[]> buffer(new unsigned char[Connection::kMaxPacket]);
    return buffer.get();
}

} // namespace

Connection::Connection(Descriptor socket, Reactor &reactor, ConnectionOwner &owner)
    : socket_(std::move(socket)), reactor_(reactor), owner_(owner) {
    int size = 512 * 1024;
    socklen_t length = sizeof size;
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (::getsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &size, &length) != 0 || size < 4096) {
        size = 4096;
    }
    // A packet must fit the socket's buffer with its overhead, or it could never be sent.
    maxBody_ = std::min(kMaxPacket, static_cast<std::size_t>(size) / 2) - Frame::kHeadSize;
}

bool Connection::peerCredentials(unsigned long &user, long &process) const {
    struct ucred peerIs {};
    socklen_t length = sizeof peerIs;
    if (::getsockopt(socket_.get(), SOL_SOCKET, SO_PEERCRED, &peerIs, &length) != 0) {
        return false;
    }
    user = peerIs.uid;
    process = peerIs.pid;
    return true;
}

bool Connection::send(const Frame &head, AddressedMessage &&message, bool mayWait) {
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    if (closed_) {
        return false;
    }
    Item item{head, std::move(message)};
    if (queue_.empty()) {
        const Sent sent = sendPieces(item);
        if (sent != Sent::blocked) {
            // A message that broke off half-way must come back like one that waited: the queue returns it.
            if (sent == Sent::broken && item.begun) {
                static_cast<void>(pressure_.admit(lock_, 0, false));
                return enqueue(std::move(item));
            }
            return sent == Sent::all;
        }
    }
    if (!pressure_.admit(lock_, item.message.size(), mayWait && !item.begun)) {
        return false;
    }
    if (!enqueue(std::move(item))) {
        return false;
    }
    if (!wantsWrite_.exchange(true)) {
        reactor_.wake();
    }
    return true;
}

/** Without memory for it a message that has begun cannot be ended: the connection is. */
bool Connection::enqueue(Item &&item) {
    const std::size_t size = item.message.size();
    const bool begun = item.begun;
    try {
        queue_.push_back(std::move(item));
        return true;
    } catch (const std::bad_alloc &) {
        pressure_.left(size);
        if (begun) {
            ::shutdown(socket_.get(), SHUT_RDWR);
        }
        return false;
    }
}

bool Connection::sendControl(FrameType type, std::uint32_t originator, std::uint32_t destination) {
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    if (closed_ || queue_.size() > kMaxQueuedControl + Backpressure::kLimit / Backpressure::kPerMessage) {
        return false;
    }
    Item item;
    item.head.type = type;
    item.head.originator = originator;
    item.head.destination = destination;
    // One that is broken ends when all that the peer has sent was read, not here.
    if (queue_.empty() && sendPieces(item) != Sent::blocked) {
        return true;
    }
    try {
        queue_.push_back(std::move(item));
    } catch (const std::bad_alloc &) {
        return false;
    }
    if (!wantsWrite_.exchange(true)) {
        reactor_.wake();
    }
    return true;
}

bool Connection::flush() {
    OSWrap::DisableCancelStateGuard guard;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    return pressure_.drain(lock_);
}

Connection::Sent Connection::sendPieces(Item &item) {
    unsigned char head[Frame::kHeadSize];
    const auto &message = static_cast<const AddressedMessage &>(item.message);
    const std::size_t total = message.size();
    do {
        const std::size_t body = std::min(total - item.sent, maxBody_);
        item.head.flags = static_cast<std::uint16_t>((item.sent == 0 ? Frame::kFirst : 0) |
                                                     (item.sent + body == total ? Frame::kLast : 0));
        item.head.size = static_cast<std::uint32_t>(total);
        item.head.encode(head);
        const Sent sent = sendPacket(head, body != 0 ? message.buf() + item.sent : nullptr, body);
        if (sent != Sent::all) {
            return sent;
        }
        item.begun = true;
        item.sent += body;
        pressure_.moved();
    } while (item.sent < total);
    return Sent::all;
}

Connection::Sent Connection::sendPacket(const unsigned char *head, const unsigned char *body, std::size_t size) {
    iovec parts[2] = {{const_cast<unsigned char *>(head), Frame::kHeadSize}, {const_cast<unsigned char *>(body), size}};
    msghdr packet{};
    packet.msg_iov = parts;
    packet.msg_iovlen = size != 0 ? 2 : 1;
    ssize_t sent = 0;
    do {
        sent = ::sendmsg(socket_.get(), &packet, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        return Sent::all;
    }
    return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM ? Sent::blocked : Sent::broken;
}

short Connection::events() const noexcept {
    return static_cast<short>(ended_ ? 0 : POLLIN | (wantsWrite_.load() ? POLLOUT : 0));
}

void Connection::flushQueue() {
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    while (!queue_.empty()) {
        Item &item = queue_.front();
        const bool isMessage = item.head.type == FrameType::data || item.head.type == FrameType::returned;
        if (sendPieces(item) != Sent::all) {
            return; // a broken socket shows at reading; close() then returns what is here
        }
        if (isMessage) {
            pressure_.left(item.message.size());
        }
        queue_.pop_front();
    }
    wantsWrite_ = false;
}

void Connection::ready(short events) {
    if ((events & POLLOUT) != 0) {
        flushQueue();
    }
    if ((events & (POLLIN | POLLHUP | POLLERR)) == 0 || ended_) {
        return;
    }
    std::string problem;
    bytesRead_ = 0;
    for (int i = 0; i < kFramesATime && bytesRead_ < kBytesATime && !ended_; ++i) {
        const Read read = readPacket(problem);
        if (read == Read::nothing) {
            return;
        }
        if (read == Read::end) {
            ended_ = true;
            owner_.connectionEnded(*this, problem);
        }
    }
}

void Connection::readAll() {
    std::string problem;
    ::shutdown(socket_.get(), SHUT_RDWR); // what is there can still be read, but it becomes no more
    while (!ended_) {
        const Read read = readPacket(problem);
        if (read == Read::nothing) {
            return;
        }
        ended_ = read == Read::end;
    }
}

/** A reset says that the peer died with unread messages of ours; what it had sent before is still there to be read. */
Connection::Read Connection::readPacket(std::string &problem) {
    for (int resets = 0; resets < 8; ++resets) {
        iovec part{packetBuffer(), kMaxPacket};
        msghdr packet{};
        packet.msg_iov = &part;
        packet.msg_iovlen = 1;
        const ssize_t length = ::recvmsg(socket_.get(), &packet, MSG_DONTWAIT);
        if (length > 0) {
            if ((packet.msg_flags & MSG_TRUNC) != 0) {
                problem = "packet is larger than allowed";
                return Read::end;
            }
            bytesRead_ += static_cast<std::size_t>(length);
            return takePacket(static_cast<std::size_t>(length), problem) ? Read::frame : Read::end;
        }
        if (length < 0 && errno == EAGAIN) {
            return Read::nothing;
        }
        if (length == 0 || (errno != EINTR && errno != ECONNRESET)) {
            return Read::end;
        }
    }
    return Read::nothing;
}

bool Connection::takePacket(std::size_t length, std::string &problem) {
    const unsigned char *packet = packetBuffer();
    Frame frame;
    if (!frame.decode(packet, length, problem)) {
        return false;
    }
    AddressedMessage whole;
    if (frame.type == FrameType::data || frame.type == FrameType::returned) {
        if (!addPiece(frame, packet + Frame::kHeadSize, length - Frame::kHeadSize, whole, problem)) {
            return false;
        }
        if (inPieces_) {
            return true;
        }
    } else if (inPieces_) {
        problem = LogMakeString("packet of type %u between the pieces of a message", static_cast<unsigned>(frame.type));
        return false;
    }
    return owner_.frameArrived(*this, frame, std::move(whole), problem);
}

/** Leaves inPieces_ false when `whole` is complete. A message for which memory is short is dropped, not the peer. */
bool Connection::addPiece(const Frame &frame, const unsigned char *body, std::size_t size, AddressedMessage &whole,
                          std::string &problem) {
    const bool first = (frame.flags & Frame::kFirst) != 0;
    const bool last = (frame.flags & Frame::kLast) != 0;
    if (first == inPieces_) {
        problem = first ? "message begins inside another one" : "message without beginning";
        return false;
    }
    if (first) {
        pieceHead_ = frame;
        piecesTaken_ = 0;
        pieces_ = AddressedMessage::allocate(frame.size, 4);
        if (pieces_.buf() == nullptr) {
            LogDispatch(3,
                        LogMakeString("Transport: no memory for a message of %u bytes from 0x%08X, dropped", frame.size,
                                      frame.originator),
                        "Transport");
        }
    } else if (frame.type != pieceHead_.type || frame.originator != pieceHead_.originator ||
               frame.destination != pieceHead_.destination || frame.size != pieceHead_.size) {
        problem = "pieces of a message do not belong together";
        return false;
    }
    if (size > frame.size - piecesTaken_ || (piecesTaken_ + size == frame.size) != last) {
        problem = LogMakeString("message of %u bytes has %zu in its pieces", frame.size, piecesTaken_ + size);
        return false;
    }
    if (unsigned char *to = pieces_.buf(); to != nullptr && size != 0) {
        std::memcpy(to + piecesTaken_, body, size);
    }
    piecesTaken_ += size;
    inPieces_ = !last;
    if (last) {
        whole = std::move(pieces_);
        whole.originator() = TerminationId(frame.originator);
        whole.destination() = TerminationId(frame.destination);
    }
    return true;
}

std::vector<AddressedMessage> Connection::close() {
    std::vector<AddressedMessage> left;
    reactor_.unwatch(this);
    ended_ = true;
    OSWrap::Lock<OSWrap::Mutex> lock(lock_);
    closed_ = true;
    pressure_.close();
    for (Item &item : queue_) {
        if (item.head.type == FrameType::data) {
            item.message.originator() = TerminationId(item.head.originator);
            item.message.destination() = TerminationId(item.head.destination);
            left.push_back(std::move(item.message));
        }
    }
    queue_.clear();
    socket_.reset();
    return left;
}

} // namespace Transport
