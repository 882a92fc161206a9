#pragma once

#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <memory>
#include <poll.h>
#include <sstream>
#include <string>

namespace Testing {

/** An actor that has objects, and one that has handles of them; see actor/Puppets.h and actor/Stubs.h. */
class StubsTest : public testing::Test {
protected:
    struct Member {
        std::unique_ptr<Actor> actor;
        std::string broker; // its id, in hexadecimal without leading zeros
        std::string id;     // of its termination
    };

    StubsTest() {
        user = start(2, "user");
        restart();
    }
    /** Another incarnation of the owner. */
    void restart() {
        owner = start(1, "owner");
        for (const Member *member : {&owner, &user}) {
            EXPECT_TRUE(member->actor->askUntil("events members", "events ", "2"));
        }
    }
    /** Until the user's handle has taken it in. */
    void killOwner(const std::string &ofOwner) {
        owner.actor->kill();
        const std::string command = "state " + ofOwner;
        bool valid = true;
        for (int tries = 0; valid && tries < 6000; ++tries) {
            valid = stub(command).compare(0, 3, "0 0") != 0;
            ::poll(nullptr, 0, valid ? 10 : 0); // disappearances have a thread of their own
        }
        EXPECT_FALSE(valid);
    }

    static std::string puppet(const Member &member, const std::string &command) {
        return member.actor->ask("puppet " + command, "puppet ");
    }
    static std::string stub(const Member &member, const std::string &command) {
        return member.actor->ask("stub " + command, "stub ");
    }
    std::string stub(const std::string &command) const { return stub(user, command); }
    std::string puppet(const std::string &command) const { return puppet(owner, command); }

    /** Requests of all kinds that the user has sent to a termination, as it answers the owner. */
    unsigned requestsTo(const std::string &termination) const {
        std::string target = std::to_string(std::stoul(termination, nullptr, 16)) + ":";
        std::istringstream words(owner.actor->ask("counters", "counters " + user.id));
        unsigned requests = 0;
        for (std::string word; words >> word;) {
            if (word.compare(0, target.size(), target) == 0) {
                requests = static_cast<unsigned>(std::stoul(word.substr(target.size())));
            }
        }
        owner.actor->expect("end");
        return requests;
    }
    unsigned requests() const { return requestsTo(owner.id); }
    std::string stubs() const {
        const std::string counts = user.actor->ask("counts", "counts ");
        const std::size_t at = counts.find("stubs ");
        return counts.substr(at, counts.find(" queued") - at);
    }

    /** How often a line is in the log that has this level and source, and begins and ends so. */
    static unsigned logged(const Member &member, int level, const std::string &source, const std::string &begin,
                           const std::string &end = "") {
        const std::string head = std::to_string(level) + " " + source + " ";
        std::istringstream log(member.actor->log());
        unsigned count = 0;
        for (std::string line; std::getline(log, line);) {
            const std::size_t text = line.find("] ");
            const bool is = text != std::string::npos && line.substr(0, text).find(head) != std::string::npos &&
                            line.compare(text + 2, begin.size(), begin) == 0 &&
                            line.size() >= text + 2 + begin.size() + end.size() &&
                            line.compare(line.size() - end.size(), end.size(), end) == 0;
            count += is ? 1 : 0;
        }
        return count;
    }
    unsigned unmarshallErrors(unsigned method) const {
        return logged(user, 4, "CallHelper", "Unmarshall error on cc=0x0, mc=" + std::to_string(method));
    }
    unsigned unmarshallErrors() const { return logged(user, 4, "CallHelper", "Unmarshall error"); }

    const TempDir directory_;
    const Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Member owner;
    Member user;

private:
    Member start(unsigned slot, const std::string &name) const {
        Member member;
        member.actor = std::make_unique<Actor>(unit_, slot, std::vector<std::string>{"REFLECTORB_ACTOR=" + name});
        std::istringstream answer(member.actor->ask("orb 1", "orb "));
        answer >> member.broker >> member.id;
        member.broker.erase(0, member.broker.find_first_not_of('0'));
        return member;
    }
};

} // namespace Testing
