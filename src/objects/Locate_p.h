#pragma once

#include "orb/REFLECT_orb.h"

/** Asks the broker of a namespace where the object is, as TreflectORB::locateObject(). */
TreflectORB::TreflectObjectLocation locate(NamespaceId broker, const TipprmiOID &name);

/** The same location, but without the object if that is of this process and has gone since it was found. With the run
 *  permission, which keeps it true. */
TreflectORB::TreflectObjectLocation confirmed(const TreflectORB::TreflectObjectLocation &location);
