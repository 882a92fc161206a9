#include "platform/Environment_p.h"

#include <atomic>
#include <pthread.h>

namespace Platform {

namespace {

constexpr int kMaxHandlers = 8;
std::atomic<bool> forked{false};
std::atomic<void (*)()> handlers[kMaxHandlers];
std::atomic<int> handlerCount{0};

void inChild() {
    forked = true;
    for (std::atomic<void (*)()> &handler : handlers) {
        if (void (*call)() = handler.load()) {
            call();
        }
    }
}

// At load time, so that a fork is noticed whatever was used before it; does nothing else.
[[gnu::constructor]] void watchForks() {
    pthread_atfork(nullptr, nullptr, inChild);
}

} // namespace

bool inForkedChild() noexcept {
    return forked.load(std::memory_order_relaxed);
}

void onForkInChild(void (*handler)()) noexcept {
    const int place = handlerCount.fetch_add(1);
    if (place < kMaxHandlers) {
        handlers[place] = handler;
    }
}

} // namespace Platform
