#pragma once

#include <sstream>

/*
 * Threads that call objects of other actors and check every answer:
 *   torment INCARNATION NAME THREADS OTHER...  serves NAME and calls the OTHERs   -> "tormented"
 *   progress                                   answers that were right             -> "progress N"
 *   rest                                       ends the threads                    -> "rested GOOD FAILED"
 * A wrong answer makes a line "wrong ..." at once. Incarnations are told apart by their number, which is not 0.
 */
void onTorment(std::istringstream &arguments);
void onProgress(std::istringstream &arguments);
void onRest(std::istringstream &arguments);
