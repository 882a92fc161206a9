#pragma once

#include <sstream>

/*
 * Events of the objects of this unit, see Objects.h, and of its brokers:
 *   events watch | watchall   from now on; of those that exist, too        -> "events ok"
 *   events unwatch                                                         -> "events ok"
 *   events brokers            from now on                                  -> "events ok"
 *   events brokersall         appearances; of those that are there, too    -> "events ok"
 *   events members            brokers of the group                         -> "events N"
 *   events subscribers        other brokers that watch creations, deletions -> "events N N"
 * Then come the lines "created NAME", "deleted NAME", "broker ID appears", "broker ID disappears".
 */
void onEvents(std::istringstream &arguments);
