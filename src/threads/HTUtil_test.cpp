#include "threads/HTUtil.h"

#include "platform/Export.h"
#include "platform/Thread.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using Testing::LogLine;

namespace {

constexpr char kSource[] = "HandlerThreadPolicies";

std::string overrideFile(const std::string &root) {
    return root + "/ffs/run/zef_data/db/NO_RMI_DEBUG";
}

void makeOverride(const std::string &root) {
    std::filesystem::create_directories(root + "/ffs/run/zef_data/db");
    std::ofstream(overrideFile(root)).flush();
}

[[gnu::noinline]] void fromDepth(int depth, const char *why) {
    if (depth == 0) {
        HTUtil::printBacktrace(why);
    } else {
        fromDepth(depth - 1, why);
    }
    asm volatile("" ::: "memory"); // no call in tail position: each level keeps its frame
}

/** Checks everything about a backtrace but the frames' texts; how many frames it has. */
std::size_t checkBacktrace(const std::vector<LogLine> &lines, const std::string &why) {
    EXPECT_FALSE(lines.empty());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(5, lines[i].level);
        EXPECT_EQ(kSource, lines[i].source);
        if (i == 0) {
            EXPECT_EQ("Backtracing " + why, lines[i].text);
            continue;
        }
        const std::string head = LogMakeString("BT<%02d> ", static_cast<int>(i) - 1);
        EXPECT_EQ(head, lines[i].text.substr(0, head.size()));
        EXPECT_GT(lines[i].text.size(), head.size());
        EXPECT_EQ(std::string::npos, lines[i].text.find('/')) << lines[i].text;
    }
    return lines.size() - 1;
}

} // namespace

/** Exported, so that the backtrace can name it. */
extern "C" REFLECTORB_API void backtraceAsFirstAct() {
    HTUtil::printBacktrace("on a small stack");
    asm volatile("" ::: "memory");
}

namespace {

TEST(HTUtil, BacktraceOfSixtyFramesHasFortyLines) {
    Testing::LogCapture log;
    fromDepth(60, "deep recursion");
    EXPECT_EQ(40U, checkBacktrace(log.lines(), "deep recursion"));
}

TEST(HTUtil, BacktraceOfFewFramesEndsWithTheStack) {
    Testing::LogCapture log;
    {
        Testing::TestThread thread([] { fromDepth(3, "few frames"); });
    }
    const std::size_t frames = checkBacktrace(log.lines(), "few frames");
    EXPECT_GE(frames, 4U);
    EXPECT_LT(frames, 40U);
}

TEST(HTUtil, BacktraceAsTheFirstActOnASmallStackShowsItsCaller) {
    Testing::LogCapture log;
    { Testing::TestThread thread(&backtraceAsFirstAct, 65536); }
    EXPECT_GE(checkBacktrace(log.lines(), "on a small stack"), 3U);
    EXPECT_EQ(1U, log.with("backtraceAsFirstAct").size());
}

TEST(HTUtil, ThreadsHaveIdsButNoNames) {
    EXPECT_EQ(OSWrap::Thread::getCurrentId(), HTUtil::getCurrentThreadId());
    unsigned long other = 0;
    {
        Testing::TestThread thread([&] { other = HTUtil::getCurrentThreadId(); });
    }
    EXPECT_NE(0UL, other);
    EXPECT_EQ("", HTUtil::getName(HTUtil::getCurrentThreadId()));
    EXPECT_EQ("", HTUtil::getName(0));
}

/** A symbol under the name that a C program would link with. */
template <class Function>
Function *cSymbol(const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_DEFAULT, name));
}

TEST(HTUtil, EntryPointsHaveTheNamesThatCLinksWith) {
    auto *const print = cSymbol<void(const char *)>("afw_htutil_printbacktrace");
    ASSERT_NE(nullptr, print);
    ASSERT_NE(nullptr, cSymbol<void()>("afw_htutil_testabort"));
    auto *const willAbort = cSymbol<int()>("afw_htutil_willabort");
    ASSERT_NE(nullptr, willAbort);
    EXPECT_EQ(HTUtil::willabort() ? 1 : 0, willAbort());

    Testing::LogCapture log;
    print("from C");
    EXPECT_GE(checkBacktrace(log.lines(), "from C"), 1U);
    log.clear();
    print(nullptr);
    EXPECT_GE(checkBacktrace(log.lines(), "(null)"), 1U);
}

SCENARIO(htutil_decides_once) {
    const std::string root = std::getenv("REFLECTORB_ROOT");
    std::printf("first=%d ", HTUtil::willabort() ? 1 : 0);
    if (std::filesystem::exists(overrideFile(root))) {
        std::filesystem::remove(overrideFile(root));
    } else {
        makeOverride(root);
    }
    std::printf("then=%d entry=%d\n", HTUtil::willabort() ? 1 : 0, afw_htutil_willabort());
    std::fflush(stdout);
    HTUtil::testabort();
    afw_htutil_testabort();
    std::printf("alive\n");
}

TEST(HTUtil, OverrideThatIsRemovedLaterStillPreventsTheAbort) {
    const Testing::TempDir root;
    makeOverride(root.path());
    const Testing::ProcessResult result =
        Testing::runScenario("htutil_decides_once", {"REFLECTORB_ROOT=" + root.path()});
    EXPECT_NE(std::string::npos, result.output.find("first=0 then=0 entry=0\nalive\n")) << result.output;
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_FALSE(std::filesystem::exists(overrideFile(root.path())));
}

TEST(HTUtil, OverrideThatComesLaterDoesNotPreventTheAbort) {
    const Testing::TempDir root;
    const Testing::ProcessResult result =
        Testing::runScenario("htutil_decides_once", {"REFLECTORB_ROOT=" + root.path()});
    EXPECT_NE(std::string::npos, result.output.find("first=1 then=1 entry=1\n")) << result.output;
    EXPECT_EQ(std::string::npos, result.output.find("alive")) << result.output;
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_TRUE(std::filesystem::exists(overrideFile(root.path())));
}

TEST(HTUtil, WhateverCanBeOpenedIsAnOverride) {
    const Testing::TempDir root;
    std::filesystem::create_directories(overrideFile(root.path())); // a directory
    const Testing::ProcessResult result =
        Testing::runScenario("htutil_decides_once", {"REFLECTORB_ROOT=" + root.path()});
    EXPECT_NE(std::string::npos, result.output.find("first=0 then=0 entry=0\nalive\n")) << result.output;
}

TEST(HTUtil, APipeThatNobodyWritesToDoesNotBlockTheDecision) {
    const Testing::TempDir root;
    std::filesystem::create_directories(root.path() + "/ffs/run/zef_data/db");
    ASSERT_EQ(0, ::mkfifo(overrideFile(root.path()).c_str(), 0600));
    const Testing::ProcessResult result =
        Testing::runScenario("htutil_decides_once", {"REFLECTORB_ROOT=" + root.path()});
    EXPECT_NE(std::string::npos, result.output.find("first=0 then=0 entry=0\nalive\n")) << result.output;
}

SCENARIO(htutil_abort_writes_the_log) {
    LogDispatch(5, "the reason of the abort", "HTUtil_test");
    HTUtil::testabort();
}

TEST(HTUtil, TheAbortWritesOutWhatTheLogDoesNotShow) {
    const Testing::TempDir root;
    const Testing::ProcessResult result =
        Testing::runScenario("htutil_abort_writes_the_log",
                             {"REFLECTORB_ROOT=" + root.path(), "REFLECTORB_LOG=stderr", "REFLECTORB_LOG_LEVEL=4"});
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_NE(std::string::npos, result.output.find("the reason of the abort")) << result.output;
}

} // namespace
