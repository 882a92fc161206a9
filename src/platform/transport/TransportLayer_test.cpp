#include "platform/TransportLayer.h"

#include "platform/IdInfo.h"
#include "platform/Log.h"
#include "platform/OSWrap.h"
#include "platform/transport/testing/FakeLink.h"
#include "support/HeapProbe.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>

namespace Transport {
namespace {

using Locked = OSWrap::Lock<OSWrap::ConditionVar>;
using Strings = std::vector<std::string>;
const OSWrap::TimeSpec kPatience(30);

constexpr GroupId kGroup = GRPID_SLOT1;
constexpr TerminationId kPeer(0x0042, 2, kGroup);
constexpr TerminationId kOtherPeer(0x0007, 3, kGroup);

/** Notes what is called, in order: "+ID", "-ID", "m", "e"; runs what a test wants to happen meanwhile. */
class Recorder : public TerminationImpl {
public:
    explicit Recorder(GroupId group = kGroup) : TerminationImpl(group, "recorder") {}
    ~Recorder() override { stop(); }

    bool receive(const AddressedMessage &message) override {
        note("m", &message);
        return true;
    }
    bool receiveError(const AddressedMessage &message) override {
        note("e", &message);
        return true;
    }
    void appeared(Termination &other) override { note(LogMakeString("+%08X", other.termId().value())); }
    void disappeare(Termination &other) override { note(LogMakeString("-%08X", other.termId().value())); }

    bool waitFor(const std::string &event, std::size_t times = 1) {
        return waitUntil(
            [&] { return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event)) >= times; });
    }
    Strings events() {
        Locked lock(changed_);
        return events_;
    }
    std::vector<AddressedMessage> messages() {
        Locked lock(changed_);
        return messages_;
    }
    std::set<unsigned long> threads() {
        Locked lock(changed_);
        return threads_;
    }
    /** Called with each event after it was noted. Set before start(). */
    std::function<void(const std::string &)> during;

private:
    void note(const std::string &event, const AddressedMessage *message = nullptr) {
        {
            Locked lock(changed_);
            events_.push_back(event);
            if (message != nullptr) {
                messages_.push_back(*message);
                threads_.insert(OSWrap::Thread::getCurrentId());
            }
            changed_.broadcast();
        }
        if (during) {
            during(event);
        }
    }
    bool waitUntil(const std::function<bool()> &condition) {
        const OSWrap::TimeSpec limit = OSWrap::Clock::getObsTime() + kPatience;
        Locked lock(changed_);
        while (!condition()) {
            if (OSWrap::Clock::getObsTime() > limit) {
                return false;
            }
            changed_.wait(OSWrap::TimeSpec(1));
        }
        return true;
    }

    OSWrap::ConditionVar changed_{false};
    Strings events_;
    std::vector<AddressedMessage> messages_;
    std::set<unsigned long> threads_;
};

/** Lets a callback wait until the test says so. */
class Gate {
public:
    void pass() {
        Locked lock(changed_);
        arrived_ = true;
        changed_.broadcast();
        while (!open_) {
            changed_.wait(OSWrap::TimeSpec::INFINITETIME);
        }
    }
    void awaitArrival() {
        Locked lock(changed_);
        while (!arrived_) {
            changed_.wait(OSWrap::TimeSpec::INFINITETIME);
        }
    }
    void open() {
        Locked lock(changed_);
        open_ = true;
        changed_.broadcast();
    }

private:
    OSWrap::ConditionVar changed_{false};
    bool arrived_ = false;
    bool open_ = false;
};

AddressedMessage messageFrom(TerminationId from, TerminationId to, unsigned char content = 1) {
    AddressedMessage message = AddressedMessage::allocate(1, 4);
    message.buf()[0] = content;
    message.originator() = from;
    message.destination() = to;
    return message;
}

Strings values(const std::list<TerminationId> &ids) {
    Strings result;
    for (TerminationId id : ids) {
        result.push_back(LogMakeString("%08X", id.value()));
    }
    return result;
}

std::string text(TerminationId id) {
    return LogMakeString("%08X", id.value());
}

class TransportLayerTest : public testing::Test {
protected:
    void TearDown() override { link.reset(); }

    FakeLink &link = FakeLink::install();
    Testing::LogCapture log;
};

TEST_F(TransportLayerTest, ATerminationIsThereFromStartToStop) {
    Recorder own;
    EXPECT_NE(0U, own.termId().nameId());
    EXPECT_EQ(IdInfo::getSlot(), own.termId().slot());
    EXPECT_EQ(kGroup, own.termId().groupId());
    EXPECT_FALSE(own.started());
    EXPECT_FALSE(TransportLayer::exists(own.termId()));
    EXPECT_FALSE(TransportLayer::getTermination(own.termId()));

    EXPECT_TRUE(own.start());
    EXPECT_TRUE(own.start()) << "a second start changes nothing";
    EXPECT_TRUE(own.started());
    EXPECT_TRUE(TransportLayer::instance()->exists(own.termId()));
    EXPECT_EQ(own.termId(), TransportLayer::getTermination(own.termId())->termId());
    EXPECT_EQ((Strings{text(own.termId())}), values(TransportLayer::getGroup(kGroup).contains()));
    EXPECT_EQ((std::set<unsigned>{own.termId().value()}), link.announced());
    EXPECT_TRUE(own.waitFor("+" + text(own.termId())));

    EXPECT_TRUE(own.stop());
    own.stop();
    EXPECT_FALSE(own.started());
    EXPECT_FALSE(TransportLayer::exists(own.termId()));
    EXPECT_FALSE(TransportLayer::getTermination(own.termId()));
    EXPECT_TRUE(link.announced().empty());
    EXPECT_FALSE(own.start()) << "it does not come back";
    EXPECT_EQ((Strings{"+" + text(own.termId())}), own.events());
}

TEST_F(TransportLayerTest, GroupsAreListedInAscendingOrderAndEachOnItsOwn) {
    link.peerAppears(kPeer);
    link.peerAppears(kOtherPeer);
    const TerminationId node(0x0001, 1, GRPID_NODE);
    link.peerAppears(node);
    Recorder own;
    ASSERT_TRUE(own.start());
    EXPECT_EQ((Strings{text(kOtherPeer), text(kPeer), text(own.termId())}),
              values(TransportLayer::getGroup(kGroup).contains()));
    EXPECT_EQ((Strings{text(node)}), values(TransportLayer::getGroup(GRPID_NODE).contains()));
    EXPECT_TRUE(TransportLayer::getGroup(static_cast<GroupId>(77)).contains().empty());
    std::list<TerminationId> all;
    for (const TerminationPtr &termination : TransportLayer::getTerminations()) {
        all.push_back(termination->termId());
    }
    EXPECT_EQ((Strings{text(node), text(kOtherPeer), text(kPeer), text(own.termId())}), values(all));
}

TEST_F(TransportLayerTest, ItselfAppearsFirstThenThePresentOnesThenNews) {
    link.peerAppears(kPeer);
    link.peerAppears(kOtherPeer);
    Recorder own;
    ASSERT_TRUE(own.start());
    const TerminationId late(0x0001, 1, GRPID_NODE);
    link.peerAppears(late);
    link.peerVanishes(kPeer);
    ASSERT_TRUE(own.waitFor("-" + text(kPeer)));
    EXPECT_EQ((Strings{"+" + text(own.termId()), "+" + text(kOtherPeer), "+" + text(kPeer), "+" + text(late),
                       "-" + text(kPeer)}),
              own.events());
}

TEST_F(TransportLayerTest, TheTablesAreAheadOfTheNews) {
    Recorder own;
    std::vector<bool> known;
    own.during = [&known](const std::string &event) {
        if (event == "+" + text(kPeer) || event == "-" + text(kPeer)) {
            known.push_back(TransportLayer::exists(kPeer));
        }
    };
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    EXPECT_TRUE(TransportLayer::exists(kPeer));
    ASSERT_TRUE(own.waitFor("+" + text(kPeer)));
    link.peerVanishes(kPeer);
    EXPECT_FALSE(TransportLayer::exists(kPeer));
    ASSERT_TRUE(own.waitFor("-" + text(kPeer)));
    own.stop();
    EXPECT_EQ((std::vector<bool>{true, false}), known);
}

TEST_F(TransportLayerTest, StartFailsWithoutAnIdAndWhenItCannotBeAnnounced) {
    link.setNamesExhausted(true);
    Recorder nameless;
    EXPECT_EQ(0U, nameless.termId().value());
    EXPECT_FALSE(nameless.start());
    link.setNamesExhausted(false);
    link.setAnnounceFails(true);
    Recorder unannounced;
    EXPECT_FALSE(unannounced.start());
    EXPECT_FALSE(unannounced.started());
    EXPECT_FALSE(TransportLayer::exists(unannounced.termId()));
    link.setAnnounceFails(false);
    EXPECT_TRUE(unannounced.events().empty());
}

TEST_F(TransportLayerTest, WithoutMemoryATerminationExistsButDoesNotStart) {
    std::unique_ptr<Recorder> poor;
    {
        const Testing::FailingHeap noMemory(1, Testing::FailingHeap::Calls::all); // one for the object itself
        try {
            poor = std::make_unique<Recorder>();
        } catch (const std::bad_alloc &) {
            FAIL() << "no exception may come out of the transport";
        }
    }
    EXPECT_FALSE(poor->start());
    poor->stop();
}

TEST_F(TransportLayerTest, AMessageGoesOutAsItWasWithTheTargetAsDestination) {
    Recorder own;
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    AddressedMessage message = own.allocateMessage(3, 4);
    EXPECT_EQ(own.termId(), message.originator());
    EXPECT_EQ(0U, message.destination().value());
    message.buf()[2] = 9;
    ASSERT_TRUE(TransportLayer::getTermination(kPeer)->issue(message));
    EXPECT_EQ(0U, message.destination().value()) << "the sender's own message must not change";
    message.buf()[2] = 1;
    const std::vector<AddressedMessage> issued = link.takeIssued(1);
    ASSERT_EQ(1U, issued.size());
    EXPECT_EQ(own.termId(), issued[0].originator());
    EXPECT_EQ(kPeer, issued[0].destination());
    EXPECT_EQ(3U, issued[0].size());
    EXPECT_EQ(9, issued[0].buf()[2]);
}

TEST_F(TransportLayerTest, IssueFailsForWhoIsNotThereAndForWhatCannotGo) {
    Recorder own;
    Recorder notStarted;
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    const TerminationPtr peer = TransportLayer::getTermination(kPeer);
    const AddressedMessage good = own.allocateMessage(1, 4);

    EXPECT_FALSE(TransportLayer::getTermination(TerminationId()));
    EXPECT_FALSE(TransportLayer::getTermination(TerminationId(0x0099, 1, 1)));
    EXPECT_FALSE(notStarted.issue(good));
    EXPECT_FALSE(peer->issue(AddressedMessage()));
    EXPECT_FALSE(peer->issue(own.allocateMessage(kMaxMessageSize + 1, 4)));
    link.setFate([](const AddressedMessage &) { return FakeLink::Fate::refuse; });
    EXPECT_FALSE(peer->issue(good));
    link.setFate(nullptr);
    EXPECT_TRUE(peer->issue(good));
    link.peerVanishes(kPeer);
    EXPECT_FALSE(peer->issue(good)) << "a handle outlives its peer";
    EXPECT_EQ(1U, link.takeIssued().size());
    EXPECT_EQ(0U, log.lines().size());
}

TEST_F(TransportLayerTest, AForeignOriginatorIsRefusedAndReported) {
    Recorder own;
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    EXPECT_FALSE(TransportLayer::getTermination(kPeer)->issue(messageFrom(kOtherPeer, kPeer)));
    EXPECT_FALSE(TransportLayer::getTermination(own.termId())->issue(messageFrom(TerminationId(), own.termId())));
    EXPECT_EQ(1U, log.count(4,
                            "Transport: message with originator 0x00070301, which is no started termination of this "
                            "actor, not sent to 0x00420201",
                            "Transport"));
    EXPECT_EQ(2U, log.lines().size());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(TransportLayerTest, MessagesToOneselfArriveOnTheReceivingThreadAfterIssueReturned) {
    Recorder own;
    bool returned = true;
    std::vector<bool> order;
    unsigned left = 3;
    own.during = [&](const std::string &event) {
        if (event == "m" && left > 0) {
            --left;
            order.push_back(returned);
            returned = false;
            EXPECT_TRUE(own.issue(own.allocateMessage(left, 4))); // from inside receive
            returned = true;
        }
    };
    ASSERT_TRUE(own.start());
    ASSERT_TRUE(TransportLayer::getTermination(own.termId())->issue(own.allocateMessage(1000, 4)));
    ASSERT_TRUE(own.waitFor("m", 4));
    link.peerAppears(kPeer);
    link.deliver(messageFrom(kPeer, own.termId()));
    ASSERT_TRUE(own.waitFor("m", 5));
    own.stop();
    EXPECT_EQ((std::vector<bool>{true, true, true}), order);
    EXPECT_EQ(1U, own.threads().size()) << "one receiving thread";
    EXPECT_EQ(0U, own.threads().count(OSWrap::Thread::getCurrentId()));
    EXPECT_EQ(own.termId(), own.messages()[0].originator());
    EXPECT_EQ(own.termId(), own.messages()[0].destination());
}

TEST_F(TransportLayerTest, TwoTerminationsOfOneProcessSeeEachOtherAndExchange) {
    Recorder one;
    Recorder two(GRPID_NODE);
    ASSERT_TRUE(one.start());
    ASSERT_TRUE(two.start());
    EXPECT_TRUE(one.waitFor("+" + text(two.termId())));
    EXPECT_TRUE(two.waitFor("+" + text(one.termId())));
    ASSERT_TRUE(TransportLayer::getTermination(two.termId())->issue(one.allocateMessage(5, 4)));
    ASSERT_TRUE(two.waitFor("m"));
    EXPECT_EQ(one.termId(), two.messages()[0].originator());
    two.stop();
    EXPECT_TRUE(one.waitFor("-" + text(two.termId())));
    EXPECT_FALSE(TransportLayer::exists(two.termId()));
    EXPECT_EQ((std::set<unsigned>{one.termId().value()}), link.announced());
}

TEST_F(TransportLayerTest, TwoThatStartAtOnceSeeEachOtherOnce) {
    for (int round = 0; round < 100; ++round) {
        Recorder one;
        Recorder two;
        std::thread starter([&one] { EXPECT_TRUE(one.start()); });
        EXPECT_TRUE(two.start());
        starter.join();
        const std::string oneId = "+" + text(one.termId());
        const std::string twoId = "+" + text(two.termId());
        ASSERT_TRUE(one.waitFor(twoId));
        ASSERT_TRUE(two.waitFor(oneId));
        one.stop();
        two.stop();
        const Strings toOne = one.events();
        const Strings toTwo = two.events();
        ASSERT_EQ(1, std::count(toOne.begin(), toOne.end(), twoId)) << round;
        ASSERT_EQ(1, std::count(toTwo.begin(), toTwo.end(), oneId)) << round;
    }
}

TEST_F(TransportLayerTest, StartAndStopMayComeTogether) {
    for (int round = 0; round < 200; ++round) {
        Recorder own;
        std::thread stopper([&own] { own.stop(); });
        own.start();
        stopper.join();
        own.stop();
        EXPECT_FALSE(TransportLayer::exists(own.termId()));
        EXPECT_EQ(0U, TransportLayer::getTerminations().size());
    }
}

TEST_F(TransportLayerTest, WithoutMemoryNothingIsThrown) {
    Recorder own;
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    const AddressedMessage message = own.allocateMessage(10, 4);
    const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
    EXPECT_TRUE(TransportLayer::getTerminations().empty());
    EXPECT_TRUE(TransportLayer::getGroup(kGroup).contains().empty());
    EXPECT_TRUE(TransportLayer::exists(kPeer));
    EXPECT_EQ(kPeer, TransportLayer::getTermination(kPeer)->termId());
}

TEST_F(TransportLayerTest, AReturnedMessageComesOnceWithItsAddresses) {
    Recorder own;
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    link.setFate([](const AddressedMessage &) { return FakeLink::Fate::bounce; });
    AddressedMessage message = own.allocateMessage(1, 4);
    message.buf()[0] = 77;
    ASSERT_TRUE(TransportLayer::getTermination(kPeer)->issue(message));
    ASSERT_TRUE(own.waitFor("e"));
    own.stop();
    ASSERT_EQ(1U, own.messages().size());
    EXPECT_EQ(own.termId(), own.messages()[0].originator());
    EXPECT_EQ(kPeer, own.messages()[0].destination());
    EXPECT_EQ(77, own.messages()[0].buf()[0]);
    EXPECT_EQ(0U, own.threads().count(OSWrap::Thread::getCurrentId()));
}

TEST_F(TransportLayerTest, AMessageForAStoppedTerminationGoesBack) {
    Recorder keeper; // keeps the receiving thread in use
    ASSERT_TRUE(keeper.start());
    Recorder own;
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    own.stop();
    link.deliver(messageFrom(kPeer, own.termId(), 5));
    const std::vector<AddressedMessage> back = link.takeGivenBack(1);
    ASSERT_EQ(1U, back.size());
    EXPECT_EQ(kPeer, back[0].originator());
    EXPECT_EQ(own.termId(), back[0].destination());
    EXPECT_EQ(5, back[0].buf()[0]);
    const Strings events = own.events();
    EXPECT_EQ(0, std::count(events.begin(), events.end(), "m"));
}

TEST_F(TransportLayerTest, IssueErrorGivesAMessageBackToItsOriginator) {
    Recorder one;
    Recorder two;
    ASSERT_TRUE(one.start());
    ASSERT_TRUE(two.start());
    link.peerAppears(kPeer);
    EXPECT_TRUE(two.issueError(messageFrom(one.termId(), two.termId(), 3)));
    ASSERT_TRUE(one.waitFor("e"));
    EXPECT_EQ(3, one.messages()[0].buf()[0]);
    EXPECT_EQ(two.termId(), one.messages()[0].destination());
    EXPECT_TRUE(two.issueError(messageFrom(kPeer, two.termId(), 4)));
    ASSERT_EQ(1U, link.takeGivenBack(1).size());
}

TEST_F(TransportLayerTest, AppearedMayBlockWhileMessagesAndQueriesGoOn) {
    Gate gate;
    Recorder own;
    own.during = [&gate](const std::string &event) {
        if (event == "+" + text(kPeer)) {
            gate.pass();
        }
    };
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    gate.awaitArrival();
    link.deliver(messageFrom(kPeer, own.termId()));
    EXPECT_TRUE(own.waitFor("m"));
    link.peerAppears(kOtherPeer);
    link.peerVanishes(kPeer);
    EXPECT_FALSE(TransportLayer::exists(kPeer));
    EXPECT_TRUE(TransportLayer::exists(kOtherPeer));
    gate.open();
    ASSERT_TRUE(own.waitFor("-" + text(kPeer)));
    own.stop();
    EXPECT_EQ((Strings{"+" + text(own.termId()), "+" + text(kPeer), "m", "+" + text(kOtherPeer), "-" + text(kPeer)}),
              own.events());
}

/** Stops in another thread while a callback is held; the stop must not return before the callback has. */
void stopWaitsFor(const std::string &heldEvent, const std::function<void(FakeLink &, Recorder &)> &cause) {
    FakeLink &link = FakeLink::install();
    Gate gate;
    Recorder own;
    std::atomic<bool> left{false};
    own.during = [&](const std::string &event) {
        if (event == heldEvent) {
            gate.pass();
            left = true;
        }
    };
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    std::thread causer([&] { cause(link, own); });
    gate.awaitArrival();
    bool leftFirst = false;
    std::thread stopper([&] {
        own.stop();
        leftFirst = left;
    });
    while (TransportLayer::exists(own.termId())) { // until it has begun to stop
        std::this_thread::yield();
    }
    gate.open();
    stopper.join();
    causer.join();
    EXPECT_TRUE(leftFirst);
    const Strings before = own.events();
    link.peerAppears(kOtherPeer);
    link.deliver(messageFrom(kPeer, own.termId()));
    EXPECT_EQ(before, own.events()) << "no callback after stop()";
    link.peerVanishes(kPeer);
    link.peerVanishes(kOtherPeer);
}

TEST_F(TransportLayerTest, StopWaitsForReceive) {
    stopWaitsFor("m", [](FakeLink &fake, Recorder &own) { fake.deliver(messageFrom(kPeer, own.termId())); });
}

TEST_F(TransportLayerTest, StopWaitsForAppeared) {
    stopWaitsFor("+" + text(kPeer), [](FakeLink &, Recorder &) {});
}

TEST_F(TransportLayerTest, ACallbackMayStopItsTermination) {
    for (const std::string &event : {"+" + text(kPeer), std::string("m")}) {
        Recorder own;
        std::atomic<bool> stopped{false};
        std::atomic<std::size_t> untilThen{0};
        own.during = [&](const std::string &happened) {
            if (happened == event) {
                stopped = own.stop();
                untilThen = own.events().size();
            }
        };
        ASSERT_TRUE(own.start());
        link.peerAppears(kPeer);
        if (event == "m") {
            link.deliver(messageFrom(kPeer, own.termId()));
        }
        EXPECT_TRUE(own.waitFor(event));
        own.stop();
        EXPECT_TRUE(stopped);
        EXPECT_FALSE(TransportLayer::exists(own.termId()));
        link.peerVanishes(kPeer);
        EXPECT_EQ(untilThen, own.events().size());
    }
}

TEST_F(TransportLayerTest, ManyThreadsMayIssueAtOnce) {
    Recorder own;
    ASSERT_TRUE(own.start());
    link.peerAppears(kPeer);
    std::vector<std::thread> threads;
    for (unsigned char i = 0; i < 8; ++i) {
        threads.emplace_back([&own, i] {
            for (unsigned n = 0; n < 500; ++n) {
                AddressedMessage message = own.allocateMessage(4, 4);
                message.buf()[0] = i;
                message.buf()[1] = static_cast<unsigned char>(n & 0xFF);
                message.buf()[2] = static_cast<unsigned char>(n >> 8);
                EXPECT_TRUE(TransportLayer::getTermination(n % 2 == 0 ? own.termId() : kPeer)->issue(message));
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(own.waitFor("m", 2000));
    const auto inOrder = [](const std::vector<AddressedMessage> &messages) {
        std::map<unsigned, unsigned> last;
        for (const AddressedMessage &message : messages) {
            const unsigned number = message.buf()[1] + 256U * message.buf()[2] + 1;
            if (number <= last[message.buf()[0]]) {
                return false;
            }
            last[message.buf()[0]] = number;
        }
        return true;
    };
    EXPECT_TRUE(inOrder(own.messages()));
    const std::vector<AddressedMessage> issued = link.takeIssued(2000);
    EXPECT_EQ(2000U, issued.size());
    EXPECT_TRUE(inOrder(issued));
}

SCENARIO(callbackThrows) {
    FakeLink &link = FakeLink::install();
    Recorder own;
    own.during = [](const std::string &event) {
        if (event == "m") {
            throw std::runtime_error("not meant to happen");
        }
    };
    own.start();
    link.peerAppears(kPeer);
    link.deliver(messageFrom(kPeer, own.termId()));
    own.waitFor("e"); // never
}

TEST(TransportLayerEnd, ACallbackThatThrowsEndsTheActorWithALine) {
    const Testing::ProcessResult result = Testing::runScenario("callbackThrows");
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_NE(std::string::npos, result.output.find("Transport: a callback threw: not meant to happen"));
}

SCENARIO(notStoppedAtExit) {
    FakeLink::install();
    auto &own = *new Recorder;
    own.start();
    std::exit(own.started() ? 3 : 1);
}

TEST(TransportLayerEnd, AProcessMayExitWithStartedTerminations) {
    EXPECT_EQ(3, Testing::runScenario("notStoppedAtExit").exitStatus);
}

} // namespace
} // namespace Transport
