#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Testing::Actor;

/** An actor with a broker. */
struct Member {
    Member(const Testing::Unit &unit, unsigned slot, const std::string &name)
        : actor(std::make_unique<Actor>(unit, slot, std::vector<std::string>{"REFLECTORB_ACTOR=" + name})) {
        std::istringstream answer(actor->ask("orb 1", "orb "));
        answer >> broker >> id;
    }
    std::string decimal() const { return std::to_string(std::stoul(id, nullptr, 16)); }

    std::unique_ptr<Actor> actor;
    std::string broker;
    std::string id;
};

class Locating : public testing::Test {
protected:
    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {}};
};

TEST_F(Locating, AnObjectOfManyActorsIsThatOfTheLastInTheGroup) {
    Member client(unit_, 1, "client");
    std::map<std::string, Member> servers;
    for (unsigned slot : {1U, 2U, 1U}) {
        Member server(unit_, slot, "server");
        server.actor->ask("serve same", "serves ");
        const std::string id = server.id;
        servers.emplace(id, std::move(server));
    }
    while (!servers.empty()) {
        std::vector<std::string> members;
        std::istringstream list(client.actor->ask("list 1", "list "));
        for (std::string id; list >> id;) {
            if (id != client.id) {
                members.push_back(id);
            }
        }
        ASSERT_EQ(servers.size(), members.size());
        const auto last = servers.find(members.back());
        ASSERT_NE(servers.end(), last);
        std::istringstream located(client.actor->ask("locate same", "located "));
        std::string number;
        std::string broker;
        located >> number >> broker;
        EXPECT_EQ(last->second.broker, broker);
        last->second.actor->kill();
        servers.erase(last);
        EXPECT_TRUE(client.actor->askUntil("exists " + members.back(), "exists ", "0"));
    }
    EXPECT_EQ("0 00000000", client.actor->ask("locate same", "located "));
}

TEST_F(Locating, AnUnknownNameCostsOneQuestionToEachOther) {
    Member client(unit_, 1, "client");
    Member one(unit_, 1, "one");
    Member two(unit_, 2, "two");
    one.actor->ask("serve here", "serves ");
    EXPECT_EQ("0 00000000", client.actor->ask("locate nowhere", "located "));
    std::vector<std::string> expected{" to " + one.decimal() + ":1/0", " to " + two.decimal() + ":1/0"};
    const std::string counted = one.actor->ask("counters", "counters " + client.id);
    EXPECT_EQ(0U, counted.find(" client to ")) << counted;
    for (const std::string &each : expected) {
        EXPECT_NE(std::string::npos, counted.find(each)) << counted;
    }
    // Those that were asked have asked nobody.
    EXPECT_EQ(" two", client.actor->ask("counters", "counters " + two.id));
}

} // namespace
