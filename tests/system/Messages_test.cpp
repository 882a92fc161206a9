#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace {

using Testing::Actor;
using Strings = std::vector<std::string>;

class Messages : public testing::Test {
protected:
    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {}};
};

long residentKib(Actor &actor) {
    const std::string figures = actor.ask("figures", "figures ");
    return std::stol(figures.substr(figures.find(' ')));
}

TEST_F(Messages, TheSmallestAndTheLargestPassAndLargerOnesAreRefused) {
    Actor sender(unit_);
    Actor receiver(unit_, 2);
    const std::string from = sender.probe();
    const std::string to = receiver.probe();
    sender.expect("appeared " + to);
    const std::string largest = std::to_string(64 * 1024 * 1024);
    EXPECT_EQ("1", sender.ask("send " + to + " 0 1", "sent "));
    EXPECT_EQ("1", sender.ask("send " + to + " 1 1", "sent "));
    EXPECT_EQ("1", sender.ask("send " + to + " " + largest + " 1", "sent "));
    EXPECT_EQ("0", sender.ask("send " + to + " 67108865 1", "sent "));
    EXPECT_EQ("", receiver.ask("await 3", "got")); // who is busy with so much may be taken for one that does not read
    EXPECT_EQ("1", sender.ask("send " + to + " 100 1", "sent "));
    EXPECT_EQ("", receiver.ask("await 4", "got"));
    EXPECT_EQ(" count 4 bytes 67108965 errors 0", receiver.ask("tell", "from " + from));
}

TEST_F(Messages, OfEightSendersKeepTheirOrder) {
    Actor receiver(unit_);
    const std::string to = receiver.probe();
    std::vector<std::unique_ptr<Actor>> senders;
    Strings ids;
    for (unsigned i = 0; i < 8; ++i) {
        senders.push_back(std::make_unique<Actor>(unit_, 1 + i % 3));
        ids.push_back(senders.back()->probe());
    }
    for (unsigned i = 0; i < 8; ++i) {
        // None has more than what may wait for a peer: a receiver that is busy with all may not keep them from sending.
        senders[i]->tell("send " + to + (i % 2 == 0 ? " 100 2000" : " 100000 150"));
    }
    for (unsigned i = 0; i < 8; ++i) {
        EXPECT_EQ(i % 2 == 0 ? "2000" : "150", senders[i]->expect("sent "));
    }
    EXPECT_EQ("", receiver.ask("await 8600", "got"));
    receiver.tell("tell");
    for (unsigned i = 0; i < 8; ++i) {
        EXPECT_EQ(i % 2 == 0 ? " count 2000 bytes 200000 errors 0" : " count 150 bytes 15000000 errors 0",
                  receiver.expect("from " + ids[i]));
    }
}

TEST_F(Messages, ToOneselfArriveOnTheReceivingThread) {
    Actor actor(unit_);
    const std::string id = actor.probe();
    EXPECT_EQ("1000", actor.ask("send " + id + " 500 1000", "sent "));
    EXPECT_EQ("", actor.ask("await 1000", "got"));
    EXPECT_EQ(" count 1000 bytes 500000 errors 0", actor.ask("tell", "from " + id));
}

/** 100 MiB to a peer that does not read: refused at the bound, and the others do not notice. */
TEST_F(Messages, APeerThatNeverReadsCostsBoundedMemoryAndNobodyElse) {
    Actor sender(unit_);
    Actor wedged(unit_, 2);
    Actor healthy(unit_, 3);
    const std::string from = sender.probe();
    const std::string wedgedId = wedged.probe();
    const std::string healthyId = healthy.probe();
    sender.expect("appeared " + wedgedId);
    sender.expect("appeared " + healthyId);
    EXPECT_EQ("", wedged.ask("hold", "ok"));
    const long before = residentKib(sender);

    const int accepted = std::stoi(sender.ask("send " + wedgedId + " 102400 1000", "sent "));
    EXPECT_GT(accepted, 10);
    EXPECT_LT(accepted, 1000);
    EXPECT_EQ("0", sender.ask("send " + wedgedId + " 102400 1", "sent "));
    EXPECT_LT(residentKib(sender) - before, 80 * 1024); // sanitizers multiply what is queued

    EXPECT_EQ("1000", sender.ask("send " + healthyId + " 10000 1000", "sent "));
    EXPECT_EQ("", healthy.ask("await 1000", "got"));
    EXPECT_EQ(" count 1000 bytes 10000000 errors 0", healthy.ask("tell", "from " + from));

    EXPECT_EQ("", wedged.ask("go", "ok"));
    EXPECT_EQ("", wedged.ask("await " + std::to_string(accepted), "got"));
    EXPECT_EQ("5", sender.ask("send " + wedgedId + " 100 5", "sent "));
    EXPECT_EQ("", wedged.ask("await " + std::to_string(accepted + 5), "got"));
    EXPECT_EQ(" count " + std::to_string(accepted + 5) + " bytes " + std::to_string(accepted * 102400L + 500) +
                  " errors 0",
              wedged.ask("tell", "from " + from));
}

TEST_F(Messages, WhatAPeerThatStoppedAndDiedDidNotTakeComesBackOnce) {
    Actor sender(unit_);
    Actor victim(unit_, 2);
    sender.probe();
    const std::string id = victim.probe();
    sender.expect("appeared " + id);
    victim.signal(SIGSTOP);
    // More than the kernel's buffers hold, so that some of it waits with the sender.
    EXPECT_EQ("60", sender.ask("send " + id + " 100000 60", "sent "));
    victim.signal(SIGKILL);
    EXPECT_EQ("", sender.expect("disappeared " + id));
    EXPECT_EQ("0", sender.ask("send " + id + " 100 1", "sent "));
    EXPECT_EQ(" 100000", sender.expect("bounced " + id));
    EXPECT_LT(sender.sofar("bounced " + id).size(), 60U);
}

/** An actor that answers and exits at once: the answers arrive before the news of its end. */
TEST_F(Messages, WhatWasSentBeforeTheEndIsHeardBeforeTheEnd) {
    Actor client(unit_);
    const std::string clientId = client.probe();
    unsigned sum = 0;
    for (int round = 0; round < 30; ++round) {
        Actor server(unit_, 2);
        const std::string id = server.probe();
        EXPECT_EQ("100", server.ask("send " + clientId + " 1000 100", "sent "));
        server.signal(SIGKILL);
        EXPECT_EQ("", client.expect("disappeared " + id));
        sum += 100;
        // No waiting here: the end was told, so all that came before is there.
        EXPECT_EQ(" count 100 bytes 100000 errors 0", client.ask("tell", "from " + id));
    }
    EXPECT_EQ("", client.ask("await " + std::to_string(sum), "got"));
}

TEST_F(Messages, AnswersOfAnEchoFindTheirWayBack) {
    Actor client(unit_);
    Actor server(unit_, 2);
    const std::string clientId = client.probe();
    const std::string serverId = server.probe();
    client.expect("appeared " + serverId);
    EXPECT_EQ("", server.ask("echo", "ok"));
    EXPECT_EQ("2000", client.ask("send " + serverId + " 64 2000", "sent "));
    EXPECT_EQ("", client.ask("await 2000", "got"));
    EXPECT_EQ(" count 2000 bytes 128000 errors 0", client.ask("tell", "from " + serverId));
    EXPECT_EQ(" count 2000 bytes 128000 errors 0", server.ask("tell", "from " + clientId));
}

TEST_F(Messages, ToNobodyAreRefused) {
    Actor actor(unit_);
    actor.probe();
    EXPECT_EQ("0", actor.ask("send 00000000 10 1", "sent "));
    EXPECT_EQ("0", actor.ask("send 12340101 10 1", "sent "));
}

} // namespace
