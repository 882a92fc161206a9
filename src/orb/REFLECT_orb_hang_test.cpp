#include "orb/HangReport_p.h"
#include "orb/REFLECT_orb.h"

#include "support/BrokerTest.h"
#include "support/Call.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "support/TempDir.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using Testing::Call;
using Transport::AddressedMessage;
using Transport::FakeLink;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);

// Requests that hang, in processes of their own with a fast clock.

/** Makes a request that is never answered, and prints the lines of the broker with their levels. */
void hang(TerminationId target) {
    FakeLink &link = FakeLink::install();
    Log::setSink([](int level, const std::string &line, const char *source) {
        if (std::string(source) == kSource && level <= 4) {
            std::printf("%d %s\n", level, line.c_str());
            std::fflush(stdout);
        }
    });
    TreflectORB &orb = *TreflectORB::getInstance(1);
    link.peerAppears(target);
    Call call(orb, target);
    call.answer();
}

SCENARIO(hangInAnotherSlot) {
    hang(kPeer);
}
SCENARIO(hangInTheOwnSlot) {
    hang(TerminationId(0x0042, 1, 1));
}

/** A response that comes while the waiting thread is at its report of the given line, for the given time. */
void respondDuring(const std::string &line, unsigned occurrence) {
    FakeLink &link = FakeLink::install();
    Testing::Gate reached;
    Testing::Gate responded;
    std::atomic<unsigned> found{0};
    std::atomic<bool> after{false};
    Log::setSink([&](int, const std::string &text, const char *) {
        after = after || (found == occurrence && text.find(" waits now ") != std::string::npos);
        if (text.find(line) != std::string::npos && ++found == occurrence) {
            reached.open();
            SCENARIO_CHECK(responded.pass());
        }
    });
    TreflectORB &orb = *TreflectORB::getInstance(1);
    link.peerAppears(kPeer);
    Call call(orb, kPeer);
    const std::vector<AddressedMessage> issued = link.takeIssued(1);
    SCENARIO_CHECK(!issued.empty() && reached.pass());
    TreflectMessage head = orb.allocateResponse(TreflectMessage(issued[0]), 20);
    TipprmiStream body(std::move(head), true);
    body << 0x77U;
    AddressedMessage response = body.msg().addressed();
    response.originator() = kPeer;
    response.destination() = orb.termId();
    SCENARIO_CHECK(orb.receive(response)); // does not wait for the one that reports
    responded.open();
    SCENARIO_CHECK(call.answer() == "00 00 00 77" && call.result == 1);
    SCENARIO_CHECK(!after);
    Log::setSink({});
}

SCENARIO(responseDuringAReport) {
    respondDuring(" waits now  30 seconds for response from 0x00420201", 1);
}
SCENARIO(responseAfterTheTargetWasToldToReset) {
    respondDuring(" waits now 5 minutes for 0x00420201, sending response failure message succeeded", 2);
}

/** Each response comes when a step has just ended, so before, in or behind the beginning of the next. */
SCENARIO(responsesAtTheEndOfAStep) {
    FakeLink &link = FakeLink::install();
    std::atomic<unsigned> steps{0};
    Log::setSink([&](int level, const std::string &text, const char *) {
        steps += level == 4 && text.find(" seconds for response from ") != std::string::npos ? 1 : 0;
    });
    TreflectORB &orb = *TreflectORB::getInstance(1);
    link.peerAppears(kPeer);
    for (unsigned round = 0; round < 100; ++round) {
        const unsigned before = steps;
        Call call(orb, kPeer);
        const std::vector<AddressedMessage> issued = link.takeIssued(1);
        SCENARIO_CHECK(!issued.empty());
        SCENARIO_CHECK(Testing::eventually([&] { return steps != before; }));
        TipprmiStream body(orb.allocateResponse(TreflectMessage(issued[0]), 20), true);
        body << round;
        AddressedMessage response = body.msg().addressed();
        response.originator() = kPeer;
        response.destination() = orb.termId();
        link.deliver(response);
        unsigned number = ~0U;
        call.answer();
        call.response >> number;
        SCENARIO_CHECK(call.result == 1 && number == round);
    }
    Log::setSink({});
}

/** No process may be started: the actor says so, and goes on. */
SCENARIO(scriptThatCannotBeStarted) {
    const Testing::LogCapture log;
    FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const TreflectMessage request(&orb, 1, 100);
    SCENARIO_CHECK(::geteuid() != 0 || ::setuid(65534) == 0); // no limit holds for root
    SCENARIO_CHECK(::prctl(PR_SET_DUMPABLE, 1) == 0);         // leak checkers look at their process from another one
    rlimit before{};
    SCENARIO_CHECK(::getrlimit(RLIMIT_NPROC, &before) == 0);
    const rlimit none{0, before.rlim_max};
    SCENARIO_CHECK(::setrlimit(RLIMIT_NPROC, &none) == 0);
    HangReport::afterStep(7, kPeer, request, true, orb);
    SCENARIO_CHECK(::setrlimit(RLIMIT_NPROC, &before) == 0);
    const std::string expected = "wait: Forking child failed due to: " + std::string(std::strerror(EAGAIN));
    SCENARIO_CHECK(log.count(3, expected, kSource) == 1);
}

std::size_t occurrences(const std::string &text, const std::string &what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

class HangTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(root_.path() + "/ffs/run/logs");
        std::filesystem::create_directories(root_.path() + "/opt/zef/bin");
        // The launcher notes what it was started with.
        const std::string launcher = root_.path() + "/opt/zef/bin/llpd";
        std::ofstream(launcher) << "#!/bin/sh\necho \"started $1\" >>" << root_.path() << "/started\n";
        std::filesystem::permissions(launcher, std::filesystem::perms::owner_all);
    }
    Testing::ProcessResult run(const char *scenario, const char *minutes, unsigned scale = 200) {
        std::ofstream(root_.path() + "/ffs/run/logs/orbWaitDuration") << minutes << "\n";
        return Testing::runScenario(scenario, {"REFLECTORB_TIME_SCALE=" + std::to_string(scale), "REFLECTORB_SLOT=1",
                                               "REFLECTORB_ROOT=" + root_.path()});
    }

    const Testing::TempDir root_;
};

TEST_F(HangTest, InAnotherSlotItIsToldTwiceAndThenTheUnitIsReset) {
    const Testing::ProcessResult result = run("hangInAnotherSlot", "10");
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    for (int seconds = 30; seconds <= 600; seconds += 30) {
        EXPECT_EQ(1U, occurrences(result.output,
                                  LogMakeString(" waits now %3d seconds for response from 0x00420201\n", seconds)))
            << seconds;
    }
    EXPECT_EQ(2U, occurrences(result.output, " waits now 5 minutes for 0x00420201, sending response failure message "
                                             "succeeded\n"));
    std::string order; // of the levels, without the script and the end
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        order += line.find(" waits now ") != std::string::npos ? line.substr(0, 1) : "";
    }
    EXPECT_EQ(std::string(10, '4') + "343" + std::string(9, '4') + "0", order);
    EXPECT_EQ(1U, occurrences(result.output, "3 Triggered debug_orbhang.sh at 210 seconds\n\n"));
    EXPECT_EQ(1U, occurrences(result.output, "0 ORB Ox"));
    EXPECT_EQ(1U, occurrences(result.output, " waits now 10 minutes for 0x00420201\n"));
    EXPECT_EQ(1U, occurrences(result.output, " failed to reset unit, EXIT ACTOR\n"));
}

TEST_F(HangTest, AResponseIsTakenWhileAStepIsReported) {
    for (const char *scenario : {"responseDuringAReport", "responseAfterTheTargetWasToldToReset"}) {
        const Testing::ProcessResult result = run(scenario, "10");
        EXPECT_EQ(0, result.exitStatus) << scenario << result.output;
    }
}

TEST_F(HangTest, AResponseMayRaceWithTheEndOfAStep) {
    const Testing::ProcessResult result = run("responsesAtTheEndOfAStep", "1000000000", 3000);
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(HangTest, AScriptThatCannotBeStartedIsReported) {
    const Testing::ProcessResult result = run("scriptThatCannotBeStarted", "10");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(HangTest, InTheOwnSlotItIsNotTold) {
    const Testing::ProcessResult result = run("hangInTheOwnSlot", "15");
    EXPECT_EQ(SIGABRT, result.signal) << result.output;
    EXPECT_EQ(0U, occurrences(result.output, "sending response failure message"));
    EXPECT_EQ(1U, occurrences(result.output, " waits now 900 seconds for response"));
    EXPECT_EQ(1U, occurrences(result.output, " waits now 15 minutes for 0x00420101\n"));
}

TEST_F(HangTest, TheScriptIsReallyStarted) {
    run("hangInTheOwnSlot", "10");
    const auto started = [this] {
        std::ifstream file(root_.path() + "/started");
        std::string line;
        std::getline(file, line);
        return line;
    };
    EXPECT_TRUE(Testing::eventually([&] { return !started().empty(); }));
    EXPECT_EQ("started " + root_.path() + "/opt/zef/bin/debug_orbhang.sh", started());
}

TEST_F(HangTest, AMissingLauncherLeavesOneProcess) {
    std::filesystem::remove(root_.path() + "/opt/zef/bin/llpd");
    const Testing::ProcessResult result = run("hangInTheOwnSlot", "10");
    // A second copy of the actor would log each step once more.
    EXPECT_EQ(1U, occurrences(result.output, " waits now 300 seconds"));
    EXPECT_EQ(1U, occurrences(result.output, " waits now 600 seconds"));
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_EQ(1U, occurrences(result.output, "wait: execl error: -1:2:No such file or directory\n"));
}

using HangMemoryTest = Testing::BrokerTest;

TEST_F(HangMemoryTest, WithoutMemoryForItsPathTheScriptIsNotStarted) {
    for (unsigned type = TreflectMessage::tUndef; type <= TreflectMessage::tPfCnt; ++type) {
        TreflectMessage request(&orb, 1, 100);
        request.type(static_cast<TreflectMessage::type_t>(type));
        bool thrown = false;
        {
            const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
            try {
                HangReport::afterStep(7, kPeer, request, true, orb);
            } catch (const std::bad_alloc &) {
                thrown = true;
            }
        }
        EXPECT_FALSE(thrown) << type;
    }
}

} // namespace
