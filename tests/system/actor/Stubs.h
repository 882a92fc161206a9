#pragma once

#include <sstream>

/*
 * Handles, which have names of their own here; CONNECTED is 1 or 0:
 *   stub none H | name H NAME | copy H OTHER    of nothing, by identifier, a copy -> "stub CONNECTED"
 *   stub child H OTHER NAME | parent H OTHER    what that object answers          -> "stub CONNECTED"
 *   stub connect H NAME | own H PUPPET          becomes one of another object     -> "stub CONNECTED"
 *   stub revive H NAME | reviveown H PUPPET     the same with the stub            -> "stub CONNECTED"
 *   stub drop H                                 -> "stub dropped"
 *   stub state H                                of its stub                       -> "stub CONNECTED VALID COUNT"
 *   stub same H OTHER                           share a stub, are equal           -> "stub SHARED EQUAL"
 *   stub many H COUNT                           makes so many of its object in all ways
 *                                               -> "stub SHARING of ALL references COUNT"
 *   stub abs H | rel H | up H | down H NAME | children H | class H
 *                                               -> "stub NAME ...", with "-" for nothing
 *   stub register H NAME OTHER | unregister H NAME                                -> "stub ok"
 *   stub observe H WHEN OPERATION OBSERVER      WHEN 0 or 1; "-" is null, the operation "loose" has no class
 *                                               -> "stub ok"
 *   stub unobserve H OPERATION OBSERVER         -> "stub ok"
 *   stub container H                            its exception: TYPE, or 1/CODE    -> "stub CONTAINER"
 *   stub raise H TYPE                           sets that                         -> "stub ok"
 *   stub call H CLASS METHOD RESULT [ARGUMENT...]
 *                                               RESULT: nothing, text, object, objects, numbers, container;
 *                                               ARGUMENT: t:TEXT, u:NUMBER, h:HANDLE; before the call is prepared
 *                                               there are four bytes in the request
 *                                               -> "stub head BYTES sent 0|1 exception CONTAINER value RESULT left
 *                                                  BYTES", or "... empty"
 *   stub send H CLASS METHOD                    one-way, without arguments        -> "stub sent 0|1"
 *   stub know CODE NAME                         a class, in this actor            -> "stub ok"
 */
void onStub(std::istringstream &arguments);
