#pragma once

#include <sstream>

/*
 * Objects of a class as a compiler of interfaces would make it, see support/ReflectiveClasses.h:
 *   port make NAME                    with serial "S-NAME" and 3 faults          -> "port made"
 *   port busy NAME SECONDS REASON     setRate raises that, with 0 it does not    -> "port ok"
 *   port broken NAME KIND             setRate raises an exception that is not whole: empty, short, wild, or none of
 *                                     that                                       -> "port ok"
 *   port join NAME MEMBER...          its members from now on, and its lanes     -> "port ok"
 *   port rate NAME BPS MODE           -> "port RESULT MODE EFFECTIVE", "... failed" or "... busy REASON SECONDS"
 *   port label|speed NAME [VALUE]     sets it, if a value is given, and reads it -> "port VALUE"
 *   port faults|serial NAME           -> "port VALUE"
 *   port members|lanes NAME           identifiers, "-" for none                  -> "port NAME NAME ..."
 *   port blink NAME                   one-way                                    -> "port ok"
 *   port blinks NAME                  how often, here                            -> "port COUNT"
 *   port number|text NAME ATTRIBUTE   read by name                               -> "port CODE VALUE"
 *   port element NAME ATTRIBUTE INDEX identifier of an element, read by name into a handle of the port itself
 *                                                                                -> "port CODE NAME"
 *   port plain NAME ATTRIBUTE INDEX   the same by a handle that the object gives out  -> "port CODE NAME"
 *   port carry NAME OTHER             its carrier from now on                     -> "port ok"
 *   port via NAME ATTRIBUTE...        text at the end of the way from object to object, read by name
 *                                                                                -> "port CODE VALUE"
 *   port do NAME ATTRIBUTE... OPERATION   calls what is there, by name           -> "port CODE"
 *   port resets NAME                  how often, here                            -> "port COUNT"
 *   port reads NAME                   how often carrier and members were read, here -> "port COUNT COUNT"
 *   port class NAME                   "-" if it is not known                     -> "port CLASS"
 *   port threads NAME THREADS ROUNDS  each reads, sets and calls by handles of its own -> "port GOOD of ALL"
 *   port set NAME ATTRIBUTE           calls its setter by name, without value    -> "port CODE"
 */
void onPort(std::istringstream &arguments);
