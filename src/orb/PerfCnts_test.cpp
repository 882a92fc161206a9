#include "orb/REFLECT_orb.h"

#include "platform/IdInfo.h"
#include "platform/TransportLayer.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <algorithm>

namespace {

using Message = TreflectMessage;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr TerminationId kOther(0x0043, 2, 1);
constexpr TerminationId kNobody(0x0041, 2, 1);

class PerfCntsTest : public Testing::BrokerTest {};

/** What a broker answers when it is asked for its counters. */
std::string counted(const Testing::ManualPeer &peer) {
    peer.send(peer.message(Message::tPfCnt, Message::kRequ, 0x77));
    const TreflectMessage answer(peer.next());
    SCENARIO_CHECK(answer.type() == Message::tPfCnt && answer.kind() == Message::kResp);
    SCENARIO_CHECK(answer.transactionId() == 0x77 && answer.destination() == peer.id());
    return hex(TipprmiStream(answer, false));
}

SCENARIO(counters) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const Testing::ManualPeer peer(link, orb, kPeer);
    const Testing::ManualPeer other(link, orb, kOther);
    TipprmiStream expected(100);
    expected << Transport::IdInfo::getActor() << 0U;
    SCENARIO_CHECK(counted(peer) == hex(expected)); // it has never sent a request; answers do not count

    const auto send = [&](TerminationId target) {
        TipprmiStream request(orb.allocateRequest(100), true);
        TipprmiStream response(100);
        return orb.forwardMsg_(target, false, request.msg(), response);
    };
    SCENARIO_CHECK(send(kOther) && send(kOther) && send(kPeer) && !send(kNobody));
    link.setFate([](const AddressedMessage &message) {
        return message.destination() == kOther ? Transport::FakeLink::Fate::refuse : Transport::FakeLink::Fate::deliver;
    });
    SCENARIO_CHECK(!send(kOther));
    link.takeIssued();
    expected.clear();
    expected << Transport::IdInfo::getActor() << 3U;
    expected << kNobody << 1U << 1U << kPeer << 1U << 0U << kOther << 3U << 1U;
    SCENARIO_CHECK(counted(peer) == hex(expected));
}

TEST_F(PerfCntsTest, RequestsAndFailuresAreCountedForEachTarget) {
    const Testing::ProcessResult result = Testing::runScenario("counters", {"REFLECTORB_ACTOR=counting"});
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(PerfCntsTest, ABrokerAloneInItsGroupHasNobodyToAsk) {
    link.peerAppears(TerminationId(0x0044, 2, 2)); // in another group
    EXPECT_TRUE(orb.getPerfCnts().empty());
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(PerfCntsTest, AllOthersAreAskedInTheOrderOfTheGroup) {
    const Testing::ManualPeer later(link, orb, TerminationId(0x0300, 2, 1));
    const Testing::ManualPeer peer(link, orb, kPeer);
    const Testing::ManualPeer other(link, orb, kOther);
    std::list<TerminationId> members = Transport::TransportLayer::getGroup(orb.termId().groupId()).contains();
    members.remove(orb.termId());
    ASSERT_EQ(3U, members.size());
    std::list<TreflectORB::PerfCntMultInfo> all;
    {
        Testing::TestThread caller([&] { all = orb.getPerfCnts(); });
        for (TerminationId member : members) {
            const AddressedMessage request = peer.next();
            const TreflectMessage head(request);
            EXPECT_EQ(member, request.destination());
            EXPECT_EQ(Message::tPfCnt, head.type());
            EXPECT_EQ(Message::kRequ, head.kind());
            EXPECT_EQ(100U, head.size());
            EXPECT_TRUE(std::all_of(head.buf(), head.buf() + 100, [](unsigned char byte) { return byte == 0; }));
            if (member == kOther) {
                link.bounce(request);
                continue;
            }
            peer.respond(request, [&](TipprmiStream &body) {
                TipprmiSequence<TreflectORB::PerfCnts> counters;
                counters.push_back({kNobody, member.nameId(), 2});
                body << std::string("actor") << counters;
            });
        }
    }
    ASSERT_EQ(members.size(), all.size());
    for (const TreflectORB::PerfCntMultInfo &info : all) {
        EXPECT_EQ(members.front(), info.orb);
        members.pop_front();
        if (info.orb == kOther) {
            EXPECT_EQ("", info.info.actor) << "it is listed all the same";
            EXPECT_EQ(0U, info.info.counters.getLength());
            continue;
        }
        EXPECT_EQ("actor", info.info.actor);
        ASSERT_EQ(1U, info.info.counters.getLength());
        EXPECT_EQ(kNobody, info.info.counters[0].target);
        EXPECT_EQ(info.orb.nameId(), info.info.counters[0].requests);
        EXPECT_EQ(2U, info.info.counters[0].failures);
    }
}

TEST_F(PerfCntsTest, ACounterTravelsAsTargetRequestsAndFailures) {
    TipprmiStream stream(100);
    stream << TreflectORB::PerfCnts{TerminationId(0x0102, 3, 4), 5, 6};
    TipprmiStream expected(100);
    expected << TerminationId(0x0102, 3, 4) << 5U << 6U;
    EXPECT_EQ(hex(expected), hex(stream));
    TreflectORB::PerfCnts read;
    stream >> read;
    EXPECT_EQ(TerminationId(0x0102, 3, 4), read.target);
    EXPECT_EQ(5U, read.requests);
    EXPECT_EQ(6U, read.failures);
}

} // namespace
