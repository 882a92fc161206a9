#include "platform/posix/LogSinks_p.h"

#include "platform/Log.h"
#include "platform/Thread.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Testing::runScenario;

std::string contentOf(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::size_t countOf(const std::string &part, const std::string &text) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

TEST(ShownText, CutsOneNewlineAndEscapesControlCharacters) {
    EXPECT_EQ("a line", Log::shownText("a line\n"));
    EXPECT_EQ("a line\\x0A", Log::shownText("a line\n\n"));
    EXPECT_EQ("\\x0Aa", Log::shownText("\na"));
    EXPECT_EQ("", Log::shownText(""));
    EXPECT_EQ("", Log::shownText("\n"));
    EXPECT_EQ("\\x00\\x01\\x1B[31m\\x7F\\x0D", Log::shownText(std::string("\0\x01\x1B[31m\x7F\r", 9)));
    EXPECT_EQ("\xC3\xA4 ~", Log::shownText("\xC3\xA4 ~")) << "text beyond ASCII is text";
}

TEST(ShownText, IsCutAt64Kib) {
    constexpr std::size_t kMax = std::size_t{64} * 1024;
    EXPECT_EQ(std::string(kMax, 'x'), Log::shownText(std::string(kMax, 'x')));
    EXPECT_EQ(std::string(kMax, 'x'), Log::shownText(std::string(kMax + 1, 'x')));
    const std::string escaped = Log::shownText(std::string(kMax, '\x01'));
    EXPECT_GE(escaped.size(), kMax);
    EXPECT_LT(escaped.size(), kMax + 4) << "an escape is not cut through";
}

TEST(StockSinkOf, NothingHasNoDescriptorAndWritesNothing) {
    const std::unique_ptr<Log::StockSink> none = Log::makeStockSink("none");
    none->write(0, "nowhere", "src");
    EXPECT_EQ(-1, none->descriptor());
    EXPECT_EQ(-1, Log::makeStockSink("syslog")->descriptor());
    EXPECT_EQ(STDERR_FILENO, Log::makeStockSink("stderr")->descriptor());
}

TEST(StockSinkOf, AFileIsTheOwnersAlone) {
    const Testing::TempDir directory;
    const std::string path = directory.path() + "/log";
    const std::unique_ptr<Log::StockSink> file = Log::makeStockSink("file:" + path);
    file->write(2, "a line", "src");
    EXPECT_NE(std::string::npos, contentOf(path).find(" 2 src ")) << "is there when the call returns";
    struct stat status {};
    ASSERT_EQ(0, ::stat(path.c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777U);
    const int descriptor = file->descriptor();
    EXPECT_GT(descriptor, STDERR_FILENO);
    EXPECT_NE(0, ::fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
}

SCENARIO(abortWithoutFlush) {
    LogDispatch(5, "hidden", "src");
    LogDispatch(0, "the reason", "src");
    std::abort();
}

TEST(LogLevelZero, IsWrittenBeforeTheCallReturns) {
    const Testing::TempDir directory;
    const std::string path = directory.path() + "/log";
    EXPECT_EQ(SIGABRT, runScenario("abortWithoutFlush", {"REFLECTORB_LOG=file:" + path}).signal);
    EXPECT_EQ(1U, countOf("the reason\n", contentOf(path)));
    const Testing::ProcessResult result = runScenario("abortWithoutFlush");
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_EQ(1U, countOf("the reason\n", result.output));
    EXPECT_EQ(0U, countOf("hidden", result.output));
}

SCENARIO(hiddenLinesOfACapture) {
    LogDispatch(5, "before", "src");
    {
        const Testing::LogCapture capture;
        LogDispatch(6, "captured", "src");
        Log::flushBeforeAbort();
        SCENARIO_CHECK(capture.lines().size() == 1);
    }
    LogDispatch(6, "after", "src");
    Log::flushBeforeAbort();
}

TEST(HiddenLines, AreKeptByTheStockSinkOnly) {
    const std::string output = runScenario("hiddenLinesOfACapture").output;
    EXPECT_EQ(1U, countOf(" 5 src ", output)) << output;
    EXPECT_EQ(1U, countOf("] before\n", output));
    EXPECT_EQ(0U, countOf("captured", output));
    EXPECT_LT(output.find("] before\n"), output.find("] after\n"));
}

SCENARIO(everyLineIsCounted) {
    int ends[2];
    SCENARIO_CHECK(::pipe(ends) == 0);
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    ::dup2(ends[1], STDERR_FILENO);
    constexpr unsigned long kLines = 60;
    for (unsigned long i = 0; i < kLines; ++i) { // more than a pipe holds
        LogDispatch(3, std::string(4000, 'x') + "!", "src");
    }
    const auto readAll = [&ends] {
        std::string text;
        char buffer[4096];
        for (ssize_t length = 0; (length = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(length));
        }
        return text;
    };
    const std::string before = readAll();
    LogDispatch(3, "at last", "src");
    const std::string after = readAll();
    const std::size_t at = after.find("] ");
    SCENARIO_CHECK(at != std::string::npos);
    const unsigned long lost = std::strtoul(after.c_str() + at + 2, nullptr, 10);
    SCENARIO_CHECK(after.find(" lines were lost here\n") != std::string::npos);
    SCENARIO_CHECK(after.find("] at last\n") != std::string::npos);
    const std::size_t whole = countOf("!\n", before);
    const std::size_t begun = countOf(" 3 src ", before);
    SCENARIO_CHECK(lost > 0 && begun + lost == kLines);
    SCENARIO_CHECK(begun - whole <= 1); // at most the one during which the pipe became full
    std::exit(3);
}

TEST(StockSinkOverAPipe, CountsTheLinesThatItLoses) {
    const Testing::ProcessResult result = runScenario("everyLineIsCounted");
    EXPECT_EQ(3, result.exitStatus) << result.output;
}

TEST(LogSetSink, ReturnsWhenNoCallToTheSinkBeforeRuns) {
    Testing::Gate entered;
    Testing::Gate leave;
    std::atomic<bool> left{false};
    const Log::Sink stock = Log::setSink([&](int, const std::string &, const char *) {
        entered.open();
        leave.pass();
        left = true;
    });
    {
        Testing::TestThread logs([] { LogDispatch(3, "a line", "test"); });
        entered.pass();
        Testing::TestThread opens([&leave] { leave.open(); });
        Log::setSink(stock);
        EXPECT_TRUE(left);
    }
}

TEST(LogMakeStringFailure, GivesAnEmptyText) {
    const wchar_t notConvertible[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_EQ("", LogMakeString("text %ls", notConvertible));
}

TEST(LogWithoutMemory, LosesTheLineAndNothingElse) {
    const std::string longText(5000, 'x');
    std::string made = "not empty";
    {
        const Testing::FailingHeap noMemory(0, Testing::FailingHeap::Calls::all);
        if (Testing::kLibraryHeapIsProbed) {
            made = LogMakeString("%s", longText.c_str());
        }
        LogDispatch(3, longText, "test");
        LogDispatch(3, "short", "test");
        LogDispatch(6, "hidden", "test");
        Log::flushBeforeAbort();
    }
    if (Testing::kLibraryHeapIsProbed) {
        EXPECT_EQ("", made);
    }
    const Testing::LogCapture log;
    LogDispatch(3, "again", "test");
    EXPECT_EQ(1U, log.count(3, "again", "test"));
}

} // namespace
