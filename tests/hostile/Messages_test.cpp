#include "hostile/HostileTest.h"

#include <csignal>
#include <cstdio>
#include <memory>
#include <sys/wait.h>

namespace Hostile {

namespace {

constexpr std::uint32_t kClass = 0x7A;
constexpr std::uint32_t kAddOne = 1;
constexpr std::uint32_t kEcho = 2;
constexpr std::uint32_t kRead = 3;
constexpr std::uint32_t kSetContainer = 2100;
constexpr std::uint32_t kGetContainer = 2101;

Bytes firstOf(const Bytes &bytes, std::size_t length) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<long>(length));
}

class HostileMessages : public HostileTest {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        peer_ = std::make_unique<Peer>(socket_);
        ASSERT_TRUE(peer_->join());
    }

    /** Sends it; the data of the response, without what is unused behind it. */
    Bytes answer(const Bytes &request) {
        Bytes response;
        EXPECT_TRUE(peer_->sendMessage(orb_, request));
        EXPECT_TRUE(peer_->response(wordAt(request, 0), response));
        if (response.size() < 16 || wordAt(response, 12) > response.size() - 16) {
            ADD_FAILURE() << "response of " << response.size() << " bytes";
            return {};
        }
        return Bytes(response.begin() + 16, response.begin() + 16 + wordAt(response, 12));
    }

    /** What a call gets that could not be handled. */
    static Bytes failure() { return Data().word(1).word(4).word(0).get(); }

    /** The call reaches the object, fails, and harms nobody. */
    void expectFails(std::uint32_t method, const Bytes &arguments) {
        EXPECT_EQ(failure(), answer(call(++transaction_, other_, kClass, method, arguments)));
        ++expectedCalls_;
    }

    std::unique_ptr<Peer> peer_;
    std::uint32_t transaction_ = 100;
};

TEST_F(HostileMessages, ShorterThanTheirHeadAreDropped) {
    const Bytes whole = call(1, other_, kClass, kAddOne, Data().word(1).get());
    for (std::size_t size = 0; size < 12; ++size) {
        ASSERT_TRUE(peer_->sendMessage(orb_, firstOf(whole, size)));
    }
    expectServed(*peer_);
    char line[80];
    for (unsigned size = 0; size < 12; ++size) {
        std::snprintf(line, sizeof line, "ORB 0x%08X drops a message of %u bytes from 0x%08X", orb_, size,
                      peer_->termination());
        ASSERT_TRUE(logged(line)) << line;
    }
}

TEST_F(HostileMessages, WithoutSizeWordHaveNoData) {
    for (std::size_t size = 12; size < 16; ++size) {
        // The number of an object whose name is missing: none.
        EXPECT_EQ(
            Data().word(0).get(),
            answer(firstOf(message(++transaction_, kResolve, kRequest, Data().text("other").word(1).get()), size)));
        EXPECT_EQ(Data().text("server").word(0).get(),
                  answer(firstOf(message(++transaction_, kCounters, kRequest, {}), size)));
        // Object 0, and nobody waits.
        ASSERT_TRUE(peer_->sendMessage(orb_, firstOf(call(++transaction_, other_, kClass, kAddOne, {}), size)));
    }
    EXPECT_TRUE(logged("ioid=0x0,transaction=false,classCode=0x0,methodCode=0"));
    expectServed(*peer_);
}

TEST_F(HostileMessages, WithUntrueSizeWordsAreReadNoFurtherThanTheyAre) {
    for (std::uint32_t size : {0x7FFFFFFFU, 200U, 21U}) { // 20 bytes are there
        Bytes request = call(++transaction_, other_, kClass, kAddOne, Data().word(6).get());
        setWord(request, 12, size);
        EXPECT_EQ(Data().word(0).word(0).word(7).get(), answer(request));
        ++expectedCalls_;
        request = call(++transaction_, other_, kClass, kAddOne, {});
        setWord(request, 12, size);
        EXPECT_EQ(failure(), answer(request));
        ++expectedCalls_;
    }
    for (std::uint32_t size : {0U, 3U, 0x80000000U, 0xFFFFFFFFU}) { // not even the head of the call: one-way, to 0
        Bytes request = call(++transaction_, other_, kClass, kAddOne, Data().word(6).get());
        setWord(request, 12, size);
        ASSERT_TRUE(peer_->sendMessage(orb_, request));
    }
    expectServed(*peer_);
}

TEST_F(HostileMessages, OfCallsWithCutHeadsReachNobodyElse) {
    const Bytes head = Data().word(other_).word(1).word(kClass).word(kAddOne).get();
    for (std::size_t size = 0; size < head.size(); ++size) {
        ASSERT_TRUE(peer_->sendMessage(orb_, message(++transaction_, kCall, kRequest, firstOf(head, size))));
        // What is complete counts: from 4 bytes on it is a call of that object, with method 0.
        expectedCalls_ += size >= 4 ? 1 : 0;
    }
    expectServed(*peer_);
}

TEST_F(HostileMessages, ToObjectsThatAreNotThereAreAnswered) {
    constexpr std::uint32_t kNobody = 0xFFFFFFFF; // no address of an object
    for (std::uint32_t number : {0U, 1U, other_ + 1, other_ - 1, served_ + 4, kNobody}) {
        if (number != other_ && number != served_) { // an object's number may be as small as 1
            EXPECT_EQ(failure(), answer(call(++transaction_, number, kClass, kAddOne, Data().word(1).get())));
        }
    }
    // Every number but 0 is a yes.
    for (std::uint32_t yes : {2U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(failure(), answer(message(++transaction_, kCall, kRequest,
                                            Data().word(kNobody).word(yes).word(kClass).word(kAddOne).get())));
    }
    for (std::uint32_t code : {0U, 4U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        expectFails(code, Data().word(1).get());
        EXPECT_EQ(failure(), answer(call(++transaction_, other_, code, kAddOne, Data().word(1).get())));
        ++expectedCalls_;
    }
}

TEST_F(HostileMessages, WithLengthsThatCannotBeFail) {
    for (std::uint32_t length : {5U, 1024U * 1024, 1024U * 1024 + 1, 0x7FFFFFFFU}) {
        expectFails(kEcho, Data().counted(length, "abc").get());
    }
    for (std::uint32_t length : {0U, 0x80000000U, 0xFFFFFFFFU}) { // negative ones are empty
        EXPECT_EQ(Data().word(0).word(0).text("").get(),
                  answer(call(++transaction_, other_, kClass, kEcho, Data().counted(length, "abc").get())));
        ++expectedCalls_;
    }
    // One value of each type, then a wrong one.
    const Bytes simple = Data().word(1).word(0x80000000U).text("string").text("characters").get();
    const Bytes oid = Data().text("name").word(1).get();
    const Bytes upToSequences = Data().bytes(simple).text("nested").text("any").word(7).bytes(oid).get();
    for (std::uint32_t count : {1U, 65536U, 65537U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        expectFails(kRead, Data().word(1).word(0).counted(count, "").get());
        expectFails(kRead, Data().bytes(simple).counted(count & 0x7FFFFFFFU, "").get());
        expectFails(kRead, Data().bytes(simple).text("nested").counted(count & 0x7FFFFFFFU, "").get());
        expectFails(kRead, Data().bytes(upToSequences).counted(count, "").get());
        expectFails(kRead, Data().bytes(upToSequences).word(0).counted(count, "").get());
        expectFails(kRead, Data().bytes(upToSequences).word(1).word(5).counted(count, "\1\2\3").get());
    }
    const Bytes whole =
        Data().bytes(upToSequences).word(0).word(0).word(7).text("exception").bytes(oid).word(5).word(6).get();
    EXPECT_EQ(Data().word(0).word(0).get(), answer(call(++transaction_, other_, kClass, kRead, whole)));
    ++expectedCalls_;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        expectFails(kRead, firstOf(whole, size));
    }
}

TEST_F(HostileMessages, ThatSetHalfAContainerSetNothing) {
    const Bytes container = Data().word(7).text("some data").get();
    for (std::size_t size = 0; size < container.size(); ++size) {
        EXPECT_EQ(Data().word(0).word(0).get(),
                  answer(call(++transaction_, other_, kClass, kSetContainer, firstOf(container, size))));
        ++expectedCalls_;
    }
    EXPECT_EQ(Data().word(0).word(0).word(0).word(0).get(),
              answer(call(++transaction_, other_, kClass, kGetContainer, {})));
    ++expectedCalls_;
    EXPECT_TRUE(logged("Unmarshall error on cc=0x7A, mc=2100"));
}

TEST_F(HostileMessages, OfResolveFindOnlyWhatIsThere) {
    const auto resolve = [this](const Bytes &data) {
        return answer(message(++transaction_, kResolve, kRequest, data));
    };
    EXPECT_EQ(Data().word(other_).get(), resolve(Data().text("other").word(1).get()));
    EXPECT_EQ(Data().word(other_).get(), resolve(Data().text("other").word(77).get())); // the namespace is skipped
    const std::string unknown[] = {"",
                                   "othe",
                                   "other ",
                                   "%s%n%p%999999999d",
                                   std::string(1, '\0') + "other",
                                   std::string(2000000, 'x'),
                                   "rmi_",
                                   "rmi_1_2",
                                   "\xFF\xFE\x80"};
    for (const std::string &name : unknown) {
        EXPECT_EQ(Data().word(0).get(), resolve(Data().text(name).word(1).get()));
    }
    EXPECT_EQ(Data().word(other_).get(), resolve(Data().text(std::string("other") + '\0' + "more").word(1).get()));
    for (std::uint32_t length : {6U, 1024U * 1024, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Data().word(0).get(), resolve(Data().counted(length, "othe").get()));
    }
    // A name without its namespace is a name.
    EXPECT_EQ(Data().word(other_).get(), resolve(Data().text("other").get()));
}

TEST_F(HostileMessages, OfUnknownTypesAreReportedAndNotAnswered) {
    char line[100];
    std::snprintf(line, sizeof line, "ORB 0x%08X received request of unknown type (rorg=%X, rdes=%X)", orb_,
                  peer_->termination(), orb_);
    for (std::uint32_t type : {0U, 9U, 11U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        for (std::uint32_t kind : {0U, 1U, 2U, 6U, 0xFFFFFFFFU}) {
            ASSERT_TRUE(peer_->sendMessage(orb_, message(++transaction_, type, kind, Data().word(1).get())));
        }
    }
    expectServed(*peer_); // which fails if something else is answered with that id
    EXPECT_TRUE(logged(line));
    peer_->readAll();
    EXPECT_EQ(0U, peer_->waiting());
}

TEST_F(HostileMessages, ThatAnswerNobodyAreReported) {
    const Bytes bodies[] = {{},
                            Data().word(1).get(),
                            Data().word(other_).word(1).word(kClass).word(kAddOne).get(),
                            Data().counted(0x7FFFFFFF, "x").get(),
                            Data().text("%s%n").word(1).get()};
    for (std::uint32_t type = 0; type <= 12; ++type) {
        for (std::uint32_t kind : {kResponse, kNoDestination}) {
            for (const Bytes &body : bodies) {
                Bytes sent = message(0xABC00000U + ++transaction_, type, kind, body);
                ASSERT_TRUE(peer_->sendMessage(orb_, sent));
                setWord(sent, 12, 0xFFFFFFFF);
                ASSERT_TRUE(peer_->sendMessage(orb_, sent));
                sent.resize(12);
                ASSERT_TRUE(peer_->sendMessage(orb_, sent));
            }
        }
    }
    expectServed(*peer_);
    char line[100];
    std::snprintf(line, sizeof line, "ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)", orb_,
                  peer_->termination(), 0xABC00000U + transaction_);
    EXPECT_TRUE(logged(line));
    EXPECT_TRUE(logged("    Message data: oid=%s%n"));
}

TEST_F(HostileMessages, OfKindResponseFailureResetTheUnitAsTheyShould) {
    serverEnds_ = true;
    ASSERT_TRUE(peer_->sendMessage(orb_, message(1, kCall, kResponseFailure, {})));
    const int status = server_.end();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGABRT, WTERMSIG(status));
    char line[100];
    std::snprintf(line, sizeof line, "ORB 0x%08X received response failure message from 0x%08X", orb_,
                  peer_->termination());
    EXPECT_TRUE(logged(line));
    std::snprintf(line, sizeof line, "ORB 0x%08X requests UNIT RESET", orb_);
    EXPECT_TRUE(logged(line));
    std::snprintf(line, sizeof line, "ORB 0x%08X failed to reset unit, EXIT ACTOR", orb_);
    EXPECT_TRUE(logged(line));
}

} // namespace

} // namespace Hostile
