#pragma once

#include <sstream>

class TreflectMetaObject;

/*
 * Reflective objects, which have the operation "double", and observers:
 *   object make NAME [PARENT]     a child of the named object, wherever that is  -> "object made"
 *   object drop NAME                                                            -> "object dropped"
 *   object create NAME            a root, with its event                         -> "object created"
 *   object delete NAME            the same                                       -> "object deleted"
 *   object churn PREFIX COUNT     makes and deletes PREFIX0 and so on, in a thread -> "object churning"
 *                                 for each, when all that watch know of its end: "churned NUMBER"
 *   object abs NAME               its absolute name                              -> "object NAME"
 *   object parent NAME            that of its parent                             -> "object NAME"
 *   object children NAME          their absolute names                           -> "object NAME NAME ..."
 *   object double NAME NUMBER                                                    -> "object RESULT"
 *   object calls NAME             how often it was doubled, here                 -> "object COUNT"
 *   object observe NAME WHEN      this actor's observer, of "double"             -> "object 1" or "object 0"
 *   object forget NAME            the observer again                             -> "object forgotten"
 *   object observed NAME          whether an object here has observers           -> "object BEFORE AFTER"
 *   object verdict 0|1            what the observer says from now on             -> "object ok"
 *   object parameters             of what it was told last, each in brackets     -> "object [BYTES][BYTES]..."
 *   object blind                  the observer is destroyed, and not removed; the next that is needed is another
 *                                                                               -> "object ok"
 * An observer that is told makes a line "told NAME", with the absolute name of what it observes; "mixed up", if that is
 * another object when it has reacted.
 */
void onObject(std::istringstream &arguments);
/** Their class. */
TreflectMetaObject &doublers();
