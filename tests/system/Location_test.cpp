#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <algorithm>
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

TEST_F(Locating, TheFirstThatHasAnObjectIsTheLastThatIsAsked) {
    Member client(unit_, 1, "client");
    std::map<std::string, Member> servers;
    for (unsigned slot : {1U, 2U, 1U}) {
        Member server(unit_, slot, "server");
        const std::string id = server.id;
        servers.emplace(id, std::move(server));
    }
    std::vector<std::string> members;
    std::istringstream list(client.actor->ask("list 1", "list "));
    for (std::string id; list >> id;) {
        if (id != client.id) {
            members.push_back(id);
        }
    }
    ASSERT_EQ(3U, members.size());
    Member &middle = servers.at(members[1]);
    const std::string number = middle.actor->ask("serve thing", "serves ");
    EXPECT_EQ(number + " " + middle.broker, client.actor->ask("locate thing", "located "));
    const std::string counted = middle.actor->ask("counters " + client.id, "counters " + client.id);
    for (std::size_t i = 0; i < members.size(); ++i) {
        EXPECT_EQ(i != 0, counted.find(" to " + servers.at(members[i]).decimal() + ":1/0") != std::string::npos)
            << i << counted;
    }
}

TEST_F(Locating, AGeneratedNameIsAnAddressThatNobodyIsAskedFor) {
    Member client(unit_, 1, "client");
    Member server(unit_, 2, "server");
    const std::string number = server.actor->ask("serve thing", "serves ");
    std::ostringstream unused; // whatever number the object has got
    unused << std::hex << std::uppercase << (std::stoul(number, nullptr, 16) ^ 3U);
    const std::string begin = "rmi_" + server.broker + "_";
    EXPECT_EQ(number + " " + server.broker, client.actor->ask("locate " + begin + number, "located "));
    EXPECT_EQ(number + " " + server.broker, server.actor->ask("locate " + begin + number, "located "));
    EXPECT_EQ(unused.str() + " " + server.broker, client.actor->ask("locate " + begin + unused.str(), "located "))
        << "there or not";
    EXPECT_EQ(unused.str() + " " + server.broker, server.actor->ask("locate " + begin + unused.str(), "located "));
    EXPECT_EQ(" client", server.actor->ask("counters " + client.id, "counters " + client.id));
    EXPECT_EQ("1 of 1", client.actor->ask("call addone " + begin + number + " 1", "called "));
    EXPECT_EQ("0 of 1", client.actor->ask("call addone " + begin + unused.str() + " 1", "called "));
    EXPECT_EQ(" client to " + server.decimal() + ":2/0",
              server.actor->ask("counters " + client.id, "counters " + client.id))
        << "just the calls";
}

TEST_F(Locating, OfObjectsOfOneNameInAnActorTheFirstNumberCounts) {
    Member client(unit_, 1, "client");
    Member server(unit_, 2, "server");
    unsigned long first = ~0UL;
    for (int i = 0; i < 3; ++i) {
        server.actor->ask("serve other" + std::to_string(i), "serves ");
        first = std::min(first, std::stoul(server.actor->ask("serve thing", "serves "), nullptr, 16));
    }
    for (const Member *asking : {&client, &server}) {
        std::istringstream located(asking->actor->ask("locate thing", "located "));
        std::string number;
        located >> number;
        EXPECT_EQ(first, std::stoul(number, nullptr, 16));
    }
}

/** Names of namespace 2 are for the own actor: brokers look for what others name among those of namespace 1. Addresses
 *  are for everybody. */
TEST_F(Locating, EachNamespaceHasNamesOfItsOwn) {
    Member server(unit_, 2, "server");
    const std::string number = server.actor->ask("serve thing@2", "serves ");
    const std::string broker = server.actor->ask("orb 2", "orb ").substr(0, 8);
    EXPECT_NE(server.broker, broker);
    EXPECT_EQ("0 00000000", server.actor->ask("locate thing", "located "));
    EXPECT_EQ(number + " " + broker, server.actor->ask("locate thing@2", "located "));
    EXPECT_EQ("0 00000000", server.actor->ask("locate thing@5", "located ")) << "which has no place in the unit";
    EXPECT_EQ("5 of 5", server.actor->ask("call addone thing@2 5", "called "));
    Member client(unit_, 1, "client");
    client.actor->ask("orb 2", "orb ");
    EXPECT_EQ("0 00000000", client.actor->ask("locate thing", "located "));
    EXPECT_EQ("0 00000000", client.actor->ask("locate thing@2", "located "));
    const std::string address = "rmi_" + broker + "_" + number;
    EXPECT_EQ(number + " " + broker, client.actor->ask("locate " + address, "located "));
    EXPECT_EQ("5 of 5", client.actor->ask("call addone " + address + " 5", "called "));
    EXPECT_EQ("5 of 5", client.actor->ask("call addone " + address + "@2 5", "called "));
}

} // namespace
