#include "platform/transport/Descriptor_p.h"

#include "platform/Cancellation.h"
#include "platform/Environment_p.h"

#include <atomic>
#include <unistd.h>

namespace Transport {

namespace {

constexpr int kEntries = 4096;
std::atomic<int> openDescriptors[kEntries]; // descriptor + 1; 0: free

void closeInChild() noexcept {
    for (std::atomic<int> &entry : openDescriptors) {
        // Taken out: in a child of the child the number may be that of something else.
        if (int value = entry.exchange(0); value != 0) {
            ::close(value - 1);
        }
    }
}

int enter(int fd) noexcept {
    static const bool registered = (Platform::onForkInChild(closeInChild), true);
    static_cast<void>(registered);
    static std::atomic<unsigned> hint{0};
    const unsigned start = hint.fetch_add(1, std::memory_order_relaxed);
    for (int i = 0; i < kEntries; ++i) {
        const int place = static_cast<int>((start + static_cast<unsigned>(i)) % kEntries);
        int free = 0;
        if (openDescriptors[place].compare_exchange_strong(free, fd + 1)) {
            return place;
        }
    }
    return -1;
}

} // namespace

Descriptor::Descriptor(int fd) noexcept : fd_(fd), entry_(fd >= 0 ? enter(fd) : -1) {}

void Descriptor::reset() noexcept {
    if (fd_ < 0) {
        return;
    }
    if (entry_ >= 0) {
        openDescriptors[entry_].store(0);
    }
    if (!Platform::inForkedChild()) {
        OSWrap::DisableCancelStateGuard guard;
        ::close(fd_);
    }
    fd_ = -1;
    entry_ = -1;
}

} // namespace Transport
