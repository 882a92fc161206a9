#pragma once

#include "orb/MessageRing_p.h"
#include "orb/REFLECT_orb.h"
#include "platform/ConditionVar.h"
#include "threads/HandlerThreadsType_p.h"

/** What came in for the workers; lock it for everything. */
class TreflectORB::MessageQueue : public OSWrap::ConditionVar {
public:
    MessageQueue() : ConditionVar(false) {}

    /**
     * Whether other threads than those that return want the run permission. It is first come, first served: then each
     * worker that waits for it has its turn. Otherwise nobody could work before one that returns is back, or gives the
     * permission up.
     */
    static bool isContended() { return HandlerState::hasOtherRunPermissionClaims(); }

    MessageRing messages RB_GUARDED_BY(this);
    unsigned idle RB_GUARDED_BY(this) = 0;      // workers that wait, and those that were just started for a message
    unsigned returning RB_GUARDED_BY(this) = 0; // with a message, and have not given up the run permission since
    unsigned workers RB_GUARDED_BY(this) = 0;   // threads
    bool closed RB_GUARDED_BY(this) = false;    // at the end of the broker: no more workers, no more messages
};
