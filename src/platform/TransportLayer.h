#pragma once

#include "platform/Export.h"
#include "platform/Termination.h"

#include <list>

namespace Transport {

/** The started terminations of one group in the unit; a value. */
class REFLECTORB_API Group {
public:
    explicit Group(GroupId id) noexcept : id_(id) {}
    /** Snapshot, own ones included, ascending by value(): the same order in every actor. */
    std::list<TerminationId> contains() const;

private:
    GroupId id_;
};

/** The transport of this process. Answers from its own knowledge, without waiting and without I/O. */
class REFLECTORB_API TransportLayer {
public:
    /** Never destroyed; usable at any time, also during process exit. */
    static TransportLayer *instance() noexcept;

    /** Null for 0, for an id never known or vanished, and for an own termination that is not started. */
    static TerminationPtr getTermination(TerminationId id);
    /** False from the moment the transport noticed the end of the termination, whatever was delivered since. */
    static bool exists(TerminationId id);
    static Group getGroup(GroupId id) noexcept;
    /** All groups, own ones included, ascending. */
    static std::list<TerminationPtr> getTerminations();

private:
    TransportLayer() = default;
};

} // namespace Transport
