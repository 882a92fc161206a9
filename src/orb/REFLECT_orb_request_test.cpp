#include "orb/OngoingRequest_p.h"
#include "orb/REFLECT_orb.h"

#include "rmi/IPPRMI_exception.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "support/TempDir.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

namespace {

using Message = TreflectMessage;
using Transport::AddressedMessage;
using Transport::FakeLink;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr TerminationId kOther(0x0043, 2, 1);

/** A thread that makes one two-way request, and what came of it. */
struct Call {
    Call(TreflectORB &orb, TerminationId target, bool twoWay = true)
        : thread([this, &orb, target, twoWay] {
              TipprmiStream request(orb.allocateRequest(100), true);
              request << 1U << twoWay << 2U << 3U;
              request.msg().type(Message::tPayld);
              result = orb.forwardMsg_(target, twoWay, request.msg(), response) ? 1 : 0;
              done = true;
          }) {}
    /** When the call has ended. */
    std::string answer() {
        thread.join();
        return Testing::hex(response);
    }

    TipprmiStream response{100};
    int result = -1;
    std::atomic<bool> done{false};
    Testing::TestThread thread;
};

constexpr char kFailure[] = "00 00 00 01 00 00 00 04 00 00 00 00";

class RequestTest : public Testing::BrokerTest {
protected:
    RequestTest() {
        link.peerAppears(kPeer);
        link.peerAppears(kOther);
    }

    AddressedMessage nextRequest() {
        std::vector<AddressedMessage> issued = link.takeIssued(1);
        EXPECT_EQ(1U, issued.size());
        return issued.empty() ? AddressedMessage() : issued[0];
    }
    void respond(const AddressedMessage &request, unsigned number, unsigned kind = Message::kResp) {
        TreflectMessage response = orb.allocateResponse(TreflectMessage(request), 20);
        response.kind(static_cast<Message::kind_t>(kind));
        TipprmiStream body(std::move(response), true);
        body << number;
        AddressedMessage message = body.msg().addressed();
        message.originator() = request.destination();
        message.destination() = request.originator();
        link.deliver(message);
    }
    std::string aborted(bool disconnected, bool gone) const {
        return LogMakeString("ORB 0x%08X request to target 0x%08X aborted (Detection Rem.Disc.=%s, TargetGone=%s)",
                             orb.termId().value(), kPeer.value(), disconnected ? "true" : "false",
                             gone ? "true" : "false");
    }
};

TEST_F(RequestTest, ARequestGoesOutAsItShouldAndItsResponseComesBack) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    const TreflectMessage message(request);
    EXPECT_EQ(kPeer, request.destination());
    EXPECT_EQ(orb.termId(), request.originator());
    EXPECT_EQ(Message::kRequ, message.kind());
    EXPECT_EQ(Message::tPayld, message.type());
    EXPECT_EQ(orb.orbId().nameId() | (orb.orbId().slotId() & 0xFU) << 16, message.transactionId() & 0xFFFFFU);
    EXPECT_FALSE(call.done);
    respond(request, 0x77);
    EXPECT_EQ("00 00 00 77", call.answer());
    EXPECT_EQ(1, call.result);
}

TEST_F(RequestTest, CallersGetTheirOwnResponses) {
    Call one(orb, kPeer);
    const AddressedMessage first = nextRequest();
    Call two(orb, kPeer);
    const AddressedMessage second = nextRequest();
    EXPECT_NE(TreflectMessage(first).transactionId(), TreflectMessage(second).transactionId());
    respond(second, 2);
    EXPECT_EQ("00 00 00 02", two.answer());
    EXPECT_FALSE(one.done);
    respond(first, 1);
    EXPECT_EQ("00 00 00 01", one.answer());
}

TEST_F(RequestTest, ATargetThatGoesEndsItsCallsOnly) {
    Call toPeer(orb, kPeer);
    nextRequest();
    Call toOther(orb, kOther);
    const AddressedMessage request = nextRequest();
    link.peerVanishes(kPeer);
    EXPECT_EQ(kFailure, toPeer.answer());
    EXPECT_EQ(0, toPeer.result);
    EXPECT_EQ(1U, log.count(3, aborted(true, false), kSource));
    EXPECT_FALSE(toOther.done);
    respond(request, 5);
    EXPECT_EQ("00 00 00 05", toOther.answer());
}

TEST_F(RequestTest, AReturnedRequestEndsItsCall) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    link.bounce(request);
    EXPECT_EQ(kFailure, call.answer());
    EXPECT_EQ(1U, log.count(3,
                            LogMakeString("ORB 0x%08X receives TRANSPORT_ERROR message of termId 0x%08X",
                                          orb.termId().value(), kPeer.value()),
                            kSource));
    EXPECT_EQ(Message::kRequ, TreflectMessage(request).kind()) << "the sender's own message must not change";
}

TEST_F(RequestTest, AResponseIsHandedOverWithoutMemory) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    const TreflectMessage response = orb.allocateResponse(TreflectMessage(request), 20);
    {
        const Testing::HeapProbe heap;
        const Testing::FailingHeap none;
        EXPECT_TRUE(orb.receive(response.addressed()));
        EXPECT_EQ(0U, heap.allocations());
    }
    EXPECT_NE(kFailure, call.answer());
    EXPECT_EQ(1, call.result);
}

TEST_F(RequestTest, WithoutMemoryToMarkAReturnedRequestTheCallFails) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    {
        const Testing::FailingHeap none;
        EXPECT_TRUE(orb.receiveError(request));
    }
    EXPECT_EQ(kFailure, call.answer());
    EXPECT_EQ(0, call.result);
}

TEST_F(RequestTest, ToNobodyFailsAtOnce) {
    for (bool twoWay : {true, false}) {
        log.clear();
        Call call(orb, TerminationId(0x0099, 1, 1), twoWay);
        EXPECT_EQ(kFailure, call.answer());
        EXPECT_EQ(0, call.result);
        EXPECT_EQ(1U, log.with("could not find destination termId=0x00990101 for transactionId ").size());
    }
}

TEST_F(RequestTest, OneWayDoesNotWaitAndLeavesNothingBehind) {
    Call call(orb, kPeer, false);
    EXPECT_EQ("", call.answer());
    EXPECT_EQ(1, call.result);
    const AddressedMessage request = nextRequest();
    EXPECT_EQ(Message::kMsg, TreflectMessage(request).kind());
    respond(request, 1);
    EXPECT_EQ(1U, log.with("receives unexpected response").size());
}

TEST_F(RequestTest, IdsWrapAndPendingOnesArePassedOver) {
    Call pending(orb, kPeer);
    const AddressedMessage first = nextRequest();
    const unsigned taken = TreflectMessage(first).transactionId();
    std::set<unsigned> ids;
    for (unsigned i = 0; i < 4095 + 10; ++i) {
        Call call(orb, kPeer, false);
        call.answer();
        ids.insert(TreflectMessage(nextRequest()).transactionId());
    }
    EXPECT_EQ(4095U, ids.size());
    EXPECT_EQ(0U, ids.count(taken));
    respond(first, 9);
    EXPECT_EQ("00 00 00 09", pending.answer());
}

TEST_F(RequestTest, ACancelledCallerLeavesNothingBehind) {
    auto call = std::make_unique<Call>(orb, kPeer);
    const AddressedMessage request = nextRequest();
    EXPECT_TRUE(call->thread.stop());
    EXPECT_TRUE(call->thread.join());
    EXPECT_FALSE(call->done);
    call.reset();
    respond(request, 1);
    EXPECT_EQ(1U, log.with("receives unexpected response").size()) << "its entry is gone";
    Call next(orb, kPeer);
    respond(nextRequest(), 2);
    EXPECT_EQ("00 00 00 02", next.answer());
}

TEST_F(RequestTest, CallersDoNotHoldTheRunPermissionWhileTheyWait) {
    Call call(orb, kPeer);
    const AddressedMessage request = nextRequest();
    {
        const TreflectHandlerState state(true); // would wait for ever
        EXPECT_TRUE(TreflectORB::hasRunPermission());
    }
    respond(request, 1);
    EXPECT_EQ("00 00 00 01", call.answer());
}

/** The response and the end of the target come together, in all orders; each call ends once and with one of the two. */
TEST_F(RequestTest, AResponseMayRaceWithTheEndOfItsTarget) {
    for (int round = 0; round < 200; ++round) {
        Call call(orb, kPeer);
        const AddressedMessage request = nextRequest();
        {
            Testing::TestThread responder([&] { respond(request, 3); });
            link.peerVanishes(kPeer);
        }
        const std::string answer = call.answer();
        ASSERT_TRUE((answer == "00 00 00 03" && call.result == 1) || (answer == kFailure && call.result == 0))
            << answer;
        link.peerAppears(kPeer);
    }
}

/** A thread's next request is entered while the target of the one before goes. */
TEST_F(RequestTest, TheEndOfTheTargetBeforeDoesNotTouchTheNextRequest) {
    ASSERT_TRUE(
        log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), kOther.value()), kSource));
    for (int round = 0; round < 200; ++round) {
        std::string second;
        bool good = false;
        Testing::TestThread caller([&] {
            for (TerminationId target : {kPeer, kOther}) {
                TipprmiStream response(100);
                TipprmiStream request(orb.allocateRequest(100), true);
                good = orb.forwardMsg_(target, true, request.msg(), response);
                second = Testing::hex(response);
            }
        });
        respond(nextRequest(), 1);
        link.peerVanishes(kPeer);
        respond(nextRequest(), 2);
        caller.join();
        ASSERT_TRUE(good);
        ASSERT_EQ("00 00 00 02", second) << round;
        log.clear();
        link.peerAppears(kPeer);
        // The disappearance is told by a thread of its own: told late, it would end the next round's first request.
        ASSERT_TRUE(log.waitFor(5, LogMakeString("ORB 0x%08X sees 0x%08X appear", orb.termId().value(), kPeer.value()),
                                kSource));
    }
}

TEST_F(RequestTest, AShortCallIsReportedAndSent) {
    TipprmiStream request(orb.allocateRequest(100), true);
    TipprmiStream response(100);
    const unsigned char body[15] = {};
    request.marshall(body, sizeof body);
    EXPECT_TRUE(orb.forwardMsg(orb.convertId(kPeer), false, request, response));
    EXPECT_EQ(
        1U,
        log.count(3, LogMakeString("ORB 0x%08X forwardMsg message too short (iptr_=15,size=96)", orb.termId().value()),
                  kSource));
    EXPECT_EQ(Message::tPayld, TreflectMessage(nextRequest()).type());
}

// --- hanging requests, in a process of their own with a fast clock ---------------------------------------------------

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
    Testing::ProcessResult run(const char *scenario, const char *minutes) {
        std::ofstream(root_.path() + "/ffs/run/logs/orbWaitDuration") << minutes << "\n";
        return Testing::runScenario(
            scenario, {"REFLECTORB_TIME_SCALE=200", "REFLECTORB_SLOT=1", "REFLECTORB_ROOT=" + root_.path()});
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
    EXPECT_EQ(1U, occurrences(result.output, "3 Triggered debug_orbhang.sh at 210 seconds\n\n"));
    EXPECT_EQ(1U, occurrences(result.output, "0 ORB Ox"));
    EXPECT_EQ(1U, occurrences(result.output, " waits now 10 minutes for 0x00420201\n"));
    EXPECT_EQ(1U, occurrences(result.output, " failed to reset unit, EXIT ACTOR\n"));
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
}

} // namespace
