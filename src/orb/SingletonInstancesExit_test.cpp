#include "orb/SingletonInstances_p.h"

#include "orb/REFLECT_orb.h"
#include "platform/transport/LayerCore_p.h"
#include "platform/transport/testing/FakeLink.h"
#include "rmi/IPPRMI_exception.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Testing::Gate;
using Testing::TestThread;
using Transport::FakeLink;

/** The process ends by itself, as if nothing special had happened. */
testing::AssertionResult endsWell(const std::string &scenario, std::string *output = nullptr,
                                  const std::vector<std::string> &environment = {}) {
    const Testing::ProcessResult result = Testing::runScenario(scenario, environment);
    if (output != nullptr) {
        *output = result.output;
    }
    if (result.exitStatus == 0 && !result.timedOut) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "status " << result.exitStatus << ", signal " << result.signal
                                       << (result.timedOut ? ", timed out" : "") << "\n"
                                       << result.output;
}

/** For threads that are still waiting when static objects are destroyed. */
Gate &immortalGate() {
    return *new Gate;
}

/** Looks at the brokers after they were removed; call it before the first broker is made. */
void checkAtTheEnd(void (*check)()) {
    FakeLink::install();
    SCENARIO_CHECK(std::atexit(check) == 0);
}

void nothingAnnounced() {
    SCENARIO_CHECK(FakeLink::install().announced().empty());
    std::puts("withdrawn");
}

void noBrokerAnyMore() {
    nothingAnnounced();
    for (unsigned ns : {0U, 1U, 2U, 255U}) {
        SCENARIO_CHECK(TreflectORB::getInstance(ns) == nullptr);
    }
    TipprmiStream stream(100);
    stream << 5;
    SCENARIO_CHECK(stream.getDataPtr() == nullptr && stream.empty());
    TipprmiAny any;
    any.insert(TipprmiGeneralException(3));
    SCENARIO_CHECK(any.empty());
}

SCENARIO(exitRemovesTheBrokers) {
    checkAtTheEnd(noBrokerAnyMore);
    for (unsigned ns : {0U, 1U, 2U, 255U}) {
        SCENARIO_CHECK(TreflectORB::getInstance(ns)->started());
    }
    SCENARIO_CHECK(FakeLink::install().announced().size() == 4);
}

TEST(SingletonInstancesExit, StopsAndRemovesAllBrokers) {
    std::string output;
    EXPECT_TRUE(endsWell("exitRemovesTheBrokers", &output));
    EXPECT_NE(std::string::npos, output.find("withdrawn\n"));
}

SCENARIO(exitWithThePermission) {
    checkAtTheEnd([] {
        nothingAnnounced();
        SCENARIO_CHECK(TreflectORB::hasRunPermission()); // taken back for the destructors of the program
    });
    TreflectORB::getInstance(1);
    TreflectORB::enterHandlerState(true);
    std::exit(0);
}

SCENARIO(exitWithNestedPermission) {
    static std::atomic<bool> served{false};
    static TestThread *user = nullptr;
    checkAtTheEnd([] {
        nothingAnnounced();
        SCENARIO_CHECK(served);
        delete user;
    });
    TreflectORB::getInstance(1);
    static Gate &pinned = immortalGate();
    TreflectORB::enterHandlerState(true);
    TreflectORB::getRunPermission();
    SCENARIO_CHECK(TreflectORB::getRunPermissionCount() == 2);
    user = new TestThread([] {
        const SingletonInstances::Pin pin(1); // the removal waits for this thread, and this thread for the permission
        pinned.open();
        const TreflectHandlerState state(true);
        served = true;
    });
    SCENARIO_CHECK(pinned.pass());
    std::exit(0);
}

TEST(SingletonInstancesExit, WorksWithTheRunPermissionAtAnyDepth) {
    EXPECT_TRUE(endsWell("exitWithThePermission"));
    const Testing::OverrideRoot root; // nesting is misuse
    EXPECT_TRUE(endsWell("exitWithNestedPermission", nullptr, root.environment()));
}

SCENARIO(exitWhileAnotherThreadHasThePermission) {
    checkAtTheEnd(nothingAnnounced);
    TreflectORB::getInstance(1);
    static Gate &holds = immortalGate();
    static Gate &never = immortalGate();
    new TestThread([] {
        const TreflectHandlerState state(true);
        holds.open();
        never.pass();
    });
    SCENARIO_CHECK(holds.pass());
    std::exit(0);
}

TEST(SingletonInstancesExit, DoesNotWaitForAHolderOfTheRunPermission) {
    EXPECT_TRUE(endsWell("exitWhileAnotherThreadHasThePermission"));
}

/** The permission that the exiting thread gives up goes to one that never gives it back. */
SCENARIO(exitWhileAnotherThreadIsNextInTurn) {
    checkAtTheEnd(nothingAnnounced);
    TreflectORB::getInstance(1);
    static Gate &never = immortalGate();
    TreflectORB::enterHandlerState(true);
    new TestThread([] {
        const TreflectHandlerState state(true);
        never.pass();
    });
    SCENARIO_CHECK(Testing::eventually([] { return handlerThreads()->waitingForPermission() == 1; }));
    std::exit(0);
}

TEST(SingletonInstancesExit, DoesNotQueueBehindAThreadThatWaitsForTheRunPermission) {
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(endsWell("exitWhileAnotherThreadIsNextInTurn")) << round;
    }
}

SCENARIO(exitInAnotherThread) {
    checkAtTheEnd(nothingAnnounced);
    TreflectORB::getInstance(1);
    const TreflectHandlerState state(true);
    static Gate &never = immortalGate();
    new TestThread([] { std::exit(0); });
    never.pass();
}

TEST(SingletonInstancesExit, WorksInAThreadThatIsNotTheFirst) {
    EXPECT_TRUE(endsWell("exitInAnotherThread"));
}

SCENARIO(exitInTheReceivingThread) {
    checkAtTheEnd(nothingAnnounced);
    TreflectORB::getInstance(1);
    static Gate &never = immortalGate();
    Transport::LayerCore::instance().reactor().post([] { std::exit(0); });
    never.pass();
}

TEST(SingletonInstancesExit, WorksInTheReceivingThread) {
    EXPECT_TRUE(endsWell("exitInTheReceivingThread"));
}

/** Makes the broker and marks it; at the end it has to be withdrawn, but still what it was. */
void checkThatItIsLeft() {
    static TreflectORB *orb = nullptr;
    checkAtTheEnd([] {
        nothingAnnounced();
        SCENARIO_CHECK(TreflectORB::getInstance(1) == nullptr);
        SCENARIO_CHECK(orb->getMetaData(7)->remoteCreationObservers.size() == 1);
        SCENARIO_CHECK(orb->allocateRequest(10).size() == 10);
    });
    orb = TreflectORB::getInstance(1);
    orb->getMetaData(7)->remoteCreationObservers.insert(orb->orbId());
}

SCENARIO(exitInsideABroker) {
    checkThatItIsLeft();
    const SingletonInstances::Inside inside;
    std::exit(0);
}

TEST(SingletonInstancesExit, InsideABrokerWithdrawsItAndDoesNotDestroyIt) {
    EXPECT_TRUE(endsWell("exitInsideABroker"));
}

SCENARIO(exitWhileABrokerIsInUse) {
    checkThatItIsLeft();
    static Gate &pinned = immortalGate();
    static Gate &never = immortalGate();
    new TestThread([] {
        const SingletonInstances::Pin pin(1);
        pinned.open();
        never.pass();
    });
    SCENARIO_CHECK(pinned.pass());
    std::exit(0);
}

TEST(SingletonInstancesExit, WaitsForAUserForABoundedTimeAndThenLeavesTheBroker) {
    const auto start = std::chrono::steady_clock::now();
    std::string output;
    EXPECT_TRUE(endsWell("exitWhileABrokerIsInUse", &output));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_NE(std::string::npos, output.find("withdrawn\n"));
}

SCENARIO(exitWhileThreadsUseStreams) {
    const auto quiet = std::make_unique<Testing::LogCapture>(); // hundreds of streams without buffer
    checkAtTheEnd(nothingAnnounced);
    TreflectORB::getInstance(1);
    static std::atomic<unsigned> rounds{0};
    for (int i = 0; i < 3; ++i) {
        new TestThread([] {
            for (;;) {
                TipprmiStream stream(16);
                stream << 1 << 2 << 3 << 4 << 5;
                ++rounds;
            }
        });
    }
    SCENARIO_CHECK(Testing::eventually([] { return rounds > 1000; }));
    std::exit(0);
}

TEST(SingletonInstancesExit, WorksWhileThreadsUseStreams) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(endsWell("exitWhileThreadsUseStreams"));
    }
}

SCENARIO(exitDuringACreation) {
    checkAtTheEnd(nothingAnnounced);
    TreflectORB::getInstance(1);
    static Gate &inside = immortalGate();
    Log::setSink([](int, const std::string &line, const char *) {
        if (line.rfind("ORB created for actor ", 0) == 0) {
            inside.open();
        }
    });
    new TestThread([] {
        TreflectORB::getInstance(2); // takes 100 ms from where the gate opens
        static Gate &never = immortalGate();
        never.pass();
    });
    SCENARIO_CHECK(inside.pass());
    std::exit(0);
}

TEST(SingletonInstancesExit, RemovesABrokerThatIsJustBeingMade) {
    EXPECT_TRUE(endsWell("exitDuringACreation"));
}

SCENARIO(brokersInAForkedChild) {
    FakeLink::install();
    TreflectORB::getInstance(1);
    const pid_t child = ::fork();
    if (child == 0) {
        Testing::LogCapture log;
        SCENARIO_CHECK(TreflectORB::getInstance(1) == nullptr);
        SCENARIO_CHECK(TreflectORB::getInstance(2) == nullptr);
        TipprmiStream stream(4);
        stream << 1;
        SCENARIO_CHECK(stream.getDataPtr() == nullptr);
        SCENARIO_CHECK(
            1 == log.count(3, "ORB is not available in a child of fork() before it has called exec", "REFLECT_orb"));
        std::exit(0); // without a word about brokers that belong to the parent
    }
    int status = -1;
    SCENARIO_CHECK(::waitpid(child, &status, 0) == child);
    SCENARIO_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    SCENARIO_CHECK(TreflectORB::getInstance(1)->started());
    SCENARIO_CHECK(FakeLink::install().announced().size() == 1);
}

TEST(SingletonInstancesExit, AForkedChildHasNoBrokersAndLeavesThoseOfItsParent) {
    EXPECT_TRUE(endsWell("brokersInAForkedChild"));
}

/** Asks for a broker before main(), in the one scenario that is about it, and once more at the end. */
struct EarlyUser {
    EarlyUser() {
        const char *const scenario = std::getenv("REFLECTORB_TEST_SCENARIO");
        if (scenario != nullptr && std::strcmp(scenario, "brokerBeforeMain") == 0) {
            FakeLink::install();
            orb = TreflectORB::getInstance(1);
            stream = std::make_unique<TipprmiStream>(4);
        }
    }
    ~EarlyUser() {
        if (stream != nullptr) {
            *stream << 7 << 8; // its broker exists, or does not; either is fine
            std::puts("used at the end");
        }
    }
    TreflectORB *orb = nullptr;
    std::unique_ptr<TipprmiStream> stream;
};
EarlyUser earlyUser;

SCENARIO(brokerBeforeMain) {
    SCENARIO_CHECK(earlyUser.orb != nullptr);
    SCENARIO_CHECK(earlyUser.orb == TreflectORB::getInstance(1));
    *earlyUser.stream << 5;
    SCENARIO_CHECK(earlyUser.stream->getDataSize() == 4);
}

TEST(SingletonInstancesExit, BrokersServeStaticObjects) {
    std::string output;
    EXPECT_TRUE(endsWell("brokerBeforeMain", &output));
    EXPECT_NE(std::string::npos, output.find("used at the end\n"));
}

} // namespace
