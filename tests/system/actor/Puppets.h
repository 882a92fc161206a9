#pragma once

#include <sstream>
#include <string>

class TipprmiObjectSkeleton;

/*
 * Reflective objects that do what a test wants:
 *   puppet make NAME [PARENT]      a child of the named object, wherever that is  -> "puppet NUMBER"
 *   puppet unnamed NAME [PARENT]   the same without identifier                    -> "puppet NUMBER"
 *   puppet drop NAME                                                              -> "puppet dropped"
 *   puppet classes NAME CODE...    its class codes from now on                    -> "puppet ok"
 *   puppet hold NAME               from now on calls say "asked CLASS METHOD" and wait -> "puppet ok"
 *   puppet release NAME            no more                                        -> "puppet ok"
 *   puppet raise NAME TYPE         the exception that it answers with             -> "puppet ok"
 *   puppet calls NAME              how many came from other actors or by handles  -> "puppet COUNT"
 *   puppet observed NAME CLASS METHOD                                             -> "puppet BEFORE AFTER"
 *   puppet begin|end NAME          its event, of whatever class it has            -> "puppet ok"
 *   puppet broker NAME NAMESPACE   connects it with that broker                   -> "puppet kept" or "puppet other",
 *                                  its client, and the broker of that
 *   puppet types PARENT            makes an object of each kind below it: whether their clients are of just the right
 *                                  type                                           -> "puppet 1 1 1 1"
 */
void onPuppet(std::istringstream &arguments);

/** Null if there is none. */
TipprmiObjectSkeleton *puppetNamed(const std::string &name);
