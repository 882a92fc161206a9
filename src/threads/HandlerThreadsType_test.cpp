#include "threads/HandlerThreadsType_p.h"

#include "platform/IdInfo.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/LogCapture.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <vector>

using namespace HandlerState;
using Testing::eventually;
using Testing::Gate;
using Testing::LogCapture;
using Testing::TestThread;

namespace {

constexpr char kSource[] = "HandlerThreadPolicies";

unsigned long self() {
    return OSWrap::Thread::getCurrentId();
}

/** Whether the permission is free, found out by another thread that takes it. */
bool permissionIsFree() {
    bool taken = false;
    TestThread other([&] {
        taken = handlerThreads()->tryGet(true);
        if (taken) {
            leaveHandlerState(true);
        }
    });
    other.join();
    return taken;
}

std::string noHandler(unsigned long id) {
    return LogMakeString("getRunPermission() called by thread %lu , which is no handler thread", id);
}

std::string noPermission(unsigned long id, unsigned long owner) {
    return Transport::IdInfo::instance().getActor() +
           LogMakeString(" thread %lu  doing RMI, but has no RunPermission (owner=%lu)", id, owner);
}

std::string keeps(unsigned long id, unsigned long count) {
    return LogMakeString("Thread %lu  has %lu RunPermission after leaveHandlerState", id, count);
}

void expectGood(const std::string &scenario) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario(scenario, root.environment());
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

/** Without the override the scenario aborts, and both lines are in the log. */
void expectAbort(const std::string &scenario, const std::string &line, const std::string &backtrace) {
    const Testing::TempDir root;
    const Testing::ProcessResult result =
        Testing::runScenario(scenario, {"REFLECTORB_ROOT=" + root.path(), "REFLECTORB_LOG=stderr"});
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    EXPECT_NE(std::string::npos, result.output.find(line)) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("Backtracing " + backtrace)) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("BT<00> ")) << result.output;
}

void checkFirstLine(const LogCapture &log, std::size_t place, int level, const std::string &text,
                    const std::string &source) {
    const std::vector<Testing::LogLine> lines = log.lines();
    SCENARIO_CHECK(lines.size() > place);
    SCENARIO_CHECK(lines[place].level == level);
    SCENARIO_CHECK(lines[place].text == text);
    SCENARIO_CHECK(lines[place].source == source);
}

SCENARIO(handlers_first_use) {
    LogCapture log;
    Gate go;
    HandlerThreadsType *seen[4] = {};
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (HandlerThreadsType *&mine : seen) {
            threads.push_back(std::make_unique<TestThread>([&go, &mine] {
                go.pass();
                mine = handlerThreads();
            }));
        }
        go.open();
    }
    for (const HandlerThreadsType *one : seen) {
        SCENARIO_CHECK(one != nullptr && one == handlerThreads());
    }
    checkFirstLine(log, 0, 5, "HandlerThreadsType compiled with flags: cnt=1, prm=1, dbg=1", "HandlerThreadsType");
    checkFirstLine(log, 1, 5, "ORB HandlerThreads using SetContainer", kSource);
    checkFirstLine(log, 2, 5, "ORB HandlerThreads using DebugPermission", kSource);
    checkFirstLine(log, 3, 6, "ORB uses HandlerThreads with DEBUG flag set", kSource);
    SCENARIO_CHECK(log.lines().size() == 4);
}

TEST(HandlerThreads, TheFirstUseSaysWhatItIsMadeOf) {
    expectGood("handlers_first_use");
}

SCENARIO(handlers_flags_once) {
    LogCapture log;
    SCENARIO_CHECK(HandlerThreadsTypeOutput(7, -8, 9) == 1);
    checkFirstLine(log, 0, 5, "HandlerThreadsType compiled with flags: cnt=7, prm=-8, dbg=9", "HandlerThreadsType");
    SCENARIO_CHECK(HandlerThreadsTypeOutput(1, 2, 3) == 1);
    SCENARIO_CHECK(log.lines().size() == 1);
    SCENARIO_CHECK(handlerThreads() != nullptr);
    SCENARIO_CHECK(log.with("compiled with flags").size() == 1);
}

TEST(HandlerThreads, TheFlagsAreSaidOnceInAProcess) {
    expectGood("handlers_flags_once");
}

TEST(HandlerThreads, EnteringAloneGivesNoPermission) {
    EXPECT_FALSE(isHandlerThread());
    const unsigned before = handlerThreads()->size();
    enterHandlerState(false);
    EXPECT_TRUE(isHandlerThread());
    EXPECT_FALSE(hasRunPermission());
    EXPECT_EQ(0U, getRunPermissionCount());
    EXPECT_EQ(before + 1, handlerThreads()->size());
    leaveHandlerState(false);
    EXPECT_FALSE(isHandlerThread());
    EXPECT_EQ(before, handlerThreads()->size());
}

TEST(HandlerThreads, EnteringWithPermissionTakesItOnce) {
    handlerThreads();
    LogCapture log;
    enterHandlerState(true);
    EXPECT_TRUE(isHandlerThread());
    EXPECT_TRUE(hasRunPermission());
    EXPECT_EQ(1U, getRunPermissionCount());
    EXPECT_EQ(self(), getRunPermissionOwner());
    checkHandlerState();
    {
        TestThread other([owner = self()] {
            EXPECT_FALSE(isHandlerThread());
            EXPECT_FALSE(hasRunPermission());
            EXPECT_EQ(1U, getRunPermissionCount());
            EXPECT_EQ(owner, getRunPermissionOwner());
        });
    }
    leaveHandlerState(true);
    EXPECT_FALSE(isHandlerThread());
    EXPECT_EQ(0UL, getRunPermissionOwner());
    EXPECT_EQ(0U, getRunPermissionCount());
    EXPECT_TRUE(log.lines().empty());
}

TEST(HandlerThreads, LeavingWithoutBeingInDoesNothing) {
    const unsigned before = handlerThreads()->size();
    LogCapture log;
    leaveHandlerState(false);
    leaveHandlerState(true);
    EXPECT_FALSE(isHandlerThread());
    EXPECT_EQ(before, handlerThreads()->size());
    EXPECT_TRUE(log.lines().empty());
}

TEST(HandlerThreads, AHandlerThatReleasesWhatItHasNotIsReportedOthersAreNot) {
    handlerThreads();
    LogCapture log;
    releaseRunPermission();
    EXPECT_TRUE(log.lines().empty());
    enterHandlerState(false);
    releaseRunPermission();
    EXPECT_EQ(1U, log.count(3,
                            Transport::IdInfo::instance().getActor() +
                                LogMakeString("::releaseRunPermission(thread=%d) called without being owner",
                                              OSWrap::Thread::getCurrentTid()),
                            kSource));
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_TRUE(isHandlerThread());
    EXPECT_EQ(0UL, getRunPermissionOwner());
    leaveHandlerState(false);
}

SCENARIO(handlers_outsider_asks) {
    handlerThreads();
    LogCapture log;
    SCENARIO_CHECK(!handlerThreads()->retrievePermission());
    SCENARIO_CHECK(log.lines().empty());
    for (int i = 0; i < 5; ++i) {
        getRunPermission();
        SCENARIO_CHECK(!hasRunPermission());
        SCENARIO_CHECK(getRunPermissionOwner() == 0);
    }
    SCENARIO_CHECK(log.count(4, noHandler(self()), kSource) == 2);
    SCENARIO_CHECK(log.lines().size() == 2); // no backtrace
    unsigned long other = 0;
    {
        TestThread thread([&] {
            other = self();
            for (int i = 0; i < 3; ++i) {
                getRunPermission();
            }
        });
    }
    SCENARIO_CHECK(log.count(4, noHandler(other), kSource) == 2);
    SCENARIO_CHECK(log.lines().size() == 4);
}

TEST(HandlerThreads, AnOutsiderThatAsksGetsNothingAndIsReportedTwice) {
    const Testing::TempDir root; // no override: this fault does not abort
    const Testing::ProcessResult result =
        Testing::runScenario("handlers_outsider_asks", {"REFLECTORB_ROOT=" + root.path()});
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

SCENARIO(handlers_call_without_permission) {
    handlerThreads();
    LogCapture log;
    checkHandlerState();
    const std::vector<Testing::LogLine> first = log.lines();
    SCENARIO_CHECK(first.size() > 2);
    SCENARIO_CHECK(first[0].level == 3 && first[0].source == kSource);
    SCENARIO_CHECK(first[0].text == noPermission(self(), 0));
    SCENARIO_CHECK(first[1].text == "Backtracing RMI with no RunPermission");

    // The owner is named; being a handler makes no difference.
    Gate held;
    Gate mayLeave;
    unsigned long owner = 0;
    TestThread holder([&] {
        const TreflectHandlerState state(true);
        owner = self();
        held.open();
        mayLeave.pass();
    });
    held.pass();
    enterHandlerState(false);
    checkHandlerState();
    SCENARIO_CHECK(log.count(3, noPermission(self(), owner), kSource) == 1);
    leaveHandlerState(false);
    mayLeave.open();
    holder.join();
    checkHandlerState(); // the third time
    SCENARIO_CHECK(log.with("doing RMI").size() == 2);
    SCENARIO_CHECK(log.with("Backtracing").size() == 2);

    // The other kind of report has a count of its own, whichever comes first.
    getRunPermission();
    SCENARIO_CHECK(log.count(4, noHandler(self()), kSource) == 1);
    TestThread other([&] {
        for (int i = 0; i < 4; ++i) {
            getRunPermission();
        }
        for (int i = 0; i < 4; ++i) {
            checkHandlerState();
        }
        SCENARIO_CHECK(log.count(4, noHandler(self()), kSource) == 2);
        SCENARIO_CHECK(log.count(3, noPermission(self(), 0), kSource) == 2);
    });
}

TEST(HandlerThreads, ACallWithoutPermissionIsReportedTwiceAndGoesOn) {
    expectGood("handlers_call_without_permission");
}

SCENARIO(handlers_call_aborts) {
    checkHandlerState();
}

TEST(HandlerThreads, ACallWithoutPermissionAbortsTheActor) {
    expectAbort("handlers_call_aborts", "doing RMI, but has no RunPermission (owner=0)", "RMI with no RunPermission");
}

SCENARIO(handlers_reports_of_the_dead) {
    handlerThreads();
    LogCapture log;
    for (int i = 1; i <= 20; ++i) {
        { // the system gives the same id to one thread after the other
            TestThread thread([] {
                enterHandlerState(false);
                for (int call = 0; call < 3; ++call) {
                    checkHandlerState();
                }
            });
        }
        SCENARIO_CHECK(log.with("doing RMI").size() == 2U * static_cast<unsigned>(i));
    }
}

TEST(HandlerThreads, AThreadIsNotSilencedByTheReportsOfADeadOne) {
    expectGood("handlers_reports_of_the_dead");
}

SCENARIO(handlers_leave_with_permission) {
    handlerThreads();
    LogCapture log;
    enterHandlerState(true);
    leaveHandlerState(false);
    const std::vector<Testing::LogLine> first = log.lines();
    SCENARIO_CHECK(first.size() > 2);
    SCENARIO_CHECK(first[0].level == 3 && first[0].source == kSource);
    SCENARIO_CHECK(first[0].text == keeps(self(), 1));
    SCENARIO_CHECK(first[1].text == "Backtracing leaveHandlerState() keeps RunPermission");
    SCENARIO_CHECK(!isHandlerThread() && !hasRunPermission() && getRunPermissionCount() == 0);
    SCENARIO_CHECK(permissionIsFree());

    // All levels go.
    enterHandlerState(true);
    getRunPermission();
    log.clear();
    leaveHandlerState(false);
    SCENARIO_CHECK(log.count(3, keeps(self(), 2), kSource) == 1);
    SCENARIO_CHECK(getRunPermissionCount() == 0 && permissionIsFree());

    // One level goes with the call, the other is the fault.
    enterHandlerState(true);
    getRunPermission();
    log.clear();
    leaveHandlerState(true);
    SCENARIO_CHECK(log.count(3, keeps(self(), 1), kSource) == 1);
    SCENARIO_CHECK(!isHandlerThread() && permissionIsFree());

    // Raw entering does not nest while the permission is held.
    enterHandlerState(true);
    enterHandlerState(false);
    log.clear();
    leaveHandlerState(false);
    SCENARIO_CHECK(log.count(3, keeps(self(), 1), kSource) == 1);
    SCENARIO_CHECK(isHandlerThread() && !hasRunPermission());
    leaveHandlerState(false);
    SCENARIO_CHECK(!isHandlerThread() && handlerThreads()->size() == 0);
}

TEST(HandlerThreads, LeavingWithPermissionIsReportedAndFreesIt) {
    expectGood("handlers_leave_with_permission");
}

SCENARIO(handlers_leave_aborts) {
    enterHandlerState(true);
    leaveHandlerState(false);
}

TEST(HandlerThreads, LeavingWithPermissionAbortsTheActor) {
    expectAbort("handlers_leave_aborts", " has 1 RunPermission after leaveHandlerState",
                "leaveHandlerState() keeps RunPermission");
}

SCENARIO(handlers_short_of_memory) {
    handlerThreads();
    {
        TreflectHandlerState state(true);
        getRunPermission(); // decides about the abort while there is memory
        releaseRunPermission();
    }
    const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
    checkHandlerState();
    getRunPermission();
    TreflectHandlerState state(true);
    SCENARIO_CHECK(hasRunPermission());
    releaseRunPermission();
    releaseRunPermission(); // reported
    getRunPermission();
    SCENARIO_CHECK(hasRunPermission() && getRunPermissionCount() == 1);
}

TEST(HandlerThreads, WithoutMemoryNothingIsThrown) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario(
        "handlers_short_of_memory", root.environment({"REFLECTORB_ACTOR=" + std::string(60, 'a')}));
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

SCENARIO(handlers_no_object) {
    {
        const Testing::FailingHeap none;
        SCENARIO_CHECK(handlerThreads() == nullptr);
        enterHandlerState(true);
        SCENARIO_CHECK(!isHandlerThread() && !hasRunPermission());
        getRunPermission();
        releaseRunPermission();
        checkHandlerState();
        SCENARIO_CHECK(getRunPermissionCount() == 0 && getRunPermissionOwner() == 0);
        leaveHandlerState(true);
        const TreflectHandlerState state(true);
        const TreflectReleaseHandlerState released;
        const TreflectRestoreHandlerState restored;
        SCENARIO_CHECK(!isHandlerThread());
    }
    SCENARIO_CHECK(handlerThreads() != nullptr); // the next one tries again
}

TEST(HandlerThreads, WithoutTheObjectNothingHappens) {
    const Testing::TempDir root;
    const Testing::ProcessResult result =
        Testing::runScenario("handlers_no_object", {"REFLECTORB_ROOT=" + root.path()});
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
