// What a waiting thread reports. The times are those of the scaled clock; every number in a line is checked against
// the times at which the test saw the thread ask and get, and some run has to be as punctual as the texts promise.
#include "threads/DebugPermission_p.h"

#include "platform/IdInfo.h"
#include "support/Concurrency.h"
#include "support/LogCapture.h"
#include "support/OverrideRoot.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

using OSWrap::TimeSpec;
using Testing::eventually;
using Testing::Gate;
using Testing::TestThread;

namespace {

using Permission = DebugPermission<Debugging_t<1>>;
using Numbers = std::vector<unsigned long>;
constexpr char kSource[] = "HandlerThreadPolicies";

TimeSpec now() {
    return OSWrap::Clock::getObsTime();
}

unsigned long whole(const TimeSpec &span) {
    return static_cast<unsigned long>(span.sec());
}

/** The lines of a waiting thread about getting the permission, with the time at which each was logged. */
class Reports {
public:
    struct Line {
        TimeSpec time;
        std::string text;
    };

    Reports() {
        now(); // what the environment has to say about time is said before
        Log::setSink([this](int level, const std::string &text, const char *source) {
            if (text.find("::getRunPermission(thread=") == std::string::npos) {
                return;
            }
            const std::lock_guard<std::mutex> lock(lock_);
            lines_.push_back({now(), text});
            odd_ = odd_ || level != 5 || source != std::string(kSource);
        });
    }
    ~Reports() { Log::setSink(nullptr); }
    Reports(const Reports &) = delete;
    Reports &operator=(const Reports &) = delete;

    /** Takes the lines that are this text with a number before "s" at the end. */
    std::vector<Line> take(const std::string &text, Numbers &numbers) {
        const std::lock_guard<std::mutex> lock(lock_);
        std::vector<Line> taken;
        std::vector<Line> left;
        for (const Line &line : lines_) {
            unsigned long number = 0;
            char unit = 0;
            char more = 0;
            const bool matches = line.text.compare(0, text.size(), text) == 0 &&
                                 std::sscanf(line.text.c_str() + text.size(), "%lu%c%c", &number, &unit, &more) == 2 &&
                                 unit == 's';
            (matches ? taken : left).push_back(line);
            if (matches) {
                numbers.push_back(number);
            }
        }
        lines_ = left;
        return taken;
    }
    bool empty() {
        const std::lock_guard<std::mutex> lock(lock_);
        return lines_.empty();
    }
    std::size_t size() {
        const std::lock_guard<std::mutex> lock(lock_);
        return lines_.size();
    }
    bool odd() {
        const std::lock_guard<std::mutex> lock(lock_);
        return odd_;
    }

private:
    std::mutex lock_;
    std::vector<Line> lines_;
    bool odd_ = false; // wrong level or source
};

/** A thread that asks, gets, does something, gives back; and when it did that. */
struct Waiter {
    explicit Waiter(Permission &permission, const std::function<void()> &whileHeld = nullptr)
        : before(now()), inFront(permission.waiting()), thread([this, &permission, whileHeld] {
              tid = OSWrap::Thread::getCurrentTid();
              permission.get();
              got = now();
              if (whileHeld) {
                  whileHeld();
              }
              permission.release();
          }) {
        SCENARIO_CHECK(eventually([&] { return permission.waiting() == inFront + 1; }));
        queued = now();
    }

    std::string text(const char *event, int owner, const char *preposition) const {
        return LogMakeString("%s::getRunPermission(thread=%d) %s thread %d  %s ",
                             Transport::IdInfo::instance().getActor().c_str(), tid.load(), event, owner, preposition);
    }
    std::string waitingFor(int owner) const { return text("waiting for", owner, "since"); }
    std::string gotFrom(int owner) const { return text("got mutex from", owner, "after"); }

    const TimeSpec before;
    const unsigned inFront;
    TimeSpec queued;
    TimeSpec got;
    std::atomic<int> tid{0};
    TestThread thread;
};

bool passed(const TimeSpec &point) {
    return eventually([&] { return now() >= point; });
}

/** Reports every ten seconds, the first ten seconds after `since` at the earliest, none with a number too high. */
bool plausible(const Numbers &numbers, const std::vector<Reports::Line> &lines, const TimeSpec &since) {
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        if (numbers[i] < (i == 0 ? 10 : numbers[i - 1] + 10) || numbers[i] > whole(lines[i].time - since)) {
            return false;
        }
    }
    return true;
}

/** Runs the scenario until one run was punctual; all must go well. */
void runUntilExact(const std::string &scenario, const std::string &scale) {
    const Testing::TempDir root;
    std::string output;
    for (int attempt = 0; attempt < 6; ++attempt) {
        const Testing::ProcessResult result =
            Testing::runScenario(scenario, {"REFLECTORB_TIME_SCALE=" + scale, "REFLECTORB_ROOT=" + root.path()});
        ASSERT_EQ(0, result.exitStatus) << result.output;
        output = result.output;
        if (output.find("exact") != std::string::npos) {
            return;
        }
    }
    FAIL() << "never punctual: " << output;
}

SCENARIO(reports_none_before_ten_seconds) {
    Reports reports;
    Permission permission;
    permission.get();
    Waiter waiter(permission);
    SCENARIO_CHECK(passed(waiter.queued + TimeSpec(9)));
    permission.release();
    waiter.thread.join();
    if (waiter.got - waiter.before < TimeSpec(10)) {
        SCENARIO_CHECK(reports.empty());
        std::puts("exact");
    }
}

TEST(DebugPermissionReports, AWaitOfNineSecondsIsNotReported) {
    runUntilExact("reports_none_before_ten_seconds", "10");
}

SCENARIO(reports_a_wait_of_25_seconds) {
    Reports reports;
    Permission permission;
    permission.get();
    const int owner = OSWrap::Thread::getCurrentTid();
    Waiter waiter(permission);
    SCENARIO_CHECK(passed(waiter.queued + TimeSpec(25)));
    SCENARIO_CHECK(eventually([&] { return reports.size() >= 2; }));
    const TimeSpec released = now();
    permission.release();
    waiter.thread.join();

    Numbers waits;
    const auto lines = reports.take(waiter.waitingFor(owner), waits);
    SCENARIO_CHECK(waits.size() >= 2);
    SCENARIO_CHECK(plausible(waits, lines, waiter.before));
    Numbers gots;
    reports.take(waiter.gotFrom(owner), gots);
    SCENARIO_CHECK(gots.size() == 1);
    SCENARIO_CHECK(gots[0] >= whole(released - waiter.queued));
    SCENARIO_CHECK(gots[0] <= whole(waiter.got - waiter.before));
    SCENARIO_CHECK(reports.empty());
    SCENARIO_CHECK(!reports.odd());
    if (waits == Numbers{10, 20} && gots == Numbers{25}) {
        std::puts("exact");
    }
}

TEST(DebugPermissionReports, AWaitOf25SecondsIsReportedAtTenAtTwentyAndAtItsEnd) {
    runUntilExact("reports_a_wait_of_25_seconds", "20");
}

SCENARIO(reports_count_from_the_head) {
    Reports reports;
    Permission permission;
    permission.get();
    const int owner = OSWrap::Thread::getCurrentTid();
    Gate release;
    Waiter first(permission, [&] { release.pass(); });
    Waiter second(permission);
    SCENARIO_CHECK(passed(first.queued + TimeSpec(15)));
    SCENARIO_CHECK(eventually([&] { return !reports.empty(); }));
    Numbers firstWaits;
    reports.take(first.waitingFor(owner), firstWaits);
    SCENARIO_CHECK(reports.empty()); // nothing from the second one
    const TimeSpec handedOn = now();
    permission.release();

    SCENARIO_CHECK(eventually([&] { return permission.waiting() == 1; })); // the second one is the head now
    const TimeSpec head = now();
    Numbers firstGot;
    SCENARIO_CHECK(eventually([&] {
        reports.take(first.gotFrom(owner), firstGot);
        return !firstGot.empty();
    }));
    SCENARIO_CHECK(passed(head + TimeSpec(12)));
    SCENARIO_CHECK(eventually([&] { return !reports.empty(); }));
    const TimeSpec released = now();
    release.open();
    first.thread.join();
    second.thread.join();

    Numbers waits;
    const auto lines = reports.take(second.waitingFor(first.tid), waits);
    SCENARIO_CHECK(!waits.empty());
    SCENARIO_CHECK(plausible(waits, lines, handedOn));
    Numbers gots;
    reports.take(second.gotFrom(first.tid), gots);
    SCENARIO_CHECK(gots.size() == 1);
    SCENARIO_CHECK(gots[0] >= whole(released - head));
    SCENARIO_CHECK(gots[0] <= whole(second.got - handedOn));
    SCENARIO_CHECK(!reports.odd());
    if (firstWaits == Numbers{10} && firstGot == Numbers{15} && waits == Numbers{10} && gots == Numbers{12}) {
        std::puts("exact");
    }
}

TEST(DebugPermissionReports, SecondsCountFromTheHeadOfTheQueue) {
    runUntilExact("reports_count_from_the_head", "20");
}

/** Writes the lines to the output as they come: the process will abort. */
void echoLines() {
    now();
    Log::setSink([](int level, const std::string &text, const char *source) {
        std::printf("%d|%s|%s\n", level, source, text.c_str());
        std::fflush(stdout);
    });
}

SCENARIO(reports_give_up) {
    echoLines();
    Permission permission;
    permission.get();
    Waiter waiter(permission);
    std::printf("tids %d %d actor %s\n", waiter.tid.load(), OSWrap::Thread::getCurrentTid(),
                Transport::IdInfo::instance().getActor().c_str());
    std::fflush(stdout);
    passed(TimeSpec::INFINITETIME);
}

/** Checks the output of an actor that gave up; whether its reports came when they should. */
bool checkGivenUp(const std::string &output) {
    int tid = 0;
    int owner = 0;
    char actor[64] = "";
    const std::size_t place = output.find("tids ");
    EXPECT_NE(std::string::npos, place) << output;
    EXPECT_EQ(
        3, std::sscanf(output.c_str() + std::min(place, output.size()), "tids %d %d actor %63s", &tid, &owner, actor));
    const std::string head =
        LogMakeString("5|%s|%s::getRunPermission(thread=%d) waiting for thread %d  since ", kSource, actor, tid, owner);
    Numbers numbers;
    bool gaveUp = false;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("getRunPermission") == std::string::npos) {
            continue;
        }
        EXPECT_FALSE(gaveUp) << "the last line is that it gives up";
        EXPECT_EQ(head, line.substr(0, head.size()));
        char rest[32] = "";
        unsigned long number = 0;
        EXPECT_EQ(2, std::sscanf(line.c_str() + std::min(head.size(), line.size()), "%lu%31[^\n]", &number, rest));
        EXPECT_GE(number, numbers.empty() ? 10 : numbers.back() + 10);
        gaveUp = rest == std::string("s. Giving up");
        EXPECT_EQ(gaveUp ? "s. Giving up" : "s", std::string(rest));
        EXPECT_EQ(gaveUp, number > 89) << line;
        numbers.push_back(number);
    }
    EXPECT_TRUE(gaveUp) << output;
    return numbers == Numbers{10, 20, 30, 40, 50, 60, 70, 80, 90};
}

TEST(DebugPermissionReports, After90SecondsTheWaiterAbortsTheActor) {
    const Testing::TempDir root;
    bool exact = false;
    for (int attempt = 0; attempt < 6 && !exact && !HasFailure(); ++attempt) {
        const Testing::ProcessResult result =
            Testing::runScenario("reports_give_up", {"REFLECTORB_TIME_SCALE=25", "REFLECTORB_ROOT=" + root.path()});
        EXPECT_EQ(SIGABRT, result.signal) << result.output;
        exact = checkGivenUp(result.output);
    }
    EXPECT_TRUE(exact);
}

SCENARIO(reports_without_giving_up) {
    Reports reports;
    Permission permission;
    permission.get();
    const int owner = OSWrap::Thread::getCurrentTid();
    Waiter waiter(permission);
    Numbers waits;
    std::vector<Reports::Line> lines;
    SCENARIO_CHECK(eventually([&] {
        const auto more = reports.take(waiter.waitingFor(owner), waits);
        lines.insert(lines.end(), more.begin(), more.end());
        return !waits.empty() && waits.back() >= 100;
    }));
    permission.release();
    waiter.thread.join();
    SCENARIO_CHECK(plausible(waits, lines, waiter.before));
    Numbers gots;
    reports.take(waiter.gotFrom(owner), gots);
    SCENARIO_CHECK(gots.size() == 1 && gots[0] >= waits.back());
    SCENARIO_CHECK(reports.empty());
    SCENARIO_CHECK(!reports.odd());
    if (waits == Numbers{10, 20, 30, 40, 50, 60, 70, 80, 90, 100}) {
        std::puts("exact");
    }
}

TEST(DebugPermissionReports, WithTheOverrideTheReportsGoOnUntilThePermissionComes) {
    const Testing::OverrideRoot root;
    std::string output;
    for (int attempt = 0; attempt < 6 && output.find("exact") == std::string::npos; ++attempt) {
        const Testing::ProcessResult result =
            Testing::runScenario("reports_without_giving_up", root.environment({"REFLECTORB_TIME_SCALE=25"}));
        output = result.output;
        ASSERT_EQ(0, result.exitStatus) << output;
    }
    EXPECT_NE(std::string::npos, output.find("exact")) << output;
}

/**
 * A slow log shifts the reports so that the permission becomes free after more than 89 seconds and before the wake-up
 * that would give up.
 */
SCENARIO(reports_free_just_in_time) {
    Gate shifted;
    std::mutex lock;
    std::string lines;
    unsigned long last = 0;
    now();
    Log::setSink([&](int, const std::string &text, const char *) {
        const std::size_t number = text.find(" since ");
        if (number != std::string::npos && last == 0) {
            shifted.pass();
        }
        const std::lock_guard<std::mutex> locked(lock);
        lines += text + "\n";
        last = number != std::string::npos ? std::strtoul(text.c_str() + number + 7, nullptr, 10) : last;
    });
    Permission permission;
    permission.get();
    Waiter waiter(permission);
    SCENARIO_CHECK(passed(waiter.queued + TimeSpec(25)));
    shifted.open();
    SCENARIO_CHECK(eventually([&] {
        const std::lock_guard<std::mutex> locked(lock);
        return last >= 84;
    }));
    SCENARIO_CHECK(passed(waiter.queued + TimeSpec(90, 500000000)));
    permission.release();
    waiter.thread.join();
    Log::setSink(nullptr);
    SCENARIO_CHECK(lines.find("Giving up") == std::string::npos);
    SCENARIO_CHECK(lines.find(" got mutex from thread ") != std::string::npos);
    std::puts("exact");
}

TEST(DebugPermissionReports, WhatBecomesFreeJustBeforeTheEndIsTaken) {
    const Testing::TempDir root;
    Testing::ProcessResult result;
    // On a busy machine the release may come too late, and the actor aborts rightly.
    for (int attempt = 0; attempt < 6 && result.exitStatus != 0; ++attempt) {
        result = Testing::runScenario("reports_free_just_in_time",
                                      {"REFLECTORB_TIME_SCALE=25", "REFLECTORB_ROOT=" + root.path()});
    }
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("exact")) << result.output;
}

/** A log that hangs at the first report of a wait; main goes on meanwhile. */
class HangingLog {
public:
    HangingLog() {
        now();
        Log::setSink([this](int, const std::string &text, const char *) {
            if (text.find(" since ") != std::string::npos) {
                entered.open();
                timedOut_ = !resume.pass() || timedOut_;
            }
        });
    }
    ~HangingLog() { Log::setSink(nullptr); }
    HangingLog(const HangingLog &) = delete;
    HangingLog &operator=(const HangingLog &) = delete;
    bool timedOut() const { return timedOut_; }

    Gate entered;
    Gate resume;

private:
    std::atomic<bool> timedOut_{false};
};

void hangingLog(bool cancelHead) {
    HangingLog log;
    Permission permission;
    permission.get();
    std::vector<int> order; // guarded by the permission
    Waiter head(permission, [&] { order.push_back(0); });
    Waiter middle(permission, [&] { order.push_back(1); });
    Waiter last(permission, [&] { order.push_back(2); });
    SCENARIO_CHECK(log.entered.pass());
    // All this ends while the head stands in the log.
    SCENARIO_CHECK(middle.thread.stop());
    SCENARIO_CHECK(middle.thread.join());
    SCENARIO_CHECK(middle.thread.result() == 0);
    SCENARIO_CHECK(permission.waiting() == 2);
    if (cancelHead) {
        SCENARIO_CHECK(head.thread.stop());
        log.resume.open();
        SCENARIO_CHECK(head.thread.join());
        SCENARIO_CHECK(head.thread.result() == 0);
        SCENARIO_CHECK(permission.waiting() == 1);
        permission.release();
    } else {
        permission.release();
        SCENARIO_CHECK(permission.owner() == 0);
        log.resume.open();
    }
    head.thread.join();
    last.thread.join();
    SCENARIO_CHECK(!log.timedOut());
    SCENARIO_CHECK(order == (cancelHead ? std::vector<int>{2} : std::vector<int>{0, 2}));
    SCENARIO_CHECK(permission.waiting() == 0);
    SCENARIO_CHECK(permission.owner() == 0);
}

SCENARIO(reports_into_a_hanging_log) {
    hangingLog(false);
}

SCENARIO(reports_into_a_hanging_log_cancelled) {
    hangingLog(true);
}

TEST(DebugPermissionReports, AHangingLogDelaysNeitherTheOwnerNorOtherWaiters) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result =
        Testing::runScenario("reports_into_a_hanging_log", root.environment({"REFLECTORB_TIME_SCALE=100"}), 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST(DebugPermissionReports, AWaiterThatIsCancelledInAHangingLogLeavesTheQueue) {
    const Testing::OverrideRoot root;
    const Testing::ProcessResult result = Testing::runScenario("reports_into_a_hanging_log_cancelled",
                                                               root.environment({"REFLECTORB_TIME_SCALE=100"}), 100);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
