#include "Counts.h"

#include "objects/ObjectHandler.h"
#include "orb/MessageQueue_p.h"
#include "orb/PendingRequests_p.h"
#include "orb/REFLECT_orb.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreadsType_p.h"

#include <dirent.h>

namespace {

// Leaks show in nothing that a user can ask for, so the private members themselves are looked at: an explicit
// instantiation may name them.
template <class Tag, auto Member>
struct Opened {
    friend constexpr auto member(Tag) { return Member; }
};
struct PendingTag {
    friend constexpr auto member(PendingTag);
};
struct MutexTag {
    friend constexpr auto member(MutexTag);
};
struct QueueTag {
    friend constexpr auto member(QueueTag);
};
struct ContainerTag {
    friend constexpr auto member(ContainerTag);
};
struct StubsTag {
    friend constexpr auto member(StubsTag);
};
struct CountersTag {
    friend constexpr auto member(CountersTag);
};
struct ClassesTag {
    friend constexpr auto member(ClassesTag);
};
template struct Opened<PendingTag, &TreflectORB::ongoingRequests_>;
template struct Opened<MutexTag, &TreflectORB::mutex_>;
template struct Opened<QueueTag, &TreflectORB::queue_>;
template struct Opened<ContainerTag, &TreflectObjectHandler::stubs_>;
template struct Opened<StubsTag, &TreflectObjectStubContainer::stubs_>;
template struct Opened<CountersTag, &TreflectORB::counters_>;
template struct Opened<ClassesTag, &TreflectORB::classCodes_>;

std::size_t pendingOf(TreflectORB &orb) {
    OSWrap::Mutex &mutex = orb.*member(MutexTag{});
    const OSWrap::Lock<OSWrap::Mutex> lock(mutex);
    std::size_t count = 0; // the table keeps none
    (orb.*member(PendingTag{}))->takeFirst([&count](const OngoingRequest &) {
        ++count;
        return false;
    });
    return count;
}

std::size_t stubs() {
    const TreflectHandlerState state(true);
    TreflectObjectHandler *const handler = TreflectObjectHandler::getInstance();
    return ((handler->*member(ContainerTag{})).*member(StubsTag{})).size();
}

/** Entries of a directory, without "." and "..". */
int entries(const char *path) {
    int count = -2;
    if (DIR *list = ::opendir(path)) {
        while (::readdir(list) != nullptr) {
            ++count;
        }
        ::closedir(list);
    }
    return count;
}

} // namespace

std::string describeCounts() {
    TreflectORB &orb = *TreflectORB::getInstance(1);
    auto &queue = *(orb.*member(QueueTag{}));
    std::size_t queued = 0;
    unsigned idle = 0;
    {
        const OSWrap::Lock<OSWrap::ConditionVar> lock(queue);
        queued = queue.messages.size();
        idle = queue.idle;
    }
    const unsigned handlers = TreflectORB::handlerThreads()->size();
    return LogMakeString("pending %zu stubs %zu queued %zu idle %u handlers %u threads %d files %d", pendingOf(orb),
                         stubs(), queued, idle, handlers, entries("/proc/self/task"),
                         entries("/proc/self/fd") - 1); // the list itself
}

unsigned sentRequests() {
    unsigned sum = 0;
    for (const auto &counters : TreflectORB::getInstance(1)->*member(CountersTag{})) {
        sum += counters.second.requests;
    }
    return sum;
}

std::vector<unsigned> learnedClasses(Transport::TerminationId broker) {
    const auto &classes = TreflectORB::getInstance(1)->*member(ClassesTag{});
    const auto found = classes.find(broker);
    return found != classes.end() ? found->second : std::vector<unsigned>();
}
