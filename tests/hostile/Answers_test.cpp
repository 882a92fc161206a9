#include "hostile/HostileTest.h"

#include <cstdio>
#include <functional>
#include <memory>

namespace Hostile {

namespace {

/** The server asks, the hostile peer answers. */
class HostileAnswers : public HostileTest {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        join();
    }

    void join() {
        peer_ = std::make_unique<Peer>(socket_);
        ASSERT_TRUE(peer_->join());
    }

    /** What the server says to `command` when its message of that type gets this response. */
    std::string ask(const std::string &command, std::uint32_t type, const std::string &begin, const Bytes &data,
                    const std::function<void(Bytes &)> &spoil = nullptr) {
        server_.tell(command);
        Bytes request;
        EXPECT_TRUE(peer_->nextMessage(request));
        if (request.size() < 12) {
            return "no request";
        }
        EXPECT_EQ(type, wordAt(request, 4));
        Bytes response = message(wordAt(request, 0), type, kResponse, data);
        if (spoil) {
            spoil(response);
        }
        EXPECT_TRUE(peer_->sendMessage(orb_, response));
        return server_.expect(begin);
    }

    std::string call(const Bytes &data, const std::function<void(Bytes &)> &spoil = nullptr) {
        char command[60];
        std::snprintf(command, sizeof command, "call rmi_%X_7 1", peer_->termination());
        return ask(command, kCall, "called ", data, spoil);
    }

    std::string locate(const Bytes &data, const std::function<void(Bytes &)> &spoil = nullptr) {
        return ask("locate nothing", kResolve, "located ", data, spoil);
    }

    /** Entries and size of the name, as the server understood the peer's answer. */
    std::string counters(const Bytes &data) {
        const std::string line = ask("counters", kCounters, "counters", data);
        std::size_t last = line.rfind(' ');
        last = last != std::string::npos && last != 0 ? line.rfind(' ', last - 1) : std::string::npos;
        return last != std::string::npos ? line.substr(last + 1) : line;
    }

    std::unique_ptr<Peer> peer_;
};

TEST_F(HostileAnswers, ToCallsThatAreCutEndThemAsFailed) {
    const Bytes right = Data().word(0).word(0).word(1).get();
    ASSERT_EQ("1 of 1", call(right));
    for (std::size_t size = 0; size < right.size(); ++size) {
        EXPECT_EQ("0 of 1", call(Bytes(right.begin(), right.begin() + static_cast<long>(size)))) << size;
    }
    for (std::size_t size = 12; size < 16; ++size) {
        EXPECT_EQ("0 of 1", call(right, [size](Bytes &response) { response.resize(size); })) << size;
    }
    EXPECT_EQ("1 of 1", call(right));
    expectServed(*peer_);
}

TEST_F(HostileAnswers, ToCallsThatMakeNoSenseEndThemAsFailed) {
    const Bytes right = Data().word(0).word(0).word(1).get();
    for (std::uint32_t length : {9U, 1024U * 1024, 1024U * 1024 + 1, 0x7FFFFFFFU}) {
        for (std::uint32_t type : {0U, 1U, 7U}) {
            EXPECT_EQ("0 of 1", call(Data().word(type).counted(length, "abcd").get()));
        }
    }
    EXPECT_EQ("0 of 1", call(Data().word(1).text("").get()));
    EXPECT_EQ("0 of 1", call(Data().word(1).text("ab").word(1).get()));
    for (std::uint32_t size : {0U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ("0 of 1", call(right, [size](Bytes &response) { setWord(response, 12, size); }));
    }
    EXPECT_EQ("0 of 1", call(right, [](Bytes &response) { setWord(response, 8, kNoDestination); }));
    // Whose response it is, its transaction says.
    EXPECT_EQ("1 of 1", call(right, [](Bytes &response) { setWord(response, 4, 0xFFFFFFFF); }));
    expectServed(*peer_);
}

TEST_F(HostileAnswers, ThatComeTwiceOrFromOthersHarmNobody) {
    char command[60];
    std::snprintf(command, sizeof command, "call rmi_%X_7 1", peer_->termination());
    server_.tell(command);
    Bytes request;
    ASSERT_TRUE(peer_->nextMessage(request));
    // Other transactions first, among them those of the client, which are nothing to the server.
    for (std::uint32_t other : {0U, wordAt(request, 0) ^ 0x100000U, wordAt(request, 0) ^ 1U, 0xFFFFFFFFU}) {
        ASSERT_TRUE(peer_->sendMessage(orb_, message(other, kCall, kResponse, Data().word(0).word(0).word(9).get())));
    }
    const Bytes right = message(wordAt(request, 0), kCall, kResponse, Data().word(0).word(0).word(1).get());
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(peer_->sendMessage(orb_, right));
    }
    EXPECT_EQ("1 of 1", server_.expect("called "));
    expectServed(*peer_);
    char line[100];
    std::snprintf(line, sizeof line, "ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)", orb_,
                  peer_->termination(), wordAt(request, 0));
    EXPECT_TRUE(logged(line));
}

TEST_F(HostileAnswers, ThatNeverComeBecauseThePeerGoesEndTheCall) {
    char command[60];
    std::snprintf(command, sizeof command, "call rmi_%X_7 1", peer_->termination());
    server_.tell(command);
    Bytes request;
    ASSERT_TRUE(peer_->nextMessage(request));
    ASSERT_TRUE(peer_->send({'X'}));
    EXPECT_EQ("0 of 1", server_.expect("called "));
    join();
    ASSERT_EQ("1 of 1", call(Data().word(0).word(0).word(1).get()));
    // It begins to answer and never ends.
    std::snprintf(command, sizeof command, "call rmi_%X_7 1", peer_->termination());
    server_.tell(command);
    ASSERT_TRUE(peer_->nextMessage(request));
    const Bytes response = message(wordAt(request, 0), kCall, kResponse, Bytes(1000));
    ASSERT_TRUE(peer_->send(packet(kData, peer_->termination(), orb_, 100000, response, kFirst)));
    ASSERT_TRUE(peer_->send(packet(kSync, 1, 0, 0)));
    EXPECT_EQ("0 of 1", server_.expect("called "));
    expectServesNewPeer();
}

TEST_F(HostileAnswers, ToResolveThatAreCutFindNothing) {
    EXPECT_EQ("ABCDEF01", locate(Data().word(0xABCDEF01).get()));
    for (std::size_t size = 0; size < 4; ++size) {
        EXPECT_EQ("0", locate(Bytes(size, 1))) << size;
    }
    EXPECT_EQ("0", locate({}, [](Bytes &response) { response.resize(12); }));
    EXPECT_EQ("0", locate(Data().word(1).get(), [](Bytes &response) { setWord(response, 12, 0xFFFFFFFF); }));
    EXPECT_EQ("0", locate(Data().word(1).get(), [](Bytes &response) { setWord(response, 8, kNoDestination); }));
    expectServed(*peer_);
}

TEST_F(HostileAnswers, ToCountersAreBelievedAsFarAsTheyGo) {
    EXPECT_EQ("2 4", counters(Data().text("evil").word(2).bytes(Bytes(24)).get()));
    EXPECT_EQ("0 0", counters({}));
    EXPECT_EQ("0 0", counters(Data().counted(0x7FFFFFFF, "evil").word(1).bytes(Bytes(12)).get()));
    EXPECT_EQ("0 0", counters(Data().counted(0xFFFFFFFF, "").get()));
    EXPECT_EQ("0 4", counters(Data().text("evil").get()));
    EXPECT_EQ("0 4", counters(Data().text("evil").word(0xFFFFFFFF).bytes(Bytes(24)).get()));
    EXPECT_EQ("0 4", counters(Data().text("evil").word(65537).bytes(Bytes(24)).get()));
    EXPECT_EQ("65536 4", counters(Data().text("evil").word(65536).bytes(Bytes(24)).get())); // zeros
    EXPECT_EQ("2 4", counters(Data().text("evil").word(2).bytes(Bytes(23)).get()));
    EXPECT_EQ("70000 4", counters(Data().text("evil").word(70000).bytes(Bytes(70000 * 12)).get()));
    expectServed(*peer_);
}

} // namespace

} // namespace Hostile
