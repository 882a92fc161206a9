#include "platform/transport/LocalLink_p.h"

#include "platform/Lock.h"
#include "platform/Log.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace Transport {
namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;
constexpr std::chrono::seconds kDeadline{30};

/** What a link reported, in order. */
class Recorder : public LinkListener {
public:
    void terminationAppeared(TerminationId id) override {
        change([&] {
            present_.insert(id.value());
            events_.push_back(LogMakeString("+%08X", id.value()));
        });
    }
    void terminationVanished(TerminationId id) override {
        change([&] {
            present_.erase(id.value());
            events_.push_back(LogMakeString("-%08X", id.value()));
        });
    }
    void messageArrived(AddressedMessage &&message) override {
        change([&] {
            events_.push_back("m");
            arrived_.push_back(std::move(message));
        });
    }
    void messageReturned(AddressedMessage &&message) override {
        change([&] { returned_.push_back(std::move(message)); });
    }

    bool knows(TerminationId id) {
        Locked lock(lock_);
        return present_.count(id.value()) != 0;
    }
    bool waitFor(const std::function<bool()> &condition) RB_NO_ANALYSIS {
        const auto limit = std::chrono::steady_clock::now() + kDeadline;
        Locked lock(lock_);
        while (!condition()) {
            if (changed_.wait_until(lock_, limit) == std::cv_status::timeout) {
                return false;
            }
        }
        return true;
    }
    bool waitKnown(TerminationId id, bool known = true) {
        return waitFor([&] { return (present_.count(id.value()) != 0) == known; });
    }
    bool waitArrived(std::size_t count) {
        return waitFor([&] { return arrived_.size() >= count; });
    }
    bool waitReturned(std::size_t count) {
        return waitFor([&] { return returned_.size() >= count; });
    }
    std::vector<AddressedMessage> arrived() {
        Locked lock(lock_);
        return arrived_;
    }
    std::vector<AddressedMessage> returned() {
        Locked lock(lock_);
        return returned_;
    }
    std::vector<std::string> events() {
        Locked lock(lock_);
        return events_;
    }

private:
    template <class Change>
    void change(const Change &apply) {
        Locked lock(lock_);
        apply();
        changed_.notify_all();
    }

    OSWrap::Mutex lock_;
    std::condition_variable_any changed_;
    std::set<unsigned> present_;
    std::vector<std::string> events_;
    std::vector<AddressedMessage> arrived_;
    std::vector<AddressedMessage> returned_;
};

/** An actor without processes: a receiving thread and a link, with one termination. */
struct Actor {
    explicit Actor(const std::string &directory) : link(directory, reactor, heard) {
        EXPECT_TRUE(reactor.start());
        id = TerminationId(link.claimName(), 1, 1);
        EXPECT_NE(0U, id.nameId());
    }

    bool send(TerminationId to, AddressedMessage message) {
        message.originator() = id;
        message.destination() = to;
        return link.send(std::move(message));
    }
    bool send(TerminationId to, unsigned size, unsigned char fill) {
        AddressedMessage message = AddressedMessage::allocate(size, 4);
        if (size != 0) {
            std::memset(message.buf(), fill, size);
        }
        return send(to, std::move(message));
    }

    Recorder heard;
    Reactor reactor;
    LocalLink link;
    TerminationId id;
};

bool isFilled(const AddressedMessage &message, unsigned size, unsigned char fill) {
    const unsigned char *bytes = message.buf();
    return message.size() == size && bytes != nullptr &&
           (size == 0 || (bytes[0] == fill && std::memcmp(bytes, bytes + 1, size - 1) == 0));
}

class LocalLinkTest : public testing::Test {
protected:
    void SetUp() override {
        previous_ = Log::setSink([this](int, const std::string &line, const char *) {
            Locked lock(lock_);
            lines_ += line + "\n";
        });
    }
    void TearDown() override { Log::setSink(previous_); }
    bool logged(const std::string &text) {
        Locked lock(lock_);
        return lines_.find(text) != std::string::npos;
    }
    std::string directory() const { return temp_.path() + "/unit"; }

private:
    Testing::TempDir temp_;
    Log::Sink previous_;
    OSWrap::Mutex lock_;
    std::string lines_;
};

/** An actor that speaks the protocol by hand, as a hostile one may. */
class Stranger {
public:
    Stranger(const std::string &directory, const Actor &target, unsigned targetName) : directory_(directory) {
        std::string problem;
        EXPECT_TRUE(directory_.open(problem)) << problem;
        name = directory_.claimName();
        id = TerminationId(directory_.claimName(), 1, 1);
        EXPECT_EQ(UnitDirectory::Reach::connected, directory_.connect(targetName, socket_));
        static_cast<void>(target);
    }
    void send(const std::vector<unsigned char> &packet) {
        ssize_t sent = -1;
        for (int tries = 0; tries < 1000 && sent < 0; ++tries) {
            sent = ::send(socket_.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
            if (sent < 0 && errno != EAGAIN) {
                break;
            }
            pollfd writable{socket_.get(), POLLOUT, 0};
            ::poll(&writable, 1, sent < 0 ? 1000 : 0);
        }
        EXPECT_EQ(static_cast<ssize_t>(packet.size()), sent);
    }
    void send(FrameType type, std::uint32_t first, std::uint32_t second = 0, std::uint32_t size = 0,
              std::size_t body = 0, std::uint16_t flags = Frame::kFirst | Frame::kLast) {
        send(packet(type, first, second, size, body, flags));
    }
    static std::vector<unsigned char> packet(FrameType type, std::uint32_t first, std::uint32_t second = 0,
                                             std::uint32_t size = 0, std::size_t body = 0,
                                             std::uint16_t flags = Frame::kFirst | Frame::kLast) {
        Frame frame;
        frame.type = type;
        frame.flags = flags;
        frame.originator = first;
        frame.destination = second;
        frame.size = size;
        std::vector<unsigned char> bytes(Frame::kHeadSize + body, 'x');
        frame.encode(bytes.data());
        return bytes;
    }
    void join() {
        send(FrameType::hello, 1, name);
        send(FrameType::announce, id.value());
    }
    /** Whether the other side has closed the connection, within the deadline. */
    bool closed() {
        std::vector<unsigned char> buffer(Connection::kMaxPacket);
        const auto limit = std::chrono::steady_clock::now() + kDeadline;
        while (std::chrono::steady_clock::now() < limit) {
            pollfd state{socket_.get(), POLLIN, 0};
            ::poll(&state, 1, 100);
            const ssize_t length = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (length == 0 || (length < 0 && errno == ECONNRESET)) {
                return true;
            }
        }
        return false;
    }
    void leave() { socket_.reset(); }

    unsigned name = 0;
    TerminationId id;

private:
    UnitDirectory directory_;
    Descriptor socket_;
};

unsigned onlySocket(const std::string &path) {
    UnitDirectory directory(path);
    std::string problem;
    EXPECT_TRUE(directory.open(problem));
    const std::vector<unsigned> names = directory.sockets();
    EXPECT_EQ(1U, names.size());
    return names.empty() ? 0 : names[0];
}

TEST_F(LocalLinkTest, WhoStartsSecondKnowsTheFirstAtOnce) {
    Actor one(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    Actor two(directory());
    ASSERT_TRUE(two.link.announce(two.id));
    EXPECT_TRUE(two.heard.knows(one.id));
    EXPECT_TRUE(one.heard.knows(two.id));
}

TEST_F(LocalLinkTest, TwoThatStartAtOnceKnowEachOther) {
    int conclusive = 0;
    for (int round = 0; round < 200; ++round) {
        Actor one(directory());
        Actor two(directory());
        const auto begin = std::chrono::steady_clock::now();
        std::thread other([&] { EXPECT_TRUE(two.link.announce(two.id)); });
        EXPECT_TRUE(one.link.announce(one.id));
        other.join();
        // Who needed the whole patience of a start, on a machine that is busy, may learn of the other later.
        if (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(90)) {
            ++conclusive;
            EXPECT_TRUE(one.heard.knows(two.id)) << round;
            EXPECT_TRUE(two.heard.knows(one.id)) << round;
        }
        EXPECT_TRUE(one.heard.waitKnown(two.id));
        EXPECT_TRUE(two.heard.waitKnown(one.id));
        EXPECT_TRUE(one.send(two.id, 10, 1));
        EXPECT_TRUE(two.send(one.id, 10, 2));
        EXPECT_TRUE(one.heard.waitArrived(1));
        EXPECT_TRUE(two.heard.waitArrived(1));
        two.link.withdraw(two.id);
        EXPECT_TRUE(one.heard.waitKnown(two.id, false));
    }
    EXPECT_GT(conclusive, 20);
}

TEST_F(LocalLinkTest, MessagesOfAllSizesArriveInOrderWithTheirAddresses) {
    Actor one(directory());
    Actor two(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    ASSERT_TRUE(two.link.announce(two.id));
    const std::vector<unsigned> sizes{0, 1, 100, 65536, 81900, 81920, 200000, kMaxMessageSize, 3};
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        ASSERT_TRUE(one.send(two.id, sizes[i], static_cast<unsigned char>(i + 1)));
        if (sizes[i] == kMaxMessageSize) { // who is busy with so much may be taken for one that does not read
            ASSERT_TRUE(two.heard.waitArrived(i + 1));
        }
    }
    ASSERT_TRUE(two.heard.waitArrived(sizes.size()));
    const std::vector<AddressedMessage> arrived = two.heard.arrived();
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_TRUE(isFilled(arrived[i], sizes[i], static_cast<unsigned char>(i + 1))) << sizes[i];
        EXPECT_EQ(one.id, arrived[i].originator());
        EXPECT_EQ(two.id, arrived[i].destination());
    }
}

TEST_F(LocalLinkTest, ManyMessagesKeepTheirOrderAndNoneIsLost) {
    Actor one(directory());
    Actor two(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    ASSERT_TRUE(two.link.announce(two.id));
    constexpr unsigned kMany = 100000;
    for (unsigned i = 0; i < kMany; ++i) {
        AddressedMessage message = AddressedMessage::allocate(16, 4);
        std::memcpy(message.buf(), &i, sizeof i);
        ASSERT_TRUE(one.send(two.id, std::move(message))) << i;
    }
    ASSERT_TRUE(two.heard.waitArrived(kMany));
    const std::vector<AddressedMessage> arrived = two.heard.arrived();
    for (unsigned i = 0; i < kMany; ++i) {
        unsigned got = 0;
        std::memcpy(&got, arrived[i].buf(), sizeof got);
        ASSERT_EQ(i, got);
    }
}

TEST_F(LocalLinkTest, WhatWasSentBeforeTheEndIsHeardBeforeTheEnd) {
    for (int round = 0; round < 50; ++round) {
        Actor one(directory());
        ASSERT_TRUE(one.link.announce(one.id));
        {
            Actor two(directory());
            ASSERT_TRUE(two.link.announce(two.id));
            ASSERT_TRUE(one.send(two.id, 5, 5)); // unread at the end: the reset must not swallow the answer
            for (int i = 0; i < 20; ++i) {
                ASSERT_TRUE(two.send(one.id, 100, 1));
            }
            two.link.withdraw(two.id);
            ASSERT_TRUE(one.heard.waitKnown(two.id, false));
        }
        const std::vector<std::string> events = one.heard.events();
        ASSERT_EQ(22U, events.size());
        EXPECT_EQ('+', events.front()[0]);
        EXPECT_EQ('-', events.back()[0]);
    }
}

TEST_F(LocalLinkTest, TheDirectoryIsEmptyAfterTheLastWithdrawal) {
    Actor one(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    UnitDirectory view(directory());
    std::string problem;
    ASSERT_TRUE(view.open(problem));
    EXPECT_EQ(1U, view.sockets().size());
    one.link.withdraw(one.id);
    EXPECT_TRUE(view.sockets().empty());
}

TEST_F(LocalLinkTest, TwoUnitsDoNotSeeEachOther) {
    Testing::TempDir elsewhere;
    Actor one(directory());
    Actor two(elsewhere.path());
    ASSERT_TRUE(one.link.announce(one.id));
    ASSERT_TRUE(two.link.announce(two.id));
    EXPECT_TRUE(one.heard.events().empty());
    EXPECT_TRUE(two.heard.events().empty());
    EXPECT_FALSE(one.send(TerminationId(two.id.nameId() + 1, 1, 1), 1, 1));
}

TEST_F(LocalLinkTest, SecondTerminationsComeAndGoOnALivingConnection) {
    Actor one(directory());
    Actor two(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    ASSERT_TRUE(two.link.announce(two.id));
    const TerminationId extra(two.link.claimName(), 1, 2);
    ASSERT_TRUE(two.link.announce(extra));
    EXPECT_TRUE(one.heard.knows(extra));
    two.link.withdraw(extra);
    EXPECT_TRUE(one.heard.waitKnown(extra, false));
    EXPECT_TRUE(one.heard.knows(two.id));
    EXPECT_FALSE(one.send(extra, 1, 1));
    EXPECT_TRUE(one.send(two.id, 1, 1));
}

/** As when a thread issues while another one stops the originator. */
TEST_F(LocalLinkTest, AMessageOfATerminationThatHasJustStoppedDoesNoHarm) {
    Actor one(directory());
    Actor two(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    ASSERT_TRUE(two.link.announce(two.id));
    const TerminationId extra(two.link.claimName(), 1, 2);
    ASSERT_TRUE(two.link.announce(extra));
    two.link.withdraw(extra);
    AddressedMessage late = AddressedMessage::allocate(1, 4);
    late.originator() = extra;
    late.destination() = one.id;
    EXPECT_TRUE(two.link.send(std::move(late)));
    EXPECT_TRUE(two.send(one.id, 5, 5));
    ASSERT_TRUE(one.heard.waitArrived(1));
    EXPECT_EQ(two.id, one.heard.arrived()[0].originator());
    EXPECT_TRUE(one.heard.knows(two.id));
}

/** The last words of a peer count, also if we find out by sending to it that it is gone. */
TEST_F(LocalLinkTest, WhatWasSentBeforeTheEndIsHeardThoughSendingFailsFirst) {
    Actor one(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    for (int round = 0; round < 20; ++round) {
        std::size_t before = one.heard.arrived().size();
        TerminationId id;
        {
            Actor two(directory());
            id = two.id;
            ASSERT_TRUE(two.link.announce(two.id));
            ASSERT_TRUE(one.heard.waitKnown(id));
            one.reactor.run([&] { // who receives is busy, so all of this waits for it
                for (unsigned char i = 0; i < 50; ++i) {
                    EXPECT_TRUE(two.send(one.id, 10, i));
                }
                two.reactor.run([&] { two.link.withdraw(two.id); });
                const TerminationId extra(one.link.claimName(), 1, 2);
                EXPECT_TRUE(one.link.announce(extra));
                one.link.withdraw(extra);
            });
        }
        ASSERT_TRUE(one.heard.waitKnown(id, false));
        EXPECT_EQ(before + 50, one.heard.arrived().size()) << round;
    }
}

TEST_F(LocalLinkTest, AMessageWithoutTargetGoesBackToItsOriginator) {
    Actor one(directory());
    Actor two(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    ASSERT_TRUE(two.link.announce(two.id));
    ASSERT_TRUE(one.send(two.id, 300000, 7));
    ASSERT_TRUE(two.heard.waitArrived(1));
    EXPECT_TRUE(two.link.giveBack(AddressedMessage(two.heard.arrived()[0])));
    ASSERT_TRUE(one.heard.waitReturned(1));
    const AddressedMessage back = one.heard.returned()[0];
    EXPECT_TRUE(isFilled(back, 300000, 7));
    EXPECT_EQ(one.id, back.originator());
    EXPECT_EQ(two.id, back.destination());
}

TEST_F(LocalLinkTest, APeerThatNeverReadsCostsBoundedMemoryAndNobodyElse) {
    Actor one(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    Stranger deaf(directory(), one, onlySocket(directory()));
    deaf.join();
    ASSERT_TRUE(one.heard.waitKnown(deaf.id));
    Actor other(directory());
    ASSERT_TRUE(other.link.announce(other.id));
    std::size_t accepted = 0;
    for (int i = 0; i < 1600; ++i) {
        if (one.send(deaf.id, 65536, 1)) {
            ++accepted;
        }
        if (i % 100 == 0) {
            ASSERT_TRUE(one.send(other.id, 100, 2));
        }
    }
    EXPECT_LT(accepted, std::size_t{24 * 16}); // the bound, and what its socket holds
    EXPECT_GT(accepted, 100U);
    EXPECT_TRUE(other.heard.waitArrived(16));
    deaf.leave();
    ASSERT_TRUE(one.heard.waitKnown(deaf.id, false));
    EXPECT_TRUE(one.heard.waitReturned(1));
    EXPECT_LE(one.heard.returned().size(), accepted);
    for (const AddressedMessage &message : one.heard.returned()) {
        EXPECT_TRUE(isFilled(message, 65536, 1));
        EXPECT_EQ(deaf.id, message.destination());
        EXPECT_EQ(one.id, message.originator());
    }
}

TEST_F(LocalLinkTest, WhatWaitedForAVanishedPeerComesBackOnceAndInOrder) {
    Actor one(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    Stranger deaf(directory(), one, onlySocket(directory()));
    deaf.join();
    ASSERT_TRUE(one.heard.waitKnown(deaf.id));
    unsigned accepted = 0;
    for (unsigned i = 0; i < 20000; ++i) {
        AddressedMessage message = AddressedMessage::allocate(64, 4);
        std::memcpy(message.buf(), &i, sizeof i);
        accepted += one.send(deaf.id, std::move(message)) ? 1 : 0;
    }
    ASSERT_EQ(20000U, accepted);
    deaf.leave();
    ASSERT_TRUE(one.heard.waitKnown(deaf.id, false));
    one.reactor.run([] {});
    const std::vector<AddressedMessage> returned = one.heard.returned();
    ASSERT_GT(returned.size(), 1000U);
    const auto first = static_cast<unsigned>(20000 - returned.size());
    for (unsigned i = 0; i < returned.size(); ++i) {
        unsigned number = 0;
        std::memcpy(&number, returned[i].buf(), sizeof number);
        ASSERT_EQ(first + i, number);
    }
}

struct Attack {
    const char *name;
    std::function<void(Stranger &, const Actor &)> run;
    const char *logged;
};

std::vector<Attack> attacks() {
    return {
        {"noise instead of a hello",
         [](Stranger &s, const Actor &) {
             s.send({'H', 'T', 'T', 'P'});
         },
         "shorter than"},
        {"another version",
         [](Stranger &s, const Actor &) {
             std::vector<unsigned char> hello = Stranger::packet(FrameType::hello, 1, s.name);
             hello[2] = 9;
             s.send(hello);
         },
         "protocol version 9"},
        {"message before the hello",
         [](Stranger &s, const Actor &a) { s.send(FrameType::data, s.id.value(), a.id.value(), 1, 1); },
         "before the hello"},
        {"hello without name", [](Stranger &s, const Actor &) { s.send(FrameType::hello, 1, 0); }, "name id 0"},
        {"second hello",
         [](Stranger &s, const Actor &) {
             s.join();
             s.send(FrameType::hello, 1, s.name);
         },
         "second hello"},
        {"announces a termination of the target",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::announce, a.id.value());
         },
         "not its own"},
        {"announces what is claimed here and not started yet",
         [](Stranger &s, const Actor &a) {
             s.join();
             const unsigned name = const_cast<Actor &>(a).link.claimName();
             s.send(FrameType::announce, name << 16 | 0x0101U);
         },
         "not its own"},
        {"announces without end",
         [](Stranger &s, const Actor &) {
             s.join();
             for (unsigned i = 1; i <= 1024; ++i) {
                 s.send(FrameType::announce, 0xE0000101U + (i << 16));
             }
         },
         "too many terminations"},
        {"announces nobody",
         [](Stranger &s, const Actor &) {
             s.join();
             s.send(FrameType::announce, 0);
         },
         "not its own"},
        {"withdraws what it never had",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::withdraw, a.id.value());
         },
         "not its own"},
        {"forged originator",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::data, a.id.value(), a.id.value(), 1, 1);
         },
         "forged originator"},
        {"returns what was sent to somebody else",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::returned, a.id.value(), a.id.value(), 1, 1);
         },
         "not its own"},
        {"message without beginning",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::data, s.id.value(), a.id.value(), 10, 5, Frame::kLast);
         },
         "without beginning"},
        {"message that ends early",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::data, s.id.value(), a.id.value(), 10, 5);
         },
         "has 5 in its pieces"},
        {"message that never ends",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::data, s.id.value(), a.id.value(), 10, 5, Frame::kFirst);
             s.send(FrameType::data, s.id.value(), a.id.value(), 10, 6, 0);
         },
         "has 11 in its pieces"},
        {"pieces of two messages",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::data, s.id.value(), a.id.value(), 10, 5, Frame::kFirst);
             s.send(FrameType::data, s.id.value(), a.id.value(), 11, 5, 0);
         },
         "do not belong together"},
        {"another packet between the pieces",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::data, s.id.value(), a.id.value(), 10, 5, Frame::kFirst);
             s.send(FrameType::sync, 1);
         },
         "between the pieces"},
        {"packet above the limit",
         [](Stranger &s, const Actor &a) {
             s.join();
             s.send(FrameType::data, s.id.value(), a.id.value(), 100000, 90000, Frame::kFirst);
         },
         "packet is larger"},
    };
}

TEST_F(LocalLinkTest, WhoBreaksTheProtocolIsCutOffAndReportedAndNobodyElseSuffers) {
    Actor one(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    const unsigned name = onlySocket(directory());
    Actor friendly(directory());
    ASSERT_TRUE(friendly.link.announce(friendly.id));
    std::size_t sent = 0;
    for (const Attack &attack : attacks()) {
        Stranger stranger(directory(), one, name);
        attack.run(stranger, one);
        EXPECT_TRUE(stranger.closed()) << attack.name;
        EXPECT_TRUE(logged(attack.logged)) << attack.name;
        EXPECT_TRUE(one.heard.waitKnown(stranger.id, false)) << attack.name;
        EXPECT_TRUE(friendly.send(one.id, 10, 1)) << attack.name;
        EXPECT_TRUE(one.heard.waitArrived(++sent)) << attack.name;
        EXPECT_EQ(sent, one.heard.arrived().size()) << attack.name << ": something forged came through";
    }
    EXPECT_TRUE(one.heard.knows(friendly.id));
}

TEST_F(LocalLinkTest, ManySilentConnectionsDoNotKeepAnHonestActorOut) {
    Actor one(directory());
    ASSERT_TRUE(one.link.announce(one.id));
    const unsigned name = onlySocket(directory());
    std::vector<std::unique_ptr<Stranger>> silent;
    for (int i = 0; i < 400; ++i) {
        silent.push_back(std::make_unique<Stranger>(directory(), one, name));
    }
    Actor honest(directory());
    ASSERT_TRUE(honest.link.announce(honest.id));
    EXPECT_TRUE(honest.heard.waitKnown(one.id));
    EXPECT_TRUE(one.heard.waitKnown(honest.id));
    EXPECT_TRUE(logged("too many connections without hello"));
}

} // namespace
} // namespace Transport
