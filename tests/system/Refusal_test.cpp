#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <linux/capability.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Testing::Actor;

constexpr uid_t kNobody = 65534;

class Refusal : public testing::Test {
protected:
    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {}};
};

/** In a child: gives up being root, but for the right to reach the directory, and connects. 0 if it was shut out. */
int connectAsNobody(const std::string &path) {
    if (::seteuid(kNobody) != 0) {
        return 2;
    }
    // The right to pass every directory is still permitted to this process; only its effect went with the user.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    if (::syscall(SYS_capget, &header, sets) != 0) {
        return 3;
    }
    sets[0].effective |= 1U << CAP_DAC_OVERRIDE;
    if (::syscall(SYS_capset, &header, sets) != 0) {
        return 4;
    }
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, path.c_str(), sizeof where.sun_path - 1);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&where), sizeof where) != 0) {
        return 5;
    }
    pollfd readable{fd, POLLIN, 0};
    char byte = 0;
    return ::poll(&readable, 1, 30000) == 1 && ::recv(fd, &byte, 1, 0) <= 0 ? 0 : 6;
}

TEST_F(Refusal, AProcessOfAnotherUserIsShutOutAndReported) {
    Actor actor(unit_);
    const std::string id = actor.probe();
    std::string socket;
    for (const std::string &file : Testing::filesIn(unit_.directory)) {
        socket = file.compare(0, 2, "a.") == 0 ? file : socket;
    }
    ASSERT_NE("", socket);
    if (::geteuid() != 0) {
        // The directory itself keeps other users out; only root can play one that came in.
        struct stat status {};
        ASSERT_EQ(0, ::stat(unit_.directory.c_str(), &status));
        EXPECT_EQ(0700U, status.st_mode & 0777U);
        return;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(connectAsNobody(unit_.directory + "/" + socket));
    }
    EXPECT_EQ(0, Testing::awaitEnd(child));
    EXPECT_TRUE(actor.waitLog("Transport: refused process " + std::to_string(child) +
                              " of user 65534, this actor runs as user 0"));
    EXPECT_EQ(" " + id, actor.ask("list 1", "list"));
}

TEST_F(Refusal, ADirectoryOfSomebodyElseIsNotUsed) {
    Testing::Unit unit{"/usr", {}}; // somebody else's for everybody but root
    if (::geteuid() == 0) {
        unit.directory = directory_.path() + "/unit";
        ASSERT_EQ(0, ::mkdir(unit.directory.c_str(), 0700));
        ASSERT_EQ(0, ::chown(unit.directory.c_str(), kNobody, kNobody));
    }
    Actor actor(unit_, 1, {"REFLECTORB_UNIT_DIR=" + unit.directory});
    EXPECT_EQ("failed", actor.probe());
    EXPECT_TRUE(actor.waitLog("Transport: directory " + unit.directory + " belongs to user "));
    EXPECT_EQ("", actor.ask("list 1", "list"));
}

TEST_F(Refusal, WithoutAUsableDirectoryTheBrokerExistsButIsAlone) {
    Actor actor(unit_, 1, {"REFLECTORB_UNIT_DIR=/proc/no/such/place"});
    EXPECT_EQ("00000000 00000000", actor.ask("orb 1", "orb "));
    EXPECT_TRUE(actor.waitLog("Transport: cannot make directory /proc/no/such/place: No such file or directory"));
    actor.tell("exit 0");
    EXPECT_EQ(0, actor.end());
}

TEST_F(Refusal, EnvironmentValuesThatAreGarbageAreReportedAndReplaced) {
    Actor actor(unit_, 1,
                {"REFLECTORB_SLOT=9999", "REFLECTORB_ACTIVE_SLOT=x", "REFLECTORB_AXU_SLOTS=1,,z",
                 "REFLECTORB_ROOT=../relative;rm", "REFLECTORB_LOG_LEVEL=loud", "REFLECTORB_TIME_SCALE=-3"});
    const std::string id = actor.probe();
    EXPECT_EQ("0101", id.substr(4)); // slot 1, group 1
    for (const char *name : {"REFLECTORB_SLOT", "REFLECTORB_ACTIVE_SLOT", "REFLECTORB_AXU_SLOTS", "REFLECTORB_ROOT",
                             "REFLECTORB_LOG_LEVEL", "REFLECTORB_TIME_SCALE"}) {
        EXPECT_TRUE(actor.waitLog(name)) << name;
    }
    EXPECT_EQ("1", actor.ask("send " + id + " 10 1", "sent "));
}

TEST_F(Refusal, AForkedChildGetsAnErrorAndItsParentGoesOn) {
    Actor actor(unit_);
    Actor other(unit_, 2);
    const std::string id = actor.probe();
    const std::string otherId = other.probe();
    actor.expect("appeared " + otherId);
    EXPECT_NE("none", actor.ask("orb 1", "orb "));
    EXPECT_EQ("0", actor.ask("forked", "forked "));
    EXPECT_TRUE(actor.waitLog("Transport: not usable in a forked child; call exec first"));
    EXPECT_EQ("10", actor.ask("send " + otherId + " 1000 10", "sent "));
    EXPECT_EQ("", other.ask("await 10", "got"));
    EXPECT_EQ("1", other.ask("exists " + id, "exists "));
}

} // namespace
