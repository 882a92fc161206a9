#include "threads/BrokerLocks.h"

#include "threads/HandlerState.h"

namespace {

constexpr OSWrap::Mutex::RunPermissionAware kAware{};

/** Blocks without the run permission; it is back when the lock is held. */
template <class Block>
bool withoutPermission(const Block &block) {
    TreflectReleaseHandlerState released;
    return block();
}

} // namespace

// The analysis cannot follow a lock that is taken in one branch or the other.

TreflectMutex::TreflectMutex() noexcept : mutex_(kAware) {}
TreflectMutex::~TreflectMutex() = default;
bool TreflectMutex::lock() RB_NO_ANALYSIS {
    return mutex_.trylock() || withoutPermission([this]() RB_NO_ANALYSIS { return mutex_.lock(); });
}
bool TreflectMutex::unlock() RB_NO_ANALYSIS {
    return mutex_.unlock();
}
bool TreflectMutex::trylock() RB_NO_ANALYSIS {
    return mutex_.trylock();
}

TreflectCountedMutex::TreflectCountedMutex() noexcept = default;
TreflectCountedMutex::~TreflectCountedMutex() = default;
bool TreflectCountedMutex::lock() RB_NO_ANALYSIS {
    return mutex_.trylock() || withoutPermission([this]() RB_NO_ANALYSIS { return mutex_.lock(); });
}
bool TreflectCountedMutex::unlock() RB_NO_ANALYSIS {
    return mutex_.unlock();
}
bool TreflectCountedMutex::trylock() RB_NO_ANALYSIS {
    return mutex_.trylock();
}
unsigned TreflectCountedMutex::count() const {
    return mutex_.count();
}

TreflectConditionVar::TreflectConditionVar(bool) : ConditionVar(kAware) {}
TreflectConditionVar::~TreflectConditionVar() = default;
bool TreflectConditionVar::lock() RB_NO_ANALYSIS {
    return trylock() || withoutPermission([this]() RB_NO_ANALYSIS { return ConditionVar::lock(); });
}
bool TreflectConditionVar::wait(const OSWrap::TimeSpec &limit) RB_NO_ANALYSIS {
    TreflectReleaseHandlerState released;
    return ConditionVar::wait(limit);
}

namespace OSWrap {

RunPermMutex::RunPermMutex() noexcept : mutex_(kAware) {}
RunPermMutex::~RunPermMutex() = default;
bool RunPermMutex::lock() RB_NO_ANALYSIS {
    TreflectReleaseHandlerState released;
    return mutex_.lock();
}
bool RunPermMutex::unlock() RB_NO_ANALYSIS {
    return mutex_.unlock();
}
bool RunPermMutex::trylock() RB_NO_ANALYSIS {
    return mutex_.trylock();
}

RunPermConditionVar::RunPermConditionVar(bool) : ConditionVar(kAware) {}
RunPermConditionVar::~RunPermConditionVar() = default;
bool RunPermConditionVar::lock() RB_NO_ANALYSIS {
    TreflectReleaseHandlerState released;
    return ConditionVar::lock();
}
bool RunPermConditionVar::wait(const TimeSpec &limit) RB_NO_ANALYSIS {
    TreflectReleaseHandlerState released;
    return ConditionVar::wait(limit);
}

} // namespace OSWrap
