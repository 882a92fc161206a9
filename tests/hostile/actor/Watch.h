#pragma once

#include <sstream>

/*
 * Objects of class 0x0B5E47ED that come and go, and who is told of them; one command a line:
 *   watch | unwatch        creations, also of objects that exist, and deletions    -> "watch ok"
 *   watched                how many creations and deletions were told, and of the last one the length of the
 *                          object's name and its number                 -> "watched CREATED DELETED LENGTH NUMBER"
 *   make COUNT [LENGTH]    objects, with their events and names so long -> "made COUNT"
 *   making                 one more, in a thread of its own             -> "making"
 *   made                   how many there are; one counts when all that subscribed have been told -> "made COUNT"
 *   remove                 all objects, with their events               -> "removed"
 *   subscribers CLASS      brokers that are told of creations, of deletions of the class -> "subscribers N N"
 */
void onWatch(std::istringstream &arguments);
void onUnwatch(std::istringstream &arguments);
void onWatched(std::istringstream &arguments);
void onMake(std::istringstream &arguments);
void onMaking(std::istringstream &arguments);
void onMade(std::istringstream &arguments);
void onRemove(std::istringstream &arguments);
void onSubscribers(std::istringstream &arguments);
