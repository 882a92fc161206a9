/*
 * The actor that is attacked, or a well-behaved client of it, one command a line:
 *   orb                    makes the broker                                -> "orb ORBID ID"
 *   serve NAME             an object for others to call                    -> "serves NUMBER"
 *   counts                 how often each was called                       -> "counts NUMBER:CALLS ..."
 *   call NAME COUNT        calls that are checked                          -> "called GOOD of COUNT"
 *   calling NAME           calls without end, of which one has ended         -> "ok"
 *   enough                 ends that                                       -> "called GOOD of COUNT"
 *   locate NAME            asks the others                                 -> "located NUMBER"
 *   counters               asks the others                                 -> "counters ENTRIES NAMESIZE ..."
 *   watch | unwatch | watched | make | making | made | remove | subscribers         see Watch.h
 */
#include "../../system/actor/Output.h"
#include "Target.h"
#include "Watch.h"
#include "orb/REFLECT_orb.h"
#include "platform/Thread.h"
#include "rmi/IPPRMI_objectClient.h"
#include "rmi/StreamOperators.h"
#include "threads/HandlerState.h"

#include <atomic>
#include <cstdio>
#include <future>
#include <memory>
#include <sstream>

namespace {

using Arguments = std::istringstream;

bool callAddOne(const TipprmiObjectClient &client, unsigned number) {
    TipprmiStream request(100);
    TipprmiStream response(100);
    client.prepareRequestStream_(true, Target::kClass, Target::addOne, request);
    request << number;
    const bool sent = client.dispatch(true, Target::kClass, Target::addOne, request, response);
    client.prepareResponseStream_(true, response);
    unsigned answer = 0;
    response >> answer;
    return sent && !response.hasUnmarshallingFailed() && answer == number + 1;
}

/** Calls until it is told that it is enough, or so often. */
class Caller : public OSWrap::Thread {
public:
    Caller(std::string name, unsigned most)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), ~0U, "caller", false), name_(std::move(name)),
          most_(most) {}
    std::atomic<bool> enough{false};
    std::promise<void> begun; // after the first call
    unsigned good = 0;
    unsigned all = 0;

protected:
    int run() override {
        TreflectHandlerState state(true);
        const TipprmiObjectClient client(TipprmiOID(name_, NamespaceId(1)));
        for (; !enough && all < most_; ++all) {
            good += callAddOne(client, all) ? 1 : 0;
            if (all == 0) {
                begun.set_value();
            }
        }
        return 0;
    }

private:
    const std::string name_;
    const unsigned most_;
};

std::unique_ptr<Caller> &caller() {
    static auto &instance = *new std::unique_ptr<Caller>;
    return instance;
}

void onOrb(Arguments &) {
    const TreflectORB *orb = TreflectORB::getInstance(NamespaceId(1));
    if (orb != nullptr) {
        say("orb %08X %08X", orb->orbId().value(), orb->termId().value());
    } else {
        say("orb none");
    }
}

void onServe(Arguments &arguments) {
    std::string name;
    arguments >> name;
    TreflectHandlerState state(true);
    const auto *target = new Target(name); // until the end of the process
    say("serves %X", target->getInternalOID());
}

void onCounts(Arguments &) {
    std::string line;
    {
        TreflectHandlerState state(true);
        for (const auto &[number, calls] : Target::calls()) {
            char text[32];
            std::snprintf(text, sizeof text, " %X:%u", number, calls);
            line += text;
        }
    }
    say("counts%s", line.c_str());
}

void onCalling(Arguments &arguments) {
    std::string name;
    arguments >> name;
    caller() = std::make_unique<Caller>(name, ~0U);
    if (caller()->start()) {
        caller()->begun.get_future().wait();
        say("ok");
    }
}

void onEnough(Arguments &) {
    caller()->enough = true;
    caller()->join();
    say("called %u of %u", caller()->good, caller()->all);
    caller().reset();
}

void onCall(Arguments &arguments) {
    std::string name;
    unsigned count = 0;
    arguments >> name >> count;
    Caller once(name, count);
    once.start();
    once.join();
    say("called %u of %u", once.good, once.all);
}

void onLocate(Arguments &arguments) {
    std::string name;
    arguments >> name;
    say("located %X", TreflectORB::getInstance(1)->locateObject(TipprmiOID(name, NamespaceId(1))).getInternalOID());
}

void onCounters(Arguments &) {
    std::string line;
    for (const TreflectORB::PerfCntMultInfo &orb : TreflectORB::getInstance(1)->getPerfCnts()) {
        line += ' ' + std::to_string(orb.info.counters.getLength()) + ' ' + std::to_string(orb.info.actor.size());
    }
    say("counters%s", line.c_str());
}

struct Command {
    const char *name;
    void (*run)(Arguments &);
};

constexpr Command kCommands[] = {
    {"orb", &onOrb},         {"serve", &onServe},     {"counts", &onCounts},   {"call", &onCall},
    {"calling", &onCalling}, {"enough", &onEnough},   {"locate", &onLocate},   {"counters", &onCounters},
    {"watch", &onWatch},     {"unwatch", &onUnwatch}, {"watched", &onWatched}, {"make", &onMake},
    {"making", &onMaking},   {"made", &onMade},       {"remove", &onRemove},   {"subscribers", &onSubscribers},
};

} // namespace

int main() {
    std::string line;
    while (nextLine(line)) {
        Arguments arguments(line);
        std::string name;
        arguments >> name;
        for (const Command &command : kCommands) {
            if (name == command.name) {
                command.run(arguments);
            }
        }
    }
    return 0;
}
