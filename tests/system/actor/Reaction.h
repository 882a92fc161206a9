#pragma once

#include <sstream>

/*
 * What observers of this actor do when they are told, beside saying so:
 *   react nothing | throw | hold | exit | leave | delete   from now on         -> "reacts"
 *   react go                                 who holds goes on, and reacts no more -> "reacts"
 * One that holds says "holding". One that leaves observes its class, or the object, no more. One that deletes, deletes
 * the object that it is told of, if that is of this actor and of a class of Kinds.h.
 */
void onReact(std::istringstream &arguments);

/** From detected(); with the run permission or without it. */
void react();
/** Whether the observer shall remove itself then. */
bool leaves();
/** Whether it shall delete what it was told of. */
bool deletes();
