#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kMark[] = "CHASSIS_TEST_IN_NAMESPACE";

/** An ordinary user may be privileged in a user namespace; a process can only enter one as long as it is alone, so the
 *  test program is started once more. Where that is forbidden it goes on without. */
void becomePrivileged(char **argv) {
    if (::geteuid() == 0 || ::getenv(kMark) != nullptr) {
        return;
    }
    ::setenv(kMark, "1", 1);
    const pid_t trial = ::fork();
    if (trial == 0) {
        ::execlp("unshare", "unshare", "--user", "--map-root-user", "true", static_cast<char *>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    if (::waitpid(trial, &status, 0) != trial || status != 0) {
        return;
    }
    std::vector<char *> arguments{const_cast<char *>("unshare"), const_cast<char *>("--user"),
                                  const_cast<char *>("--map-root-user")};
    for (; *argv != nullptr; ++argv) {
        arguments.push_back(*argv);
    }
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
}

} // namespace

int main(int argc, char **argv) {
    becomePrivileged(argv);
    if (Testing::Scenario::requested()) {
        return Testing::Scenario::runRequested();
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
