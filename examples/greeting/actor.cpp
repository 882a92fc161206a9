/*
 * An actor of the greeting example: makes its broker, offers an object under its own name, greets every other greeter
 * that appears, and tells on standard output what happens to it. On standard input it is told to call the objects of
 * others ("call NAME", "wait NAME") and to show counters ("counters"), until that is closed.
 */
#include "orb/REFLECT_orb.h"
#include "platform/IdInfo.h"
#include "platform/Lock.h"
#include "platform/TransportLayer.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "threads/BrokerLocks.h"
#include "threads/HandlerState.h"

#include <cstdio>
#include <ctime>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

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

constexpr unsigned kClass = 0x47524545; // class code of the greeting object
enum Method : unsigned { hello = 1, think = 2 };

/** What the actor offers: it answers a greeting, and it can think for ever. */
class GreetingObject : public TipprmiObjectSkeleton {
public:
    explicit GreetingObject(const std::string &name) : TipprmiObjectSkeleton(TipprmiOID(name, NamespaceId(1))) {}

    using TipprmiObjectSkeleton::dispatch;
    // In a worker thread, with the run permission.
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request,
                  TipprmiStream &response) override {
        if (cc != kClass || (mc != hello && mc != think)) {
            return TipprmiObjectSkeleton::dispatch(transaction, cc, mc, request, response);
        }
        std::string from;
        request >> from;
        if (mc == think) {
            tell("thinking");
            TreflectConditionVar never(false); // gives the run permission up while it waits
            const OSWrap::Lock<OSWrap::ConditionVar> lock(never);
            never.wait(OSWrap::TimeSpec::INFINITETIME);
        }
        prepareResponseStream_(response);
        response << "hello " + from + ", here is " + Transport::IdInfo::getActor();
        return true;
    }
};

/** Calls a method of the object with that name, wherever it is. */
void call(const std::string &name, Method method) {
    const TreflectHandlerState state(true);
    const TipprmiObjectClient object(TipprmiOID(name, NamespaceId(1)));
    TipprmiStream request(100);
    TipprmiStream response(100);
    const long long begin = nanoseconds();
    object.prepareRequestStream_(true, kClass, method, request);
    request << Transport::IdInfo::getActor();
    const bool answered = object.dispatch(true, kClass, method, request, response);
    object.prepareResponseStream_(true, response);
    std::string answer;
    response >> answer;
    const std::string end = std::to_string(nanoseconds());
    if (answered && !response.hasUnmarshallingFailed()) {
        tell("answer " + std::to_string(nanoseconds() - begin) + " " + answer);
    } else {
        tell("failed " + end + " " + name);
    }
}

void showCounters() {
    for (const TreflectORB::PerfCntMultInfo &orb : TreflectORB::getInstance(1)->getPerfCnts()) {
        for (unsigned i = 0; i < orb.info.counters.getLength(); ++i) {
            const TreflectORB::PerfCnts &counters = orb.info.counters[i];
            tell("counter " + orb.info.actor + " " + hex(counters.target) + " " + std::to_string(counters.requests) +
                 " " + std::to_string(counters.failures));
        }
    }
    tell("counted");
}

void obey(const std::string &line) {
    std::istringstream words(line);
    std::string what;
    std::string whom;
    words >> what >> whom;
    if (what == "call") {
        call(whom, hello);
    } else if (what == "wait") {
        call(whom, think);
    } else if (what == "counters") {
        showCounters();
    }
}

} // namespace

int main() {
    const TreflectORB *orb = TreflectORB::getInstance(1);
    if (orb == nullptr) {
        return 1;
    }
    const GreetingObject object(Transport::IdInfo::getActor());
    tell("broker " + hex(orb->termId()));
    Greeter greeter;
    if (!greeter.start()) {
        return 1;
    }
    for (std::string line; std::getline(std::cin, line);) {
        obey(line);
    }
    return 0;
}
