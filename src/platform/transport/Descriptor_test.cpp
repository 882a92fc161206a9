#include "platform/transport/Descriptor_p.h"

#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Transport {
namespace {

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}

int statusOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/** A child of an actor has none of its descriptors; what the child opens itself, its own children keep. */
SCENARIO(descriptorsInChildren) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        std::exit(1);
    }
    const Descriptor first(ends[0]);
    const Descriptor second(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        if (isOpen(ends[0]) || isOpen(ends[1])) {
            ::_exit(2);
        }
        // The same numbers again.
        if (::dup2(STDIN_FILENO, ends[0]) < 0 || ::dup2(STDIN_FILENO, ends[1]) < 0) {
            ::_exit(3);
        }
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            ::_exit(isOpen(ends[0]) && isOpen(ends[1]) ? 5 : 6);
        }
        ::_exit(statusOf(grandchild) == 5 ? 4 : 7);
    }
    std::exit(statusOf(child) == 4 && isOpen(ends[0]) && isOpen(ends[1]) ? 3 : 8);
}

TEST(Descriptor, IsClosedInAChildAndForgottenThere) {
    EXPECT_EQ(3, Testing::runScenario("descriptorsInChildren").exitStatus);
}

TEST(Descriptor, ClosesWhatItHas) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    {
        Descriptor one(ends[0]);
        Descriptor moved(std::move(one));
        EXPECT_EQ(ends[0], moved.get());
        EXPECT_FALSE(static_cast<bool>(one)); // NOLINT: that is the point
        EXPECT_TRUE(isOpen(ends[0]));
        moved = Descriptor(ends[1]);
        EXPECT_FALSE(isOpen(ends[0]));
    }
    EXPECT_FALSE(isOpen(ends[1]));
}

} // namespace
} // namespace Transport
