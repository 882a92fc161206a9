#include "platform/Log.h"

#include "platform/Thread.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Testing::runScenario;
using Strings = std::vector<std::string>;

std::string contentOf(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

Strings linesOf(const std::string &text) {
    Strings lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(LogMakeString, IsPrintfOfAnyLength) {
    EXPECT_EQ("a 07 0x2A  x|y  |", LogMakeString("a %02d 0x%X %2s|%-3s|", 7, 42, "x", "y"));
    EXPECT_EQ("", LogMakeString("%s", ""));
    EXPECT_EQ("100%", LogMakeString("%d%%", 100));
    const std::string longText(100 * 1024, 'z');
    EXPECT_EQ(longText + "!", LogMakeString("%s!", longText.c_str()));
    for (std::size_t length = 250; length < 260; ++length) { // around the size of its small buffer
        EXPECT_EQ(std::string(length, 'q'), LogMakeString("%s", std::string(length, 'q').c_str()));
    }
    char expected[32];
    std::snprintf(expected, sizeof expected, "%p", static_cast<const void *>(&longText));
    EXPECT_EQ(expected, LogMakeString("%p", static_cast<const void *>(&longText)));
}

TEST(LogMakeString, KeepsErrno) {
    errno = EXDEV;
    static_cast<void>(LogMakeString("%s %d", std::string(5000, 'x').c_str(), 1));
    EXPECT_EQ(EXDEV, errno);
    const wchar_t notConvertible[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_EQ("", LogMakeString("%ls", notConvertible));
    EXPECT_EQ(EXDEV, errno);
    const Log::Sink before = Log::setSink([](int, const std::string &, const char *) { errno = EDOM; });
    errno = EXDEV;
    LogDispatch(6, "a line", "test");
    EXPECT_EQ(EXDEV, errno);
    Log::setSink(before);
}

TEST(LogDispatch, GivesTheSinkTextLevelAndSourceUnchanged) {
    const Testing::LogCapture log;
    LogDispatch(4, "with a newline\n", "one");
    LogDispatch(-3, "below", "two");
    LogDispatch(99, "above", nullptr);
    EXPECT_EQ(1U, log.count(4, "with a newline\n", "one"));
    EXPECT_EQ(1U, log.count(0, "below", "two"));
    EXPECT_EQ(1U, log.count(6, "above", ""));
    EXPECT_EQ(3U, log.lines().size());
}

TEST(Log, SetSinkReturnsTheOneBefore) {
    int first = 0;
    int second = 0;
    const Log::Sink stock = Log::setSink([&first](int, const std::string &, const char *) { ++first; });
    EXPECT_FALSE(stock);
    const Log::Sink before = Log::setSink([&second](int, const std::string &, const char *) { ++second; });
    LogDispatch(1, "to the second", "test");
    Log::setSink(before);
    LogDispatch(1, "to the first", "test");
    Log::setSink({});
    EXPECT_EQ(1, first);
    EXPECT_EQ(1, second);
}

TEST(Log, ASinkThatLogsDoesNotHang) {
    int calls = 0;
    const Log::Sink before = Log::setSink([&calls](int, const std::string &, const char *) {
        ++calls;
        LogDispatch(1, "from inside", "test");
        Log::setSink({});
        Log::flushBeforeAbort();
    });
    LogDispatch(1, "a line", "test");
    LogDispatch(1, "another", "test");
    Log::setSink(before);
    EXPECT_EQ(2, calls);
}

TEST(Log, AThrowingSinkLosesTheLineOnly) {
    const Log::Sink before =
        Log::setSink([](int, const std::string &, const char *) { throw std::runtime_error("no"); });
    LogDispatch(1, "a line", "test");
    Log::setSink(before);
    const Testing::LogCapture log;
    LogDispatch(1, "another", "test");
    EXPECT_EQ(1U, log.lines().size());
}

SCENARIO(shownLines) {
    LogDispatch(4, "shown\n", "src");
    LogDispatch(5, "hidden", "src");
    LogDispatch(3, "tab\there", "src");
    LogDispatch(4, std::string(100 * 1024, 'L'), "src");
}

TEST(StockSink, ShowsTimeLevelSourceActorThreadAndText) {
    const Testing::ProcessResult result = runScenario("shownLines", {"REFLECTORB_ACTOR=me"});
    const Strings lines = linesOf(result.output);
    ASSERT_EQ(3U, lines.size()) << result.output.substr(0, 300);
    const std::string head = R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )";
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(head + R"(4 src me\[\d+\] shown$)"))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(head + R"(3 src me\[\d+\] tab\\x09here$)"))) << lines[1];
    EXPECT_GE(lines[2].size(), 64U * 1024);
    EXPECT_LT(lines[2].size(), 65U * 1024) << "cut";
}

TEST(StockSink, ShowsUpToTheConfiguredLevel) {
    const auto shown = [](const char *level) {
        std::size_t count = 0;
        for (const std::string &line : linesOf(runScenario("shownLines", {level}).output)) {
            count += line.find(" src ") != std::string::npos ? 1 : 0;
        }
        return count;
    };
    EXPECT_EQ(4U, shown("REFLECTORB_LOG_LEVEL=6"));
    EXPECT_EQ(3U, shown("REFLECTORB_LOG_LEVEL=4"));
    EXPECT_EQ(1U, shown("REFLECTORB_LOG_LEVEL=3"));
    EXPECT_EQ(0U, shown("REFLECTORB_LOG_LEVEL=2"));
    EXPECT_EQ(0U, runScenario("shownLines", {"REFLECTORB_LOG=none"}).output.size());
    EXPECT_EQ(0U, runScenario("shownLines", {"REFLECTORB_LOG=syslog"}).output.size());
}

TEST(StockSink, WritesToAFileAndAppends) {
    const Testing::TempDir directory;
    const std::string path = directory.path() + "/log";
    EXPECT_EQ("", runScenario("shownLines", {"REFLECTORB_LOG=file:" + path}).output);
    runScenario("shownLines", {"REFLECTORB_LOG=file:" + path});
    EXPECT_EQ(6U, linesOf(contentOf(path)).size());
}

TEST(StockSink, SaysWhenTheFileCannotBeOpenedAndGoesToErrorOutput) {
    const Strings lines = linesOf(runScenario("shownLines", {"REFLECTORB_LOG=file:/no/such/place"}).output);
    ASSERT_EQ(4U, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("cannot open log file /no/such/place: No such file or directory"));
}

SCENARIO(abortAfterLevelZero) {
    for (int i = 0; i < 100; ++i) {
        LogDispatch(6, LogMakeString("hidden %d", i), "src");
    }
    LogDispatch(0, "the reason", "src");
    Log::flushBeforeAbort();
    Log::flushBeforeAbort();
    std::abort();
}

TEST(StockSink, WritesTheLastHiddenLinesBeforeAnAbort) {
    const Testing::TempDir directory;
    const std::string path = directory.path() + "/log";
    EXPECT_EQ(SIGABRT, runScenario("abortAfterLevelZero", {"REFLECTORB_LOG=file:" + path}).signal);
    const Strings lines = linesOf(contentOf(path));
    ASSERT_EQ(65U, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("the reason"));
    EXPECT_NE(std::string::npos, lines[1].find("hidden 36"));
    EXPECT_NE(std::string::npos, lines[64].find("hidden 99"));
}

SCENARIO(eightThreadsLog) {
    std::vector<std::unique_ptr<Testing::TestThread>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.push_back(std::make_unique<Testing::TestThread>([i] {
            for (int n = 0; n < 200; ++n) {
                LogDispatch(4, "<" + std::string(static_cast<std::size_t>(100 + n), static_cast<char>('a' + i)) + ">",
                            "src");
            }
        }));
    }
}

TEST(StockSink, LinesOfManyThreadsAreNeverTorn) {
    const Strings lines = linesOf(runScenario("eightThreadsLog").output);
    EXPECT_EQ(1600U, lines.size());
    for (const std::string &line : lines) {
        const std::size_t begin = line.find('<');
        ASSERT_NE(std::string::npos, begin) << line;
        EXPECT_EQ(line.size() - 1, line.find_first_not_of(line[begin + 1], begin + 1)) << line;
        EXPECT_EQ('>', line.back());
    }
}

/** Error output is a pipe that nobody reads. Ends with 3 if all went on. */
SCENARIO(pipeThatNobodyReads) {
    int ends[2];
    if (::pipe(ends) != 0) {
        std::exit(1);
    }
    ::dup2(ends[1], STDERR_FILENO);
    const std::string line(4000, 'x');
    for (int i = 0; i < 40; ++i) { // more than a pipe holds
        LogDispatch(3, line, "src");
    }
    // A thread that is cancelled while its line waits for the pipe goes on to the next wait, and leaves the log free.
    {
        Testing::TestThread thread([&line] {
            LogDispatch(3, line, "src");
            OSWrap::Thread::sleep(OSWrap::TimeSpec::INFINITETIME);
        });
        thread.stop();
    }
    LogDispatch(3, "after", "src");
    // Once somebody reads again, the log says how much was lost.
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    std::string read;
    char buffer[4096];
    for (ssize_t length = 0; (length = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
        read.append(buffer, static_cast<std::size_t>(length));
    }
    LogDispatch(3, "at last", "src");
    read.clear();
    for (ssize_t length = 0; (length = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
        read.append(buffer, static_cast<std::size_t>(length));
    }
    const bool said =
        read.find("lines were lost here") != std::string::npos && read.find("at last") != std::string::npos;
    std::exit(said ? 3 : 2);
}

TEST(StockSink, AReaderThatDoesNotReadStopsNobody) {
    EXPECT_EQ(3, runScenario("pipeThatNobodyReads").exitStatus);
}

/** Whoever read the error output is gone. */
SCENARIO(brokenPipe) {
    int ends[2];
    if (::pipe(ends) != 0) {
        std::exit(1);
    }
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[0]);
    LogDispatch(3, "nobody reads this", "src");
    sigset_t pending;
    ::sigpending(&pending);
    std::exit(sigismember(&pending, SIGPIPE) == 0 ? 3 : 2);
}

TEST(StockSink, AReaderThatIsGoneDoesNotEndTheActor) {
    const Testing::ProcessResult result = runScenario("brokenPipe");
    EXPECT_EQ(0, result.signal);
    EXPECT_EQ(3, result.exitStatus);
}

/** A child of fork() that logs, while another thread of the parent was logging. */
SCENARIO(forkedWhileLogging) {
    std::atomic<bool> stop{false};
    bool good = true;
    {
        Testing::TestThread chatter([&stop] {
            while (!stop) {
                LogDispatch(4, "chatter", "src");
            }
        });
        for (int i = 0; i < 50; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                LogDispatch(4, "from the child", "src");
                ::_exit(0);
            }
            int status = 0;
            good = ::waitpid(child, &status, 0) == child && status == 0 && good;
        }
        stop = true;
    }
    std::exit(good ? 3 : 1);
}

TEST(StockSink, AForkedChildMayLog) {
    const Testing::TempDir directory;
    const std::string path = directory.path() + "/log";
    EXPECT_EQ(3, runScenario("forkedWhileLogging", {"REFLECTORB_LOG=file:" + path}).exitStatus);
    const std::string text = contentOf(path);
    std::size_t count = 0;
    for (std::size_t at = text.find("from the child"); at != std::string::npos;
         at = text.find("from the child", at + 1)) {
        ++count;
    }
    EXPECT_EQ(50U, count);
}

SCENARIO(rawDescriptor) {
    LogDispatch(4, "a line first", "src");
    const char text[] = "raw\n";
    std::exit(::write(Log::rawDescriptor(), text, sizeof text - 1) == sizeof text - 1 ? 3 : 1);
}

TEST(StockSink, TellsItsDescriptor) {
    const Testing::TempDir directory;
    const std::string path = directory.path() + "/log";
    EXPECT_EQ(3, runScenario("rawDescriptor", {"REFLECTORB_LOG=file:" + path}).exitStatus);
    EXPECT_EQ("raw", linesOf(contentOf(path)).at(1));
    EXPECT_EQ(1, runScenario("rawDescriptor", {"REFLECTORB_LOG=none"}).exitStatus);
}

} // namespace
