#include "orb/REFLECT_orb.h"
#include "orb/SingletonInstances_p.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/Scenario.h"

#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Brokers that can make no requests any more.

constexpr Transport::TerminationId kPeer(0x0042, 2, 1);

/** In the child nobody would ever answer, and locks may be held for ever. */
SCENARIO(oldBrokerInAForkedChild) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    link.peerAppears(kPeer);
    TipprmiStream request(orb.allocateRequest(100), true);
    TipprmiStream response(orb.allocateResponse(request.msg(), 100), true);
    const pid_t child = ::fork();
    if (child == 0) {
        const Testing::LogCapture log;
        for (bool twoWay : {true, false}) {
            response.clear();
            SCENARIO_CHECK(!orb.forwardMsg_(kPeer, twoWay, request.msg(), response));
            unsigned exception = 0;
            response >> exception;
            SCENARIO_CHECK(exception == 1);
        }
        SCENARIO_CHECK(orb.locateObject(TipprmiOID("thing", NamespaceId(1))).getInternalOID() == 0);
        SCENARIO_CHECK(
            log.count(3, "ORB is not available in a child of fork() before it has called exec", "REFLECT_orb") == 1);
        SCENARIO_CHECK(log.with("transactionId").empty());
        ::_exit(0);
    }
    int status = -1;
    SCENARIO_CHECK(::waitpid(child, &status, 0) == child);
    SCENARIO_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(ForkedChildTest, TheBrokerOfTheParentMakesNoRequests) {
    const Testing::ProcessResult result = Testing::runScenario("oldBrokerInAForkedChild");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** A thread whose call ends with the process makes another one. */
SCENARIO(requestAfterTheBeginningOfExit) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    Log::setSink([](int level, const std::string &line, const char *source) {
        std::printf("%d %s: %s\n", level, source, line.c_str());
        std::fflush(stdout);
    });
    TreflectORB::getInstance(1);
    link.peerAppears(kPeer);
    new Testing::TestThread([] {
        {
            const SingletonInstances::Pin orb(1);
            for (int i = 0; i < 2; ++i) {
                TipprmiStream request(orb.get()->allocateRequest(100), true);
                TipprmiStream response(100);
                std::printf("result %d\n", orb.get()->forwardMsg_(kPeer, true, request.msg(), response));
            }
            std::fflush(stdout);
        }
        static Testing::Gate &never = *new Testing::Gate;
        never.pass(); // nobody is there to join it
    });
    SCENARIO_CHECK(link.takeIssued(1).size() == 1);
    std::exit(0);
}

TEST(ClosingTest, ARequestOfAClosingBrokerIsReportedAsUndeliverable) {
    const Testing::ProcessResult result = Testing::runScenario("requestAfterTheBeginningOfExit");
    EXPECT_EQ(0, result.exitStatus) << result.output;
    const std::size_t first = result.output.find("result 0\n");
    ASSERT_NE(std::string::npos, first) << result.output;
    const std::size_t line =
        result.output.find(" could not find destination termId=0x00420201 for transactionId ", first);
    ASSERT_NE(std::string::npos, line) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("result 0\n", line)) << result.output;
}

} // namespace
