#pragma once

#include <sstream>

/*
 * What observers of this actor do when they are told, beside saying so:
 *   react nothing | throw | hold | exit | leave   from now on                  -> "reacts"
 *   react go                                 who holds goes on, and reacts no more -> "reacts"
 * One that holds says "holding"; one that leaves observes its class no more.
 */
void onReact(std::istringstream &arguments);

/** From detected(); with the run permission or without it. */
void react();
/** Whether the observer shall remove itself then. */
bool leaves();
