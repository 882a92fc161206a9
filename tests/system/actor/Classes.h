#pragma once

#include <sstream>

/*
 * A class that each actor describes in its own way, or does not know: Gauge, which is a Device.
 *   class define KIND            device, gauge, cut, nooperations, noattributes, bare or scale, see Classes.cpp
 *                                                                     -> "class ok"
 *   class undefine KIND                                               -> "class ok"
 *   class completions KIND       how often it was asked to be complete -> "class COUNT"
 *   class replace KIND ATTRIBUTE GETTER  by a new one                  -> "class ok"
 *   class ids                    of all classes known here            -> "class ID ID ..."
 *   class learned ID             that a broker has told of            -> "class ID ID ..."
 *   class make NAME              a gauge                              -> "class ok"
 *   class asked NAME             its last call, here                  -> "class CLASS METHOD"
 *   class of NAME                "-" if it is not known               -> "class CLASS"
 *   class attributes|operations NAME  added to a list that holds one  -> "class - CLASS.MEMBER CLASS.MEMBER ..."
 *   class read NAME ATTRIBUTE                                         -> "class CODE VALUE"
 *   class set NAME ATTRIBUTE     calls its setter, without value -> "class CODE", then "there" or "none", then requests
 *   class call NAME OPERATION                                         -> "class CODE"
 *   class has NAME OPERATION     asked without a line in the log      -> "class 1" or "class 0"
 *   class keep NAME ATTRIBUTE | class kept    a handle, and what it reads -> "class ok" | "class CODE VALUE"
 *   class watch | unwatch        creations of gauges                  -> "class RESULT sent REQUESTS"
 *   class watchnobody            creations, with and without those that exist, deletions, and the end of all
 *                                                                     -> "class RESULT RESULT RESULT 0 sent REQUESTS"
 *   class errors NAME            what handles of members that it does not have answer -> "class ... sent REQUESTS"
 */
void onClass(std::istringstream &arguments);
