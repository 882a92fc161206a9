#pragma once

#include "orb/OrbId.h"
#include "platform/Mutex.h"
#include "platform/TerminationId.h"
#include "platform/ThreadAnnotations.h"

#include <list>
#include <set>
#include <vector>

class TreflectObserver;

/**
 * Brokers that came up after a subscription had taken its list of members: it does not reach them. What asks who has
 * been missed comes from the subscribing thread, what adds from the one that sees brokers appear.
 */
class TreflectMissedOrbs {
public:
    explicit TreflectMissedOrbs(bool creations) : creations_(creations) {}
    TreflectMissedOrbs(const TreflectMissedOrbs &) = delete;
    TreflectMissedOrbs &operator=(const TreflectMissedOrbs &) = delete;

    /** A subscription begins that reaches these. */
    void start(const std::list<Transport::TerminationId> &members);
    /** A broker has come up; it was missed unless it is expected. */
    void add(const TreflectOrbId &orb);
    bool empty() const;
    /** Subscribes at the missed ones, by way of the broker of namespace 1, and tells the observer of what they have. */
    void notify(unsigned cc, TreflectObserver &observer, bool plusExisting) const;

private:
    mutable OSWrap::Mutex lock_;
    std::vector<TreflectOrbId> missed_ RB_GUARDED_BY(lock_);
    std::set<TreflectOrbId> expected_ RB_GUARDED_BY(lock_);
    const bool creations_; // else deletions
};
