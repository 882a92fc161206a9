#pragma once

#include "Result.h"

namespace Bench {

Result transport100();
Result transport1k();
Result transport64k();
Result transport1m();
Result transportOneWay();
Result stream();
Result permission();
Result permissionLocked();
Result permission8();
Result idle();

} // namespace Bench
