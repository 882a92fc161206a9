#include "platform/Environment_p.h"

#include "platform/Log.h"
#include "platform/UnitFigures.h"
#include "support/Scenario.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Platform {
namespace {

int handled = 0;
int order = 0;

/** How the child ended, which runs this and exits with its result. */
template <class Body>
int statusOfChild(Body body) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(body());
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

SCENARIO(forkIsNoticed) {
    onForkInChild([] { ++handled; });
    SCENARIO_CHECK(!inForkedChild() && handled == 0);
    SCENARIO_CHECK(statusOfChild([] {
                       const int grandchild = statusOfChild([] { return inForkedChild() && handled == 2 ? 5 : 6; });
                       return inForkedChild() && handled == 1 && grandchild == 5 ? 4 : 7;
                   }) == 4);
    SCENARIO_CHECK(!inForkedChild() && handled == 0);
    std::exit(3);
}

TEST(Fork, IsNoticedInTheChildOnly) {
    const Testing::ProcessResult result = Testing::runScenario("forkIsNoticed");
    EXPECT_EQ(3, result.exitStatus) << result.output;
}

SCENARIO(handlersInOrder) {
    onForkInChild([] { order = order * 10 + 1; });
    onForkInChild([] { order = order * 10 + 2; });
    onForkInChild([] { order = order * 10 + 3; });
    SCENARIO_CHECK(statusOfChild([] { return order == 123 ? 4 : 5; }) == 4);
    SCENARIO_CHECK(order == 0);
    std::exit(3);
}

TEST(Fork, HandlersRunInTheOrderOfTheirRegistration) {
    const Testing::ProcessResult result = Testing::runScenario("handlersInOrder");
    EXPECT_EQ(3, result.exitStatus) << result.output;
}

SCENARIO(tooManyHandlers) {
    for (int i = 0; i < 100; ++i) {
        onForkInChild([] { ++handled; });
    }
    SCENARIO_CHECK(statusOfChild([] { return handled; }) <= 8);
    std::exit(3);
}

TEST(Fork, HandlersBeyondTheLastPlaceDoNoHarm) {
    const Testing::ProcessResult result = Testing::runScenario("tooManyHandlers");
    EXPECT_EQ(3, result.exitStatus) << result.output;
}

SCENARIO(descriptorsOfTheLog) {
    LogDispatch(3, "opens the file", "test");
    static_cast<void>(oscwGetActorSize());
    const int log = Log::rawDescriptor();
    SCENARIO_CHECK(log > STDERR_FILENO);
    SCENARIO_CHECK((::fcntl(log, F_GETFD) & FD_CLOEXEC) != 0);
    std::exit(3);
}

TEST(Fork, TheLogFileIsClosedWhenAChildRunsAnotherProgram) {
    const Testing::TempDir directory;
    const Testing::ProcessResult result =
        Testing::runScenario("descriptorsOfTheLog", {"REFLECTORB_LOG=file:" + directory.path() + "/log"});
    EXPECT_EQ(3, result.exitStatus) << result.output;
}

} // namespace
} // namespace Platform
