#pragma once

#include "platform/Export.h"

#include <atomic>

/** How much the run permission watches over its use; level 1 is the only one built. */
template <int Level>
struct Debugging_t {};

class SetContainer;
template <class Debugging>
class DebugPermission;
template <class Container, class Permission, class Debugging>
class HandlerThreads;

/** What the library is built with. */
using HandlerThreadsType = HandlerThreads<SetContainer, DebugPermission<Debugging_t<1>>, Debugging_t<1>>;

/** Says once per process which policies the library was built with; returns 1. */
REFLECTORB_API int HandlerThreadsTypeOutput(int cnt, int prm, int dbg);

/**
 * The handler threads of an actor: which threads are in, and how many times. A thread only ever asks about itself, so
 * each keeps its own count, and asking costs no lock. A thread may be in at most four containers at once.
 */
class SetContainer {
public:
    SetContainer() noexcept = default;
    SetContainer(const SetContainer &) = delete;
    SetContainer &operator=(const SetContainer &) = delete;

    /** Logs which policy this is, once it is in use. */
    static void announce();

    void add() noexcept;
    /** Takes one entry of the calling thread out, if it has any. */
    void remove() noexcept;
    bool exist() const noexcept { return count() != 0; }
    /** Entries of the calling thread. */
    unsigned count() const noexcept;
    /** Entries of all threads. */
    unsigned size() const noexcept { return total_.load(std::memory_order_relaxed); }

private:
    std::atomic<unsigned> total_{0};
};
