/*
 * An actor of the greeting example: makes its broker, greets every other greeter that appears, and tells on standard
 * output what happens to it, until its standard input is closed.
 */
#include "orb/REFLECT_orb.h"
#include "platform/IdInfo.h"
#include "platform/TransportLayer.h"
#include "rmi/IPPRMI_stream.h"
#include "rmi/StreamOperators.h"

#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>
#include <unistd.h>

namespace {

using Transport::TerminationId;

constexpr auto kGreeters = static_cast<Transport::GroupId>(16); // not one of the brokers' groups

/** On the clock that all processes of the host share. */
long long nanoseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

void tell(const std::string &line) {
    static std::mutex lock;
    const std::lock_guard<std::mutex> guard(lock);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

std::string hex(TerminationId id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", id.value());
    return text;
}

bool isBroker(TerminationId id) {
    return id.groupId() == Transport::GRPID_SLOT1 || id.groupId() == Transport::GRPID_OTHER;
}

/** An end point for greetings beside the broker. */
class Greeter : public Transport::TerminationImpl {
public:
    Greeter() : TerminationImpl(kGreeters, "greeter") {}
    ~Greeter() override { stop(); }

    bool receive(const Transport::AddressedMessage &message) override {
        TipprmiStream stream(TreflectMessage(message), false);
        std::string from;
        stream >> from;
        tell("greeting " + from);
        return true;
    }

    void appeared(Transport::Termination &other) override {
        if (isBroker(other.termId())) {
            tell("sees " + hex(other.termId()));
        } else if (other.termId().groupId() == kGreeters && other.termId() != termId()) {
            TipprmiStream stream(64);
            stream << Transport::IdInfo::getActor();
            Transport::AddressedMessage message = stream.msg().addressed();
            message.originator() = termId();
            other.issue(message);
        }
    }

    void disappeare(Transport::Termination &other) override {
        if (isBroker(other.termId())) {
            tell("gone " + hex(other.termId()) + " " + std::to_string(nanoseconds()));
        }
    }
};

} // namespace

int main() {
    const TreflectORB *orb = TreflectORB::getInstance(1);
    if (orb == nullptr) {
        return 1;
    }
    tell("broker " + hex(orb->termId()));
    Greeter greeter;
    if (!greeter.start()) {
        return 1;
    }
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}
