#include "threads/HandlerThreadPolicies.h"

#include "platform/Log.h"

namespace {

// Trivial: valid from the first to the last instruction of a thread, also in the destructors of its keys.
struct Entry {
    const SetContainer *container;
    unsigned count;
};
constexpr int kContainers = 4;
// Asked for at every guard: a few bytes in the part of a thread's memory that is found without a call.
__attribute__((tls_model("initial-exec"))) thread_local Entry entries[kContainers];

Entry *find(const SetContainer *container) noexcept {
    for (Entry &entry : entries) {
        if (entry.count != 0 && entry.container == container) {
            return &entry;
        }
    }
    return nullptr;
}

} // namespace

void SetContainer::announce() {
    LogDispatch(5, "ORB HandlerThreads using SetContainer", "HandlerThreadPolicies");
}

void SetContainer::add() noexcept {
    Entry *entry = find(this);
    for (int i = 0; entry == nullptr && i < kContainers; ++i) {
        if (entries[i].count == 0) {
            entry = &entries[i];
            entry->container = this;
        }
    }
    if (entry != nullptr) {
        ++entry->count;
        total_.fetch_add(1, std::memory_order_relaxed);
    }
}

void SetContainer::remove() noexcept {
    if (Entry *entry = find(this)) {
        --entry->count;
        total_.fetch_sub(1, std::memory_order_relaxed);
    }
}

unsigned SetContainer::count() const noexcept {
    const Entry *entry = find(this);
    return entry != nullptr ? entry->count : 0;
}
