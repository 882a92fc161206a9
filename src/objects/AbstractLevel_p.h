#pragma once

#include "rmi/IPPRMI_sequence.h"

class TreflectServerObject;

/** While an object is built or torn down its class's own part is not there: what that answers must not be asked for. */
bool isAbstractLevel(const TreflectServerObject &object) noexcept;
/** Its class and the ancestors of that; none while it is built or torn down. */
TipprmiSequence<unsigned> classIdsOf(const TreflectServerObject &object);
