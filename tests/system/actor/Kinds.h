#pragma once

#include <sstream>

/*
 * Classes that an actor has from the command on, and observers of their objects; CODE is hexadecimal:
 *   kind add CODE                  the actor has the class                            -> "kind added"
 *   kind create CODE NAME          an object, with its event                          -> "kind created"
 *   kind delete NAME               the same                                           -> "kind deleted"
 *   kind watch CODE KIND OBSERVER  from now on; KIND is creations, existing (creations, and what is there) or
 *                                   deletions                                          -> "kind ok", "kind failed"
 *   kind unwatch OBSERVER          is removed and destroyed                           -> "kind ok"
 *   kind lose OBSERVER             is destroyed without that                          -> "kind ok"
 *   kind subscribers CODE          other brokers that watch creations, deletions      -> "kind N N"
 * An observer that is told makes a line "sees OBSERVER NAME", and reacts; see Reaction.h.
 */
void onKind(std::istringstream &arguments);
