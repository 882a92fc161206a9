#pragma once

#include <sstream>

/*
 * Objects whose name is not their identifier. In names "~" stands for a zero byte, "_" for a space.
 *   name make ID NAME [PARENT]    PARENT, an identifier                  -> "name ok"
 *   name drop ID                                                         -> "name ok"
 *   name rel ID | name abs ID                                            -> "name NAME"
 *   name children ID              their identifiers                      -> "name ID ID ..."
 *   name child ID NAME            its identifier                         -> "name ID", "name -" for none
 *   name adopt ID NAME CHILD      CHILD, an identifier, as child of ID under the name -> "name ok"
 *   name abandon ID NAME                                                 -> "name ok"
 */
void onName(std::istringstream &arguments);
