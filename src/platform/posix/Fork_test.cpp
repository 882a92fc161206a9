#include "platform/Environment_p.h"

#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace Platform {
namespace {

int handled = 0;

SCENARIO(forkIsNoticed) {
    onForkInChild([] { ++handled; });
    if (inForkedChild() || handled != 0) {
        std::exit(1);
    }
    const pid_t child = ::fork();
    if (child == 0) {
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            ::_exit(inForkedChild() && handled == 2 ? 5 : 6);
        }
        int status = 0;
        ::waitpid(grandchild, &status, 0);
        ::_exit(inForkedChild() && handled == 1 && WEXITSTATUS(status) == 5 ? 4 : 7);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::exit(!inForkedChild() && handled == 0 && WEXITSTATUS(status) == 4 ? 3 : 2);
}

TEST(Fork, IsNoticedInTheChildOnly) {
    EXPECT_EQ(3, Testing::runScenario("forkIsNoticed").exitStatus);
}

} // namespace
} // namespace Platform
