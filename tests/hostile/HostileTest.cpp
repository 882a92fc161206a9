#include "hostile/HostileTest.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace Hostile {

namespace {

std::uint32_t hexNumber(const std::string &text) {
    return static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 16));
}

} // namespace

HostileTest::HostileTest(unsigned logLevel)
    : unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=" + std::to_string(logLevel)}} {}

void HostileTest::SetUp() {
    orb_ = hexNumber(server_.ask("orb", "orb ").substr(9));
    for (const std::string &file : Testing::filesIn(unit_.directory)) {
        if (file.compare(0, 2, "a.") == 0) { // the server's: nobody else is there yet
            socket_ = unit_.directory + '/' + file;
        }
    }
    served_ = hexNumber(server_.ask("serve served", "serves "));
    other_ = hexNumber(server_.ask("serve other", "serves "));
    clientOrb_ = hexNumber(client_.ask("orb", "orb ").substr(9));
    ASSERT_EQ("100 of 100", client_.ask("call served 100", "called "));
    client_.ask("calling served", "ok");
}

void HostileTest::TearDown() {
    std::istringstream answer(client_.ask("enough", "called "));
    unsigned good = 0;
    unsigned all = 0;
    std::string of;
    answer >> good >> of >> all;
    if (serverEnds_) {
        return;
    }
    EXPECT_EQ(all, good);
    EXPECT_EQ("100 of 100", client_.ask("call served 100", "called "));
    EXPECT_EQ(good + 200 + strayCalls_, calls(served_));
    EXPECT_LT(0U, good);
    EXPECT_EQ(expectedCalls_, calls(other_));
    EXPECT_EQ(0, ::kill(server_.pid(), 0));
}

unsigned HostileTest::calls(std::uint32_t object) {
    std::istringstream line(server_.ask("counts", "counts"));
    std::string entry;
    while (line >> entry) {
        if (hexNumber(entry) == object) {
            return static_cast<unsigned>(std::strtoul(entry.substr(entry.find(':') + 1).c_str(), nullptr, 10));
        }
    }
    return 0;
}

void HostileTest::expectServed(Peer &peer) {
    const std::uint32_t transaction = 0x70000000 + ++transaction_;
    ASSERT_TRUE(peer.sendMessage(orb_, call(transaction, other_, 0x7A, 1, Data().word(41).get())));
    ++expectedCalls_;
    Bytes answer;
    ASSERT_TRUE(peer.response(transaction, answer));
    // No exception, no data of one, and the result.
    const Bytes right = message(transaction, kCall, kResponse, Data().word(0).word(0).word(42).get());
    ASSERT_LE(right.size(), answer.size());
    answer.resize(right.size());
    EXPECT_EQ(right, answer);
}

void HostileTest::expectServesNewPeer() {
    Peer peer(socket_);
    ASSERT_TRUE(peer.join());
    expectServed(peer);
}

void HostileTest::expectClosed(Peer &peer, const std::string &reason) {
    ASSERT_TRUE(peer.closed()) << reason;
    EXPECT_TRUE(logged(reason)) << reason;
}

long HostileTest::memory() const {
    std::ifstream status("/proc/" + std::to_string(server_.pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

} // namespace Hostile
