#pragma once

#include <sstream>

/*
 * Handles of objects, see support/ReflectiveClasses.h for those that are read:
 *   handle pool NAME         makes and drops handles of it on the heap: how many of 257 lie behind each other in each
 *                            block, and whether later ones of all types lie where those lay
 *                                                                     -> "handle COUNT COUNT same same same"
 *   handle assign NAME NAME  numbers of handles of the two objects, beyond the first, after each step of onAssign()
 *                                                                     -> "handle N/N N/N ... sent REQUESTS"
 *   handle lost NAME         requests of a copy, then of assignments, of a handle that finds nothing
 *                                                                     -> "handle COPY ASSIGNMENTS"
 *   handle shares NAME       whether the carrier that it tells of shares its stub with that found by name
 *                                                                     -> "handle 1" or "handle 0"
 *   handle climb NAME        names from there to the root, all by one handle
 *                                                                     -> "handle NAME NAME ..."
 *   handle keep NAME         two handles that stay                    -> "handle COUNT", of those of the object
 *   handle mix               assigns them to each other and themselves -> "handle COUNT"
 *   handle drop              to none                                  -> "handle ok"
 *   handle hold NAME         handles and members that the end of the process finds, and then "gone late ..." and
 *                            "gone early ...", see Held               -> "handle CODE"
 *   handle readers NAME COUNT   threads that read members as long as they can: "handle ok", then COUNT times
 *                            "reading"
 */
void onHandle(std::istringstream &arguments);
