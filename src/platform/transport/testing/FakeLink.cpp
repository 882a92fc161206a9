#include "platform/transport/testing/FakeLink.h"

#include "platform/Lock.h"
#include "platform/transport/LayerCore_p.h"

#include <chrono>

namespace Transport {

namespace {

using Locked = OSWrap::Lock<OSWrap::Mutex>;
FakeLink *installed = nullptr;

} // namespace

FakeLink &FakeLink::install() {
    if (installed == nullptr) {
        LayerCore::setLinkFactory([](Reactor &reactor, LinkListener &listener) -> std::unique_ptr<Link> {
            installed = new FakeLink(reactor, listener);
            return std::unique_ptr<Link>(installed);
        });
        LayerCore::instance().reactor().start();
    }
    return *installed;
}

void FakeLink::reset() {
    std::set<unsigned> peers;
    {
        Locked lock(lock_);
        peers = peers_;
        fate_ = nullptr;
        issued_.clear();
        givenBack_.clear();
        held_.clear();
        announceFails_ = false;
        namesExhausted_ = false;
    }
    for (unsigned id : peers) {
        peerVanishes(TerminationId(id));
    }
}

void FakeLink::peerAppears(TerminationId id) {
    {
        Locked lock(lock_);
        peers_.insert(id.value());
    }
    reactor_.run([&] { listener_.terminationAppeared(id); });
}

void FakeLink::peerVanishes(TerminationId id) {
    {
        Locked lock(lock_);
        peers_.erase(id.value());
    }
    reactor_.run([&] { listener_.terminationVanished(id); });
}

void FakeLink::deliver(const AddressedMessage &message, int times) {
    reactor_.run([&] {
        for (int i = 0; i < times; ++i) {
            listener_.messageArrived(AddressedMessage(message));
        }
    });
}

void FakeLink::bounce(const AddressedMessage &message) {
    reactor_.run([&] { listener_.messageReturned(AddressedMessage(message)); });
}

void FakeLink::setFate(std::function<Fate(const AddressedMessage &)> fate) {
    Locked lock(lock_);
    fate_.swap(fate);
}

void FakeLink::releaseHeld() {
    std::deque<AddressedMessage> held;
    {
        Locked lock(lock_);
        held.swap(held_);
    }
    for (const AddressedMessage &message : held) {
        record(message);
    }
}

std::vector<AddressedMessage> FakeLink::takeIssued(std::size_t atLeast) RB_NO_ANALYSIS {
    return take(issued_, atLeast);
}

std::vector<AddressedMessage> FakeLink::takeGivenBack(std::size_t atLeast) RB_NO_ANALYSIS {
    return take(givenBack_, atLeast);
}

std::vector<AddressedMessage> FakeLink::take(std::vector<AddressedMessage> &from, std::size_t atLeast) RB_NO_ANALYSIS {
    std::vector<AddressedMessage> taken;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    Locked lock(lock_);
    while (from.size() < atLeast && changed_.wait_until(lock_, limit) == std::cv_status::no_timeout) {
    }
    taken.swap(from);
    return taken;
}

std::set<unsigned> FakeLink::announced() {
    Locked lock(lock_);
    return announced_;
}

void FakeLink::setAnnounceFails(bool fails) {
    Locked lock(lock_);
    announceFails_ = fails;
}

void FakeLink::setNamesExhausted(bool exhausted) {
    Locked lock(lock_);
    namesExhausted_ = exhausted;
}

unsigned FakeLink::claimName() {
    Locked lock(lock_);
    return namesExhausted_ ? 0 : nextName_++;
}

void FakeLink::releaseName(unsigned) {}

bool FakeLink::announce(TerminationId id) {
    Locked lock(lock_);
    return !announceFails_ && announced_.insert(id.value()).second;
}

void FakeLink::withdraw(TerminationId id) {
    Locked lock(lock_);
    announced_.erase(id.value());
}

bool FakeLink::send(AddressedMessage &&message) {
    std::function<Fate(const AddressedMessage &)> decide;
    {
        Locked lock(lock_);
        decide = fate_;
    }
    switch (decide ? decide(message) : Fate::deliver) {
    case Fate::refuse:
        return false;
    case Fate::lose:
        return true;
    case Fate::bounce:
        record(message);
        reactor_.post([this, message] { listener_.messageReturned(AddressedMessage(message)); });
        return true;
    case Fate::hold: {
        Locked lock(lock_);
        held_.push_back(std::move(message));
        return true;
    }
    case Fate::deliver:
        break;
    }
    record(message);
    return true;
}

bool FakeLink::giveBack(AddressedMessage &&message) {
    Locked lock(lock_);
    givenBack_.push_back(std::move(message));
    changed_.notify_all();
    return true;
}

void FakeLink::record(const AddressedMessage &message) {
    Locked lock(lock_);
    issued_.push_back(message);
    changed_.notify_all();
}

} // namespace Transport
