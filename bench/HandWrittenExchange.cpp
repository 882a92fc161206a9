#include "Exchange.h"
#include "Stages.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Bench {

namespace {

constexpr std::size_t kPiece = 80 * 1024;

struct Free {
    void operator()(char *bytes) const { std::free(bytes); }
};

/** Zeroed, like the transport's messages. */
struct Bytes {
    explicit Bytes(std::size_t length = 0)
        : data(static_cast<char *>(std::calloc(1, length != 0 ? length : 1))), size(length) {}
    std::unique_ptr<char, Free> data;
    std::size_t size;
};

void sendAll(int socket, const Bytes &message) {
    const std::size_t size = message.size;
    for (std::size_t sent = 0; sent < size;) {
        const std::size_t piece = std::min(kPiece, size - sent);
        iovec parts[2] = {{const_cast<std::size_t *>(&size), sizeof size}, {message.data.get() + sent, piece}};
        msghdr packet{};
        packet.msg_iov = parts;
        packet.msg_iovlen = 2;
        if (::sendmsg(socket, &packet, MSG_NOSIGNAL) < 0) {
            return;
        }
        sent += piece;
    }
}

/** An empty message at the end of the connection. */
Bytes receiveAll(int socket, char *buffer) {
    Bytes message;
    std::size_t taken = 0;
    do {
        const ssize_t length = ::recv(socket, buffer, kPiece + sizeof(std::size_t), 0);
        if (length <= static_cast<ssize_t>(sizeof(std::size_t))) {
            return Bytes();
        }
        std::size_t size = 0;
        std::memcpy(&size, buffer, sizeof size);
        if (taken == 0) {
            message = Bytes(size);
        }
        const std::size_t body = static_cast<std::size_t>(length) - sizeof size;
        std::memcpy(message.data.get() + taken, buffer + sizeof size, body);
        taken += body;
    } while (taken < message.size);
    return message;
}

/** Byte 0 of a message: whether it wants an answer; byte 1: the number of the thread that waits for it. */
constexpr unsigned kHead = 2;

/** `queueOf` says which queue a message goes to. Until the connection ends; the last message is empty. */
template <class QueueOf>
void receiveInto(int socket, const QueueOf &queueOf) {
    const std::unique_ptr<char[]> buffer(new char[kPiece + sizeof(std::size_t)]);
    for (;;) {
        Bytes message = receiveAll(socket, buffer.get());
        const bool last = message.size < kHead;
        Queue<Bytes> &queue = queueOf(message);
        queue.push(std::move(message));
        if (last) {
            return;
        }
    }
}

class ByHand : public ConcurrentExchange {
public:
    ByHand() {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) {
            std::abort();
        }
        socket_ = ends[0];
        peer_ = startSelf("--serve-by-hand", std::to_string(ends[1]), -1, -1);
        ::close(ends[1]);
        receiver_ = std::thread([this] {
            receiveInto(socket_, [this](const Bytes &message) -> Queue<Bytes> & {
                return received_[message.size < kHead ? 0 : static_cast<unsigned char>(message.data.get()[1])];
            });
        });
    }
    ~ByHand() override {
        ::shutdown(socket_, SHUT_RDWR);
        receiver_.join();
        ::close(socket_);
        ::waitpid(peer_, nullptr, 0);
    }
    void call(unsigned size) override { call(size, 0); }
    void call(unsigned size, unsigned thread) override {
        send(size, true, thread);
        received_[thread].pop();
    }
    void oneWay(unsigned size, unsigned count) override {
        for (unsigned i = 1; i < count; ++i) {
            send(size, false, 0);
        }
        call(size);
    }
    pid_t peer() const override { return peer_; }

private:
    void send(unsigned size, bool answer, unsigned thread) const {
        Bytes message(size);
        message.data.get()[0] = answer ? 1 : 0;
        message.data.get()[1] = static_cast<char>(thread);
        sendAll(socket_, message);
    }

    int socket_ = -1;
    pid_t peer_ = -1;
    Queue<Bytes> received_[kThreads];
    std::thread receiver_;
};

} // namespace

std::unique_ptr<ConcurrentExchange> handWrittenExchange() {
    return std::make_unique<ByHand>();
}

int serveByHand(int socket) {
    Queue<Bytes> received;
    std::thread worker([&] {
        for (;;) {
            const Bytes request = received.pop();
            if (request.size < kHead) {
                return;
            }
            if (request.data.get()[0] != 0) {
                Bytes answer(request.size);
                answer.data.get()[0] = 1;
                answer.data.get()[1] = request.data.get()[1];
                sendAll(socket, answer);
            }
        }
    });
    receiveInto(socket, [&received](const Bytes &) -> Queue<Bytes> & { return received; });
    worker.join();
    return 0;
}

} // namespace Bench
