#pragma once

#include "orb/REFLECT_orb.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"

#include <atomic>
#include <string>

namespace Testing {

/** A thread that makes one two-way request, and what came of it. */
struct Call {
    Call(TreflectORB &orb, Transport::TerminationId target, bool twoWay = true)
        : thread([this, &orb, target, twoWay] {
              TipprmiStream request(orb.allocateRequest(100), true);
              request << 1U << twoWay << 2U << 3U;
              request.msg().type(TreflectMessage::tPayld);
              result = orb.forwardMsg_(target, twoWay, request.msg(), response) ? 1 : 0;
              done = true;
          }) {}
    /** When the call has ended. */
    std::string answer() {
        thread.join();
        return hex(response);
    }

    TipprmiStream response{100};
    int result = -1;
    std::atomic<bool> done{false};
    TestThread thread;
};

} // namespace Testing
