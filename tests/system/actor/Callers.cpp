#include "Callers.h"

#include "Output.h"
#include "Service.h"
#include "orb/REFLECT_orb.h"
#include "platform/Thread.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <atomic>
#include <pthread.h>
#include <utility>
#include <vector>

namespace {

constexpr unsigned kStack = 256 * 1024; // thousands of them shall fit

TipprmiObjectClient clientOf(const std::string &name) {
    return TipprmiObjectClient(oidOf(name));
}

TipprmiObjectClient &keptHandle() {
    static auto &instance = *new TipprmiObjectClient;
    return instance;
}

bool callOnce(const std::string &method, const TipprmiObjectClient &client, unsigned number) {
    if (method == "addone" || method == "kept") {
        return callAddOne(client, number);
    }
    if (method == "echo") {
        return callEcho(client, number);
    }
    if (method == "hold") {
        return callHold(client);
    }
    if (method == "leave") {
        return callLeave(client, number);
    }
    return method == "note" ? callNote(client) : callRefuse(client);
}

/** Calls `count` times in one thread; `echo` and `leave` once, with `count` as their argument. */
class Caller : public OSWrap::Thread {
public:
    Caller(std::string method, std::string name, unsigned count)
        : Thread(OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), kStack, "caller", false), once(takesCount(method)),
          method_(std::move(method)), name_(std::move(name)), count_(count) {}
    static bool takesCount(const std::string &method) { return method == "echo" || method == "leave"; }

    std::atomic<unsigned> good{0};
    std::atomic<bool> returned{false};
    const bool once;

protected:
    int run() override {
        const TreflectHandlerState state(true);
        const TipprmiObjectClient client = method_ == "kept" ? keptHandle() : clientOf(name_);
        for (unsigned i = 0; i < (once ? 1 : count_); ++i) {
            good += callOnce(method_, client, once ? count_ : i) ? 1 : 0;
        }
        returned = true;
        return 0;
    }

private:
    const std::string method_;
    const std::string name_;
    const unsigned count_;
};

std::vector<std::unique_ptr<Caller>> &callers() {
    static auto &instance = *new std::vector<std::unique_ptr<Caller>>; // they may run until the end of the process
    return instance;
}

unsigned all = 0;

void startCallers(std::istringstream &arguments) {
    std::string method;
    std::string name;
    unsigned count = 0;
    unsigned threads = 1;
    arguments >> method >> name >> count >> threads;
    for (unsigned i = 0; i < std::max(threads, 1U); ++i) {
        auto caller = std::make_unique<Caller>(method, name, count);
        all += caller->once ? 1 : count;
        if (caller->start()) {
            callers().push_back(std::move(caller));
        } else {
            say("no thread");
        }
    }
}

/** A thread that is none of the library's. */
void *callBare(void *argument) {
    const auto &name = *static_cast<const std::string *>(argument);
    const TreflectHandlerState state(true);
    static_cast<void>(callHold(clientOf(name)));
    return argument;
}

} // namespace

void onBegin(std::istringstream &arguments) {
    startCallers(arguments);
    say("begun");
}

void onJoin(std::istringstream &) {
    unsigned good = 0;
    for (const auto &caller : callers()) {
        caller->join();
        good += caller->good;
    }
    say("called %u of %u", good, std::exchange(all, 0));
    callers().clear();
}

void onCall(std::istringstream &arguments) {
    startCallers(arguments);
    onJoin(arguments);
}

void onCancel(std::istringstream &) {
    const std::unique_ptr<Caller> caller = std::move(callers().back());
    callers().pop_back();
    caller->stop();
    caller->join();
    say("cancelled %d", caller->returned ? 1 : 0);
}

void onCancelBare(std::istringstream &arguments) {
    std::string name;
    arguments >> name;
    static const std::string &target = *new std::string(name);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, &callBare, const_cast<std::string *>(&target)) != 0) {
        say("no thread");
        return;
    }
    std::string line;
    nextLine(line); // the word that the call has arrived
    pthread_cancel(thread);
    void *result = nullptr;
    pthread_join(thread, &result);
    say("cancelled %d", result == PTHREAD_CANCELED ? 0 : 1);
}

void onStorm(std::istringstream &arguments) {
    std::string name;
    unsigned rounds = 0;
    arguments >> name >> rounds;
    unsigned good = 0;
    unsigned cancelled = 0;
    for (unsigned round = 0; round < rounds; ++round) {
        Caller caller("addone", name, ~0U);
        if (!caller.start()) {
            continue;
        }
        while (caller.good < round % 7) { // which moment of a call comes then is left to chance
            OSWrap::Thread::sleep(OSWrap::TimeSpec(0, 20000));
        }
        caller.stop();
        caller.join();
        good += caller.good;
        cancelled += caller.returned ? 0 : 1;
    }
    say("stormed %u %u", cancelled, good);
}

void onKeep(std::istringstream &arguments) {
    std::string name;
    arguments >> name;
    const TreflectHandlerState state(true);
    keptHandle() = clientOf(name);
    say("kept %d", keptHandle().isConnected() ? 1 : 0);
}

void onKept(std::istringstream &) {
    const TreflectHandlerState state(true);
    say("called %d of 1", callAddOne(keptHandle(), 41) ? 1 : 0);
}
