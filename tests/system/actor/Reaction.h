#pragma once

#include <sstream>

class TreflectObserver;

/*
 * What observers of this actor do when they are told, beside saying so:
 *   react nothing | throw | hold | exit      from now on                       -> "reacts"
 *   react go                                 who holds goes on, and reacts no more -> "reacts"
 * One that holds says "holding".
 */
void onReact(std::istringstream &arguments);

/** From detected(); with the run permission or without it. */
void react();
