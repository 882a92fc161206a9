// What the guards must not do when nobody is in the way.
#include "threads/HandlerState.h"

#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "threads/BrokerLocks.h"
#include "threads/HandlerThreadsType_p.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

void useAllFreeOfContention(TreflectMutex &mutex, TreflectCountedMutex &counted,
                            TreflectConditionVar &variable) RB_NO_ANALYSIS {
    TreflectHandlerState state(true);
    {
        TreflectHandlerState nested(true);
        TreflectHandlerState without(false);
    }
    mutex.lock();
    counted.lock();
    variable.lock();
    variable.signal();
    variable.unlock();
    counted.unlock();
    mutex.unlock();
    HandlerState::checkHandlerState();
    HandlerState::releaseRunPermission();
    TreflectHandlerState again(true);
}

TEST(HandlerStateCost, WithoutContentionNothingIsAllocated) {
    TreflectMutex mutex;
    TreflectCountedMutex counted;
    TreflectConditionVar variable(false);
    useAllFreeOfContention(mutex, counted, variable); // the first use makes the object
    const Testing::HeapProbe probe;
    for (int round = 0; round < 1000; ++round) {
        useAllFreeOfContention(mutex, counted, variable);
    }
    EXPECT_EQ(0U, probe.allocations());
}

#ifndef REFLECTORB_SANITIZED // sanitizers ask the system at any time
/** From the filter on the kernel kills a process that asks for more than reading, writing and ending. */
SCENARIO(cost_without_system_calls) {
    TreflectMutex mutex;
    TreflectCountedMutex counted;
    TreflectConditionVar variable(false);
    useAllFreeOfContention(mutex, counted, variable);
    const bool filtered = ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) == 0;
    const char *const word = filtered ? "filtered\n" : "unfiltered\n";
    SCENARIO_CHECK(::write(STDOUT_FILENO, word, std::strlen(word)) > 0);
    for (int round = 0; round < 1000; ++round) {
        useAllFreeOfContention(mutex, counted, variable);
    }
    SCENARIO_CHECK(::write(STDOUT_FILENO, "done\n", 5) == 5);
    ::syscall(SYS_exit, 0);
}

SCENARIO(cost_with_a_system_call) {
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) == 0) {
        ::syscall(SYS_gettid);
    }
    ::syscall(SYS_exit, 0);
}

TEST(HandlerStateCost, WithoutContentionTheSystemIsNotCalled) {
    const Testing::ProcessResult result = Testing::runScenario("cost_without_system_calls");
    EXPECT_EQ(0, result.signal) << result.output;
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("done")) << result.output;
#ifndef __arm__ // which may be emulated, and emulators have no filter
    EXPECT_NE(std::string::npos, result.output.find("filtered")) << result.output;
    EXPECT_EQ(std::string::npos, result.output.find("unfiltered")) << result.output;
    EXPECT_EQ(SIGKILL, Testing::runScenario("cost_with_a_system_call").signal); // the filter does work
#endif
}
#endif

} // namespace
