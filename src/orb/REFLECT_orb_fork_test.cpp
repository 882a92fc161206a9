#include "orb/REFLECT_orb.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Scenario.h"

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace {

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

} // namespace
