#pragma once

#include <string>

/** What the library holds for this process: requests that wait, stubs, messages not yet taken, idle workers, threads
 *  in the handler state. Then threads and open descriptors of the process. Of the broker of namespace 1. */
std::string describeCounts();
