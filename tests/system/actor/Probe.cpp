#include "Probe.h"

#include "Output.h"
#include "platform/OSWrap.h"
#include "platform/TransportLayer.h"

#include <cstring>

using Transport::AddressedMessage;
using Transport::Termination;

namespace {

/** The number, and the number's low byte all over the rest. Smaller messages have the low byte only. */
void fill(AddressedMessage &message, unsigned number) {
    unsigned char *bytes = message.buf();
    std::memset(bytes, static_cast<int>(number & 0xFF), message.size());
    if (message.size() >= sizeof number) {
        std::memcpy(bytes, &number, sizeof number);
    }
}

bool filled(const AddressedMessage &message, unsigned number) {
    const unsigned char *bytes = message.buf();
    unsigned from = 0;
    if (message.size() >= sizeof number) {
        if (std::memcmp(bytes, &number, sizeof number) != 0) {
            return false;
        }
        from = sizeof number;
    }
    const unsigned rest = message.size() - from;
    return rest == 0 || (bytes[from] == (number & 0xFF) && std::memcmp(bytes + from, bytes + from + 1, rest - 1) == 0);
}

} // namespace

unsigned Probe::send(unsigned target, unsigned size, unsigned count) {
    const Transport::TerminationPtr peer = Transport::TransportLayer::getTermination(Transport::TerminationId(target));
    unsigned accepted = 0;
    while (peer && accepted < count) {
        AddressedMessage message = allocateMessage(size, 4);
        if (message.buf() == nullptr) {
            break;
        }
        fill(message, numbers_[target]);
        if (!peer->issue(message)) {
            break;
        }
        ++numbers_[target];
        ++accepted;
    }
    return accepted;
}

bool Probe::await(unsigned count) {
    const OSWrap::TimeSpec limit = OSWrap::Clock::getObsTime() + OSWrap::TimeSpec(60);
    Locked lock(changed_);
    while (total_ < count && OSWrap::Clock::getObsTime() < limit) {
        changed_.wait(limit - OSWrap::Clock::getObsTime());
    }
    return total_ >= count;
}

void Probe::tell() {
    Locked lock(changed_);
    for (const auto &[id, sender] : senders_) {
        say("from %08X count %u bytes %lu errors %u", id, sender.count, sender.bytes, sender.errors);
    }
    say("end");
}

void Probe::hold(bool held) {
    Locked lock(changed_);
    held_ = held;
    changed_.broadcast();
}

bool Probe::receive(const AddressedMessage &message) {
    bool answer = false;
    {
        Locked lock(changed_);
        while (held_) {
            changed_.wait(OSWrap::TimeSpec::INFINITETIME);
        }
        Sender &sender = senders_[message.originator().value()];
        sender.errors += filled(message, sender.count) && message.destination() == termId() ? 0 : 1;
        ++sender.count;
        sender.bytes += message.size();
        ++total_;
        answer = echo_;
        changed_.broadcast();
    }
    if (answer) {
        AddressedMessage reply = message;
        reply.originator() = termId();
        if (Transport::TerminationPtr peer = Transport::TransportLayer::getTermination(message.originator())) {
            peer->issue(reply);
        }
    }
    return true;
}

bool Probe::receiveError(const AddressedMessage &message) {
    say("bounced %08X %u", message.destination().value(), message.size());
    return true;
}

void Probe::appeared(Termination &termination) {
    say("appeared %08X", termination.termId().value());
}

void Probe::disappeare(Termination &termination) {
    say("disappeared %08X", termination.termId().value());
}
