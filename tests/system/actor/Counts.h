#pragma once

#include "platform/TerminationId.h"

#include <string>
#include <vector>

/** What the library holds for this process: requests that wait, stubs, messages not yet taken, idle workers, threads
 *  in the handler state. Then threads and open descriptors of the process. Of the broker of namespace 1. */
std::string describeCounts();

// Of that broker, with the run permission:

/** To all others, one-way messages among them. */
unsigned sentRequests();
/** That another broker has told of with its answer to the first subscription. */
std::vector<unsigned> learnedClasses(Transport::TerminationId broker);
