#include "Reaction.h"

#include "Output.h"
#include "threads/HandlerState.h"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>

namespace {

struct State {
    std::mutex lock;
    std::condition_variable changed;
    std::string reaction = "nothing";
};

State &state() {
    static State &instance = *new State; // in use until the end of the process
    return instance;
}

} // namespace

void onReact(std::istringstream &arguments) {
    {
        const std::lock_guard<std::mutex> lock(state().lock);
        arguments >> state().reaction;
        state().changed.notify_all();
    }
    say("reacts");
}

void react() {
    const TreflectReleaseHandlerState released; // others of this actor go on
    std::unique_lock<std::mutex> lock(state().lock);
    if (state().reaction == "throw") {
        throw std::runtime_error("an observer has failed");
    }
    if (state().reaction == "exit") {
        lock.unlock();
        std::exit(3);
    }
    if (state().reaction == "hold") {
        say("holding");
        state().changed.wait(lock, [] { return state().reaction != "hold"; });
    }
}

bool leaves() {
    const std::lock_guard<std::mutex> lock(state().lock);
    return state().reaction == "leave";
}

bool deletes() {
    const std::lock_guard<std::mutex> lock(state().lock);
    return state().reaction == "delete";
}
