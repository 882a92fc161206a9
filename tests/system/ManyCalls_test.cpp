#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <csignal>
#include <poll.h>

namespace {

using Testing::Actor;

constexpr unsigned kIds = 4096; // that a broker can tell apart

/** As many requests of one actor as there can be. */
TEST(ManyCalls, AllIdsMayBePendingAndOneMoreRequestFails) {
    const Testing::TempDir directory;
    const Testing::Unit unit{directory.path() + "/unit", {"REFLECTORB_LOG_LEVEL=3"}};
    Actor server(unit, 1);
    Actor client(unit, 2);
    server.ask("orb 1", "orb ");
    const std::string id = client.ask("orb 1", "orb ").substr(9);
    server.ask("serve thing", "serves ");
    EXPECT_EQ("1", client.ask("keep thing", "kept "));

    server.signal(SIGSTOP);
    client.ask("begin kept thing 1 " + std::to_string(kIds), "begun");
    const std::string all = "pending " + std::to_string(kIds) + " ";
    std::string counts;
    for (int tries = 0; tries < 6000 && counts.find(all) != 0; ++tries) {
        ::poll(nullptr, 0, tries == 0 ? 0 : 10);
        counts = client.ask("counts", "counts ");
    }
    ASSERT_EQ(0U, counts.find(all)) << counts;

    EXPECT_EQ("0 of 1", client.ask("kept", "called "));
    const std::string line = "] ORB could NOT generate unique request id 0x";
    ASSERT_TRUE(client.waitLog(line));
    const std::string log = client.log();
    const std::size_t at = log.find(line);
    // The name of the broker is in the lower half of all its ids; the slot follows.
    EXPECT_EQ("2" + id.substr(0, 4), log.substr(at + line.size() + 3, 5)) << log;
    EXPECT_EQ(std::string::npos, log.find(line, at + 1));

    server.signal(SIGCONT);
    EXPECT_EQ(std::to_string(kIds) + " of " + std::to_string(kIds), client.ask("join", "called "));
    EXPECT_EQ(0U, client.ask("counts", "counts ").find("pending 0 "));
    EXPECT_EQ(std::string::npos, client.log().find("unexpected")) << client.log();
    EXPECT_EQ("20 of 20", client.ask("call addone thing 20", "called "));
}

} // namespace
