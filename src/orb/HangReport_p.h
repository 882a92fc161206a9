#pragma once

#include "platform/TerminationId.h"

class TreflectMessage;
class TreflectORB;

/** What happens while a request stays without answer. */
namespace HangReport {

/**
 * After the given number of steps of 30 s: always a line and the description of the request; at 210 s a diagnostic
 * script; in the last five minutes and at the end of the broker's wait duration, TreflectORB::waitingTooLongFor().
 * Without locks, and with cancellation disabled.
 */
void afterStep(unsigned step, Transport::TerminationId target, const TreflectMessage &request, bool twoWay,
               const TreflectORB &orb);

} // namespace HangReport
