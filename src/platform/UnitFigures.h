#pragma once

#include "platform/Export.h"

/** Resident size of this process in KiB; -1 if unknown. */
REFLECTORB_API long oscwGetActorSize();
/** Memory that the unit has available, in KiB; -1 if unknown. */
REFLECTORB_API long oscwGetUnitFreeMem();
