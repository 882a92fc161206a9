#include "platform/transport/LocalLink_p.h"

#include "platform/Cancellation.h"
#include "platform/Lock.h"
#include "platform/Log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace Transport {

namespace {

constexpr char kSource[] = "Transport";
constexpr std::size_t kMaxStrangers = 256;
constexpr std::size_t kMaxTerminations = 1024; // of one actor
constexpr std::size_t kWithdrawnKept = 64;
constexpr int kConnectTries = 600;
constexpr int kRemoveTries = 50;
constexpr std::chrono::milliseconds kPause{100};
constexpr std::chrono::milliseconds kRemovePause{20};

using Locked = OSWrap::Lock<OSWrap::Mutex>;

} // namespace

/** The listening socket; rests a while when the actor has no descriptor left. */
class LocalLink::Listener : public Pollable {
public:
    Listener(Descriptor socket, LocalLink &link) : socket_(std::move(socket)), link_(link) {}
    int descriptor() const noexcept override { return socket_.get(); }
    short events() const noexcept override { return static_cast<short>(resting ? 0 : POLLIN); }
    void ready(short) override { link_.acceptAll(); }
    bool resting = false;

private:
    Descriptor socket_;
    LocalLink &link_;
};

LocalLink::LocalLink(std::string directory, Reactor &reactor, LinkListener &listener)
    : directory_(std::move(directory)), reactor_(reactor), listener_(listener) {}

LocalLink::~LocalLink() {
    reactor_.run([this] { closeAll(); });
}

bool LocalLink::openDirectory() {
    std::string problem;
    if (!directory_.open(problem)) {
        LogDispatch(3, LogMakeString("Transport: %s", problem.c_str()), kSource);
        return false;
    }
    return true;
}

unsigned LocalLink::claimName() {
    if (!openDirectory()) {
        return 0;
    }
    const unsigned name = directory_.claimName();
    if (name == 0) {
        LogDispatch(3, "Transport: all name ids of the unit are in use", kSource);
    }
    return name;
}

void LocalLink::releaseName(unsigned name) {
    directory_.releaseName(name);
}

// --- life of the link -----------------------------------------------------------------------------------------------

bool LocalLink::announce(TerminationId id) {
    std::uint32_t sync = 0;
    bool opened = false;
    reactor_.run([&] {
        opened = open();
        if (!opened) {
            return;
        }
        announced_.insert(id.value());
        {
            Locked lock(syncLock_);
            sync = ++lastSync_;
            for (const auto &entry : peers_) {
                awaited_[entry.first] = sync;
            }
        }
        control(FrameType::announce, id.value());
        control(FrameType::sync, sync);
    });
    if (opened && !reactor_.onThread()) {
        awaitAnswers(sync);
    }
    return opened;
}

void LocalLink::withdraw(TerminationId id) {
    std::vector<std::shared_ptr<Connection>> outs;
    reactor_.run([&] {
        announced_.erase(id.value());
        control(FrameType::withdraw, id.value());
        for (const auto &entry : peers_) {
            outs.push_back(entry.second.out);
        }
    });
    if (!reactor_.onThread()) {
        for (const std::shared_ptr<Connection> &out : outs) {
            out->flush();
        }
    }
    reactor_.run([this] {
        if (announced_.empty()) {
            closeAll();
        }
    });
}

/** Listens first and looks around then: of two actors that start together, at least one finds the other. */
bool LocalLink::open() {
    if (name_ != 0) {
        return true;
    }
    if (!openDirectory()) {
        return false;
    }
    std::string problem;
    name_ = directory_.claimName();
    Descriptor socket;
    if (name_ == 0) {
        problem = "all name ids of the unit are in use";
    } else {
        socket = directory_.listen(name_, problem);
    }
    if (!socket) {
        LogDispatch(3, LogMakeString("Transport: %s", problem.c_str()), kSource);
        directory_.releaseName(name_);
        name_ = 0;
        return false;
    }
    acceptor_ = std::make_shared<Listener>(std::move(socket), *this);
    reactor_.watch(acceptor_);
    for (unsigned name : directory_.sockets()) {
        if (name != name_) {
            connectTo(name, kConnectTries);
        }
    }
    return true;
}

void LocalLink::closeAll() {
    if (name_ == 0) {
        return;
    }
    directory_.removeSocket(name_);
    reactor_.unwatch(acceptor_.get());
    acceptor_.reset();
    while (!peers_.empty()) {
        drop(peers_.begin()->first, "");
    }
    for (const std::shared_ptr<Connection> &stranger : strangers_) {
        stranger->close();
    }
    strangers_.clear();
    for (unsigned name : leftovers_) {
        directory_.removeIfStale(name);
    }
    leftovers_.clear();
    directory_.releaseName(name_);
    name_ = 0;
}

void LocalLink::connectTo(unsigned name, int tries) {
    if (peers_.count(name) != 0) {
        return;
    }
    Descriptor socket;
    switch (directory_.connect(name, socket)) {
    case UnitDirectory::Reach::connected:
        break;
    case UnitDirectory::Reach::stale:
        removeLeftover(name, kRemoveTries);
        return;
    case UnitDirectory::Reach::busy:
        if (tries > 1) {
            connectLater(name, tries - 1);
            return;
        }
        [[fallthrough]];
    case UnitDirectory::Reach::failed:
        LogDispatch(4, LogMakeString("Transport: actor %04x cannot be reached, errno=%d", name, errno), kSource);
        return;
    }
    auto connection = std::make_shared<Connection>(std::move(socket), reactor_, static_cast<ConnectionOwner &>(*this));
    if (!checkUser(*connection)) {
        connection->close();
        return;
    }
    connection->peer = name;
    reactor_.watch(connection);
    peers_[name].tries = tries;
    greet(peers_[name], connection);
}

void LocalLink::connectLater(unsigned name, int tries) {
    reactor_.after(kPause, [this, name, tries, life = std::weak_ptr<Listener>(acceptor_)] {
        if (life.lock()) {
            connectTo(name, tries);
        }
    });
}

/** The first thing a peer reads from us: who we are and what we have; only then we send on that connection. */
void LocalLink::greet(Peer &peer, const std::shared_ptr<Connection> &out) {
    peer.out = out;
    out->sendControl(FrameType::hello, static_cast<std::uint32_t>(::getpid()), name_);
    for (unsigned id : announced_) {
        out->sendControl(FrameType::announce, id);
    }
}

void LocalLink::acceptAll() {
    for (int i = 0; i < 64; ++i) {
        // accept4, as a descriptor without close-on-exec must not exist for an instant; this thread is never cancelled.
        const int fd = ::accept4(acceptor_->descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            acceptOne(Descriptor(fd));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            LogDispatch(3, LogMakeString("Transport: cannot accept a connection, errno=%d", errno), kSource);
            acceptor_->resting = true;
            reactor_.after(kPause, [life = std::weak_ptr<Listener>(acceptor_)] {
                if (std::shared_ptr<Listener> acceptor = life.lock()) {
                    acceptor->resting = false;
                }
            });
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

void LocalLink::acceptOne(Descriptor socket) {
    auto connection = std::make_shared<Connection>(std::move(socket), reactor_, static_cast<ConnectionOwner &>(*this));
    if (!checkUser(*connection)) {
        connection->close();
        return;
    }
    if (strangers_.size() >= kMaxStrangers) { // who keeps silent longest goes; an honest one tries again
        LogDispatch(3, "Transport: too many connections without hello, the oldest is closed", kSource);
        strangers_.front()->close();
        strangers_.pop_front();
    }
    strangers_.push_back(connection);
    reactor_.watch(connection);
}

bool LocalLink::checkUser(const Connection &connection) const {
    unsigned long user = 0;
    long process = 0;
    const bool known = connection.peerCredentials(user, process);
    if (known && user == ::geteuid()) {
        return true;
    }
    LogDispatch(3,
                LogMakeString("Transport: refused process %ld of user %lu, this actor runs as user %lu", process, user,
                              static_cast<unsigned long>(::geteuid())),
                kSource);
    return false;
}

/** To all peers. One that does not even take small frames any more is given up. */
void LocalLink::control(FrameType type, std::uint32_t first, std::uint32_t second) {
    std::vector<unsigned> lost;
    for (const auto &entry : peers_) {
        if (!entry.second.out->sendControl(type, first, second)) {
            lost.push_back(entry.first);
        }
    }
    for (unsigned name : lost) {
        drop(name, "");
    }
}

void LocalLink::drop(unsigned name, const std::string &problem) {
    const auto found = peers_.find(name);
    if (found == peers_.end()) {
        return;
    }
    Peer peer = std::move(found->second);
    peers_.erase(found);
    if (!problem.empty()) {
        LogDispatch(3, LogMakeString("Transport: connection to actor %04x closed: %s", name, problem.c_str()), kSource);
    }
    {
        Locked lock(routesLock_);
        for (unsigned id : peer.terminations) {
            routes_.erase(id);
        }
    }
    std::vector<AddressedMessage> left = peer.out->close();
    if (peer.in && peer.in != peer.out) {
        peer.in->close();
    }
    answered(name, 0);
    for (unsigned id : peer.terminations) {
        listener_.terminationVanished(TerminationId(id));
    }
    for (AddressedMessage &message : left) {
        listener_.messageReturned(std::move(message));
    }
    removeLeftover(name, kRemoveTries);
}

/** The socket of a peer that is gone, or is just going: then another look is needed. */
void LocalLink::removeLeftover(unsigned name, int tries) {
    if (directory_.removeIfStale(name) || tries <= 1) {
        leftovers_.erase(name);
        return;
    }
    leftovers_.insert(name);
    reactor_.after(kRemovePause, [this, name, tries, life = std::weak_ptr<Listener>(acceptor_)] {
        if (life.lock()) {
            removeLeftover(name, tries - 1);
        }
    });
}

// --- what peers send ------------------------------------------------------------------------------------------------

const LocalLink::Handler LocalLink::kHandlers[] = {
    nullptr,
    &LocalLink::onHello,
    &LocalLink::onAnnounce,
    &LocalLink::onWithdraw,
    &LocalLink::onSync,
    &LocalLink::onSyncAck,
    &LocalLink::onData,
    &LocalLink::onReturned,
};

bool LocalLink::frameArrived(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem) {
    Peer *peer = peerOf(from);
    const bool greeted = peer != nullptr && peer->in.get() == &from;
    if (!greeted && frame.type != FrameType::hello) {
        problem = "packet before the hello";
        return false;
    }
    return (this->*kHandlers[static_cast<unsigned>(frame.type)])(from, frame, std::move(message), problem);
}

LocalLink::Peer *LocalLink::peerOf(const Connection &connection) {
    const auto found = connection.peer != 0 ? peers_.find(connection.peer) : peers_.end();
    return found != peers_.end() ? &found->second : nullptr;
}

std::shared_ptr<Connection> LocalLink::takeStranger(const Connection &connection) {
    for (auto entry = strangers_.begin(); entry != strangers_.end(); ++entry) {
        if (entry->get() == &connection) {
            std::shared_ptr<Connection> stranger = std::move(*entry);
            strangers_.erase(entry);
            return stranger;
        }
    }
    return nullptr;
}

void LocalLink::connectionEnded(Connection &connection, const std::string &problem) {
    if (std::shared_ptr<Connection> stranger = takeStranger(connection)) {
        if (!problem.empty()) {
            LogDispatch(3, LogMakeString("Transport: connection of a stranger closed: %s", problem.c_str()), kSource);
        }
        stranger->close();
        return;
    }
    const unsigned name = connection.peer;
    if (Peer *peer = peerOf(connection)) {
        // What the peer sent on its other connection before it went still counts.
        const std::shared_ptr<Connection> in = peer->in;
        const int tries = peer->tries;
        if (problem.empty() && in && in.get() != &connection) {
            in->readAll();
        }
        drop(name, problem);
        if (!in && problem.empty() && tries > 1) {
            connectLater(name, tries - 1); // it had no room for us, or is gone: the next try tells
        }
    }
}

bool LocalLink::onHello(Connection &from, const Frame &frame, AddressedMessage &&, std::string &problem) {
    const unsigned name = frame.destination;
    if (name == 0 || name > UnitDirectory::kLastName || name == name_ || (from.peer != 0 && from.peer != name)) {
        problem = LogMakeString("hello with name id %u", name);
        return false;
    }
    Peer &peer = peers_[name];
    if (peer.in) {
        problem = LogMakeString("second hello of actor %04x", name);
        return false;
    }
    if (std::shared_ptr<Connection> stranger = takeStranger(from)) {
        from.peer = name;
        peer.in = stranger;
        if (!peer.out) {
            greet(peer, stranger);
        }
    } else {
        peer.in = peer.out;
    }
    return true;
}

bool LocalLink::onAnnounce(Connection &from, const Frame &frame, AddressedMessage &&, std::string &problem) {
    Peer &peer = *peerOf(from);
    const TerminationId id(frame.originator);
    if (peer.terminations.size() >= kMaxTerminations) {
        problem = "announces too many terminations";
        return false;
    }
    {
        Locked lock(routesLock_);
        if (id.nameId() == 0 || directory_.owns(id.nameId()) || !routes_.emplace(id.value(), peer.out).second) {
            problem = LogMakeString("announces 0x%08X, which is not its own", id.value());
            return false;
        }
    }
    peer.terminations.insert(id.value());
    listener_.terminationAppeared(id);
    return true;
}

bool LocalLink::onWithdraw(Connection &from, const Frame &frame, AddressedMessage &&, std::string &problem) {
    if (peerOf(from)->terminations.erase(frame.originator) == 0) {
        problem = LogMakeString("withdraws 0x%08X, which is not its own", frame.originator);
        return false;
    }
    {
        Locked lock(routesLock_);
        routes_.erase(frame.originator);
    }
    std::deque<unsigned> &withdrawn = peerOf(from)->withdrawn;
    withdrawn.push_back(frame.originator);
    if (withdrawn.size() > kWithdrawnKept) {
        withdrawn.pop_front();
    }
    listener_.terminationVanished(TerminationId(frame.originator));
    return true;
}

bool LocalLink::onSync(Connection &from, const Frame &frame, AddressedMessage &&, std::string &problem) {
    if (!peerOf(from)->out->sendControl(FrameType::syncAck, frame.originator)) {
        problem = "does not read";
        return false;
    }
    return true;
}

bool LocalLink::onSyncAck(Connection &from, const Frame &frame, AddressedMessage &&, std::string &) {
    answered(from.peer, frame.originator);
    return true;
}

bool LocalLink::onData(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem) {
    const Peer &peer = *peerOf(from);
    if (peer.terminations.count(frame.originator) == 0) {
        if (std::find(peer.withdrawn.begin(), peer.withdrawn.end(), frame.originator) != peer.withdrawn.end()) {
            return true; // sent while it was stopped: nobody is there any more who has sent it
        }
        problem = LogMakeString("message with forged originator 0x%08X", frame.originator);
        return false;
    }
    if (static_cast<const AddressedMessage &>(message).buf() != nullptr) {
        listener_.messageArrived(std::move(message));
    }
    return true;
}

bool LocalLink::onReturned(Connection &from, const Frame &frame, AddressedMessage &&message, std::string &problem) {
    // Its target may have been withdrawn meanwhile, so only what certainly is another's is refused.
    const std::shared_ptr<Connection> owner = route(TerminationId(frame.destination));
    if (announced_.count(frame.destination) != 0 || (owner && owner != peerOf(from)->out)) {
        problem = LogMakeString("returns a message for 0x%08X, which is not its own", frame.destination);
        return false;
    }
    if (static_cast<const AddressedMessage &>(message).buf() != nullptr) {
        listener_.messageReturned(std::move(message));
    }
    return true;
}

// --- sending --------------------------------------------------------------------------------------------------------

std::shared_ptr<Connection> LocalLink::route(TerminationId id) {
    Locked lock(routesLock_);
    const auto found = routes_.find(id.value());
    return found != routes_.end() ? found->second : nullptr;
}

bool LocalLink::send(AddressedMessage &&message) {
    const std::shared_ptr<Connection> out = route(message.destination());
    Frame head;
    head.type = FrameType::data;
    head.originator = message.originator().value();
    head.destination = message.destination().value();
    return out && out->send(head, std::move(message), !reactor_.onThread());
}

bool LocalLink::giveBack(AddressedMessage &&message) {
    const std::shared_ptr<Connection> out = route(message.originator());
    Frame head;
    head.type = FrameType::returned;
    head.originator = message.originator().value();
    head.destination = message.destination().value();
    return out && out->send(head, std::move(message), false);
}

// --- waiting for the peers' answers at start ------------------------------------------------------------------------

void LocalLink::answered(unsigned peer, std::uint32_t upTo) {
    Locked lock(syncLock_);
    const auto found = awaited_.find(peer);
    if (found != awaited_.end() && (upTo == 0 || upTo >= found->second)) {
        awaited_.erase(found);
        syncChanged_.notify_all();
    }
}

void LocalLink::awaitAnswers(std::uint32_t sync) RB_NO_ANALYSIS {
    OSWrap::DisableCancelStateGuard guard;
    const auto limit = std::chrono::steady_clock::now() + kPause;
    const auto missing = [this, sync]() RB_NO_ANALYSIS {
        for (const auto &entry : awaited_) {
            if (entry.second <= sync) {
                return true;
            }
        }
        return false;
    };
    Locked lock(syncLock_);
    while (missing() && syncChanged_.wait_until(syncLock_, limit) == std::cv_status::no_timeout) {
    }
}

} // namespace Transport
