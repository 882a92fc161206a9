// Packets that a peer sends on one connection: a flag byte (1: without hello, 2: without announcement), then each
// packet behind its length in two bytes. Whatever they are, what arrives comes from a termination of that peer.
#include "Input.h"
#include "platform/Log.h"
#include "platform/transport/LocalLink_p.h"
#include "support/TempDir.h"

#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Transport::AddressedMessage;
using Transport::Frame;
using Transport::FrameType;
using Transport::TerminationId;

/** Keeps account of who is there. */
class World : public Transport::LinkListener {
public:
    void terminationAppeared(TerminationId id) override {
        require(present_.insert(id.value()).second, "nobody appears twice");
    }
    void terminationVanished(TerminationId id) override {
        require(present_.erase(id.value()) == 1, "who vanishes was there");
    }
    void messageArrived(AddressedMessage &&message) override {
        require(present_.count(message.originator().value()) == 1, "the originator is there");
        read(message);
    }
    void messageReturned(AddressedMessage &&message) override { read(message); }
    bool empty() const { return present_.empty(); }

private:
    static void read(const AddressedMessage &message) {
        unsigned sum = 0;
        for (unsigned i = 0; i < message.size(); ++i) {
            sum += message.buf()[i];
        }
        volatile unsigned kept = sum;
        static_cast<void>(kept);
    }

    std::set<unsigned> present_;
};

struct Unit {
    Unit() {
        Log::setSink([](int, const std::string &, const char *) {});
        reactor.start();
        const unsigned own = link.claimName() << 16 | 0x0101;
        require(link.announce(TerminationId(own)), "the link opens");
        const std::string name = "/a.0002"; // of the actor, which comes after that of its termination
        (directory.path() + name).copy(address.sun_path, sizeof address.sun_path - 1);
        address.sun_family = AF_UNIX;
    }

    const Testing::TempDir &directory = *new Testing::TempDir; // removed below
    World world;
    Transport::Reactor reactor;
    Transport::LocalLink link{directory.path(), reactor, world};
    sockaddr_un address{};
};

/** For the whole process; its directory goes at exit. */
Unit &unit() {
    static Unit &instance = *new Unit;
    static const struct Remover {
        ~Remover() { delete &instance.directory; }
    } remover;
    return instance;
}

bool sendPacket(int socket, const void *data, std::size_t size) {
    return ::send(socket, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool sendControl(int socket, FrameType type, unsigned originator, unsigned destination) {
    Frame frame;
    frame.type = type;
    frame.originator = originator;
    frame.destination = destination;
    unsigned char head[Frame::kHeadSize];
    frame.encode(head);
    return sendPacket(socket, head, sizeof head);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static unsigned count = 0;
    const unsigned name = 0x100 + ++count % 0x4000;
    Input input(data, size);
    const unsigned flags = input.byte();
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    require(::connect(socket, reinterpret_cast<const sockaddr *>(&unit().address), sizeof unit().address) == 0,
            "the link accepts connections");
    if ((flags & 1) == 0) {
        sendControl(socket, FrameType::hello, 1, name);
    }
    if ((flags & 3) == 0) {
        sendControl(socket, FrameType::announce, 0x77770201, 0);
    }
    while (!input.empty()) {
        const unsigned high = input.byte();
        const Input packet = input.take(high << 8 | input.byte());
        if (!sendPacket(socket, packet.data(), packet.size())) {
            break; // closed already
        }
    }
    ::shutdown(socket, SHUT_WR);
    char rest[4096];
    while (::recv(socket, rest, sizeof rest, 0) > 0) { // until the link has seen the end, too
    }
    ::close(socket);
    bool empty = false;
    unit().reactor.run([&empty] { empty = unit().world.empty(); });
    require(empty, "all terminations of a connection end with it");
    return 0;
}
