#pragma once

#include <memory>
#include <sstream>
#include <string>

/*
 * Threads that make calls while the main thread goes on:
 *   begin METHOD NAME COUNT [THREADS]  as "call"; or "kept": `addone` with the handle of "keep"
 *                                                                                     -> "begun"
 *   join                               waits for all of them                         -> "called GOOD of ALL"
 *   cancel                             cancels one of them and waits for its end     -> "cancelled RETURNED"
 *   cancelbare NAME                    the same with a thread of the system, which first calls `hold`
 *                                                                                     -> "cancelled RETURNED"
 *   storm NAME ROUNDS                  cancels callers of `addone` after a few calls  -> "stormed ROUNDS GOOD"
 *   keep NAME                          makes a handle                                 -> "kept CONNECTED"
 *   kept                               calls `addone` with it                         -> "called GOOD of 1"
 * RETURNED tells whether the thread reached the end of its function: 0 if it was cancelled before.
 */
void onBegin(std::istringstream &arguments);
void onJoin(std::istringstream &arguments);
void onCancel(std::istringstream &arguments);
void onCancelBare(std::istringstream &arguments);
void onStorm(std::istringstream &arguments);
void onKeep(std::istringstream &arguments);
void onKept(std::istringstream &arguments);
void onCall(std::istringstream &arguments);
