#include "support/TempDir.h"
#include "system/Actor.h"
#include "system/Counts.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <poll.h>
#include <random>
#include <sstream>

namespace {

using Testing::Actor;
using Testing::Counts;

constexpr unsigned kActors = 4;
constexpr unsigned kThreads = 8;
#if defined(REFLECTORB_SANITIZED)
constexpr unsigned kRounds = 25;
constexpr bool kMemoryIsMeasured = false; // the sanitizers keep what is freed
constexpr long kForeignThreads = 1;       // and one starts a thread with the first that is started
#else
constexpr unsigned kRounds = 120;
constexpr bool kMemoryIsMeasured = true;
constexpr long kForeignThreads = 0;
#endif
constexpr long kOwnThreads = 3;         // receiving, membership, and the one that tells of brokers
constexpr long kMoreMemory = 16 * 1024; // KiB

unsigned fromEnvironment(const char *name, unsigned otherwise) {
    const char *text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

/** Actors that call one another all the time, while some are killed, stopped and started again. The first is never
 *  killed: what it holds at the end can be compared with what it held before. */
class Torture : public testing::Test {
protected:
    static std::string name(unsigned which) { return "t" + std::to_string(which); }

    /** A new incarnation, which serves and calls as all do. */
    void start(unsigned which, bool torment = true) {
        actors_[which] = std::make_unique<Actor>(unit_, 1 + which % 3);
        Actor &actor = *actors_[which];
        incarnation_[which] = ++incarnations_;
        bareThreads_[which] = std::strtol(actor.ask("figures", "figures ").c_str(), nullptr, 10);
        EXPECT_NE("none", actor.ask("orb 1", "orb "));
        actor.ask("serve s" + name(which), "serves ");
        if (torment) {
            this->torment(which);
        }
    }
    void torment(unsigned which) {
        std::string command =
            "torment " + std::to_string(incarnation_[which]) + " " + name(which) + " " + std::to_string(kThreads);
        for (unsigned other = 0; other < kActors; ++other) {
            command += other != which ? " " + name(other) : "";
        }
        actors_[which]->ask(command, "tormented");
    }
    void finishOff(unsigned which) {
        for (const std::string &line : actors_[which]->last("wrong")) {
            ADD_FAILURE() << name(which) << ": wrong" << line;
        }
        actors_[which].reset();
    }
    unsigned progress(unsigned which) {
        const std::string answer = actors_[which]->ask("progress", "progress ");
        return static_cast<unsigned>(std::strtoul(answer.c_str(), nullptr, 10));
    }
    /** Until the first actor has had so many more right answers: they come again and again, whatever happens. */
    bool comeOn(unsigned answers) {
        const unsigned before = progress(0);
        for (unsigned tries = 0; tries < 12000; ++tries) {
            if (progress(0) - before >= answers) {
                return true;
            }
            ::poll(nullptr, 0, 5);
        }
        return false;
    }
    unsigned draw(unsigned below) { return static_cast<unsigned>(random_() % below); }
    /** How long somebody stands still is part of the draw. */
    void dwell() { ::poll(nullptr, 0, static_cast<int>(draw(80))); }

    /** One of those below. */
    void disturb();
    void killOne();
    void exitOne();
    void stopOne();
    void stopOneAndKillAnother();
    void killOneThatIsStopped();

    /** Ends the threads; what they got. */
    void rest(unsigned which) {
        unsigned good = 0;
        unsigned failed = 0;
        std::istringstream(actors_[which]->ask("rest", "rested ")) >> good >> failed;
        good_ += good;
        failed_ += failed;
    }
    /** Waits until what the actor holds at rest is what it has to be, and returns that. */
    Counts quiet(unsigned which, const std::function<bool(const Counts &)> &more);
    bool atRest(unsigned which, const Counts &counts) const;
    long memoryOf(unsigned which) {
        std::string figures = actors_[which]->ask("figures", "figures ");
        return std::strtol(figures.substr(figures.find(' ')).c_str(), nullptr, 10);
    }

    const unsigned seed_ = fromEnvironment("REFLECTORB_TORTURE_SEED", 20240817);
    const unsigned rounds_ = fromEnvironment("REFLECTORB_TORTURE_ROUNDS", kRounds);
    std::minstd_rand random_{seed_};
    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=0"}};
    std::array<std::unique_ptr<Actor>, kActors> actors_;
    std::array<long, kActors> bareThreads_{};
    std::array<unsigned, kActors> incarnation_{};
    unsigned incarnations_ = 0;
    unsigned long good_ = 0;
    unsigned long failed_ = 0;
};

void Torture::disturb() {
    using Action = void (Torture::*)();
    constexpr Action kActions[] = {&Torture::killOne, &Torture::exitOne, &Torture::stopOne,
                                   &Torture::stopOneAndKillAnother, &Torture::killOneThatIsStopped};
    (this->*kActions[draw(sizeof kActions / sizeof kActions[0])])();
}

void Torture::killOne() {
    const unsigned which = 1 + draw(kActors - 1);
    actors_[which]->kill();
    finishOff(which);
    dwell();
    start(which);
}

void Torture::exitOne() {
    const unsigned which = 1 + draw(kActors - 1);
    actors_[which]->tell("exit 3");
    EXPECT_EQ(3 << 8, actors_[which]->end());
    finishOff(which);
    start(which);
}

void Torture::stopOne() {
    const unsigned which = draw(kActors);
    actors_[which]->signal(SIGSTOP);
    dwell();
    actors_[which]->signal(SIGCONT);
}

void Torture::stopOneAndKillAnother() {
    const unsigned stopped = draw(kActors);
    const unsigned killed = 1 + (stopped + draw(kActors - 2)) % (kActors - 1);
    actors_[stopped]->signal(SIGSTOP);
    dwell();
    if (killed != stopped) {
        actors_[killed]->kill();
        finishOff(killed);
        dwell();
    }
    actors_[stopped]->signal(SIGCONT);
    if (killed != stopped) {
        start(killed);
    }
}

void Torture::killOneThatIsStopped() {
    const unsigned which = 1 + draw(kActors - 1);
    actors_[which]->signal(SIGSTOP);
    dwell();
    actors_[which]->kill();
    finishOff(which);
    start(which);
}

/** No threads but the main thread, the library's own and idle workers. */
bool Torture::atRest(unsigned which, const Counts &counts) const {
    return counts["pending"] == 0 && counts["queued"] == 0 && counts["idle"] <= 3 &&
           counts["handlers"] <= counts["idle"] &&
           counts["threads"] <= bareThreads_[which] + kForeignThreads + kOwnThreads + counts["idle"];
}

Counts Torture::quiet(unsigned which, const std::function<bool(const Counts &)> &more) {
    for (unsigned tries = 0; tries < 6000; ++tries) {
        const Counts counts(actors_[which]->ask("counts", "counts "));
        if (atRest(which, counts) && more(counts)) {
            return counts;
        }
        ::poll(nullptr, 0, 10); // workers end, and connections are closed, a little later
    }
    const Counts counts(actors_[which]->ask("counts", "counts "));
    ADD_FAILURE() << name(which) << " holds " << counts.text;
    return counts;
}

TEST_F(Torture, EveryCallEndsWithItsOwnAnswerOrFails) {
    std::printf("torture: REFLECTORB_TORTURE_SEED=%u REFLECTORB_TORTURE_ROUNDS=%u\n", seed_, rounds_);
    std::fflush(stdout);
    for (unsigned which = 0; which < kActors; ++which) {
        start(which, false);
    }
    for (unsigned which = 0; which < kActors; ++which) {
        torment(which);
    }
    ASSERT_TRUE(comeOn(500));
    for (unsigned which = 0; which < kActors; ++which) {
        rest(which);
    }
    const Counts before = quiet(0, [](const Counts &) { return true; });
    const long memory = memoryOf(0);
    ASSERT_FALSE(HasFailure());

    for (unsigned which = 0; which < kActors; ++which) {
        torment(which);
    }
    for (unsigned round = 0; round < rounds_ && !HasFailure(); ++round) {
        disturb();
        ASSERT_TRUE(comeOn(1 + draw(400))) << "round " << round;
    }

    for (unsigned which = 0; which < kActors; ++which) {
        rest(which);
    }
    for (unsigned which = 0; which < kActors && !HasFailure(); ++which) {
        // All have one incarnation of each peer by now, so all hold the same.
        quiet(which, [&](const Counts &counts) {
            return counts["stubs"] == before["stubs"] && counts["files"] == before["files"];
        });
        for (unsigned other = 0; other < kActors; ++other) {
            EXPECT_EQ("20 of 20", actors_[which]->ask("call addone s" + name(other) + " 20", "called "));
        }
    }
    if (kMemoryIsMeasured) {
        EXPECT_LE(memoryOf(0), memory + kMoreMemory);
    }
    for (unsigned which = 0; which < kActors; ++which) {
        actors_[which]->tell("exit 0");
        EXPECT_EQ(0, actors_[which]->end());
        finishOff(which);
    }
    std::printf("torture: %lu calls answered, %lu failed\n", good_, failed_);
    EXPECT_GT(failed_, 0U) << "nothing was disturbed";
}

} // namespace
