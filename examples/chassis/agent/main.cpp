/*
 * The actor of a slot: keeps the tree below its slot as the kernel's network interfaces are. One thread follows the
 * kernel, the broker's workers answer calls.
 */
#include "Chassis.h"
#include "ChassisWatch.h"
#include "Kernel.h"
#include "LinkMonitor.h"
#include "Options.h"
#include "Paths.h"
#include "SlotObject.h"
#include "orb/REFLECT_orb.h"
#include "threads/HandlerState.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

namespace {

enum Status { kEnded = 0, kFailed = 1, kUsage = 2, kTaken = 3 };

Status fail(const std::string &what, const std::string &why) {
    std::fprintf(stderr, "port_agent: %s: %s\n", what.c_str(), why.c_str());
    return kFailed;
}

sigset_t endingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

class Agent {
public:
    explicit Agent(unsigned number) : number_(number) {}

    Status run();

private:
    Status openKernel();
    bool isTaken() const;
    Status publish(SlotObject &slot);
    Status follow(SlotObject &slot, ChassisWatch &chassis);
    bool takeEvents(SlotObject &slot);
    void takeSignal() const;

    const unsigned number_;
    int signals_ = -1;
    Kernel kernel_;
    LinkMonitor monitor_;
};

Status Agent::openKernel() {
    if (const Failure failure = kernel_.open()) {
        return fail("no connection to the kernel's network interfaces", failure.reason);
    }
    if (const Failure failure = monitor_.open()) { // before the first listing, so that nothing is missed in between
        return fail("no events of the kernel's network interfaces", failure.reason);
    }
    const sigset_t signals = endingSignals();
    signals_ = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    return signals_ >= 0 ? kEnded : fail("no descriptor for signals", Failure::of(errno).reason);
}

bool Agent::isTaken() const {
    const Slot slot(Paths::id(Paths::slot(number_)));
    return slot.isConnected();
}

Status Agent::publish(SlotObject &slot) {
    std::vector<Link> links;
    if (const Failure failure = kernel_.links(links)) {
        return fail("the kernel does not list its network interfaces", failure.reason);
    }
    slot.take(links);
    return kEnded;
}

bool Agent::takeEvents(SlotObject &slot) {
    std::vector<LinkEvent> events;
    switch (monitor_.read(events)) {
    case LinkMonitor::Outcome::failed:
        fail("no more events of the kernel's network interfaces", monitor_.problem());
        return false;
    case LinkMonitor::Outcome::lost: {
        std::fprintf(stderr, "port_agent: more events than the kernel has room for; looks at all interfaces anew\n");
        const TreflectHandlerState state(true);
        return publish(slot) == kEnded;
    }
    case LinkMonitor::Outcome::complete:
        break;
    }
    const TreflectHandlerState state(true);
    for (const LinkEvent &event : events) {
        slot.take(event);
    }
    return true;
}

Status Agent::follow(SlotObject &slot, ChassisWatch &chassis) {
    for (;;) {
        pollfd readable[] = {{signals_, POLLIN, 0}, {monitor_.fd(), POLLIN, 0}, {chassis.fd(), POLLIN, 0}};
        if (::poll(readable, 3, -1) < 0 && errno != EINTR) {
            return fail("poll", Failure::of(errno).reason);
        }
        if (readable[0].revents != 0) {
            return kEnded;
        }
        if (readable[1].revents != 0 && !takeEvents(slot)) {
            return kFailed;
        }
        if (readable[2].revents != 0) {
            const TreflectHandlerState state(true);
            const bool part = slot.attach(chassis.take());
            std::printf("slot %u %s %s\n", number_, part ? "is part of" : "did not become part of",
                        Paths::chassis().c_str());
        }
    }
}

/** From now on a signal ends the process at once: those that are told of the end may hang. */
void Agent::takeSignal() const {
    signalfd_siginfo taken{};
    static_cast<void>(!::read(signals_, &taken, sizeof taken));
    const sigset_t signals = endingSignals();
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

Status Agent::run() {
    if (const Status status = openKernel()) {
        return status;
    }
    const TreflectORB *const broker = TreflectORB::getInstance(NamespaceId(1));
    if (broker == nullptr || broker->termId() == Transport::TerminationId()) {
        return fail("cannot be an actor of the unit", "the log says why; REFLECTORB_UNIT_DIR names its directory");
    }
    const TreflectHandlerState state(true);
    if (isTaken()) {
        std::fprintf(stderr, "port_agent: slot %u has an agent already; end that one, or take another slot\n", number_);
        return kTaken;
    }
    ChassisWatch &chassis = ChassisWatch::instance();
    if (chassis.fd() < 0) {
        return fail("no descriptor for events", Failure::of(errno).reason);
    }
    SlotObject slot(number_, kernel_);
    slot.sendCreationEvent(SlotMeta::instance());
    Status status = publish(slot);
    if (status == kEnded) {
        // An observer misses what is created while it asks all brokers for what exists: so it is there before.
        ChassisMeta::instance()->observeCreations(&chassis, false);
        ChassisMeta::instance()->observeCreations(&chassis, true);
        std::printf("slot %u is published\n", number_);
        const TreflectReleaseHandlerState released;
        status = follow(slot, chassis);
        takeSignal();
    }
    ChassisMeta::instance()->removeObserver(&chassis);
    slot.clear();
    slot.sendDeletionEvent(SlotMeta::instance());
    return status;
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        return kUsage;
    }
    if (options.help) {
        printHelp();
        return kEnded;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // Before the library reads it, and before there are threads, which all have to leave the signals to this one.
    ::setenv("REFLECTORB_SLOT", std::to_string(options.slot).c_str(), 1);
    const sigset_t signals = endingSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGTSTP, SIG_IGN); // an actor that stands still holds up those that call it
    return Agent(options.slot).run();
}
