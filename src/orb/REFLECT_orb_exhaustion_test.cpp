#include "orb/REFLECT_orb.h"

#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <random>

namespace {

using Message = TreflectMessage;
using Transport::AddressedMessage;
using Transport::TerminationId;

constexpr char kSource[] = "REFLECT_orb";
constexpr TerminationId kPeer(0x0042, 2, 1);
constexpr unsigned kIds = 4096;
constexpr unsigned kStack = 128 * 1024; // for thousands of threads

/** A thread that makes one request with a number. */
struct Call {
    Call(TreflectORB &orb, unsigned ownNumber, bool twoWay = true)
        : number(ownNumber), thread([this, &orb, twoWay] { run(orb, twoWay); }, kStack) {}
    void run(TreflectORB &orb, bool twoWay) {
        TipprmiStream request(orb.allocateRequest(100), true);
        request << number;
        request.msg().type(Message::tPayld);
        result = orb.forwardMsg_(kPeer, twoWay, request.msg(), response) ? 1 : 0;
    }
    /** What the response says, when the call has ended. */
    unsigned answer() {
        thread.join();
        unsigned value = 0;
        response >> value;
        return value;
    }

    const unsigned number;
    int result = -1;
    TipprmiStream response{100};
    Testing::TestThread thread;
};

class ExhaustionTest : public Testing::BrokerTest {
protected:
    ExhaustionTest() { link.peerAppears(kPeer); }

    /** Waits until so many more requests are out. */
    bool take(std::size_t count) {
        while (count > 0) {
            const std::vector<AddressedMessage> issued = link.takeIssued(1);
            if (issued.empty() || issued.size() > count) {
                return false;
            }
            for (const AddressedMessage &message : issued) {
                requests[TreflectMessage(message).transactionId()] = message;
            }
            count -= issued.size();
        }
        return true;
    }
    /** With the number of the request, and one. */
    void respond(const AddressedMessage &request) {
        const TreflectMessage message(request);
        TipprmiStream body(message, false);
        unsigned number = 0;
        body >> number;
        TipprmiStream response(orb.allocateResponse(message, 20), true);
        response << number + 1;
        response.msg().originator() = kPeer;
        response.msg().destination() = orb.termId();
        link.deliver(response.msg().addressed());
    }

    /** What the broker tells of its requests to the peer. */
    TreflectORB::PerfCnts counters() {
        TipprmiStream question(orb.allocateRequest(20), true);
        question.msg().type(Message::tPfCnt);
        question.msg().originator() = kPeer;
        question.msg().destination() = orb.termId();
        link.deliver(question.msg().addressed());
        const std::vector<AddressedMessage> issued = link.takeIssued(1);
        TipprmiStream answer(issued.empty() ? Message() : Message(issued[0]), false);
        std::string actor;
        TipprmiSequence<TreflectORB::PerfCnts> all;
        answer >> actor >> all;
        EXPECT_FALSE(answer.hasUnmarshallingFailed());
        TreflectORB::PerfCnts found;
        for (unsigned i = 0; i < all.getLength(); ++i) {
            found = all[i].target == kPeer ? all[i] : found;
        }
        return found;
    }

    std::map<unsigned, AddressedMessage> requests; // by id
};

TEST_F(ExhaustionTest, WithAllIdsPendingTheNextRequestFailsAndAllAreStillAnswered) {
    std::vector<std::unique_ptr<Call>> calls;
    for (unsigned i = 0; i < kIds - 1; ++i) {
        calls.push_back(std::make_unique<Call>(orb, i));
    }
    ASSERT_TRUE(take(kIds - 1)) << requests.size();
    const std::map<unsigned, AddressedMessage> before = requests;
    calls.push_back(std::make_unique<Call>(orb, kIds - 1));
    ASSERT_TRUE(take(1));
    ASSERT_EQ(kIds, requests.size()) << "an id was given out twice";
    const unsigned last = std::find_if(requests.begin(), requests.end(), [&before](const auto &entry) {
                              return before.count(entry.first) == 0;
                          })->first;

    const TreflectORB::PerfCnts counted = counters();
    const std::string line = LogMakeString("ORB could NOT generate unique request id 0x%08X", last);
    for (bool twoWay : {true, false}) {
        log.clear();
        Call refused(orb, 1, twoWay);
        refused.thread.join();
        EXPECT_EQ(0, refused.result);
        EXPECT_EQ("", Testing::hex(refused.response)) << "the response is left as it is";
        EXPECT_EQ(1U, log.count(3, line, kSource));
    }
    EXPECT_TRUE(link.takeIssued().empty());
    EXPECT_EQ(counted.requests + 2, counters().requests);
    EXPECT_EQ(counted.failures + 2, counters().failures);

    // The one id that comes free is the next one's.
    const unsigned freed = std::next(requests.begin(), kIds / 2)->first;
    respond(requests[freed]);
    requests.erase(freed);
    Call next(orb, 70000);
    ASSERT_TRUE(take(1));
    EXPECT_EQ(1U, requests.count(freed));

    log.clear();
    std::vector<AddressedMessage> order;
    for (const auto &[id, request] : requests) {
        order.push_back(request);
    }
    std::shuffle(order.begin(), order.end(), std::minstd_rand(5));
    for (const AddressedMessage &request : order) {
        respond(request);
    }
    EXPECT_EQ(70001U, next.answer());
    for (const std::unique_ptr<Call> &call : calls) {
        ASSERT_EQ(call->number + 1, call->answer());
        ASSERT_EQ(1, call->result);
    }
    EXPECT_TRUE(log.lines().empty());
}

} // namespace
