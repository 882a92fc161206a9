#include "orb/REFLECT_orb.h"

#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <string>

namespace {

using Message = TreflectMessage;
using Testing::eventually;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);

/** The system's numbers of the threads that are workers now. */
std::set<std::string> workers() {
    std::set<std::string> found;
    std::error_code error;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        std::getline(file, name);
        if (name == "ReflectWorker") {
            found.insert(task.path().filename());
        }
    }
    return found;
}

/** Whether all workers but the calling one sleep. */
bool othersSleep() {
    const std::string own = std::to_string(OSWrap::Thread::getCurrentTid());
    for (const std::string &worker : workers()) {
        if (worker != own && !Testing::isAsleep(std::stoi(worker))) {
            return false;
        }
    }
    return true;
}

/** Its method waits for the gate, without the run permission; that of class 0 does not, and that of class 2 first does
 *  what the test wants. */
class Doorman : public TipprmiObjectSkeleton {
public:
    Doorman() : TipprmiObjectSkeleton(TipprmiOID("doorman", NamespaceId(1))) {}

    using TipprmiObjectSkeleton::dispatch;
    bool dispatch(bool, unsigned cc, unsigned, TipprmiStream &, TipprmiStream &) override {
        ++inside;
        if (cc == 0 || cc == 2) {
            threads.insert(OSWrap::Thread::getCurrentTid());
        }
        if (cc == 2) {
            act();
        } else if (cc != 0) {
            TreflectReleaseHandlerState released;
            gate.pass();
        }
        ++done;
        return true;
    }

    Testing::Gate gate;
    std::function<void()> act;
    std::set<int> threads; // that came to class 0 or 2; guarded by the run permission
    std::atomic<unsigned> inside{0};
    std::atomic<unsigned> done{0};
};

/** A process with a broker that has not yet had a message, and one object. */
struct FreshBroker {
    Transport::FakeLink &link = Transport::FakeLink::install();
    const Testing::LogCapture log;
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const Testing::ManualPeer peer{link, orb, kPeer};
    Doorman doorman;

    /** What the peer's appearance brings with it is over. */
    FreshBroker() {
        const TerminationId marker(0x0099, 2, 2); // of another namespace; seen after the peer
        link.peerAppears(marker);
        link.peerVanishes(marker);
        SCENARIO_CHECK(log.waitFor(
            5, LogMakeString("ORB 0x%08X sees 0x%08X disappear", orb.termId().value(), marker.value()), kSource));
    }

    void send(unsigned count, unsigned cc) const { send(doorman, count, cc); }
    void send(const Doorman &to, unsigned count, unsigned cc) const {
        for (unsigned i = 0; i < count; ++i) {
            peer.send(peer.call(to.getInternalOID(), false, cc, 1));
        }
    }
    /** It is there when this returns. */
    void bring(const Doorman &to) const {
        const TipprmiStream body = peer.call(to.getInternalOID(), false, 0, 1);
        Transport::AddressedMessage message = body.msg().addressed();
        message.originator() = kPeer;
        message.destination() = orb.termId();
        SCENARIO_CHECK(orb.receive(message));
    }
};

SCENARIO(burst) {
    FreshBroker fresh;
    SCENARIO_CHECK(workers().empty());
    {
        const TreflectHandlerState state(true); // no worker gets to its first message
        fresh.send(7, 1);
        SCENARIO_CHECK(workers().size() <= 1); // the thread may not have come to its name
        SCENARIO_CHECK(eventually([] { return workers().size() == 1; }));
        SCENARIO_CHECK(fresh.doorman.inside == 0);
    }
    // Each that leaves work behind with nobody idle starts another one.
    SCENARIO_CHECK(eventually([&] { return fresh.doorman.inside == 7; }));
    SCENARIO_CHECK(workers().size() >= 7);
    fresh.doorman.gate.open();
    SCENARIO_CHECK(eventually([&] { return fresh.doorman.done == 7 && workers().size() == 3; }));
    // The idle ones do for what comes one after the other, and for three at once.
    const std::set<std::string> idle = workers();
    for (unsigned i = 1; i <= 20; ++i) {
        fresh.send(1, 0);
        SCENARIO_CHECK(eventually([&] { return fresh.doorman.done == 7 + i; }));
        SCENARIO_CHECK(eventually([&] { return workers() == idle; }));
    }
}

TEST(ReflectWorkerTest, ThereAreAsManyAsThereIsWorkAndThreeStay) {
    const Testing::ProcessResult result = Testing::runScenario("burst", {}, 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** What comes at once is taken by all that are idle: none of the messages waits until a worker looks by itself. */
SCENARIO(manyBursts) {
    FreshBroker fresh;
    for (unsigned round = 1; round <= 30; ++round) {
        Doorman doorman;
        {
            const TreflectHandlerState state(true); // the first that is woken does not get at its message
            for (int i = 0; i < 3; ++i) {
                fresh.peer.send(fresh.peer.call(doorman.getInternalOID(), false, 1, 1));
            }
        }
        SCENARIO_CHECK(eventually([&] { return doorman.inside == 3; }));
        doorman.gate.open();
        SCENARIO_CHECK(eventually([&] { return doorman.done == 3; }));
        SCENARIO_CHECK(eventually([] { return workers().size() <= 3; }));
    }
}

TEST(ReflectWorkerTest, ABurstWakesAllThatItNeeds) {
    const Testing::ProcessResult result = Testing::runScenario("manyBursts", {}, 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** While all are at work in methods that wait, the next message gets a worker, whatever their number. */
SCENARIO(allAtWork) {
    FreshBroker fresh;
    for (unsigned i = 1; i <= 40; ++i) {
        fresh.send(1, 1);
        SCENARIO_CHECK(eventually([&] { return fresh.doorman.inside == i; }));
    }
    SCENARIO_CHECK(workers().size() >= 40);
    fresh.doorman.gate.open();
    SCENARIO_CHECK(eventually([&] { return fresh.doorman.done == 40 && workers().size() == 3; }));
}

TEST(ReflectWorkerTest, MethodsThatWaitDoNotKeepOthersFromRunning) {
    const Testing::ProcessResult result = Testing::runScenario("allAtWork", {}, 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** Brings the number of idle workers to three. */
void fillUp(const FreshBroker &fresh) {
    Doorman doorman;
    fresh.send(doorman, 3, 1);
    SCENARIO_CHECK(eventually([&] { return doorman.inside == 3; }));
    doorman.gate.open();
    SCENARIO_CHECK(eventually([&] { return doorman.done == 3 && workers().size() == 3 && othersSleep(); }));
}

/** One that runs through its methods does all of them: the others could not work meanwhile. */
SCENARIO(runsThrough) {
    FreshBroker fresh;
    fillUp(fresh);
    fresh.doorman.act = [&] {
        for (int i = 0; i < 100; ++i) {
            fresh.bring(fresh.doorman);
        }
    };
    fresh.send(1, 2);
    SCENARIO_CHECK(eventually([&] { return fresh.doorman.done == 101; }));
    const TreflectHandlerState state(true);
    SCENARIO_CHECK(fresh.doorman.threads.size() == 1);
}

TEST(ReflectWorkerTest, MethodsThatDoNotWaitAreRunByOne) {
    const Testing::ProcessResult result = Testing::runScenario("runsThrough", {}, 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

// Idle workers look by themselves every ten seconds: what rests on that is found by doing it more often than the
// scenario's time allows.
constexpr int kRounds = 15;

/** Where others want the run permission, each worker that waits for it has its turn among them. */
SCENARIO(contended) {
    FreshBroker fresh;
    fillUp(fresh);
    const auto waiting = [] { return handlerThreads()->waitingForPermission(); };
    for (int round = 0; round < kRounds; ++round) {
        Doorman doorman;
        const TreflectHandlerState state(true);
        for (unsigned i = 1; i <= 3; ++i) {
            fresh.bring(doorman);
            SCENARIO_CHECK(eventually([&] { return waiting() == i; }));
        }
        const TreflectReleaseHandlerState released;
        SCENARIO_CHECK(eventually([&] { return doorman.done == 3 && othersSleep(); }));
    }
}

/** Likewise for what is there already when others begin to want the permission. */
SCENARIO(contendedLater) {
    FreshBroker fresh;
    fillUp(fresh);
    const auto waiting = [] { return handlerThreads()->waitingForPermission(); };
    for (int round = 0; round < kRounds; ++round) {
        Doorman doorman;
        std::atomic<bool> brought{false};
        doorman.act = [&] {
            for (int i = 0; i < 3; ++i) {
                fresh.bring(doorman);
            }
            brought = true;
            SCENARIO_CHECK(eventually([&] { return waiting() == 1; })); // for the test's thread
        };
        fresh.send(doorman, 1, 2);
        SCENARIO_CHECK(eventually([&] { return brought.load(); }));
        const TreflectHandlerState state(true);
        SCENARIO_CHECK(doorman.done == 1);
        SCENARIO_CHECK(eventually([&] { return waiting() == 3; }));
        const TreflectReleaseHandlerState released;
        SCENARIO_CHECK(eventually([&] { return doorman.done == 4 && othersSleep(); }));
    }
}

TEST(ReflectWorkerTest, WhereOthersWantThePermissionAllThatAreIdleTakePart) {
    for (const char *scenario : {"contended", "contendedLater"}) {
        const Testing::ProcessResult result = Testing::runScenario(scenario, {}, 100);
        EXPECT_EQ(0, result.exitStatus) << result.output;
    }
}

/** What came in during a method waits for its worker; if that waits itself, an idle one takes over. */
SCENARIO(waitsInTheMiddle) {
    FreshBroker fresh;
    fillUp(fresh);
    for (int round = 0; round < kRounds; ++round) {
        Doorman doorman;
        bool takenOver = false;
        doorman.act = [&] {
            for (int i = 0; i < 5; ++i) {
                fresh.bring(doorman);
            }
            const TreflectReleaseHandlerState released;
            takenOver = eventually([&] { return doorman.done == 5; });
        };
        fresh.send(doorman, 1, 2);
        SCENARIO_CHECK(eventually([&] { return doorman.done == 6; }));
        const TreflectHandlerState state(true);
        SCENARIO_CHECK(takenOver);
        SCENARIO_CHECK(doorman.threads.size() >= 2);
    }
}

TEST(ReflectWorkerTest, WhoWaitsInTheMiddleHandsTheRestToAnother) {
    const Testing::ProcessResult result = Testing::runScenario("waitsInTheMiddle", {}, 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** The fourth that gets idle leaves a message that nobody was woken for. */
SCENARIO(retires) {
    FreshBroker fresh;
    fillUp(fresh);
    for (int round = 0; round < kRounds; ++round) {
        Doorman waits;
        Doorman others;
        Doorman last;
        fresh.send(waits, 1, 1);
        SCENARIO_CHECK(eventually([&] { return waits.inside == 1; }));
        fresh.send(others, 3, 1); // one more is started
        SCENARIO_CHECK(eventually([&] { return others.inside == 3; }));
        others.gate.open();
        SCENARIO_CHECK(eventually([&] { return others.done == 3; }));
        last.act = [&] {
            SCENARIO_CHECK(eventually(othersSleep)); // the third has come to its rest
            fresh.bring(last);
        };
        {
            const TreflectHandlerState state(true);
            waits.gate.open(); // gets idle as the third
            SCENARIO_CHECK(eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
            fresh.send(last, 1, 2); // and its worker as the fourth
            SCENARIO_CHECK(eventually([] { return handlerThreads()->waitingForPermission() == 2; }));
        }
        SCENARIO_CHECK(eventually([&] { return last.done == 2 && workers().size() == 3; }));
        const TreflectHandlerState state(true);
        SCENARIO_CHECK(last.threads.size() == 2);
    }
}

TEST(ReflectWorkerTest, WhoRetiresLeavesNothingBehind) {
    const Testing::ProcessResult result = Testing::runScenario("retires", {}, 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

SCENARIO(startFails) {
    FreshBroker fresh;
    TipprmiStream body = fresh.peer.call(fresh.doorman.getInternalOID(), false, 0, 1);
    Transport::AddressedMessage message = body.msg().addressed();
    message.originator() = kPeer;
    message.destination() = fresh.orb.termId();
    for (int i = 0; i < 3; ++i) {
        const Testing::FailingHeap none;
        SCENARIO_CHECK(fresh.orb.receive(message));
    }
    SCENARIO_CHECK(fresh.log.count(3, LogMakeString("ORB 0x%08X cannot start a worker", fresh.orb.termId().value()),
                                   kSource) == 3);
    SCENARIO_CHECK(workers().empty());
    fresh.send(1, 0);
    SCENARIO_CHECK(eventually([&] { return fresh.doorman.done == 4; }));
}

TEST(ReflectWorkerTest, AfterOneThatCouldNotBeStartedNothingIsLost) {
    const Testing::ProcessResult result = Testing::runScenario("startFails");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

std::size_t ownStackSize() {
    pthread_attr_t attributes;
    std::size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
    }
    return size;
}

SCENARIO(threadOfAWorker) {
    FreshBroker fresh;
    std::size_t stack = 0;
    int policy = -1;
    fresh.doorman.act = [&] {
        stack = ownStackSize();
        policy = ::sched_getscheduler(0);
    };
    fresh.send(1, 2);
    SCENARIO_CHECK(eventually([&] { return fresh.doorman.done == 1; }));
    std::size_t expected = 0;
    {
        Testing::TestThread other([&] { expected = ownStackSize(); }, 65536);
    }
    const TreflectHandlerState state(true);
    SCENARIO_CHECK(stack != 0 && stack == expected);
    SCENARIO_CHECK(policy == SCHED_OTHER);
}

TEST(ReflectWorkerTest, HasASmallStackAndSharesTheTime) {
    const Testing::ProcessResult result = Testing::runScenario("threadOfAWorker");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** Growing in place is refused as long as somebody else has the message. */
SCENARIO(idleWorker) {
    FreshBroker fresh;
    const TipprmiStream body = fresh.peer.call(fresh.doorman.getInternalOID(), false, 0, 1);
    Transport::AddressedMessage message = TreflectMessage(&fresh.orb, body.msg(), body.msg().size(), 16);
    message.originator() = kPeer;
    message.destination() = fresh.orb.termId();
    SCENARIO_CHECK(message.extend(message.size()));
    fresh.link.deliver(message);
    SCENARIO_CHECK(eventually([&] { return fresh.doorman.done == 1; }));
    SCENARIO_CHECK(eventually([&] { return message.extend(message.size()); }));
    SCENARIO_CHECK(workers().size() == 1);
}

TEST(ReflectWorkerTest, AnIdleOneKeepsNoMessage) {
    const Testing::ProcessResult result = Testing::runScenario("idleWorker");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
