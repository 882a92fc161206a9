#include "orb/REFLECT_orb.h"

#include "platform/IdInfo.h"
#include "rmi/IPPRMI_objectSkeleton.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/ManualPeer.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

namespace {

using Message = TreflectMessage;
using Testing::eventually;
using Testing::hex;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);

class DiagnosticsTest : public Testing::BrokerTest {
protected:
    /** The lines of level 6 that a dump makes. */
    std::vector<std::string> dump() {
        log.clear();
        orb.dumpMessages();
        std::vector<std::string> lines;
        for (const Testing::LogLine &line : log.lines()) {
            if (line.level == 6 && line.source == kSource) {
                lines.push_back(line.text);
            }
        }
        return lines;
    }
    std::string received(unsigned id) const {
        return LogMakeString("Recieved Msg : Sender:0x%08X Destination:0x%08X Transaction ID:%X ", kPeer.value(),
                             orb.termId().value(), id);
    }
    std::string processed(unsigned mc) const {
        return LogMakeString("Processed Msg : Sender:0x%08X Destination:0x%08X CC:0xAB MC:0x%X", kPeer.value(),
                             orb.termId().value(), mc);
    }
    /** The line that describes the body of a message. */
    std::string described(const TipprmiStream &body, bool request = true) {
        log.clear();
        orb.testInfoAboutMessage(kPeer, body.msg(), request);
        const std::vector<Testing::LogLine> lines = log.with("    Message data: ");
        return lines.size() == 1 && lines[0].level == 5 && lines[0].source == kSource ? lines[0].text : "?";
    }
};

TEST_F(DiagnosticsTest, ADumpHasTheLastFiveAnsweredAndTheLastFiveReceived) {
    const Testing::ManualPeer peer(link, orb, kPeer);
    TipprmiObjectSkeleton object(TipprmiOID("object", NamespaceId(1)));
    for (unsigned i = 1; i <= 7; ++i) { // the methods are unknown, which is an answer like others
        peer.send(peer.call(object.getInternalOID(), true, 0xAB, 0x90 + i, 0x2000 + i));
        EXPECT_NE(0U, peer.next().size());
    }
    std::vector<std::string> expected;
    for (unsigned i = 3; i <= 7; ++i) {
        expected.push_back(processed(0x90 + i));
    }
    for (unsigned i = 3; i <= 7; ++i) {
        expected.push_back(received(0x2000 + i));
    }
    expected.emplace_back("Size of RMI msg queue : 0");
    EXPECT_TRUE(eventually([&] { return dump() == expected; })) << "an answer is recorded after it is sent";

    // One-way messages are received, and not among the answered; responses are neither.
    TipprmiStream response = peer.message(Message::tPayld, Message::kResp, 0x3000);
    peer.send(response);
    peer.send(peer.call(object.getInternalOID(), false, 0xAB, 0xFF, 0x3001));
    expected.erase(expected.begin() + 5);
    expected.insert(expected.end() - 1, received(0x3001));
    EXPECT_TRUE(eventually([&] { return dump() == expected; }));
}

SCENARIO(dumpOfAFreshBroker) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const Testing::ManualPeer peer(link, orb, kPeer);
    const Testing::LogCapture log;
    orb.dumpMessages();
    SCENARIO_CHECK(log.with(" Msg : ").empty());
    SCENARIO_CHECK(log.count(6, "Size of RMI msg queue : 0", kSource) == 1);
    const TreflectHandlerState state(true); // so that nothing is taken out of the queue
    for (int i = 0; i < 3; ++i) {
        peer.send(peer.call(1, false, 1, 1));
    }
    orb.dumpMessages();
    SCENARIO_CHECK(log.count(6, "Size of RMI msg queue : 3", kSource) == 1);
}

TEST_F(DiagnosticsTest, ADumpOfAFreshBrokerHasTheLengthOfItsQueueOnly) {
    const Testing::ProcessResult result = Testing::runScenario("dumpOfAFreshBroker");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

SCENARIO(dumpWithoutMemory) {
    Transport::FakeLink &link = Transport::FakeLink::install();
    TreflectORB &orb = *TreflectORB::getInstance(1);
    const Testing::ManualPeer peer(link, orb, kPeer);
    Log::setSink([](int, const std::string &, const char *) {});
    peer.send(peer.call(1, true, 1, 1));
    peer.next();
    std::vector<TipprmiStream> bodies;
    for (unsigned type = 0; type <= 11; ++type) {
        bodies.push_back(peer.message(static_cast<Message::type_t>(type), Message::kRequ, 0x2A));
        bodies.back() << std::string(300, 'x') << 1U;
    }
    const Testing::FailingHeap none(0, Testing::FailingHeap::Calls::all);
    orb.dumpMessages();
    orb.display(0);
    for (const TipprmiStream &body : bodies) {
        orb.testInfoAboutMessage(kPeer, body.msg(), true);
    }
}

TEST_F(DiagnosticsTest, WithoutMemoryThereAreNoLinesAndNothingWorse) {
    const Testing::ProcessResult result = Testing::runScenario("dumpWithoutMemory");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(DiagnosticsTest, EachTypeOfMessageIsDescribedByItsBody) {
    const Testing::ManualPeer peer(link, orb, kPeer);
    const auto of = [&](unsigned type) {
        return peer.message(static_cast<Message::type_t>(type), Message::kRequ, 0x12300001);
    };
    EXPECT_EQ("    Message data: ioid=0x1F,transaction=true,cc=0x2A,mc=-1",
              described(peer.call(0x1F, true, 0x2A, 0xFFFFFFFF)));
    EXPECT_EQ("    Message data: ioid=0x1F,transaction=false,cc=0x2A,mc=7", described(peer.call(0x1F, false, 0x2A, 7)));
    TipprmiStream name = of(Message::tRslve);
    name << TipprmiOID("/a/b%s", NamespaceId(1));
    EXPECT_EQ("    Message data: oid=/a/b%s", described(name));
    TipprmiStream nameless = of(Message::tRslve);
    nameless << TipprmiOID(nullptr, NamespaceId(1));
    EXPECT_EQ("    Message data: oid=unnamed", described(nameless));
    TipprmiStream cut = of(Message::tRslve);
    cut << 5U << 0x2F612F62U;
    EXPECT_EQ("    Message data: oid=unnamed", described(cut));
    TipprmiStream endless = of(Message::tRslve);
    endless << TipprmiOID(std::string(1024 * 1024, 'e'), NamespaceId(1));
    EXPECT_EQ("    Message data: oid=" + std::string(64 * 1024, 'e'), described(endless)) << "the log shows no more";
    for (Message::type_t type : {Message::tOCN, Message::tODN, Message::tODNSU, Message::tOCNUN, Message::tODNUN}) {
        TipprmiStream body = of(type);
        body << 0xC1A55U << true;
        EXPECT_EQ("    Message data: cc=0xC1A55", described(body)) << type;
    }
    for (bool plusExisting : {false, true}) {
        TipprmiStream body = of(Message::tOCNSU);
        body << 0xC1A55U << plusExisting;
        EXPECT_EQ(std::string("    Message data: cc=0xC1A55, plusExisting=") + (plusExisting ? "true" : "false"),
                  described(body));
    }
    TipprmiStream appearance = of(Message::tOrbAp);
    appearance << TerminationId(0x1234, 3, 1);
    EXPECT_EQ("    Message data: termId=12340301", described(appearance));
    for (unsigned type : {0U, 10U, 11U, 0xFFFFFFFFU}) {
        TipprmiStream body = of(type);
        body << 1U << 1U;
        EXPECT_EQ("    Message data: unknown message", described(body)) << type;
    }
}

TEST_F(DiagnosticsTest, AMessageIsCheckedBeforeItIsDescribed) {
    const Testing::ManualPeer peer(link, orb, kPeer);
    for (bool request : {true, false}) {
        TipprmiStream call = peer.call(1, true, 1, 1, 0x12300001);
        call.msg().destination() = kPeer;
        described(call, request);
        const std::string addresses =
            LogMakeString("des=%08X, org=%08X, trAcId=12300001 ( 0: )", kPeer.value(), orb.termId().value());
        const std::string line = request ? "    ReflMsg output: tPayld, kRequ.(kRequ.), "
                                         : " Error:  ReflMsg err= 6: tPayld, kRequ.(kMsg  ), ";
        EXPECT_EQ(1U, log.count(request ? 5 : 6, line + addresses, "ReflectMessage"));
        EXPECT_EQ(2U, log.lines().size());
        EXPECT_NE(std::string::npos, log.lines()[1].text.find("Message data")) << "the check comes first";
    }
}

TEST_F(DiagnosticsTest, TheSummaryHasFiveLines) {
    {
        const TreflectHandlerState state(true);
        orb.destroyMetaData();
        for (unsigned id : {1U, 2U}) {
            TreflectORB::MetaData &data = *orb.getMetaData(id);
            data.creationObservers.assign(id, nullptr);
            data.deletionObservers.assign(2 * id, nullptr);
            data.objects.insert(nullptr);
            data.remoteCreationObservers.insert(TreflectOrbId(id));
            data.remoteCreationObservers.insert(TreflectOrbId(id + 1));
            data.remoteDeletionObservers.insert({TreflectOrbId(1), TreflectOrbId(2), TreflectOrbId(3)});
        }
        log.clear();
        orb.display(12345);
        orb.destroyMetaData();
    }
    const std::vector<Testing::LogLine> lines = log.lines();
    ASSERT_EQ(5U, lines.size());
    for (const Testing::LogLine &line : lines) {
        EXPECT_EQ(5, line.level);
        EXPECT_EQ(kSource, line.source);
    }
    EXPECT_EQ(LogMakeString("ORB display: actor %s, OrbId 0x%X, TermId 0x%08X", Transport::IdInfo::getActor().c_str(),
                            orb.orbId().value(), orb.termId().value()),
              lines[0].text);
    EXPECT_EQ(0U, lines[1].text.find("  number of handler threads: "));
    EXPECT_EQ("  metaData: size=2, co=3, do=6, oi=2, rco=4, rdo=6", lines[2].text);
    long size = 0;
    EXPECT_EQ(1, std::sscanf(lines[3].text.c_str(), "  actor size: %ld", &size));
    EXPECT_GT(size, 0);
    EXPECT_EQ(1, std::sscanf(lines[4].text.c_str(), "  unit free: %ld", &size));
    EXPECT_GT(size, 0);
}

TEST_F(DiagnosticsTest, TheSummaryCountsItsOwnThreadOnlyIfThatIsAHandler) {
    const auto handlers = [this] {
        log.clear();
        orb.display(0);
        unsigned number = 1000;
        std::sscanf(log.lines()[1].text.c_str(), "  number of handler threads: %u", &number);
        return number;
    };
    EXPECT_TRUE(eventually([&] { // workers of other tests may just be ending
        const unsigned without = handlers();
        const TreflectHandlerState state(true);
        return handlers() == without + 1;
    }));
}

} // namespace
