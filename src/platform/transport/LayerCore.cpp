#include "platform/transport/LayerCore_p.h"

#include "platform/Cancellation.h"
#include "platform/Environment_p.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/transport/Backpressure_p.h"
#include "platform/transport/LocalLink_p.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <new>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Transport {

namespace {

constexpr char kSource[] = "Transport";
using Locked = OSWrap::Lock<OSWrap::Mutex>;

LinkFactory linkFactory = [](Reactor &reactor, LinkListener &listener) -> std::unique_ptr<Link> {
    return std::make_unique<LocalLink>(Platform::environment().unitDirectory, reactor, listener);
};

/** Stands for any started termination, here or elsewhere; kept by users beyond its life. */
class Known : public Termination {
public:
    explicit Known(TerminationId id) noexcept : Termination(id) {}
    bool issue(const AddressedMessage &message) override { return LayerCore::instance().issue(termId(), message); }
    bool issueError(const AddressedMessage &message) override { return LayerCore::instance().giveBack(message); }
};

bool refusedInChild() {
    if (!Platform::inForkedChild()) {
        return false;
    }
    static std::atomic<bool> said{false};
    if (!said.exchange(true)) {
        LogDispatch(3, "Transport: not usable in a forked child; call exec first", kSource);
    }
    return true;
}

} // namespace

/** Messages between terminations of this process: they, too, arrive on the receiving thread only. */
class LayerCore::Loopback : public Pollable {
public:
    explicit Loopback(LayerCore &core) : core_(core), event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    bool send(AddressedMessage &&message, bool returned) {
        OSWrap::DisableCancelStateGuard guard;
        Locked lock(lock_);
        if (!pressure_.admit(lock_, message.size(), !core_.reactor_.onThread())) {
            return false;
        }
        const bool first = queue_.empty();
        queue_.push_back({std::move(message), returned});
        if (first) {
            const std::uint64_t one = 1;
            static_cast<void>(!::write(event_.get(), &one, sizeof one));
        }
        return true;
    }

    int descriptor() const noexcept override { return event_.get(); }

    void ready(short) override {
        std::uint64_t count = 0;
        static_cast<void>(!::read(event_.get(), &count, sizeof count));
        std::deque<Item> items;
        {
            Locked lock(lock_);
            items.swap(queue_);
            for (const Item &item : items) {
                pressure_.left(item.message.size());
            }
        }
        for (Item &item : items) {
            if (item.returned) {
                core_.messageReturned(std::move(item.message));
            } else {
                core_.messageArrived(std::move(item.message));
            }
        }
    }

private:
    struct Item {
        AddressedMessage message;
        bool returned;
    };

    LayerCore &core_;
    Descriptor event_;
    OSWrap::Mutex lock_;
    std::deque<Item> queue_ RB_GUARDED_BY(lock_);
    Backpressure pressure_ RB_GUARDED_BY(lock_);
};

LayerCore &LayerCore::instance() {
    static LayerCore &core = *new LayerCore; // in use until the very end of the process
    return core;
}

void LayerCore::setLinkFactory(LinkFactory factory) noexcept {
    linkFactory = factory;
}

LayerCore::LayerCore() : link_(linkFactory(reactor_, *this)), loopback_(std::make_shared<Loopback>(*this)) {}

// --- own terminations -----------------------------------------------------------------------------------------------

unsigned LayerCore::claimName() {
    return refusedInChild() ? 0 : link_->claimName();
}

void LayerCore::releaseName(unsigned name) {
    if (!Platform::inForkedChild()) {
        link_->releaseName(name);
    }
}

bool LayerCore::start(const TerminationImpl &termination) {
    try {
        return startOrThrow(termination);
    } catch (const std::bad_alloc &) {
        LogDispatch(3, "Transport: no memory to start a termination", kSource);
        stop(termination);
        return false;
    }
}

bool LayerCore::startOrThrow(const TerminationImpl &termination) {
    const TerminationId id = termination.termId();
    if (refusedInChild() || id.value() == 0 || !termination.own_ || termination.own_->stopped() || !reactor_.start()) {
        return false;
    }
    {
        Locked lock(tables_);
        if (!own_.emplace(id.value(), termination.own_).second) {
            return true;
        }
        if (own_.size() == 1) {
            reactor_.post([this] {
                reactor_.unwatch(loopback_.get()); // once only, whatever was started before
                reactor_.watch(loopback_);
            });
        }
        // Those that start at the same time do not listen yet: they find it among the present ones.
        const TerminationPtr known = enter(id);
        for (const auto &entry : own_) {
            if (entry.first != id.value()) {
                entry.second->appeared(known);
            }
        }
    }
    if (!link_->announce(id)) {
        Locked lock(tables_);
        own_.erase(id.value());
        remove(id);
        return false;
    }
    if (listen(termination)) {
        return true;
    }
    stop(termination);
    return false;
}

/** From here on events are queued, under the same lock that guards the tables: nothing is missed or doubled. */
bool LayerCore::listen(const TerminationImpl &termination) try {
    const unsigned id = termination.termId().value();
    std::deque<TerminationPtr> present;
    Locked lock(tables_);
    if (own_.count(id) == 0) {
        return false; // stopped meanwhile
    }
    for (const auto &entry : known_) {
        if (entry.first == id) {
            present.push_front(entry.second);
        } else {
            present.push_back(entry.second);
        }
    }
    return termination.own_->listen(std::move(present));
} catch (const std::bad_alloc &) {
    return false;
}

bool LayerCore::started(const TerminationImpl &termination) {
    if (Platform::inForkedChild()) {
        return false;
    }
    Locked lock(tables_);
    return own_.count(termination.termId().value()) != 0;
}

bool LayerCore::stop(const TerminationImpl &termination, const OSWrap::TimeSpec &limit) {
    if (Platform::inForkedChild() || !termination.own_) {
        return true; // in a child another thread of the actor may have held every lock when it was forked
    }
    const TerminationId id = termination.termId();
    bool first = false;
    {
        Locked lock(tables_);
        first = own_.erase(id.value()) != 0;
        if (first) {
            termination.own_->beginStop();
            remove(id);
        }
    }
    if (!first) {
        return termination.own_->awaitStop(limit);
    }
    link_->withdraw(id);
    return termination.own_->stop(limit);
}

LayerCore::Own LayerCore::findOwn(TerminationId id) {
    Locked lock(tables_);
    const auto found = own_.find(id.value());
    return found != own_.end() ? found->second : nullptr;
}

// --- who is there ---------------------------------------------------------------------------------------------------

TerminationPtr LayerCore::enter(TerminationId id) {
    TerminationPtr known(new Known(id));
    known_[id.value()] = known;
    return known;
}

void LayerCore::remove(TerminationId id) {
    const auto found = known_.find(id.value());
    if (found == known_.end()) {
        return;
    }
    const TerminationPtr known = found->second;
    known_.erase(found);
    for (const auto &entry : own_) {
        entry.second->vanished(known);
    }
}

void LayerCore::terminationAppeared(TerminationId id) {
    Locked lock(tables_);
    const TerminationPtr known = enter(id);
    for (const auto &entry : own_) {
        entry.second->appeared(known);
    }
}

void LayerCore::terminationVanished(TerminationId id) {
    Locked lock(tables_);
    remove(id);
}

TerminationPtr LayerCore::find(TerminationId id) {
    if (refusedInChild()) {
        return TerminationPtr();
    }
    Locked lock(tables_);
    const auto found = known_.find(id.value());
    return found != known_.end() ? found->second : TerminationPtr();
}

std::vector<TerminationPtr> LayerCore::all() {
    std::vector<TerminationPtr> terminations;
    if (refusedInChild()) {
        return terminations;
    }
    Locked lock(tables_);
    try {
        terminations.reserve(known_.size());
        for (const auto &entry : known_) {
            terminations.push_back(entry.second);
        }
    } catch (const std::bad_alloc &) { // none then
    }
    return terminations;
}

// --- the way of a message -------------------------------------------------------------------------------------------

bool LayerCore::issue(TerminationId target, const AddressedMessage &message) try {
    if (refusedInChild() || message.buf() == nullptr || message.size() > kMaxMessageSize) {
        return false;
    }
    enum class Way { none, foreign, loopback, link } way = Way::none;
    {
        Locked lock(tables_);
        if (own_.count(message.originator().value()) == 0) {
            way = Way::foreign;
        } else if (known_.count(target.value()) != 0) {
            way = own_.count(target.value()) != 0 ? Way::loopback : Way::link;
        }
    }
    if (way == Way::foreign) {
        LogDispatch(4,
                    LogMakeString("Transport: message with originator 0x%08X, which is no started termination of this "
                                  "actor, not sent to 0x%08X",
                                  message.originator().value(), target.value()),
                    kSource);
    }
    if (way == Way::none || way == Way::foreign) {
        return false;
    }
    AddressedMessage copy = message;
    copy.destination() = target;
    return way == Way::loopback ? loopback_->send(std::move(copy), false) : link_->send(std::move(copy));
} catch (const std::bad_alloc &) {
    return false;
}

bool LayerCore::giveBack(const AddressedMessage &message) try {
    if (refusedInChild() || message.buf() == nullptr) {
        return false;
    }
    AddressedMessage copy = message;
    return findOwn(message.originator()) ? loopback_->send(std::move(copy), true) : link_->giveBack(std::move(copy));
} catch (const std::bad_alloc &) {
    return false;
}

void LayerCore::messageArrived(AddressedMessage &&message) {
    const Own own = findOwn(message.destination());
    if (!own || !own->deliver(message)) {
        giveBack(message);
    }
}

void LayerCore::messageReturned(AddressedMessage &&message) {
    if (const Own own = findOwn(message.originator())) {
        own->deliverError(message);
    }
}

} // namespace Transport
